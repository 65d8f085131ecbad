#include "KOPrivacy/KOPrivacyHandler.h"

#include <cstdio>
#include <utility>

#include "KODataHandler/KODeviceHandler.h"
#include "KODataHandler/KOEventsHandler.h"
#include "KODataHandler/KOUserAttributesHandler.h"
#include "KOGeofence/KOGeofenceHandler.h"
#include "KOInAppV2/InAppHandlers/KOInAppV2Handler.h"
#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOInAppV2/Nudges/KONudgesHandler.h"
#include "KOInbox/KOInboxHandler.h"
#include "KOPrivacy/KOSDKFootprint.h"
#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOKeychain.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/ADHttpClient.h"
#include "kovantis/KOPlatform.h"

namespace {

// How long a wipe lets the requests under way finish, so that none completes after it.
constexpr double kRequestsDrainSeconds = 5;

KOConsentGate& gate() { return KOConsentGate::shared(); }
KOEventsHandler& events() { return KOEventsHandler::sharedInstance(); }
KOUserAttributesHandler& attributes() { return KOUserAttributesHandler::sharedInstance(); }
KOGeofenceHandler& geofences() { return KOGeofenceHandler::sharedInstance(); }
KOPreferenceStore& prefs() { return KOPlatform::current().preferences->standard(); }

// The app group's store, when the app set a group it may use.
KOPreferenceStore* appGroupStore() {
  const KOValue group = prefs().objectForKey(KOV_APP_GROUP_ID_KEY);
  if (!group.isString() || group.stringValue().empty()) return nullptr;
  return KOPlatform::current().preferences->suite(group.stringValue());
}

// Whether the documents directory holds a file of one of the footprint's items exported as `entry`.
bool holdsFilesOf(const char* entry) {
  KOFileSystem& fs = *KOPlatform::current().fileSystem;
  for (const std::string& name : fs.listDirectory(fs.documentsDirectory())) {
    for (const KOFootprintItem& item : KOSDKFootprint::items()) {
      if (item.exportedAs && std::string_view(item.exportedAs) == entry && KOSDKFootprint::owns(item, name))
        return true;
    }
  }
  return false;
}

std::string hex(const KOData& data) {
  std::string text;
  text.reserve(data.bytes.size() * 2);
  for (const std::uint8_t byte : data.bytes) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", byte);
    text += pair;
  }
  return text;
}

// A value JSON can hold: dates as seconds since 1970, data as hexadecimal text, URLs as text.
KOValue jsonSafe(const KOValue& value) {
  if (value.isDate()) return KOValue(value.dateValue().secondsSince1970);
  if (value.isData()) return KOValue(hex(value.dataValue()));
  if (value.isURL()) return KOValue(value.urlValue().absoluteString);
  if (value.isArray()) {
    KOArray out;
    out.reserve(value.arrayValue().size());
    for (const KOValue& element : value.arrayValue()) out.push_back(jsonSafe(element));
    return KOValue(std::move(out));
  }
  if (value.isDictionary()) {
    KODictionary out;
    for (const auto& [key, element] : value.dictionaryValue()) out.set(key, jsonSafe(element));
    return KOValue(std::move(out));
  }
  return value;
}

KOValue regionValue(const KOCircularRegion& region) {
  return KOValue(KODictionary{{"identifier", region.identifier},
                              {"latitude", region.center.latitude},
                              {"longitude", region.center.longitude},
                              {"radius", region.radius},
                              {"notifyOnEntry", region.notifyOnEntry},
                              {"notifyOnExit", region.notifyOnExit}});
}

}  // namespace

KOPrivacyHandler& KOPrivacyHandler::sharedInstance() {
  static auto* instance = new KOPrivacyHandler();
  return *instance;
}

KOTrackingConsent KOPrivacyHandler::trackingConsent() { return gate().consent(); }

// ------------------------------------------------------------------------------------- consent

bool KOPrivacyHandler::setTrackingConsent(KOTrackingConsent consent, KOPendingData pendingData) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (gate().stopped()) return false;
  const bool wasPending = gate().consent() == KOTrackingConsent::Pending;
  const bool wasClosing = gate().closing();
  // Asked again while the last sync runs: it goes on.
  if (wasClosing && consent == KOTrackingConsent::Denied && pendingData == KOPendingData::Send) return false;
  const KOTrackingConsent before = gate().consent();
  ++closing_;  // whatever a denial's last sync still runs for is decided here instead
  KOLogger::logPlain(KOStringFormat::format("Kovantis - Tracking consent %@", {KOValue(KOConsentGate::name(consent))}));
  switch (consent) {
    case KOTrackingConsent::Pending:
      gate().setConsent(consent);
      return false;
    case KOTrackingConsent::Granted:
      gate().setConsent(consent);
      if (before == KOTrackingConsent::Granted && !wasClosing) return false;
      grantedLocked();
      return true;
    case KOTrackingConsent::Denied:
      break;
  }
  if (before == KOTrackingConsent::Denied && !wasClosing) return false;
  // What was recorded while the app had not asked was never the user's to send.
  if (pendingData == KOPendingData::Send && !wasPending && !wasClosing) {
    gate().beginClosing();
    geofences().withdrawRegions();
    const std::uint64_t closing = closing_;
    events().flush([this, closing](bool) { lastSyncEnded(closing); });
    return false;
  }
  gate().setConsent(KOTrackingConsent::Denied);
  optOutLocked();
  return false;
}

void KOPrivacyHandler::lastSyncEnded(std::uint64_t closing) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closing != closing_ || !gate().closing()) return;  // the app changed its mind meanwhile
    gate().setConsent(KOTrackingConsent::Denied);
    optOutLocked();  // what the service did not take goes too
  });
}

void KOPrivacyHandler::optOutLocked() {
  // Only what is there: an app denied from its first start never gets an event file.
  if (events().eventsInMemory() > 0 || holdsFilesOf(KOExportEntry::kEvents)) events().discardAllPending();
  // The attributes and the advertising id count as sent once recorded: recorded and discarded,
  // they must go again when set after a grant.
  attributes().forgetSentValues();
  prefs().removeObjectForKey(KO_ADVERTISING_ID);
  prefs().synchronize();
  geofences().withdrawRegions();
  if (KOPreferenceStore* group = appGroupStore()) {
    // An app extension builds its requests from this copy: without it, it sends nothing either.
    group->removeObjectForKey(KOV_APP_GROUP_PARAMS_KEY);
    group->synchronize();
  }
}

void KOPrivacyHandler::grantedLocked() {
  events().syncTrackedEventsInBackground(false, false, false);  // what was held, cut and sent
  const KOValue appId = KovantisUtils::getAppId();
  if (appId.isString() && !appId.stringValue().empty() && !KovantisUtils::isUserRegisteredForV2()) {
    KODeviceHandler::sharedInstance().addDeviceWithCompletion(nullptr);
  }
  geofences().resumeAfterConsent();
}

void KOPrivacyHandler::launched() {
  std::lock_guard<std::mutex> lock(mutex_);
  gate().launched();
  if (gate().consent() == KOTrackingConsent::Denied && !gate().stopped() && holdsFilesOf(KOExportEntry::kEvents)) {
    events().discardAllPending();
  }
}

// ----------------------------------------------------------------------------------------- wipe

void KOPrivacyHandler::wipeData(const KOWipeOptions& options) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++closing_;
  // Nothing is recorded, sent or shown from here on; answers still coming are dropped.
  gate().stop();
  geofences().withdrawRegions();
  KOInAppV2Handler& inApps = KOInAppV2Handler::sharedInstance();
  if (inApps.isShowingInApp()) inApps.dismissInApp();
  if (KONudgesHandler::sharedInstance().isShowingNudge()) KONudgesHandler::sharedInstance().removeNudgeView();
  // The requests under way end first, so that none of their completions writes after the wipe.
  ADHttpClient::sharedInstance().closeIdleConnections(kRequestsDrainSeconds);
  // The handlers forget what they hold in memory (and stop their timers), then every item of the
  // footprint goes.
  events().discardAllPending();
  attributes().forgetSentValues();
  KOInboxHandler::removeAllData();
  KOInAppV2Manager::removeV2InApps();

  const KOPlatform& platform = KOPlatform::current();
  KOFileSystem& fs = *platform.fileSystem;
  const std::string documents = fs.documentsDirectory();
  KOPreferenceStore& standard = prefs();
  KOPreferenceStore* group = appGroupStore();
  for (const KOFootprintItem& item : KOSDKFootprint::items()) {
    switch (item.kind) {
      case KOFootprintKind::DocumentsFile:
      case KOFootprintKind::DocumentsDirectory:
        for (const std::string& name : fs.listDirectory(documents)) {
          if (KOSDKFootprint::owns(item, name)) fs.removeItem(documents + "/" + name);
        }
        break;
      case KOFootprintKind::Preference:
        standard.removeObjectForKey(item.name);
        break;
      case KOFootprintKind::AppGroupPreference:
        if (group) group->removeObjectForKey(item.name);
        break;
      case KOFootprintKind::KeychainItem:
        if (!options.keepPersistentDeviceId) KOKeychain::remove(KOSDKFootprint::keychainService(item));
        break;
    }
  }
  if (group) group->synchronize();
  standard.synchronize();
  KOLogger::logPlain("Kovantis - The SDK's data was wiped; it stays stopped until the app's next launch");
}

// --------------------------------------------------------------------------------------- export

KOValue KOPrivacyHandler::exportUserData() {
  namespace E = KOExportEntry;
  KODictionary out;
  KODictionary consent{{"current", KOConsentGate::name(gate().consent())}};
  KODictionary identifiers, statistics, push, appGroup;
  // Every personal preference and keychain item of the footprint, under its own name.
  KOPreferenceStore* group = appGroupStore();
  for (const KOFootprintItem& item : KOSDKFootprint::items()) {
    if (!item.exportedAs) continue;
    KOValue value;
    if (item.kind == KOFootprintKind::Preference) {
      value = prefs().objectForKey(item.name);
    } else if (item.kind == KOFootprintKind::AppGroupPreference) {
      if (group) value = group->objectForKey(item.name);
    } else if (item.kind == KOFootprintKind::KeychainItem) {
      value = KOKeychain::load(KOSDKFootprint::keychainService(item));
    } else {
      continue;  // files: read through their handlers below
    }
    if (value.isNil()) continue;
    const std::string_view entry = item.exportedAs;
    KODictionary& into = entry == E::kIdentifiers       ? identifiers
                         : entry == E::kInAppStatistics ? statistics
                         : entry == E::kPush            ? push
                         : entry == E::kConsent         ? consent
                                                        : appGroup;
    into.set(item.name, std::move(value));
  }
  // The events not yet accepted: the batches (records still in memory cut into one) and the older
  // generation's file.
  KOArray held;
  for (const auto& [id, records] : events().getBatchesWithViewsArray(true)) {
    if (!records.isArray()) continue;
    for (const KOValue& record : records.arrayValue()) held.push_back(record);
  }
  for (KOValue& record : events().getEventsFromDumpFile()) held.push_back(std::move(record));
  KODictionary campaigns;
  for (const auto& [key, value] : KOInAppV2Manager::getCampaignsDictFromPlist()) {
    if (KOInAppV2Manager::keyIsCampaignID(key)) campaigns.set(key, value);
  }
  statistics.set("campaigns", KOValue(std::move(campaigns)));
  KOArray watched;
  for (const KOCircularRegion& region : geofences().watchedRegions()) watched.push_back(regionValue(region));

  out.set(E::kConsent, KOValue(std::move(consent)));
  out.set(E::kIdentifiers, KOValue(std::move(identifiers)));
  out.set(E::kAttributes, KOValue(attributes().sentValues()));
  out.set(E::kEvents, KOValue(std::move(held)));
  out.set(E::kInbox, KOValue(KOInboxHandler::getAllNotifications()));
  out.set(E::kInAppStatistics, KOValue(std::move(statistics)));
  out.set(E::kPush, KOValue(std::move(push)));
  out.set(E::kGeofences, KOValue(std::move(watched)));
  out.set(E::kAppGroup, KOValue(std::move(appGroup)));
  return KOValue(std::move(out));
}

std::string KOPrivacyHandler::exportUserDataJSON() { return KOJSONSerialization::write(jsonSafe(exportUserData())); }
