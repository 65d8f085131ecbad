#include "KOSimUserInterface.h"

#include <algorithm>
#include <cmath>

#include "KOSimRenderer.h"
#include "KOSimTextLayout.h"
#include "kovantis/KOViewDescription.h"

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
  return KOSize{
      static_cast<double>(KOSimTextLayout::characterCount(text)) * KOSimTextLayout::characterWidth(font.pointSize),
      KOSimTextLayout::lineHeight(font.pointSize)};
}

double KOSimUserInterface::heightOfText(const std::string& text, double width, const KOFont& font) const {
  if (text.empty()) return 0;
  return static_cast<double>(KOSimTextLayout::wrap(text, width, font.pointSize).size()) *
         KOSimTextLayout::lineHeight(font.pointSize);
}

// ------------------------------------------------------------------------ screens the SDK embeds

namespace {

// The handle the SDK keeps; it reaches the interface only while the device lives.
class SimPresentedScreen : public KOPresentedScreen {
 public:
  SimPresentedScreen(std::weak_ptr<KOSimUserInterface> ui, std::int64_t seq) : ui_(std::move(ui)), seq_(seq) {}
  void update(KOViewDescription screen) override {
    if (auto ui = ui_.lock()) ui->updateEmbeddedScreen(seq_, std::move(screen));
  }
  void remove() override {
    if (auto ui = ui_.lock()) ui->removeEmbeddedScreen(seq_);
  }
  std::optional<KOView> viewWithTag(std::int64_t tag) const override {
    auto ui = ui_.lock();
    return ui ? ui->inputView(seq_, tag) : std::nullopt;
  }

 private:
  std::weak_ptr<KOSimUserInterface> ui_;
  std::int64_t seq_;
};

}  // namespace

std::shared_ptr<KOPresentedScreen> KOSimUserInterface::embedScreen(const KOViewController* host,
                                                                   KOViewDescription screen,
                                                                   KOViewEventHandler onEvent) {
  if (!host) return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  const std::int64_t seq =
      screen_->record(KOSimScreen::EmbeddedScreen, {{"host", host->name}, {"view", screen.toValue()}});
  embedded_.push_back(EmbeddedScreen{seq, std::move(screen), std::move(onEvent), false, false, nullptr, "", ""});
  return std::make_shared<SimPresentedScreen>(weak_from_this(), seq);
}

void KOSimUserInterface::updateEmbeddedScreen(std::int64_t seq, KOViewDescription screen) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (EmbeddedScreen& shown : embedded_) {
    if (shown.seq != seq || shown.removed) continue;
    screen_->record(KOSimScreen::ScreenUpdate, {{"of", seq}, {"view", screen.toValue()}});
    shown.view = std::move(screen);
  }
}

void KOSimUserInterface::removeEmbeddedScreen(std::int64_t seq) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (EmbeddedScreen& shown : embedded_) {
    if (shown.seq != seq || shown.removed) continue;
    shown.removed = true;
    shown.onEvent = nullptr;  // lets go of the SDK's screen
    screen_->recordDismissal(seq);
  }
}

std::shared_ptr<KOPresentedScreen> KOSimUserInterface::presentScreen(KOViewDescription screen,
                                                                     KOViewEventHandler onEvent) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::int64_t seq = screen_->record(KOSimScreen::PresentedScreen, {{"view", screen.toValue()}});
  // A web view starts loading its page once it is on screen, as a real one does.
  if (const KOViewDescription* web = findWebView(screen); web && !web->text.empty() && onEvent) {
    dispatch_.asyncMain([onEvent, tag = web->tag] { onEvent(tag, KOViewEvent::LoadStarted); });
  }
  embedded_.push_back(EmbeddedScreen{seq, std::move(screen), std::move(onEvent), false, true, nullptr, "", ""});
  return std::make_shared<SimPresentedScreen>(weak_from_this(), seq);
}

std::shared_ptr<KOPresentedScreen> KOSimUserInterface::presentBrowser(
    const std::string& url, const KOViewController* presenter,
    std::function<void(std::shared_ptr<KOPresentedScreen>)> didFinish) {
  // Pictured as the browser looks: its Done in a bar, the page's address below.
  KOViewDescription browser;
  browser.kind = KOViewKind::Screen;
  browser.frame = KORect{0, 0, 375, 667};
  browser.backgroundColor = KOColor{1, 1, 1, 1};
  KOViewDescription bar;
  bar.kind = KOViewKind::Label;
  bar.frame = KORect{16, 28, 343, 24};
  bar.text = "Done";
  bar.textColor = KOColor{0, 0.48, 1, 1};
  KOViewDescription page;
  page.kind = KOViewKind::WebView;
  page.frame = KORect{0, 64, 375, 603};
  page.text = url;
  browser.children = {std::move(bar), std::move(page)};

  std::lock_guard<std::mutex> lock(mutex_);
  const std::int64_t seq =
      screen_->record(KOSimScreen::Browser, {{"url", url}, {"presenter", presenter ? presenter->name : ""}});
  EmbeddedScreen shown{seq, std::move(browser), nullptr, false, true, nullptr, "", ""};
  shown.browserDone = std::move(didFinish);
  shown.browserURL = url;
  embedded_.push_back(std::move(shown));
  return std::make_shared<SimPresentedScreen>(weak_from_this(), seq);
}

std::string KOSimUserInterface::browserURL() const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = embedded_.rbegin(); it != embedded_.rend(); ++it) {
    if (!it->removed && it->browserDone) return it->browserURL;
  }
  return "";
}

bool KOSimUserInterface::finishBrowser() {
  std::function<void(std::shared_ptr<KOPresentedScreen>)> done;
  std::int64_t seq = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = embedded_.rbegin(); it != embedded_.rend() && !done; ++it) {
      if (!it->removed && it->browserDone) {
        done = it->browserDone;
        seq = it->seq;
      }
    }
  }
  if (!done) return false;
  // The browser only tells its delegate; the delegate dismisses it.
  done(std::make_shared<SimPresentedScreen>(weak_from_this(), seq));
  return true;
}

const KOViewDescription* KOSimUserInterface::findWebView(const KOViewDescription& view) {
  std::vector<const KOViewDescription*> pending{&view};
  while (!pending.empty()) {
    const KOViewDescription* v = pending.back();
    pending.pop_back();
    if (v->kind == KOViewKind::WebView) return v;
    for (const KOViewDescription& child : v->children) pending.push_back(&child);
  }
  return nullptr;
}

bool KOSimUserInterface::reportLoad(KOViewEvent event, const std::string& error) {
  KOViewEventHandler handler;
  std::int64_t tag = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = embedded_.rbegin(); it != embedded_.rend() && !handler; ++it) {
      const KOViewDescription* web = it->removed || !it->onEvent ? nullptr : findWebView(it->view);
      if (!web) continue;
      it->loadError = error;
      handler = it->onEvent;
      tag = web->tag;
    }
  }
  if (!handler) return false;
  handler(tag, event);
  return true;
}

bool KOSimUserInterface::finishLoading() { return reportLoad(KOViewEvent::LoadFinished, ""); }

bool KOSimUserInterface::failLoading(const std::string& error) { return reportLoad(KOViewEvent::LoadFailed, error); }

std::optional<KOViewDescription> KOSimUserInterface::newest(bool presented) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = embedded_.rbegin(); it != embedded_.rend(); ++it) {
    if (!it->removed && it->presented == presented) return it->view;
  }
  return std::nullopt;
}

std::optional<KOViewDescription> KOSimUserInterface::embeddedScreen() const { return newest(false); }

std::optional<KOViewDescription> KOSimUserInterface::presentedScreen() const { return newest(true); }

std::string KOSimUserInterface::renderPresentedScreen() const {
  std::optional<KOViewDescription> screen = presentedScreen();
  return screen ? KOSimRenderer::svg(*screen) : std::string();
}

KOSimUserInterface::EmbeddedScreen* KOSimUserInterface::topmostLocked() {
  // A presented screen covers every embedded one.
  auto it = std::find_if(embedded_.rbegin(), embedded_.rend(),
                         [](const EmbeddedScreen& s) { return !s.removed && s.presented; });
  if (it == embedded_.rend()) {
    it = std::find_if(embedded_.rbegin(), embedded_.rend(), [](const EmbeddedScreen& s) { return !s.removed; });
  }
  return it == embedded_.rend() ? nullptr : &*it;
}

bool KOSimUserInterface::sendEvent(std::int64_t tag, KOViewEvent event) {
  KOViewEventHandler handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    EmbeddedScreen* top = topmostLocked();
    if (!top) return false;
    const KOViewDescription* view = top->view.findTag(tag);
    if (!view || (event == KOViewEvent::SwipeDelete && !view->deletable)) return false;
    handler = top->onEvent;
  }
  // Outside the lock: the SDK answers by updating the screen.
  if (handler) handler(tag, event);
  return true;
}

bool KOSimUserInterface::swipeAway() {
  KOViewEventHandler handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find_if(embedded_.rbegin(), embedded_.rend(),
                           [](const EmbeddedScreen& s) { return !s.removed && s.presented; });
    if (it == embedded_.rend()) return false;
    handler = it->onEvent;
  }
  if (handler) handler(0, KOViewEvent::SwipeAway);
  return true;
}

bool KOSimUserInterface::setRating(std::int64_t tag, double stars) {
  std::lock_guard<std::mutex> lock(mutex_);
  EmbeddedScreen* top = topmostLocked();
  KOViewDescription* view = top ? top->view.findTag(tag) : nullptr;
  if (!view || view->kind != KOViewKind::Rating) return false;
  view->value = std::clamp(stars, 0.0, view->maximum);
  return true;
}

bool KOSimUserInterface::typeText(std::int64_t tag, const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  EmbeddedScreen* top = topmostLocked();
  KOViewDescription* view = top ? top->view.findTag(tag) : nullptr;
  if (!view || view->kind != KOViewKind::TextField) return false;
  view->text = text;
  return true;
}

std::optional<KOView> KOSimUserInterface::inputView(std::int64_t seq, std::int64_t tag) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const EmbeddedScreen& shown : embedded_) {
    if (shown.seq != seq) continue;
    const KOViewDescription* view = shown.view.findTag(tag);
    if (!view) return std::nullopt;
    if (view->kind == KOViewKind::Rating) return KOView{KOWidgetKind::StarRating, view->value, false, ""};
    if (view->kind == KOViewKind::TextField) return KOView{KOWidgetKind::TextField, 0, false, view->text};
    if (view->kind == KOViewKind::WebView) return KOView{KOWidgetKind::Other, 0, false, shown.loadError};
    return std::nullopt;
  }
  return std::nullopt;
}

void KOSimUserInterface::setPasteboardString(const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  pasteboard_ = text;
}

std::string KOSimUserInterface::pasteboardString() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return pasteboard_;
}

bool KOSimUserInterface::tapView(std::int64_t tag) { return sendEvent(tag, KOViewEvent::Tap); }

bool KOSimUserInterface::swipeToDelete(std::int64_t tag) { return sendEvent(tag, KOViewEvent::SwipeDelete); }

std::string KOSimUserInterface::renderEmbeddedScreen() const {
  std::optional<KOViewDescription> screen = embeddedScreen();
  return screen ? KOSimRenderer::svg(*screen) : std::string();
}
