#include "ADServiceRequestGenerator.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>

#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KOValueHelpers.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KOPlatform.h"

namespace {

const KOServiceEndpoints& endpoints() { return KOPlatform::current().endpoints; }

std::string percentEncode(const std::string& text) {
  std::unique_ptr<char, decltype(&curl_free)> escaped(
      curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size())), &curl_free);
  if (!escaped) throw std::runtime_error("percent-encoding failed");
  return escaped.get();
}

bool redirectData() {
  const KOValue v = KOPlatform::current().preferences->standard().objectForKey(KO_SHOULD_REDIRECT_DATA);
  return v.isNumber() && v.boolValue();
}

}  // namespace

ADServiceRequestGenerator& ADServiceRequestGenerator::sharedInstance() {
  static auto* instance = new ADServiceRequestGenerator();
  return *instance;
}

std::string ADServiceRequestGenerator::schema() const { return endpoints().scheme; }
std::string ADServiceRequestGenerator::host() const { return endpoints().apiHost; }
int ADServiceRequestGenerator::port() const { return endpoints().port; }

std::span<const KOServiceRow> ADServiceRequestGenerator::serviceTable() {
  static constexpr KOServiceRow kTable[] = {
      {KOServiceNumberInitializeV2, kServiceInitializeV2, kPOST, KOServiceHost::Api},
      {KOServiceNumberSendReportsV2, kServiceSendReportsV2, kPOST, KOServiceHost::Api},
      {KOServiceNumberGetInAppsV2, kServiceGetInAppsV2, kPOST, KOServiceHost::Api},
      {KOServiceNumberGetSingleInApp, kServiceGetSingleInApp, kGET, KOServiceHost::Api},
      {KOServiceNumberSmartTriggerInApps, kServiceSmartTriggerInApps, kPOST, KOServiceHost::Api},
      {KOServiceNumberInbox, kServiceInbox, kGET, KOServiceHost::Inbox},
      {KOServiceNumberSendCategories, kServiceSendCategories, kPOST, KOServiceHost::Api},
      {KOServiceNumberGeofenceHit, kServiceGeofenceHit, kGET, KOServiceHost::Api},
      {KOServiceNumberGetGeofences, kServiceGetGeofences, kGET, KOServiceHost::Api},
      {KOServiceNumberGetConfig, kServiceGetConfig, kGET, KOServiceHost::Api},
      {KOServiceNumberSendLogs, kServiceSendLogs, kPOST, KOServiceHost::Logs},
  };
  return kTable;
}

const KOServiceRow* ADServiceRequestGenerator::rowForService(int service) {
  for (const KOServiceRow& row : serviceTable()) {
    if (row.service == service) return &row;
  }
  return nullptr;
}

std::optional<std::string> ADServiceRequestGenerator::hostForService(int service) {
  const KOServiceRow* row = rowForService(service);
  if (!row) return std::nullopt;
  // Redirected data goes to the India-region host, all but the log records.
  if (redirectData() && row->host != KOServiceHost::Logs) return endpoints().indiaApiHost;
  switch (row->host) {
    case KOServiceHost::Inbox:
      return endpoints().inboxHost;
    case KOServiceHost::Logs:
      return endpoints().logHost;
    case KOServiceHost::Api:
      break;
  }
  return host();
}

std::optional<std::string> ADServiceRequestGenerator::getApiPathForService(int service) {
  const KOServiceRow* row = rowForService(service);
  if (!row) return std::nullopt;
  if (row->host != KOServiceHost::Logs) return row->path;
  const KOValue token = KOPlatform::current().preferences->standard().objectForKey(kLogEntriesTokenKey);
  return KOStringFormat::format("%@%@", {KOValue(row->path), token.isNil() ? KOValue("") : token});
}

std::optional<std::string> ADServiceRequestGenerator::getRequestMethodForService(int service) {
  const KOServiceRow* row = rowForService(service);
  if (!row) return std::nullopt;
  return row->method;
}

std::optional<std::string> ADServiceRequestGenerator::createURLForService(int service, const KODictionary& andParams) {
  try {
    const std::optional<std::string> hostName = hostForService(service);
    const std::optional<std::string> path = getApiPathForService(service);
    if (!hostName || !path) throw std::invalid_argument("unknown service " + std::to_string(service));
    std::string url = schema() + "://" + *hostName + ":" + std::to_string(port());
    // The path is ours (constants and the log token); each segment is encoded, the slashes kept.
    std::size_t start = 0;
    while (start <= path->size()) {
      const std::size_t slash = std::min(path->find('/', start), path->size());
      url += percentEncode(path->substr(start, slash - start));
      if (slash < path->size()) url += '/';
      start = slash + 1;
    }
    std::string query;
    for (const auto& [key, value] : andParams) {
      if (value.isAbsent()) continue;  // nil and null are left out
      query += query.empty() ? "?" : "&";
      query += percentEncode(key) + "=" + percentEncode(value.isString() ? value.stringValue() : value.description());
    }
    return url + query;
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Exception in creating URL %@", e);
    return std::nullopt;
  }
}

std::optional<KOURLRequest> ADServiceRequestGenerator::requestForService(int service, const KODictionary& withParams,
                                                                         const KOValue& withBody) {
  KOJSONText text;
  try {
    const std::optional<std::string> method = getRequestMethodForService(service);
    // A GET never carries a body. A missing body stands for "", which is no JSON document: such
    // a request is refused whole.
    if (method && *method != kGET) {
      if (!withBody.isDictionary() && !withBody.isArray()) throw KOTypeError("invalid top-level type in JSON write");
      text.text = KOJSONSerialization::write(withBody);
    }
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception in Request Generator %@", e);
    return std::nullopt;
  }
  return requestForService(service, withParams, text);
}

std::optional<KOURLRequest> ADServiceRequestGenerator::requestForService(int service, const KODictionary& withParams,
                                                                         const KOJSONText& withBody) {
  try {
    const std::optional<std::string> url = createURLForService(service, withParams);
    const std::optional<std::string> method = getRequestMethodForService(service);
    if (!url || !method) throw std::invalid_argument("no URL or method for service " + std::to_string(service));
    KOURLRequest request;
    request.url = *url;
    request.method = *method;
    request.timeoutSeconds = endpoints().timeoutSeconds;
    request.verifyCertificates = endpoints().verifyCertificates;
    if (request.method != kGET) {
      const char first = withBody.text.empty() ? '\0' : withBody.text.front();
      if (first != '{' && first != '[') throw KOTypeError("invalid top-level type in JSON write");
      request.headers.emplace_back("content-type", "application/json");
      request.body = withBody.text;
      request.hasBody = true;
    }
    return request;
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception in Request Generator %@", e);
    return std::nullopt;
  }
}
