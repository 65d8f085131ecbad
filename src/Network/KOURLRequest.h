// A ready HTTP request: what the request generator makes and the HTTP client sends.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct KOURLRequest {
  std::string url;
  std::string method;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  /// A body shared with its owner instead: sent without a copy.
  std::shared_ptr<const std::string> sharedBody;
  /// A body made only when the request is sent (a stored batch's report): a queue of reports holds
  /// no copy of their records. Nothing: the body is gone, and the request fails unsent.
  std::function<std::shared_ptr<const std::string>()> bodySource;
  bool hasBody = false;
  double timeoutSeconds = 60;
  bool verifyCertificates = true;

  std::string_view bodyText() const { return sharedBody ? std::string_view(*sharedBody) : std::string_view(body); }
  /// The value of a header (names compare without case), or "" when absent.
  std::string header(const std::string& name) const;
};
