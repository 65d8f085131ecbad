// Presents a push's landing page: the platform's own browser where the system has one an app can
// present (9 and later), the SDK's KOWebViewController before that.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kovantis/KOPlatform.h"
#include "kovantis/KOViewDescription.h"

class KOWebViewHandler {
 public:
  /// Hears that the user is done with the platform's browser; it dismisses the browser.
  using BrowserDelegate = std::function<void(std::shared_ptr<KOPresentedScreen> browser)>;

  /// Presents the page on the main queue, on the top screen. A text that is no URL (or, for the
  /// platform's browser, not a web address) is logged and shows nothing.
  static void openWebViewWithUrl(const std::string& url, BrowserDelegate delegate);

  /// Whether the text parses as an absolute URL: a scheme, then no blank or control character.
  static bool isURL(const std::string& text);
};
