// A ready HTTP request: what the request generator makes and the HTTP client sends.
#pragma once

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
  /// A body shared with its owner instead (a stored batch's report): sent without a copy.
  std::shared_ptr<const std::string> sharedBody;
  bool hasBody = false;
  double timeoutSeconds = 60;
  bool verifyCertificates = true;

  std::string_view bodyText() const { return sharedBody ? std::string_view(*sharedBody) : std::string_view(body); }
  /// The value of a header (names compare without case), or "" when absent.
  std::string header(const std::string& name) const;
};
