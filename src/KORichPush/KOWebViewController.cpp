#include "KOWebViewController.h"

#include <algorithm>

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"
#include "kovantis/KOPlatform.h"

namespace {

constexpr const char* kLoadException = "Kovantis - Exception while loading KOWebViewController %@";

}  // namespace

KOViewDescription KOWebViewController::viewDidLoad() {
  const KOSize screen = KOPlatform::current().deviceInfo->screenSize();
  const KOColor white{1, 1, 1, 1};

  KOViewDescription root;
  root.kind = KOViewKind::Screen;
  root.frame = KORect{0, 0, screen.width, screen.height};
  root.backgroundColor = white;

  KOViewDescription web;
  web.kind = KOViewKind::WebView;
  web.tag = kWebViewTag;
  web.frame = KORect{0, 64, screen.width, std::max(0.0, screen.height - 64)};
  web.backgroundColor = KOColor{1, 1, 1, 0};  // white, not opaque
  if (myUrl) {
    web.text = *myUrl;
  } else {
    KOLogger::logLocated(KO_HERE, this, KOLogSeverityError, "Kovantis - attempting to start web view without a url");
  }

  KOViewDescription done;
  done.kind = KOViewKind::Button;
  done.tag = kDoneButtonTag;
  done.frame = KORect{10, 20, 60, 40};
  done.text = "Done";
  done.textColor = KOColor{1.0 / 3, 1.0 / 3, 1.0 / 3, 1};
  done.backgroundColor = KOColor{0, 0, 0, 0};
  done.alignment = KOTextAlignment::Center;

  KOViewDescription indicator;
  indicator.kind = KOViewKind::Activity;
  indicator.tag = kIndicatorTag;
  indicator.frame = root.frame;
  indicator.textColor = KOColor{0.5, 0.5, 0.5, 1};

  root.children = {std::move(web), std::move(done), std::move(indicator)};
  view_ = root;
  return root;
}

void KOWebViewController::present() {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, kLoadException, [&] {
    if (screen_) return;
    KOViewDescription view = view_.children.empty() ? viewDidLoad() : view_;
    auto self = shared_from_this();
    screen_ = KOPlatform::current().userInterface->presentScreen(
        std::move(view), [self](std::int64_t tag, KOViewEvent event) { self->handleEvent(tag, event); });
  });
}

void KOWebViewController::handleEvent(std::int64_t tag, KOViewEvent event) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, kLoadException, [&] {
    if (!screen_) return;  // gone from the screen: its web view has no delegate any more
    if (tag == kDoneButtonTag && event == KOViewEvent::Tap) {
      dismiss();
    } else if (tag == kWebViewTag && event == KOViewEvent::LoadStarted) {
      KOLogger::logPlain(
          KOStringFormat::format("Kovantis - webView did start load with url %@", {KOValue(myUrl.value_or(""))}));
      if (!animating_) setAnimating(true);
    } else if (tag == kWebViewTag && event == KOViewEvent::LoadFinished) {
      setAnimating(false);
    } else if (tag == kWebViewTag && event == KOViewEvent::LoadFailed) {
      const std::optional<KOView> web = screen_->viewWithTag(kWebViewTag);
      KOLogger::logLocated(
          KO_HERE, this, KOLogSeverityError,
          KOStringFormat::format("Kovantis - webView, error loading is %@", {KOValue(web ? web->text : "")}));
    }
  });
}

void KOWebViewController::setAnimating(bool animating) {
  animating_ = animating;
  if (KOViewDescription* indicator = view_.findTag(kIndicatorTag)) indicator->value = animating ? 1 : 0;
  if (screen_) screen_->update(view_);
}

void KOWebViewController::dismiss() {
  // Removing the screen drops its event handler and with it the last hold on this controller:
  // keep it alive until this call is over.
  auto self = shared_from_this();
  std::shared_ptr<KOPresentedScreen> screen = std::move(screen_);
  screen_ = nullptr;
  screen->remove();
}
