// Turns a service number, query parameters and a body into a ready request: host, path and method
// by service number, the parameters in the query string, the body as compact JSON.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "KOURLRequest.h"
#include "kovantis/KOValue.h"

/// A request body already serialised as a JSON object or array (a batch kept ready to send).
struct KOJSONText {
  std::string text;
};

/// Which of the endpoints' hosts serves a service (before data redirection).
enum class KOServiceHost { Api, Inbox, Logs };

/// One service of the API: its number, path ("/noformat/logs/" is followed by the log token),
/// method and host.
struct KOServiceRow {
  int service;
  const char* path;
  const char* method;
  KOServiceHost host;
};

class ADServiceRequestGenerator {
 public:
  /// Every service the SDK calls, one row each: the one place that knows paths, methods and hosts.
  static std::span<const KOServiceRow> serviceTable();

  static ADServiceRequestGenerator& sharedInstance();

  /// The request, or nothing (logged) when the service is unknown or the body cannot be JSON.
  std::optional<KOURLRequest> requestForService(int service, const KODictionary& withParams, const KOValue& withBody);
  /// The same with a body that is already JSON text.
  std::optional<KOURLRequest> requestForService(int service, const KODictionary& withParams,
                                                const KOJSONText& withBody);
  /// The URL with the parameters as query items in their own order (JSON null left out), or nothing.
  std::optional<std::string> createURLForService(int service, const KODictionary& andParams);

  /// API host by default; the India-region host when data redirection is on (except for logs);
  /// the inbox host for the inbox and the log host for logs otherwise.
  std::optional<std::string> hostForService(int service);
  std::optional<std::string> getApiPathForService(int service);
  std::optional<std::string> getRequestMethodForService(int service);

  std::string schema() const;
  std::string host() const;
  int port() const;

 private:
  ADServiceRequestGenerator() = default;
  static const KOServiceRow* rowForService(int service);
};
