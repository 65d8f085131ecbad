#include "KOSimUserInterface.h"

#include <algorithm>
#include <cmath>

namespace {

// Characters, not bytes: UTF-8 continuation bytes do not count.
std::size_t characterCount(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

double pointSize(const KOFont& font) { return font.pointSize > 0 ? font.pointSize : 17; }

}  // namespace

KOSimUserInterface::KOSimUserInterface(KODispatch& dispatch, std::shared_ptr<KOSimScreen> screen)
    : dispatch_(dispatch), screen_(std::move(screen)) {}

bool KOSimUserInterface::supportsAlertController() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return supportsAlertController_;
}

void KOSimUserInterface::setSupportsAlertController(bool supported) {
  std::lock_guard<std::mutex> lock(mutex_);
  supportsAlertController_ = supported;
}

void KOSimUserInterface::presentAlert(const std::string& title, const std::string& message,
                                      std::vector<KOAlertAction> actions, const KOViewController* presenter) {
  std::lock_guard<std::mutex> lock(mutex_);
  KOArray buttons;
  for (const auto& a : actions) buttons.push_back(a.title);
  // Recorded under this lock, so that the n-th alert on the record is shownAlerts_[n].
  const std::int64_t seq = screen_->record(KOSimScreen::Alert, {{"title", title},
                                                                {"message", message},
                                                                {"buttons", std::move(buttons)},
                                                                {"presenter", presenter ? presenter->name : ""}});
  const std::size_t alertIndex = shownAlerts_.size();
  const bool scripted = answer_ && *answer_ < actions.size();
  shownAlerts_.push_back(ShownAlert{seq, std::move(actions), false});
  // A person answers after the alert is up, never inside the call that shows it. The queue drops
  // this when the device shuts down, before the interface goes away.
  if (scripted) dispatch_.asyncMain([this, alertIndex, action = *answer_] { tapAlertAction(alertIndex, action); });
}

bool KOSimUserInterface::tapAlertAction(std::size_t alertIndex, std::size_t actionIndex) {
  std::function<void()> handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (alertIndex >= shownAlerts_.size()) return false;
    ShownAlert& alert = shownAlerts_[alertIndex];
    if (alert.answered || actionIndex >= alert.actions.size()) return false;
    alert.answered = true;
    const KOAlertAction& action = alert.actions[actionIndex];
    screen_->recordDismissal(alert.seq, {{"button", action.title}, {"buttonIndex", actionIndex}});
    handler = action.handler;
  }
  // Outside the lock: the handler may well show the next alert.
  if (handler) handler();
  return true;
}

void KOSimUserInterface::setAlertAnswer(std::optional<std::size_t> actionIndex) {
  std::lock_guard<std::mutex> lock(mutex_);
  answer_ = actionIndex;
}

std::vector<KOSimAlert> KOSimUserInterface::alerts() const {
  std::vector<KOSimAlert> alerts;
  for (const auto& e : screen_->entries(KOSimScreen::Alert)) {
    KOSimAlert alert{e["title"].stringValue(), e["message"].stringValue(), {}, e["presenter"].stringValue()};
    for (const auto& b : e["buttons"].arrayValue()) alert.actionTitles.push_back(b.stringValue());
    alerts.push_back(std::move(alert));
  }
  return alerts;
}

void KOSimUserInterface::presentShareSheet(const KOArray& items, const std::vector<std::string>& excludedActivityTypes,
                                           const KOViewController* presenter, std::optional<KORect> popoverAnchor) {
  KOArray excluded;
  for (const auto& type : excludedActivityTypes) excluded.push_back(type);
  KODictionary fields{
      {"items", items}, {"excluded", std::move(excluded)}, {"presenter", presenter ? presenter->name : ""}};
  if (popoverAnchor) {
    fields.set("popover", KODictionary{{"x", popoverAnchor->x},
                                       {"y", popoverAnchor->y},
                                       {"width", popoverAnchor->width},
                                       {"height", popoverAnchor->height}});
  }
  screen_->record(KOSimScreen::ShareSheet, std::move(fields));
}

std::vector<KOSimShareSheet> KOSimUserInterface::shareSheets() const {
  std::vector<KOSimShareSheet> sheets;
  for (const auto& e : screen_->entries(KOSimScreen::ShareSheet)) {
    KOSimShareSheet sheet{e["items"].arrayValue(), {}, e["presenter"].stringValue(), std::nullopt};
    for (const auto& type : e["excluded"].arrayValue()) sheet.excludedActivityTypes.push_back(type.stringValue());
    if (const KOValue* p = e.find("popover")) {
      sheet.popoverAnchor = KORect{(*p)["x"].doubleValue(), (*p)["y"].doubleValue(), (*p)["width"].doubleValue(),
                                   (*p)["height"].doubleValue()};
    }
    sheets.push_back(std::move(sheet));
  }
  return sheets;
}

KOSize KOSimUserInterface::sizeOfText(const std::string& text, const KOFont& font) const {
  const double pt = pointSize(font);
  return KOSize{static_cast<double>(characterCount(text)) * pt * 0.5, pt * 1.2};
}

double KOSimUserInterface::heightOfText(const std::string& text, double width, const KOFont& font) const {
  const double pt = pointSize(font);
  const double charWidth = pt * 0.5;
  const std::size_t chars = characterCount(text);
  if (chars == 0) return 0;
  const double perLine = std::max(1.0, std::floor(width / charWidth));
  const double lines = std::ceil(static_cast<double>(chars) / perLine);
  return lines * pt * 1.2;
}
