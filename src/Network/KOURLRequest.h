// A ready HTTP request: what the request generator makes and the HTTP client sends.
#pragma once

#include <string>
#include <utility>
#include <vector>

struct KOURLRequest {
  std::string url;
  std::string method;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  bool hasBody = false;
  double timeoutSeconds = 60;
  bool verifyCertificates = true;

  /// The value of a header (names compare without case), or "" when absent.
  std::string header(const std::string& name) const;
};
