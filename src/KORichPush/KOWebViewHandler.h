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

  /// Presents the page on the main queue, on the top screen. For the platform's browser, a value
  /// that is no web address is logged and shows nothing; the SDK's own screen shows an empty page
  /// for a text that is no URL, and says so.
  static void openWebViewWithUrl(const KOValue& url, BrowserDelegate delegate);

  /// Whether the text parses as an absolute URL: a scheme, then no blank or control character.
  static bool isURL(const std::string& text);
};
