#include "KOServerInterface.h"

#include <cstdio>
#include <cstdlib>

#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStackTrace.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KOValueHelpers.h"
#include "KOUtilities/KovantisDateUtils.h"
#include "KOUtilities/KovantisUtils.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"

namespace {

constexpr double kConfigInterval = 3600.0;

KOPreferenceStore& prefs() { return KOPlatform::current().preferences->standard(); }

bool nonEmpty(const KOValue& v) { return !v.isAbsent() && !(v.isString() && v.stringValue().empty()); }

constexpr const char* kExceptionLine = "Kovantis - Exception : %@";

KOValue appIdOrFail() {
  const KOValue appId = KovantisUtils::getAppId();
  if (!nonEmpty(appId)) {
    KOLogger::logPlain("Kovantis - App ID is missing in the initialize call");
    return KOValue();
  }
  return appId;
}

// The older service's names for the same facts, which it still reads.
struct LegacyValues {
  KOValue version, appId, uid, token, model, osVersion;
};

void addLegacyNames(KODictionary& p, const LegacyValues& v) {
  setObjectNilHandled(p, KOValue("iOS"), KOValue("os_value"));
  setObjectNilHandled(p, v.version, KOValue("version"));
  setObjectNilHandled(p, v.appId, KOValue("appId"));
  setObjectNilHandled(p, KOValue(LIBRARY_VERSION), KOValue("lib_version"));
  if (!v.uid.isAbsent()) setObjectNilHandled(p, v.uid, KOValue("uid"));
  if (nonEmpty(v.token)) setObjectNilHandled(p, v.token, KOValue("pushToken"));
  setObjectNilHandled(p, v.model, KOValue("device_model"));
  setObjectNilHandled(p, v.osVersion, KOValue("device_version"));
}

// Every call but the reports waits for the user's consent; one refused here fails at once, as a
// call that got no answer, before anything is built for it.
bool held() { return !KOConsentGate::shared().mayCallService(); }

std::string coordinate(double degrees) { return KOStringFormat::format("%f", {KOValue(degrees)}); }

}  // namespace

namespace {

// The logger sits below the network layer and ships through what registers with it. The shipper is
// registered when the library loads, not when the server interface is first created, so a line
// logged before any service call (remote logging on from the last run) is shipped too.
[[maybe_unused]] const bool kShipperRegistered = [] {
  KOLogger::setRemoteShipper([](const std::string& message, const KOValue& traceBack, const std::string& level) {
    KOServerInterface::sharedInstance().sendLogToLogEntries(message, traceBack, level);
  });
  return true;
}();

}  // namespace

KOServerInterface& KOServerInterface::sharedInstance() {
  // Never destroyed: network completions may still arrive while the process exits.
  static auto* instance = new KOServerInterface();
  return *instance;
}

KOServerInterface::KOServerInterface()
    : httpClient_(ADHttpClient::sharedInstance()), requestGenerator_(ADServiceRequestGenerator::sharedInstance()) {
  // Connections kept for reuse are released while the app is away.
  for (const char* name : {KOApplicationDidEnterBackgroundNotification, KOApplicationWillTerminateNotification}) {
    KONotificationCenter::defaultCenter().addObserver(name, [this](const KONotification&) {
      try {
        httpClient_.closeIdleConnections(0);
      } catch (const std::exception& e) {
        KOLogger::logException(KO_HERE, this, "Kovantis - exception in application did enter Background is %@", e);
      }
    });
  }
}

// ------------------------------------------------------------------------------------ parameters

KODictionary KOServerInterface::getUniversalParamsForV1() {
  KODictionary p;
  addLegacyNames(p, {KovantisUtils::versionId(), KovantisUtils::getAppId(), KovantisUtils::getUniqueId(),
                     KovantisUtils::getDeviceToken(), KOValue(KovantisUtils::getDeviceModel()),
                     KOValue(KovantisUtils::getDeviceSystemVersion())});
  return p;
}

KODictionary KOServerInterface::getUniversalParams() {
  const KOValue appId = appIdOrFail();
  if (appId.isNil())
    throw KOAssertionFailure("Kovantis - Please check the initialize call. You have missed the APP ID");
  const KOValue version = KovantisUtils::versionId();
  if (version.isAbsent()) throw KOTypeError("the application version is missing");
  const KOValue token = KovantisUtils::getDeviceToken();
  const KOValue account = KovantisUtils::getUniqueId();
  const KOValue model(KovantisUtils::getDeviceModel());
  const KOValue osVersion(KovantisUtils::getDeviceSystemVersion());

  const KOPlatform& platform = KOPlatform::current();
  KODictionary p;
  p.reserve(24);
  p.set("os", KOValue("iOS"));
  p.set("app_ver", version);
  p.set("app_id", appId);
  p.set("sdk_ver", KOValue(LIBRARY_VERSION));
  setObjectNilHandled(p, KOValue(KovantisUtils::getIdentifierForVendor()), KOValue("unique_id"));
  if (nonEmpty(token)) setObjectNilHandled(p, token, KOValue("push_id"));
  setObjectNilHandled(p, model, KOValue("model"));
  setObjectNilHandled(p, osVersion, KOValue("os_ver"));
  setObjectNilHandled(p, KOValue(KovantisUtils::getGMTtime()), KOValue("device_ts"));
  if (!account.isAbsent()) setObjectNilHandled(p, account, KOValue("account_id"));
  setObjectNilHandled(p, KOValue(platform.locale->timeZoneName()), KOValue("device_tz"));
  setObjectNilHandled(
      p, KOValue(KOStringFormat::format("%ld", {KOValue(platform.locale->secondsFromGMT(KovantisDateUtils::now()))})),
      KOValue("device_tz_offset"));
  setObjectNilHandled(p, KOValue(KovantisUtils::persistentDeviceId()), KOValue("device_unique_id"));

  // Cross-platform wrappers announce themselves; the last one set names the integration.
  static const struct {
    const char* preference;
    const char* key;
    const char* integration;
  } wrappers[] = {{KOV_UNITY_SDK_VERSION, "unity_ver", "unity"},
                  {KOV_CORDOVA_SDK_VERSION, "cordova_ver", "cordova"},
                  {KOV_REACT_NATIVE_SDK_VERSION, "react_native_ver", "react_native"},
                  {KOV_SEGMENT_SDK_VERSION, "segment_ver", "segment"}};
  for (const auto& w : wrappers) {
    const KOValue v = platform.preferences->standard().objectForKey(w.preference);
    if (v.isAbsent()) continue;
    setObjectNilHandled(p, v, KOValue(w.key));
    setObjectNilHandled(p, KOValue(w.integration), KOValue("integration_type"));
  }
  addLegacyNames(p, {version, appId, account, token, model, osVersion});
  // The denial's last sync tells the service of it: nothing leaves the device afterwards.
  KOConsentGate& consent = KOConsentGate::shared();
  if (consent.closing()) p.set(KOConsentGate::kDenialQueryKey, KOValue("denied"));

  // An app extension of the same group builds its requests from these (not once the user said no).
  const KOValue group = platform.preferences->standard().objectForKey(KOV_APP_GROUP_ID_KEY);
  if (group.isString() && !group.stringValue().empty() && consent.mayCallService()) {
    if (KOPreferenceStore* shared = platform.preferences->suite(group.stringValue())) {
      shared->setObject(KOValue(p), KOV_APP_GROUP_PARAMS_KEY);
      shared->synchronize();
    }
  }
  return p;
}

// ------------------------------------------------------------------------------------- sending

template <typename Body>
void KOServerInterface::send(int service, const KODictionary& params, const Body& body, SuccessCompletion completion) {
  std::optional<KOURLRequest> request = requestGenerator_.requestForService(service, params, body);
  if (!request) {
    if (completion) completion(false);
    return;
  }
  httpClient_.syncRequest(std::move(*request), std::move(completion));
}

namespace {
template <typename Completion>
void failFetch(Completion& completion) {
  if (completion) KOPlatform::current().dispatch->asyncMain([completion] { completion(KOValue()); });
}
}  // namespace

void KOServerInterface::fetch(int service, const KODictionary& params, const KOValue& body,
                              FetchCompletion completion) {
  std::optional<KOURLRequest> request = requestGenerator_.requestForService(service, params, body);
  if (!request) {
    failFetch(completion);
    return;
  }
  httpClient_.fetchRequest(std::move(*request), std::move(completion));
}

void KOServerInterface::initializeWith(const KODictionary&, SuccessCompletion completion) {
  try {
    if (held()) {
      if (completion) completion(false);
      return;
    }
    KODictionary body;
    if (const std::string vendor = KOPlatform::current().deviceInfo->identifierForVendor(); !vendor.empty()) {
      body.set("IDFV", KOValue(vendor));
    }
    if (const KOValue ad = KovantisUtils::advertiserID(); nonEmpty(ad)) body.set(KO_ADVERTISING_IDENTIFIER, ad);
    // Parameters first: should they fail, the completion is still here to report it.
    const KODictionary params = getUniversalParams();
    send(KOServiceNumberInitializeV2, params, KOValue(std::move(body)), std::move(completion));
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, kExceptionLine, e);
    if (completion) completion(false);
  }
}

void KOServerInterface::sendData(const KOValue& batch, const KOValue& withBatchID, SuccessCompletion completion) {
  sendReport(batch, withBatchID, std::move(completion));
}

void KOServerInterface::sendData(const KOJSONText& batch, const KOValue& withBatchID, SuccessCompletion completion) {
  sendReport(batch, withBatchID, std::move(completion));
}

template <typename Body>
void KOServerInterface::sendReport(const Body& batch, const KOValue& batchID, SuccessCompletion completion) {
  try {
    KODictionary params = getUniversalParams();
    setObjectNilHandled(params, batchID.isAbsent() ? KOValue("") : batchID, KOValue("batch_id"));
    send(KOServiceNumberSendReportsV2, params, batch, std::move(completion));
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, kExceptionLine, e);
    if (completion) completion(false);
  }
}

void KOServerInterface::sendReports(const std::vector<Report>& reports,
                                    const std::function<void(const std::string&, long)>& completion) {
  std::optional<KOURLRequest> common;
  try {
    // The batch id is the query's last parameter: each report's address is the common one plus it.
    common = requestGenerator_.requestForService(KOServiceNumberSendReportsV2, getUniversalParams(), KOJSONText{"{}"});
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, kExceptionLine, e);
  }
  for (const Report& report : reports) {
    if (!common || !report.body) {
      completion(report.batchId, 0);
      continue;
    }
    KOURLRequest request = *common;
    request.url += request.url.find('?') == std::string::npos ? "?batch_id=" : "&batch_id=";
    request.url += report.batchId;
    request.body.clear();
    request.bodySource = report.body;
    httpClient_.syncRequestWithStatus(std::move(request),
                                      [completion, id = report.batchId](long status) { completion(id, status); });
  }
}

template <typename Build>
void KOServerInterface::fetchGuarded(const KOSourceLocation& where, int service, Build build,
                                     FetchCompletion completion) {
  try {
    if (held()) return failFetch(completion);
    auto [params, body] = build();
    fetch(service, params, body, completion);  // a copy: the failure path below still needs it
  } catch (const std::exception& e) {
    KOLogger::logException(where, this, kExceptionLine, e);
    failFetch(completion);
  }
}

void KOServerInterface::getInAppCampaignsWithLastUpdatedTime(const KOValue& time, const KODictionary& campaignListDict,
                                                             FetchCompletion completion) {
  fetchGuarded(
      KO_HERE, KOServiceNumberGetInAppsV2,
      [&] {
        KODictionary params = getUniversalParams();
        setObjectNilHandled(params, time.isAbsent() ? KOValue("") : time, KOValue("last_updated"));
        return std::make_pair(std::move(params), KOValue(campaignListDict));
      },
      std::move(completion));
}

void KOServerInterface::getInAppForCampaignID(const std::string& campaignID, FetchCompletion completion) {
  fetchGuarded(
      KO_HERE, KOServiceNumberGetSingleInApp,
      [&] {
        KODictionary params = getUniversalParams();
        params.set("campaign_id", KOValue(campaignID));
        return std::make_pair(std::move(params), KOValue());
      },
      std::move(completion));
}

void KOServerInterface::triggerSmartInAppWithEvent(const std::string& event, const KOValue& andPayload,
                                                   FetchCompletion completion) {
  fetchGuarded(
      KO_HERE, KOServiceNumberSmartTriggerInApps,
      [&] {
        KODictionary params = getUniversalParams();
        params.set("event", KOValue(event));
        KOValue body(KODictionary{{"EVENT_ATTRS", andPayload.isDictionary() ? andPayload : KOValue(KODictionary{})}});
        return std::make_pair(std::move(params), std::move(body));
      },
      std::move(completion));
}

void KOServerInterface::getPushNotificationsFromServerWithLastUpdatedTime(const KOValue& time,
                                                                          FetchCompletion completion) {
  fetchGuarded(
      KO_HERE, KOServiceNumberInbox,
      [&] {
        KODictionary params = getUniversalParams();
        setObjectNilHandled(params, time, KOValue("last_updated"));
        return std::make_pair(std::move(params), KOValue());
      },
      std::move(completion));
}

void KOServerInterface::geofenceHitWithLocation(const KOLocationCoordinate* location, const std::string& transitionType,
                                                const std::string& geoId, FetchCompletion completion) {
  if (!location) {
    if (completion) completion(KOValue());
    return;
  }
  fetchGuarded(
      KO_HERE, KOServiceNumberGeofenceHit,
      [&] {
        KODictionary params = getUniversalParams();
        params.set("transitionType", KOValue(transitionType));
        params.set("lat", KOValue(coordinate(location->latitude)));
        params.set("lng", KOValue(coordinate(location->longitude)));
        params.set("geoId", KOValue(geoId));
        return std::make_pair(std::move(params), KOValue());
      },
      std::move(completion));
}

void KOServerInterface::getGeofencesForLocation(const KOLocationCoordinate* location, FetchCompletion completion) {
  if (!location) {
    if (completion) completion(KOValue());
    return;
  }
  fetchGuarded(
      KO_HERE, KOServiceNumberGetGeofences,
      [&] {
        KODictionary params{{"lat", coordinate(location->latitude)}, {"lng", coordinate(location->longitude)}};
        for (auto& [key, value] : getUniversalParams()) params.set(key, value);
        return std::make_pair(std::move(params), KOValue());
      },
      std::move(completion));
}

void KOServerInterface::setNotificationCategoriesWithCategories(const KOArray& categories) {
  try {
    if (held()) return;  // still due: sent from a later start
    send(KOServiceNumberSendCategories, getUniversalParams(), KOValue(KODictionary{{"data", categories}}),
         [](bool success) {
           if (success) {
             // Recorded before it is said, so that whoever reads the line finds the flag set.
             prefs().setObject(KOValue(true), KOV_NOTIFICATION_CATEGORIES_SENT);
             prefs().synchronize();
             KOLogger::logPlain("Kovantis - Notification Categories  Sent");
           } else {
             KOLogger::logPlain("Kovantis - Unable to send Notification Categories, Server Error");
           }
         });
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, kExceptionLine, e);
  }
}

// ------------------------------------------------------------------------ configuration and logs

void KOServerInterface::getConfigForKovantis() {
  try {
    if (held()) return;
    const KOValue last = prefs().objectForKey(kConfigLastUpdatedKey);
    if (last.isDate() && last.dateValue().secondsSince1970 + kConfigInterval > KovantisDateUtils::now()) return;
    const KOValue appId = appIdOrFail();
    if (appId.isNil()) return;
    const KODictionary params{{"app_id", appId}, {"unique_id", KovantisUtils::getIdentifierForVendor()}, {"os", "iOS"}};
    fetch(KOServiceNumberGetConfig, params, KOValue(), [this](const KOValue& answer) {
      try {
        if (answer.isNil()) return;  // nothing changes; the next start tries again
        KOPreferenceStore& store = prefs();
        store.setObject(KOValue(KODate{KovantisDateUtils::now()}), kConfigLastUpdatedKey);
        const KOValue& logging = validObjectForKey(answer, "l_e");
        store.setObject(KOValue(logging.isNumber() && logging.intValue() != 0), kShouldSendToLogEntries);
        const KOValue& token = validObjectForKey(answer, "tkn");
        if (!token.isNil() && !(token == store.objectForKey(kLogEntriesTokenKey))) {
          store.setObject(token, kLogEntriesTokenKey);
        }
        const KOValue& batchCount = validObjectForKey(answer, "e_b_c");
        if (batchCount.isNumber() && batchCount.intValue() != 0) {
          store.setObject(KOValue(batchCount.intValue()), kEventsBatchCount);
        }
        store.synchronize();
      } catch (const std::exception& e) {
        KOLogger::logLocated(
            KO_HERE, this, KOLogSeverityError,
            KOStringFormat::format("Kovantis - Exception Config API completion Block : %@", {KOValue(e.what())}),
            KOValue(KOStackTrace::current()));
      }
    });
  } catch (const std::exception& e) {
    KOLogger::logLocated(KO_HERE, this, KOLogSeverityError,
                         KOStringFormat::format("Kovantis - Exception Config API : %@", {KOValue(e.what())}),
                         KOValue(KOStackTrace::current()));
  }
}

void KOServerInterface::sendLogToLogEntries(const std::string& message, const KOValue& andTraceBack,
                                            const std::string& andLevel) {
  try {
    if (held()) return;
    KOPreferenceStore& store = prefs();
    if (store.objectForKey(kLogEntriesTokenKey).isNil()) {
      store.setObject(KOValue(KO_DEFAULT_LOG_TOKEN), kLogEntriesTokenKey);
      store.synchronize();
    }
    const KOValue appId = appIdOrFail();
    if (appId.isNil()) return;
    KODictionary body;
    setObjectNilHandled(body, appId, KOValue("appid"));
    setObjectNilHandled(body, KOValue(KovantisUtils::getIdentifierForVendor()), KOValue("uid"));
    setObjectNilHandled(body, KOValue(andLevel), KOValue("lvl"));
    setObjectNilHandled(body, andTraceBack.isAbsent() ? KOValue() : andTraceBack, KOValue("tb"));
    setObjectNilHandled(body, KOValue(LIBRARY_VERSION), KOValue("sdk_ver"));
    setObjectNilHandled(body, KOValue(message), KOValue("msg"));
    setObjectNilHandled(body, KOValue(KovantisUtils::getGMTtime()), KOValue("tm_s"));
    std::optional<KOURLRequest> request =
        requestGenerator_.requestForService(KOServiceNumberSendLogs, KODictionary{}, KOValue(std::move(body)));
    if (!request) return;
    httpClient_.sendLogRequest(std::move(*request), [this](bool success) {
      if (!success) {
        // Console only: a failed upload must never cause another one.
        KOLogger::logLocated(KO_HERE, this, KOLogSeverityError, "Kovantis - Error while trying to send logs");
      }
    });
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception Config API : %@", e);
  }
}
