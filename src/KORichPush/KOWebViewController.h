// The SDK's own landing-page screen, for systems whose platform browser cannot be presented by an
// app: a web view under a "Done" button, and an activity indicator over the whole screen while the
// page loads. Described, not drawn (KOViewDescription.h); the platform reports the page's loading.
//
// Layout, in the screen's points (w x h the screen's size):
// - the root fills the screen, white;
// - the web view at (0, 64) of size w x (h - 64), white and not opaque: the 64 points at the top
//   leave room for the button;
// - "Done" at (10, 20), 60 x 40, dark-grey title on a clear background;
// - the indicator as large as the screen, clear, grey, spinning while a page loads.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kovantis/KOViewDescription.h"

class KOWebViewController : public std::enable_shared_from_this<KOWebViewController> {
 public:
  static constexpr std::int64_t kDoneButtonTag = 1;
  static constexpr std::int64_t kWebViewTag = 2;
  static constexpr std::int64_t kIndicatorTag = 3;

  /// The page to load; without one the screen shows an empty web view and says so in the log.
  std::optional<std::string> myUrl;

  /// Lays the screen out (the view did load): the web view gets the URL, or the log hears there
  /// is none.
  KOViewDescription viewDidLoad();
  /// Shows the screen over everything. The shown screen keeps this controller alive until it is
  /// dismissed.
  void present();
  /// What the user or the page did: Done dismisses, load events drive the indicator and the log.
  void handleEvent(std::int64_t tag, KOViewEvent event);

  bool indicatorAnimating() const { return animating_; }
  bool isPresented() const { return screen_ != nullptr; }

 private:
  void setAnimating(bool animating);
  void dismiss();

  KOViewDescription view_;
  std::shared_ptr<KOPresentedScreen> screen_;
  bool animating_ = false;
};
