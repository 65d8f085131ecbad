// Exported constants. Their string values are the wire and storage keys: never change them.
#pragma once

// The library version sent with every service call.
inline constexpr const char* LIBRARY_VERSION = "3.5.0";

// Keychain service under which the persistent device id lives (followed by "." and the bundle id).
inline constexpr const char* KO_KEYCHAIN_SERVICE = "com.kovantis.sdk";

// Preference keys of the identity and time settings.
inline constexpr const char* KO_IDENTIFIER_FOR_VENDOR = "KO_identifierForVendor";
inline constexpr const char* KO_ADVERTISING_ID = "KO_AdvertisingID";
inline constexpr const char* KO_LAST_UPDATED_INBOX = "KO_lastUpdatedTimeForInbox";
inline constexpr const char* KO_LAST_PUSH_TIME = "KO_lastPushTime";
inline constexpr const char* KO_LAST_SHOWN_INAPP = "KO_lastInAppShowedTime";
inline constexpr const char* KO_LAST_SHOWN_NUDGE = "KO_lastNudgeShowedTime";
inline constexpr const char* KO_LAST_UPDATED_INAPP = "KO_inApp_lastUpdatedTime";
inline constexpr const char* KO_REGISTER_V2 = "KO_register_v2";

// Keys without an exported constant, kept here so that every file spells them once.
inline constexpr const char* KO_APP_ID_KEY = "KO_appId";
inline constexpr const char* KO_DEVICE_TOKEN_KEY = "KO_deviceToken";
inline constexpr const char* KO_UNIQUE_SERVICE_ID_KEY = "KO_uniqueServiceId";
inline constexpr const char* KO_PERSISTENT_ID_KEY = "KO_PERSISTENT_ID";
inline constexpr const char* KO_APP_INSTALL_KEY = "KO_APP_INSTALL";

// Remote log shipping switch, set from the configuration answer.
inline constexpr const char* kShouldSendToLogEntries = "LOG_ENTRIES_ENABLED";

// Application lifecycle notifications the platform posts into KONotificationCenter.
inline constexpr const char* KOApplicationDidFinishLaunchingNotification = "UIApplicationDidFinishLaunchingNotification";
inline constexpr const char* KOApplicationDidBecomeActiveNotification = "UIApplicationDidBecomeActiveNotification";
inline constexpr const char* KOApplicationWillResignActiveNotification = "UIApplicationWillResignActiveNotification";
inline constexpr const char* KOApplicationDidEnterBackgroundNotification = "UIApplicationDidEnterBackgroundNotification";
inline constexpr const char* KOApplicationWillEnterForegroundNotification = "UIApplicationWillEnterForegroundNotification";
inline constexpr const char* KOApplicationWillTerminateNotification = "UIApplicationWillTerminateNotification";
inline constexpr const char* KOCurrentLocaleDidChangeNotification = "NSCurrentLocaleDidChangeNotification";
