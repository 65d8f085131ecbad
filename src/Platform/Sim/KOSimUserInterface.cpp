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

KOSimUserInterface::KOSimUserInterface(KODispatch& dispatch) : dispatch_(dispatch) {}

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
  std::function<void()> scripted;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    KOSimAlert alert{title, message, {}, presenter ? presenter->name : std::string()};
    for (const auto& a : actions) alert.actionTitles.push_back(a.title);
    alerts_.push_back(std::move(alert));
    if (answer_ && *answer_ < actions.size()) scripted = actions[*answer_].handler;
    alertActions_.push_back(std::move(actions));
  }
  if (scripted) dispatch_.asyncMain(std::move(scripted));
}

bool KOSimUserInterface::tapAlertAction(std::size_t alertIndex, std::size_t actionIndex) {
  std::function<void()> handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (alertIndex >= alertActions_.size() || actionIndex >= alertActions_[alertIndex].size()) return false;
    handler = alertActions_[alertIndex][actionIndex].handler;
  }
  if (handler) handler();
  return true;
}

void KOSimUserInterface::setAlertAnswer(std::optional<std::size_t> actionIndex) {
  std::lock_guard<std::mutex> lock(mutex_);
  answer_ = actionIndex;
}

std::vector<KOSimAlert> KOSimUserInterface::alerts() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return alerts_;
}

void KOSimUserInterface::presentShareSheet(const KOArray& items, const std::vector<std::string>& excludedActivityTypes,
                                           const KOViewController* presenter, std::optional<KORect> popoverAnchor) {
  std::lock_guard<std::mutex> lock(mutex_);
  shareSheets_.push_back(
      KOSimShareSheet{items, excludedActivityTypes, presenter ? presenter->name : std::string(), popoverAnchor});
}

std::vector<KOSimShareSheet> KOSimUserInterface::shareSheets() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return shareSheets_;
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
