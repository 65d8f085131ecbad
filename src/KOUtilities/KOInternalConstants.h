// The SDK's own constants: preference and keychain keys, file names and paths, service paths and
// methods. Their values are storage and wire formats: never change them. What a host uses is in
// kovantis/KOConstants.h.
#pragma once

// Keychain service under which the persistent device id lives (followed by "." and the bundle id).
inline constexpr const char* KO_KEYCHAIN_SERVICE = "com.kovantis.sdk";

// Preference keys of the identity, the registration and the time settings.
inline constexpr const char* KO_IDENTIFIER_FOR_VENDOR = "KO_identifierForVendor";
inline constexpr const char* KO_ADVERTISING_ID = "KO_AdvertisingID";
inline constexpr const char* KO_LAST_UPDATED_INBOX = "KO_lastUpdatedTimeForInbox";
inline constexpr const char* KO_LAST_PUSH_TIME = "KO_lastPushTime";
inline constexpr const char* KO_LAST_SHOWN_INAPP = "KO_lastInAppShowedTime";
inline constexpr const char* KO_LAST_SHOWN_NUDGE = "KO_lastNudgeShowedTime";
inline constexpr const char* KO_LAST_UPDATED_INAPP = "KO_inApp_lastUpdatedTime";
inline constexpr const char* KO_REGISTER_V2 = "KO_register_v2";
inline constexpr const char* KO_APP_ID_KEY = "KO_appId";
inline constexpr const char* KO_DEVICE_TOKEN_KEY = "KO_deviceToken";
inline constexpr const char* KO_UNIQUE_SERVICE_ID_KEY = "KO_uniqueServiceId";
inline constexpr const char* KO_PERSISTENT_ID_KEY = "KO_PERSISTENT_ID";
inline constexpr const char* KO_APP_INSTALL_KEY = "KO_APP_INSTALL";
inline constexpr const char* KOV_APP_VERSION = "KOV_APP_VERSION";
inline constexpr const char* KOV_APP_VERSION_APP_STATUS = "KOV_App_Version_App_Status";

// Preference keys of the networking layer, and the app-group entries the SDK shares.
inline constexpr const char* kShouldSendToLogEntries = "LOG_ENTRIES_ENABLED";
inline constexpr const char* KO_SHOULD_REDIRECT_DATA = "KO_SHOULD_REDIRECT_DATA";
inline constexpr const char* kLogEntriesTokenKey = "LOG_ENTRIES_TOKEN";
inline constexpr const char* kConfigLastUpdatedKey = "CONFIG_LAST_UPDATED";
inline constexpr const char* kEventsBatchCount = "KOV_EVENT_BATCH_COUNT";
inline constexpr const char* KOV_NOTIFICATION_CATEGORIES_SENT = "KOV_NOTIFICATION_CATEGORIES_SENT";
inline constexpr const char* KOV_APP_GROUP_ID_KEY = "Kov_App_Group_ID";
inline constexpr const char* KOV_APP_GROUP_PARAMS_KEY = "kov_params";
/// Log token used until the configuration call sends one.
inline constexpr const char* KO_DEFAULT_LOG_TOKEN = "5b7e0a92-3c41-4d8e-9f26-a1d04c7e8b13";

// Service methods and paths, by service number 0 to 10.
inline constexpr const char* kGET = "GET";
inline constexpr const char* kPOST = "POST";
inline constexpr const char* kServiceInitializeV2 = "/v2/device/add";
inline constexpr const char* kServiceSendReportsV2 = "/v2/report/add";
inline constexpr const char* kServiceGetInAppsV2 = "/campaigns/inappcampaigns/fetch";
inline constexpr const char* kServiceGetSingleInApp = "/campaigns/inappcampaign/fetch";
inline constexpr const char* kServiceSmartTriggerInApps = "/v2/autotriggerinapps";
inline constexpr const char* kServiceInbox = "/v1/getInboxMessages";
inline constexpr const char* kServiceSendCategories = "/v2/categories/add";
inline constexpr const char* kServiceGeofenceHit = "/v1/geoFenceHit";
inline constexpr const char* kServiceGetGeofences = "/v1/geoFences";
inline constexpr const char* kServiceGetConfig = "/v1/getConfig";
inline constexpr const char* kServiceSendLogs = "/noformat/logs/";

/// Service numbers, the first argument of every request.
enum KOService : int {
  KOServiceNumberInitializeV2 = 0,
  KOServiceNumberSendReportsV2 = 1,
  KOServiceNumberGetInAppsV2 = 2,
  KOServiceNumberGetSingleInApp = 3,
  KOServiceNumberSmartTriggerInApps = 4,
  KOServiceNumberInbox = 5,
  KOServiceNumberSendCategories = 6,
  KOServiceNumberGeofenceHit = 7,
  KOServiceNumberGetGeofences = 8,
  KOServiceNumberGetConfig = 9,
  KOServiceNumberSendLogs = 10,
};

// The name of the background task the SDK asks for.
inline constexpr const char* KOV_BACKGROUND_TASK_NAME = "KOVTask";

// The campaign store: its files and paths, its statistics keys and the preferences it owns.
inline constexpr const char* INAPP_PLIST_PATH_V2 = "InAppCampaignsV2.plist";
inline constexpr const char* INAPP_PLIST_PATH = "InAppCampaigns.plist";
inline constexpr const char* KO_INAPP_V2_IMAGES_PATH = "/Kovantis/InAppImages/";
inline constexpr const char* KO_INAPP_V1_IMAGES_PATH = "/KovantisImages";
inline constexpr const char* KO_INAPP_V1_REMOVE_IMAGES = "KO_inapps_v1_removed";
inline constexpr const char* KO_MINIMUMDELAY_BW_INAPPS = "KO_MinimumDelay_BW_InApps";
inline constexpr const char* KO_TIMES_SHOWN = "timesShown";
inline constexpr const char* KO_EXPIRY_DATE = "expiryDate";
inline constexpr const char* LAST_SHOWN = "lastShown";
inline constexpr const char* KO_INAPP_CAMPAIGN_INFO_KEY = "campaign_info";
inline constexpr const char* KO_INAPP_IS_CLICKED_KEY = "isClicked";

// Preferences of the push layer.
inline constexpr const char* KO_PUSH_PREFERENCE_KEY = "kKovPushPreferenceUserDefaultKey";
inline constexpr const char* KOV_NOTIFICATION_CATEGORIES = "KOV_NOTIFICATION_CATEGORIES";

// The inbox store: its file, and the key of its messages there and in the service's answer.
inline constexpr const char* KOInboxMessagesFileName = "InboxMessages.plist";
inline constexpr const char* KOInboxMessagesInfoKey = "messagesInfo";
