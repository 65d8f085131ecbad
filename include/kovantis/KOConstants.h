// Constants a host uses: event and notification names, attribute keys, the keys and values of
// what the service sends (campaigns, push payloads). Their string values are the wire format:
// never change them. Storage keys, file names and service paths stay inside the SDK.
#pragma once

// The library version sent with every service call.
inline constexpr const char* LIBRARY_VERSION = "3.5.0";

// Application lifecycle notifications the platform posts into KONotificationCenter.
inline constexpr const char* KOApplicationDidFinishLaunchingNotification =
    "UIApplicationDidFinishLaunchingNotification";
inline constexpr const char* KOApplicationDidBecomeActiveNotification = "UIApplicationDidBecomeActiveNotification";
inline constexpr const char* KOApplicationWillResignActiveNotification = "UIApplicationWillResignActiveNotification";
inline constexpr const char* KOApplicationDidEnterBackgroundNotification =
    "UIApplicationDidEnterBackgroundNotification";
inline constexpr const char* KOApplicationWillEnterForegroundNotification =
    "UIApplicationWillEnterForegroundNotification";
inline constexpr const char* KOApplicationWillTerminateNotification = "UIApplicationWillTerminateNotification";
/// The launch options' entry holding the payload of a push that launched the app.
inline constexpr const char* KOApplicationLaunchOptionsRemoteNotificationKey =
    "UIApplicationLaunchOptionsRemoteNotificationKey";
inline constexpr const char* KOCurrentLocaleDidChangeNotification = "NSCurrentLocaleDidChangeNotification";

// Service hosts (production): the defaults of KOServiceEndpoints.
inline constexpr const char* PROD_SCHEME = "https";
inline constexpr const char* PROD_URL = "api.kovantis.com";
inline constexpr const char* PROD_URL_INDIA = "api-in.kovantis.com";
inline constexpr const char* INBOX_HOST = "inbox.kovantis.com";
inline constexpr const char* LOGENTRIES_HOST = "logs.kovantis.com";
inline constexpr const char* DEV_URL = "dev-api.kovantis.com";

// Preference keys a wrapper SDK (Unity, Cordova, React Native, Segment) sets to its version.
inline constexpr const char* KOV_UNITY_SDK_VERSION = "KovantisUnitySDKVersion";
inline constexpr const char* KOV_CORDOVA_SDK_VERSION = "KOVANTIS_CORDOVA_SDK_VERSION";
inline constexpr const char* KOV_REACT_NATIVE_SDK_VERSION = "KOVANTIS_REACT_NATIVE_SDK_VERSION";
inline constexpr const char* KOV_SEGMENT_SDK_VERSION = "KOVANTIS_SEGMENT_SDK_VERSION";

// Events and notifications of the event pipeline and the lifecycle.
inline constexpr const char* KOV_INIT_NEW_USER = "KOV_INIT_NEW_USER";
inline constexpr const char* EVENT_ACTION_USER_ATTRIBUTE = "EVENT_ACTION_USER_ATTRIBUTE";
inline constexpr const char* EVENT_ACTION_DEVICE_ATTRIBUTE = "EVENT_ACTION_DEVICE_ATTRIBUTE";
inline constexpr const char* EVENT_ACTION_IOS_SESSION_START = "EVENT_ACTION_IOS_SESSION_START";
inline constexpr const char* EVENT_ACTION_IOS_SESSION_END = "EVENT_ACTION_IOS_SESSION_END";
inline constexpr const char* KOV_LOGOUT = "KOV_LOGOUT";

// User attribute keys.
inline constexpr const char* USER_ATTRIBUTE_UNIQUE_ID = "USER_ATTRIBUTE_UNIQUE_ID";
inline constexpr const char* USER_ATTRIBUTE_USER_EMAIL = "USER_ATTRIBUTE_USER_EMAIL";
inline constexpr const char* USER_ATTRIBUTE_USER_NAME = "USER_ATTRIBUTE_USER_NAME";
inline constexpr const char* USER_ATTRIBUTE_USER_FIRST_NAME = "USER_ATTRIBUTE_USER_FIRST_NAME";
inline constexpr const char* USER_ATTRIBUTE_USER_LAST_NAME = "USER_ATTRIBUTE_USER_LAST_NAME";
inline constexpr const char* USER_ATTRIBUTE_USER_MOBILE = "USER_ATTRIBUTE_USER_MOBILE";
inline constexpr const char* USER_ATTRIBUTE_USER_GENDER = "USER_ATTRIBUTE_USER_GENDER";
inline constexpr const char* USER_ATTRIBUTE_USER_BDAY = "USER_ATTRIBUTE_USER_BDAY";
inline constexpr const char* USER_ATTRIBUTE_USER_LOCATION = "USER_ATTRIBUTE_USER_LOCATION";
inline constexpr const char* KO_ADVERTISING_IDENTIFIER = "ADVERTISING_IDENTIFIER";
inline constexpr const char* KO_PUSH_PREFERENCE = "PUSH_PREFERENCE";

// Locale attribute keys.
inline constexpr const char* LOCALE_COUNTRY = "LOCALE_COUNTRY";
inline constexpr const char* LOCALE_COUNTRY_DISPLAY = "LOCALE_COUNTRY_DISPLAY";
inline constexpr const char* LOCALE_LANGUAGE = "LOCALE_LANGUAGE";
inline constexpr const char* LOCALE_LANGUAGE_DISPLAY = "LOCALE_LANGUAGE_DISPLAY";
inline constexpr const char* LOCALE_DISPLAY = "LOCALE_DISPLAY";
inline constexpr const char* LOCALE_IDENTIFIER = "LOCALE_IDENTIFIER";

// In-app campaigns: the keys of a campaign, its presentation and its widgets, and the values
// of its type, animations, actions and status, as the service sends them (a self-handled
// campaign reaches the host as this data).
inline constexpr const char* KO_WIDGETS = "widgets";
inline constexpr const char* KO_WIDGET_ID = "widget_id";
inline constexpr const char* KO_PROPERTIES = "properties";
inline constexpr const char* KO_CONTENT = "content";
inline constexpr const char* KO_CANCELLABLE = "cancellable";
inline constexpr const char* KO_AUTO_DISMISS = "auto_dismiss";
inline constexpr const char* KO_ANIMATE_ENTRY = "animate.entry";
inline constexpr const char* KO_ANIMATE_EXIT = "animate.exit";
inline constexpr const char* KO_ALIGNMENT = "alignment";
inline constexpr const char* KO_HEIGHT = "height";
inline constexpr const char* KO_WIDTH = "width";
inline constexpr const char* KO_MAX_HEIGHT = "max_height";
inline constexpr const char* KO_MAX_WIDTH = "max_width";
inline constexpr const char* KO_MARGIN_LEFT = "margin.left";
inline constexpr const char* KO_MARGIN_RIGHT = "margin.right";
inline constexpr const char* KO_MARGIN_TOP = "margin.top";
inline constexpr const char* KO_MARGIN_BOTTOM = "margin.bottom";
inline constexpr const char* KO_PADDING_LEFT = "padding.left";
inline constexpr const char* KO_PADDING_RIGHT = "padding.right";
inline constexpr const char* KO_PADDING_TOP = "padding.top";
inline constexpr const char* KO_PADDING_BOTTOM = "padding.bottom";
inline constexpr const char* KO_LEFT = "left";
inline constexpr const char* KO_RIGHT = "right";
inline constexpr const char* KO_TOP = "top";
inline constexpr const char* KO_BOTTOM = "bottom";
inline constexpr const char* KO_CENTER = "center";
inline constexpr const char* KO_ALIGNMENT_FULL = "full";
inline constexpr const char* KO_ALIGNMENT_EMBED = "embedded";
inline constexpr const char* KO_ALIGNMENT_SELF_HANDLED = "self_handled";
inline constexpr const char* KO_INAPPTYPE_GENERAL = "general";
inline constexpr const char* KO_INAPPTYPE_LINKED = "linked";
inline constexpr const char* KO_INAPPTYPE_SMART = "smart";
inline constexpr const char* KO_INAPPTYPE_ADVANCED = "advanced";
inline constexpr const char* KO_INAPPTYPE_EMBEDDED = "embedded";
inline constexpr const char* KO_INAPPTYPE_SELF_HANDLED = "self_handled";
inline constexpr const char* KO_INAPPTYPE_TEST = "test";
inline constexpr const char* KO_ANIMATION_SLIDE_UP = "slide_up";
inline constexpr const char* KO_ANIMATION_SLIDE_DOWN = "slide_down";
inline constexpr const char* KO_ANIMATION_SLIDE_LEFT = "slide_left";
inline constexpr const char* KO_ANIMATION_SLIDE_RIGHT = "slide_right";
inline constexpr const char* KO_ANIMATION_FADE_IN = "fade_in";
inline constexpr const char* KO_ANIMATION_FADE_OUT = "fade_out";
inline constexpr const char* KO_ACTION_NAVIGATE = "m_nav";
inline constexpr const char* KO_ACTION_SHARE = "m_share";
inline constexpr const char* KO_ACTION_DISMISS = "m_dismiss";
inline constexpr const char* KO_ACTION_SETATTRIBUTE = "m_set";
inline constexpr const char* KO_ACTION_OPEN_INAPP = "m_inapp";
inline constexpr const char* KO_ACTION_TRACKEVENT = "m_track";
inline constexpr const char* KO_ACTION_COPY = "m_copy";
inline constexpr const char* KO_ACTION_CALL = "m_call";
inline constexpr const char* KO_PERMISSION_NOTIFICATION = "m_permission_notification";
inline constexpr const char* KO_PERMISSION_SETTINGS = "m_permission_settings";
inline constexpr const char* CAMPAIGN_ID = "cid";
inline constexpr const char* KO_INTERVAL = "interval";
inline constexpr const char* KO_TTL = "ttl";
inline constexpr const char* KO_MAX_TIMES = "max_times";
inline constexpr const char* KO_STATUS = "status";
inline constexpr const char* KO_PERSISTENCE = "persistent";
inline constexpr const char* KO_PRIORITY = "priority";
inline constexpr const char* KO_CONTEXT = "context";
inline constexpr const char* KO_LAST_UPDATED = "last_updated";
inline constexpr const char* KO_SHOW_ONLY_IN_SCREEN = "show_only_screen";
inline constexpr const char* INAPP_EVENTS_INFO = "event_list";
inline constexpr const char* INAPP_MIN_DELAY = "minimum_delay_bw_inapps";
inline constexpr const char* KO_INAPP_STATUS_ACTIVE = "active";
inline constexpr const char* KO_INAPP_STATUS_EXPIRED = "expired";

// Events the in-app layer tracks.
inline constexpr const char* INAPP_SHOWN = "iOS_IN_APP_SHOWN";
inline constexpr const char* INAPP_AUTO_DISMISS = "iOS_IN_APP_AUTO_DISMISS";

// Push registration: notifications the host hears and the keys of their user info; the
// notification category and action of the SDK's dismiss button; the push preference event.
inline constexpr const char* Kovantis_Notification_Registered_Notification = "Kovantis_Notification_Registered";
inline constexpr const char* Kovantis_Notification_Registration_Failed_Notification =
    "Kovantis_Notification_Registration_Failed";
inline constexpr const char* Kovantis_Notification_UserSettings_Registered_Notification =
    "Kovantis_Notification_UserSettings_Registered";
inline constexpr const char* Kovantis_Notification_Received_Notification = "Kovantis_Notification_Received";
inline constexpr const char* Kovantis_Device_Token_Key = "deviceToken";
inline constexpr const char* Kovantis_Notification_Settings_Key = "notificationSettings";
inline constexpr const char* KOV_DISMISS_ACTION = "KOV_DISMISS_ACTION";
inline constexpr const char* KOV_DISMISS_CATEGORY = "KOV_DISMISS_CATEGORY";
inline constexpr const char* KO_PUSH_PREF_CHANGED_EVENT = "KO_PUSH_PREFERENCE_CHANGED";

// Push payloads: every key the SDK reads from one (docs/formats.md), for a host that builds a payload
// or a test that fakes one. The platform's block, with the alert the inbox shows:
inline constexpr const char* KOPushKeyAps = "aps";
inline constexpr const char* KOPushKeyAlert = "alert";        // in "aps": a text, or an object with a body
inline constexpr const char* KOPushKeyAlertTitle = "title";   // in an alert object
inline constexpr const char* KOPushKeyAlertBody = "body";     // in an alert object: the inbox's text
inline constexpr const char* KOPushKeyBadge = "badge";        // in "aps"
inline constexpr const char* KOPushKeyCategory = "category";  // in "aps": the buttons the system shows
// The service's block: without it, or without a campaign id in it, the SDK leaves the push alone.
inline constexpr const char* KOPushKeyService = "kovantis";
inline constexpr const char* KOPushKeyCampaignId = "cid";
inline constexpr const char* KOPushKeySilent = "silentPush";              // present at all: a silent push
inline constexpr const char* KOPushKeyCouponCode = "couponCode";          // an opened push offers the code
inline constexpr const char* KOPushKeyLandingPage = "webUrl";             // an opened push opens the page
inline constexpr const char* KOPushKeyInAppCampaignId = "kov_inapp_cid";  // a push shows this campaign
inline constexpr const char* KOPushKeyMediaAttachment = "media-attachment";
// The app's block: its own data, with the deep link the SDK opens and what its inbox screen hands on.
inline constexpr const char* KOPushKeyAppExtra = "app_extra";
inline constexpr const char* KOPushKeyDeepLink = "kov_deeplink";
inline constexpr const char* KOPushKeyScreenName = "screenName";
inline constexpr const char* KOPushKeyScreenData = "screenData";

// Push receipt: the service's block of a push payload, the keys written into it, and the events.
inline constexpr const char* kKovantis = "kovantis";
inline constexpr const char* KOV_APNS_ACTION = "apns_action";
inline constexpr const char* KOV_APNS_ACTION_IDENTIFIER = "apns_action_identifier";
inline constexpr const char* KO_PUSH_CLICKED_EVENT = "NOTIFICATION_CLICKED_IOS_KOV";
inline constexpr const char* KO_PUSH_DISMISSED_EVENT = "NOTIFICATION_DISMISSED_IOS_KOV";
inline constexpr const char* KO_PUSH_RECEIVED_ACTIVE_EVENT = "NOTIFICATION_RECEIVED_IOS_APP_ACTIVE";
inline constexpr const char* KO_EVENT_AFTER_PUSH = "Event_After_Push";

// Inbox: the notification the host hears when a fetch found messages not handed out yet, and
// the most messages kept.
inline constexpr const char* KOInboxPendingNotificationsNotification = "PendingNotifications";
inline constexpr const char* KOInboxPendingNotificationsKey = "pending_notifications";
inline constexpr int KOInboxMaximumMessages = 100;
