#include "KOPrivacy/KOSDKFootprint.h"

#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KovantisUtils.h"

namespace {

using enum KOFootprintKind;
namespace E = KOExportEntry;

constexpr const char* kNotPersonal = nullptr;

constexpr KOFootprintItem kItems[] = {
    // Files in the documents directory.
    {DocumentsFile, "KovantisBatchEvents.plist", E::kEvents, "the batches of events waiting for the service"},
    {DocumentsFile, "KovantisEvents.journal", E::kEvents, "the journal of events tracked since the batch file"},
    {DocumentsFile, "kovantisEvents.dat", E::kEvents, "events of the SDK's older generation, not yet sent"},
    {DocumentsFile, "KovantisUserAttributes.plist", E::kAttributes, "the user attributes last sent"},
    {DocumentsFile, INAPP_PLIST_PATH_V2, E::kInAppStatistics,
     "the in-app campaigns the service sent, and how often and when each was shown or clicked"},
    {DocumentsFile, INAPP_PLIST_PATH, kNotPersonal, "the first generation's campaign store, removed at every start"},
    {DocumentsFile, KOInboxMessagesFileName, E::kInbox, "the inbox: the pushes opened and the service's messages"},
    {DocumentsDirectory, "Kovantis", kNotPersonal,
     "images of the service's campaigns: its content, nothing of the user"},
    {DocumentsDirectory, "KovantisImages", kNotPersonal, "the first generation's campaign images"},
    // The standard preference store.
    {Preference, KO_IDENTIFIER_FOR_VENDOR, E::kIdentifiers, "the SDK's id of this install (vendor id and time)"},
    {Preference, KO_ADVERTISING_ID, E::kIdentifiers, "the advertising id last reported"},
    {Preference, KO_UNIQUE_SERVICE_ID_KEY, E::kIdentifiers, "the account id the service knows the user by"},
    {Preference, KO_PERSISTENT_ID_KEY, E::kIdentifiers, "the persistent device id (the keychain's, cached)"},
    {Preference, KO_DEVICE_TOKEN_KEY, E::kPush, "the device's push token"},
    {Preference, KO_PUSH_PREFERENCE_KEY, E::kPush, "whether the user allows notifications"},
    {Preference, KO_LAST_PUSH_TIME, E::kPush, "when the user last opened a push"},
    {Preference, KO_LAST_SHOWN_INAPP, E::kInAppStatistics, "when an in-app message was last shown"},
    {Preference, KO_LAST_SHOWN_NUDGE, E::kInAppStatistics, "when a nudge was last shown"},
    {Preference, KOConsentGate::kPreferenceKey, E::kConsent, "the user's tracking consent"},
    {Preference, KO_APP_ID_KEY, kNotPersonal, "the app's id, the same on every device"},
    {Preference, KO_REGISTER_V2, kNotPersonal, "whether the device was registered with the service"},
    {Preference, KO_APP_INSTALL_KEY, kNotPersonal, "whether the install was reported"},
    {Preference, KOV_APP_VERSION, kNotPersonal, "the app version the categories were sent for"},
    {Preference, KOV_APP_VERSION_APP_STATUS, kNotPersonal, "the app version of the last install or update"},
    {Preference, "KO_reinstallCheckPending", kNotPersonal, "a reinstall check owed to an unreadable keychain"},
    {Preference, KO_LAST_UPDATED_INBOX, kNotPersonal, "when the inbox was last fetched"},
    {Preference, KO_LAST_UPDATED_INAPP, kNotPersonal, "when the campaigns were last fetched"},
    {Preference, KO_MINIMUMDELAY_BW_INAPPS, kNotPersonal, "the service's minimum delay between in-apps"},
    {Preference, KO_INAPP_V1_REMOVE_IMAGES, kNotPersonal, "whether the first generation's images were removed"},
    {Preference, KOV_NOTIFICATION_CATEGORIES, kNotPersonal, "the app's notification categories"},
    {Preference, KOV_NOTIFICATION_CATEGORIES_SENT, kNotPersonal, "whether the service has the categories"},
    {Preference, kShouldSendToLogEntries, kNotPersonal, "the service's remote-logging switch"},
    {Preference, kLogEntriesTokenKey, kNotPersonal, "the log service's token for this app"},
    {Preference, kConfigLastUpdatedKey, kNotPersonal, "when the configuration was last fetched"},
    {Preference, kEventsBatchCount, kNotPersonal, "the service's batch size"},
    {Preference, KO_SHOULD_REDIRECT_DATA, kNotPersonal, "the app's data-region choice"},
    // Read by the app-group entry below, so listed after it: the wipe goes in table order.
    {AppGroupPreference, KOV_APP_GROUP_PARAMS_KEY, E::kAppGroup,
     "the parameters an app extension sends with: ids, push token, account id"},
    {Preference, KOV_APP_GROUP_ID_KEY, kNotPersonal, "the app group the app set"},
    // The keychain.
    {KeychainItem, KO_KEYCHAIN_SERVICE, E::kIdentifiers, "the persistent device id, kept across reinstalls"},
};

}  // namespace

std::span<const KOFootprintItem> KOSDKFootprint::items() { return kItems; }

std::string KOSDKFootprint::keychainService(const KOFootprintItem& item) {
  // Named as the persistent id's item is where it is made.
  return KOStringFormat::format("%@.%@", {KOValue(item.name), KovantisUtils::bundleIdentifier()});
}

bool KOSDKFootprint::owns(const KOFootprintItem& item, const std::string& fileName) {
  if (item.kind == KOFootprintKind::DocumentsDirectory) return fileName == item.name;
  return item.kind == KOFootprintKind::DocumentsFile && fileName.starts_with(item.name);
}
