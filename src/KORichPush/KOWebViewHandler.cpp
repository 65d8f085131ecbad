#include "KOWebViewHandler.h"

#include <cctype>
#include <cstdlib>
#include <optional>
#include <stdexcept>

#include "KORichPush/KOWebViewController.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KovantisUtils.h"

namespace {

constexpr double kFirstSystemWithBrowser = 9.0;

std::string schemeOf(const std::string& url) {
  std::string scheme = url.substr(0, url.find(':'));
  for (char& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return scheme;
}

}  // namespace

bool KOWebViewHandler::isURL(const std::string& text) {
  const auto colon = text.find(':');
  if (colon == std::string::npos || colon == 0 || !std::isalpha(static_cast<unsigned char>(text[0]))) return false;
  for (std::size_t i = 0; i < colon; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (!std::isalnum(c) && c != '+' && c != '-' && c != '.') return false;
  }
  for (const char c : text) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) return false;
  }
  return true;
}

void KOWebViewHandler::openWebViewWithUrl(const KOValue& urlValue, BrowserDelegate delegate) {
  KOLogger::guard(KO_HERE, nullptr, KOLogSeverityError, "Kovantis - WebView Handler exception %@", [&] {
    const std::string& text = urlValue.stringValue();
    const std::optional<std::string> url = isURL(text) ? std::optional<std::string>(text) : std::nullopt;
    const bool ownController = !KovantisUtils::systemVersionAtLeast(kFirstSystemWithBrowser);
    // The platform's browser needs a web address; the SDK's own screen takes whatever it is given.
    if (!ownController && (!url || (schemeOf(*url) != "http" && schemeOf(*url) != "https"))) {
      throw std::invalid_argument("the browser opens only http and https URLs: " + text);
    }
    KOPlatform::current().dispatch->asyncMain([url, ownController, delegate = std::move(delegate)] {
      KOLogger::guard(KO_HERE, nullptr, KOLogSeverityError, "Kovantis - WebView Handler exception %@", [&] {
        if (ownController) {
          auto controller = std::make_shared<KOWebViewController>();
          controller->myUrl = url;
          controller->present();
          return;
        }
        const std::shared_ptr<KOViewController> top = KovantisUtils::getTopViewController();
        KOPlatform::current().userInterface->presentBrowser(*url, top.get(), delegate);
      });
    });
  });
}
