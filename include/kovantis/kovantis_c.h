/* kovantis_c.h: the Kovantis SDK for any language that can call C (libkovantis_c).
 *
 * C11, nothing else. Every name starts with kov_ (types, functions) or KOV_ (constants). The rules
 * that hold for every call:
 *   - Text is UTF-8, NUL-terminated. Dictionaries, payloads and answers cross as JSON text in the
 *     formats of docs/formats.md; where JSON lacks a kind (dates, data, URLs) a port's values carry
 *     it as a one-key object: {"$date": seconds since 1970}, {"$data": "base64"}, {"$url": "text"}.
 *   - Every call of the facade returns a kov_status. When it is not KOV_OK, kov_last_error() on the
 *     same thread says why, in the words the SDK logs for that fault.
 *   - Memory the SDK hands out (every char** answer) is the caller's: free it with kov_free().
 *   - A callback is a function pointer and the context pointer handed back to it; it runs on the
 *     main queue unless its description says otherwise.
 *   - The platform (the device's ports, below) is installed before the first call of the facade.
 * The table of what each operation of the C++ interface is called here: docs/bindings.md. */
#ifndef KOVANTIS_C_H
#define KOVANTIS_C_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KOV_API __attribute__((visibility("default")))
#else
#define KOV_API
#endif

/* ------------------------------------------------------------------------ status and memory */

typedef enum kov_status {
  KOV_OK = 0,
  KOV_INVALID_ARGUMENT = 1, /* a required argument missing or out of range */
  KOV_INVALID_JSON = 2,     /* text that is not JSON, or JSON of another shape than asked for */
  KOV_NOT_INSTALLED = 3,    /* no platform installed yet (kov_platform_install) */
  KOV_REFUSED = 4,          /* the SDK refused the call or failed in it: the line it logged */
  KOV_FAILED = 5            /* anything else (memory exhausted, a port that failed) */
} kov_status;

/* Why the last call on this thread that did not return KOV_OK failed; "" before any. Owned by the
 * SDK, valid until the next call on this thread. */
KOV_API const char* kov_last_error(void);
/* Sets what kov_last_error() says on this thread and returns the status: for a library that
 * extends this interface (libkovantis_sim_c does). */
KOV_API kov_status kov_set_last_error(kov_status status, const char* message);
/* Frees memory the SDK handed out. NULL does nothing. */
KOV_API void kov_free(void* memory);
/* The SDK's version, "3.5.0" (static text). */
KOV_API const char* kov_version(void);

/* ------------------------------------------------------------------------------- callbacks */

typedef void (*kov_bool_callback)(void* ctx, int value);
typedef void (*kov_json_callback)(void* ctx, const char* json);
/* An in-app widget tapped: its kind (KOV_INAPP_WIDGET_*), the screen and extras of its first
 * navigation action ("" and "{}" without one). */
typedef void (*kov_inapp_clicked_callback)(void* ctx, int widget, const char* screen_name, const char* data_json);
/* A nudge: its view description as JSON ("null" without one) and its campaign id. */
typedef void (*kov_nudge_callback)(void* ctx, const char* view_json, const char* campaign_id);
/* An in-process notification: its name and user info (a JSON object). On the posting thread. */
typedef void (*kov_notification_callback)(void* ctx, const char* name, const char* user_info_json);

/* ----------------------------------------------------------------------------------- start */

#define KOV_APP_STATUS_INSTALL 0
#define KOV_APP_STATUS_UPDATE 1

/* Development start: the app id gets the suffix "_DEBUG". launch_options_json: the launch options
 * (a push that launched the app under "UIApplicationLaunchOptionsRemoteNotificationKey"), or NULL. */
KOV_API kov_status kov_initialize_dev(const char* app_id, const char* launch_options_json,
                                      int open_deeplinks_automatically);
KOV_API kov_status kov_initialize_prod(const char* app_id, const char* launch_options_json,
                                       int open_deeplinks_automatically);
/* Install (KOV_APP_STATUS_INSTALL) or update (KOV_APP_STATUS_UPDATE) of the app. */
KOV_API kov_status kov_app_status(int status);
/* 0 silent (the default), 1 every line, 2 exceptions and errors only. */
KOV_API kov_status kov_debug(int level);
KOV_API kov_status kov_set_app_group_id(const char* group_id);
KOV_API kov_status kov_set_data_redirection(int redirect);

typedef enum kov_switch {
  KOV_SWITCH_DISABLE_INBOX = 0,
  KOV_SWITCH_DISABLE_IN_APPS = 1,
  KOV_SWITCH_DISABLE_BADGE_RESET = 2
} kov_switch;

KOV_API kov_status kov_set_switch(kov_switch which, int on);
KOV_API kov_status kov_get_switch(kov_switch which, int* on);

/* ---------------------------------------------------------------------------------- events */

/* attributes_json: a JSON object, or NULL for none. */
KOV_API kov_status kov_track_event(const char* name, const char* attributes_json);

/* Typed attributes: dates, time stamps (sent as milliseconds) and places beside a JSON object. */
typedef struct kov_payload kov_payload;
KOV_API kov_status kov_payload_create(const char* attributes_json, kov_payload** payload);
KOV_API kov_status kov_payload_set_date(kov_payload* payload, const char* key, double seconds_since_1970);
KOV_API kov_status kov_payload_set_timestamp(kov_payload* payload, const char* key, double seconds_since_1970);
KOV_API kov_status kov_payload_set_location(kov_payload* payload, const char* key, double latitude, double longitude);
KOV_API kov_status kov_track_event_with_payload(const char* name, kov_payload* payload);
KOV_API void kov_payload_destroy(kov_payload* payload);

/* ------------------------------------------------------------------------ user attributes */

#define KOV_GENDER_MALE 0
#define KOV_GENDER_FEMALE 1

/* value_json: a JSON string, number or boolean. */
KOV_API kov_status kov_set_user_attribute(const char* key, const char* value_json);
KOV_API kov_status kov_set_user_attribute_timestamp(const char* key, double seconds_since_1970);
KOV_API kov_status kov_set_user_attribute_location(const char* key, double latitude, double longitude);
KOV_API kov_status kov_set_user_unique_id(const char* value);
KOV_API kov_status kov_set_user_email(const char* value);
KOV_API kov_status kov_set_user_name(const char* value);
KOV_API kov_status kov_set_user_first_name(const char* value);
KOV_API kov_status kov_set_user_last_name(const char* value);
KOV_API kov_status kov_set_user_mobile(const char* value);
KOV_API kov_status kov_set_user_gender(int gender);
KOV_API kov_status kov_set_user_date_of_birth(double seconds_since_1970);
KOV_API kov_status kov_set_user_location(double latitude, double longitude);
KOV_API kov_status kov_set_device_attribute(const char* key, const char* value_json);

/* ----------------------------------------------------------------------- sync and logout */

KOV_API kov_status kov_sync_now(void);
/* Syncs now; the completion hears (on the main queue) whether nothing is left for the service. */
KOV_API kov_status kov_flush(kov_bool_callback completion, void* ctx);
/* Registers the device with the service unless it is; the completion (may be NULL) hears whether
 * it is. */
KOV_API kov_status kov_add_device(kov_bool_callback completion, void* ctx);
/* Logout: tracks "KOV_LOGOUT", sends what is stored, then clears the user's data. */
KOV_API kov_status kov_reset_user(void);

/* ----------------------------------------------------------------------------- privacy */

/* The user's tracking consent, kept across launches. */
typedef enum kov_consent { KOV_CONSENT_GRANTED = 0, KOV_CONSENT_DENIED = 1, KOV_CONSENT_PENDING = 2 } kov_consent;
/* What a denial does with what is held: sent in one last sync, or discarded at once. */
typedef enum kov_pending_data { KOV_PENDING_SEND = 0, KOV_PENDING_DISCARD = 1 } kov_pending_data;
KOV_API kov_status kov_set_tracking_consent(kov_consent consent, kov_pending_data pending_data);
KOV_API kov_status kov_tracking_consent(kov_consent* consent);
/* The consent of an install where the app never chose (call before the start): Pending to ask first. */
KOV_API kov_status kov_set_default_tracking_consent(kov_consent consent);
/* Removes everything the SDK keeps on the device; keep_persistent_device_id (0 or 1) keeps the
 * keychain's device id. */
KOV_API kov_status kov_wipe_data(int keep_persistent_device_id);
/* Everything the device keeps about the user, as JSON (free with kov_free). */
KOV_API kov_status kov_export_user_data(char** data_json);

/* ------------------------------------------------------------------------------------ push */

/* Categories as JSON: [{"identifier": "ORDER", "actions": [{"identifier": "TRACK", "title": "Track",
 * "options": 4}], "intentIdentifiers": [], "options": 1}]; for systems before 10.0 the same, with
 * "minimalActions" beside "actions". NULL: none given. delegate_answers_responses: the host's
 * notification-centre delegate hands the user's answers to kov_did_receive_notification_response
 * (the port hears it through set_delegate). */
KOV_API kov_status kov_register_for_remote_notifications(const char* categories_json,
                                                         const char* earlier_categories_json,
                                                         int delegate_answers_responses);
/* The device token the system issued, as its bytes. */
KOV_API kov_status kov_register_for_push(const void* token, size_t length);
KOV_API kov_status kov_save_and_register_with_token(const char* hex_token);
KOV_API kov_status kov_did_fail_to_register_for_push(void);
KOV_API kov_status kov_did_register_for_user_notification_settings(int granted_types);
KOV_API kov_status kov_set_user_notification_categories(const char* categories_json);
KOV_API kov_status kov_set_earlier_notification_categories(const char* categories_json);
/* A push delivered to the app delegate, in whatever state the application port reports. */
KOV_API kov_status kov_did_receive_notification(const char* payload_json, int open_deeplinks_automatically);
/* The user's answer to a notification: "KONotificationDefaultActionIdentifier" (opened),
 * "KONotificationDismissActionIdentifier" (dismissed) or an action button's identifier.
 * attachments_json: an array of the shown attachments' identifiers, or NULL. */
KOV_API kov_status kov_did_receive_notification_response(const char* action_identifier, const char* payload_json,
                                                         const char* attachments_json);
/* An action button tapped on systems before 10.0. */
KOV_API kov_status kov_handle_action_with_identifier(const char* identifier, const char* payload_json);

/* ----------------------------------------------------------------------------------- inbox */

/* Fetches new messages; the completion (may be NULL) hears whether the service answered. */
KOV_API kov_status kov_inbox_fetch(kov_bool_callback completion, void* ctx);
/* Every stored message, newest first: [{"data", "cid", "c_cr_t", "isRead", "isGiven"}]. */
KOV_API kov_status kov_inbox_messages(char** messages_json);
KOV_API kov_status kov_inbox_remove_all(void);
/* Deletes the newest message of the campaign. */
KOV_API kov_status kov_inbox_remove_message(const char* campaign_id);
/* Marks the newest message of the campaign read; KOV_INVALID_ARGUMENT when there is none. */
KOV_API kov_status kov_inbox_mark_read(const char* campaign_id);
/* Shows the ready-made inbox screen inside the host's screen (its name). style_json (or NULL):
 * {"title", "tableBackgroundColor", "cellBackgroundColor", "textColor", "font", "unreadFont",
 * "dateColor", "dateFont"}, colours as {"red", "green", "blue", "alpha"} from 0 to 1, fonts as
 * {"name", "size"}. selected (may be NULL) hears the "app_extra" object of a tapped message. */
KOV_API kov_status kov_inbox_show(const char* host_screen, const char* style_json, kov_json_callback selected,
                                  void* ctx);

/* ------------------------------------------------------------------ in-process notifications */

/* What a fetch found that the app was not handed before: user info {"pending_notifications": [...]}. */
#define KOV_NOTIFICATION_INBOX_PENDING "PendingNotifications"
/* The application lifecycle, which the host's platform posts (kov_post_notification). */
#define KOV_NOTIFICATION_DID_FINISH_LAUNCHING "UIApplicationDidFinishLaunchingNotification"
#define KOV_NOTIFICATION_DID_BECOME_ACTIVE "UIApplicationDidBecomeActiveNotification"
#define KOV_NOTIFICATION_WILL_RESIGN_ACTIVE "UIApplicationWillResignActiveNotification"
#define KOV_NOTIFICATION_DID_ENTER_BACKGROUND "UIApplicationDidEnterBackgroundNotification"
#define KOV_NOTIFICATION_WILL_ENTER_FOREGROUND "UIApplicationWillEnterForegroundNotification"
#define KOV_NOTIFICATION_WILL_TERMINATE "UIApplicationWillTerminateNotification"

/* Calls the observer for every notification of the name (every one when name is ""). */
KOV_API kov_status kov_add_observer(const char* name, kov_notification_callback observer, void* ctx, uint64_t* token);
KOV_API kov_status kov_remove_observer(uint64_t token);
/* user_info_json: a JSON object, or NULL. */
KOV_API kov_status kov_post_notification(const char* name, const char* user_info_json);

/* ---------------------------------------------------------------------------------- in-app */

/* A screen is named by its name; NULL means the screen on top. */
#define KOV_INAPP_WIDGET_BUTTON 0
#define KOV_INAPP_WIDGET_IMAGE 1
#define KOV_INAPP_WIDGET_LABEL 2
#define KOV_INAPP_WIDGET_CLOSE_BUTTON 6
#define KOV_NUDGE_TOP 0
#define KOV_NUDGE_BOTTOM 1

typedef enum kov_self_handled_action {
  KOV_SELF_HANDLED_PRIMARY = 0,
  KOV_SELF_HANDLED_SECONDARY = 1,
  KOV_SELF_HANDLED_DISMISS = 2
} kov_self_handled_action;

/* What the host hears of in-apps (either may be NULL): taps, and self-handled campaigns as
 * {"campaign_id", "content", ...}. Replaces the callbacks set before. */
KOV_API kov_status kov_set_inapp_callbacks(kov_inapp_clicked_callback clicked, kov_json_callback self_handled,
                                           void* ctx);
KOV_API kov_status kov_show_inapp(const char* screen);
KOV_API kov_status kov_get_self_handled_inapp(const char* screen);
KOV_API kov_status kov_self_handled_inapp_shown(const char* campaign_id);
KOV_API kov_status kov_self_handled_inapp_clicked(const char* campaign_id, kov_self_handled_action action);
KOV_API kov_status kov_get_nudge_view(const char* screen, kov_nudge_callback completion, void* ctx);
KOV_API kov_status kov_nudge_view_shown(const char* campaign_id);
KOV_API kov_status kov_show_nudge_view(const char* screen, int position);
KOV_API kov_status kov_dont_show_inapp_in(const char* screen);
/* For every stored campaign whether it would show now and, if not, the first rule that refuses
 * it: [{"cid", "type", "shows", "refusedBy", "minutesLeft"}]. */
KOV_API kov_status kov_inapp_decision_report(const char* screen, char** report_json);

/* ------------------------------------------------------------------------------- geofences */

/* Monitors the service's fences near the device, through a location manager of the platform's
 * location port; with_location: fetch them for this place at once. */
KOV_API kov_status kov_start_geofencing(int with_location, double latitude, double longitude);
/* The host hears of region entries and exits (either may be NULL), before the SDK reports its own:
 * {"identifier", "latitude", "longitude", "radius", "notifyOnEntry", "notifyOnExit"}. */
KOV_API kov_status kov_set_geo_callbacks(kov_json_callback entered, kov_json_callback exited, void* ctx);

/* =========================================================================== the platform port
 *
 * The device as the SDK reaches it: one table of function pointers per port, each with the
 * context pointer its functions are handed. The SDK copies the tables at kov_platform_install;
 * the contexts must live as long as the process. Calls come on any thread unless said otherwise.
 *
 * What crosses back into the SDK:
 *   kov_out      where a port function puts text or bytes it answers (the SDK copies them);
 *                left unset, the answer is "none".
 *   kov_task     work for a queue: run it once (kov_task_run) or drop it (kov_task_drop).
 *   kov_handler  a callback of the SDK a port may call any number of times with JSON arguments
 *                (described where it is handed over), and releases once (kov_handler_release).
 * Screens are named by JSON trees: {"name", "kind": "plain"|"navigation"|"tabBar"|"alert",
 * "children": [...], "selectedIndex", "presented": {...}}. View descriptions are the JSON of
 * docs/bindings.md ("kind", "tag", "frame", "text", ...); a view event's arguments are
 * {"tag", "event": "tap"|"swipeDelete"|"swipeAway"|"loadStarted"|"loadFinished"|"loadFailed"}. */

typedef struct kov_out kov_out;
KOV_API void kov_out_set(kov_out* out, const void* bytes, size_t length);
KOV_API void kov_out_set_text(kov_out* out, const char* text);

typedef struct kov_task kov_task;
KOV_API void kov_task_run(kov_task* task);
KOV_API void kov_task_drop(kov_task* task);

typedef struct kov_handler kov_handler;
KOV_API kov_status kov_handler_call(kov_handler* handler, const char* args_json);
KOV_API void kov_handler_release(kov_handler* handler);

/* The app bundle, the hardware and system, the advertising framework, locale, time zone, clock. */
typedef struct kov_device_port {
  void* ctx;
  void (*short_version)(void* ctx, kov_out* out);
  void (*build_version)(void* ctx, kov_out* out);
  void (*bundle_identifier)(void* ctx, kov_out* out);
  void (*info_dictionary)(void* ctx, kov_out* json); /* a JSON object */
  void (*identifier_for_vendor)(void* ctx, kov_out* out);
  void (*model)(void* ctx, kov_out* out);
  void (*name)(void* ctx, kov_out* out);
  void (*system_name)(void* ctx, kov_out* out);
  void (*system_version)(void* ctx, kov_out* out);
  void (*localized_model)(void* ctx, kov_out* out);
  int (*idiom)(void* ctx); /* 0 phone, 1 tablet */
  void (*screen)(void* ctx, double* width, double* height, double* scale);
  int (*advertising_available)(void* ctx);
  int (*advertising_tracking_enabled)(void* ctx);
  void (*advertising_identifier)(void* ctx, kov_out* out);
  void (*locale_identifier)(void* ctx, kov_out* out);
  void (*language_code)(void* ctx, kov_out* out);
  void (*country_code)(void* ctx, kov_out* out);
  void (*language_name)(void* ctx, const char* code, kov_out* out);
  void (*country_name)(void* ctx, const char* code, kov_out* out);
  void (*time_zone_name)(void* ctx, kov_out* out);
  int64_t (*seconds_from_gmt)(void* ctx, double at_seconds_since_1970);
  double (*now)(void* ctx); /* seconds since 1970 */
} kov_device_port;

/* A mapped file: data and size as mapped, handle the port's own. */
typedef struct kov_mapping {
  void* data;
  size_t size;
  void* handle;
} kov_mapping;

/* The sandbox's files. Functions returning int return 0 or an errno value (ENOENT: missing). */
typedef struct kov_files_port {
  void* ctx;
  void (*documents_directory)(void* ctx, kov_out* path);
  void (*caches_directory)(void* ctx, kov_out* path);
  void (*temporary_directory)(void* ctx, kov_out* path);
  int (*read_file)(void* ctx, const char* path, kov_out* bytes);
  /* Creates or truncates, writes every byte and flushes to the device. */
  int (*write_file)(void* ctx, const char* path, const void* bytes, size_t length, unsigned mode);
  int (*rename_file)(void* ctx, const char* from, const char* to);
  int (*remove_item)(void* ctx, const char* path); /* a file or a whole tree; missing counts as removed */
  int (*create_directories)(void* ctx, const char* path);
  int (*file_exists)(void* ctx, const char* path); /* 1 or 0 */
  void (*list_directory)(void* ctx, const char* path, kov_out* names_json);
  /* Optional (NULL: the SDK keeps recent events in memory only until they reach the batch file).
   * Maps the file shared at `size` bytes, every byte backed by storage; grows a mapping keeping
   * its bytes; unmaps. */
  int (*map_file)(void* ctx, const char* path, size_t size, kov_mapping* mapping);
  int (*resize_mapping)(void* ctx, kov_mapping* mapping, size_t size);
  void (*unmap_file)(void* ctx, kov_mapping* mapping);
} kov_files_port;

/* The standard preference store (suite NULL) and the app-group suites. Values as JSON with the
 * one-key objects for dates, data and URLs. */
typedef struct kov_preferences_port {
  void* ctx;
  int (*has_suite)(void* ctx, const char* suite); /* whether the app may use the group */
  void (*get)(void* ctx, const char* suite, const char* key, kov_out* value_json);
  void (*set)(void* ctx, const char* suite, const char* key, const char* value_json); /* NULL removes */
  int (*synchronize)(void* ctx, const char* suite);                                   /* 1 when written */
  void (*dictionary)(void* ctx, const char* suite, kov_out* json);
  int (*unreadable)(void* ctx, const char* suite); /* optional: the store's file could not be read */
} kov_preferences_port;

/* Generic-password items kept outside the sandbox. Status codes: 0, -25300 not found,
 * -25299 duplicate, -50 bad parameter, -36 I/O error. */
typedef struct kov_keychain_port {
  void* ctx;
  int (*add)(void* ctx, const char* service, const char* account, const void* data, size_t length,
             const char* accessibility);
  int (*copy_matching)(void* ctx, const char* service, const char* account, kov_out* data);
  int (*remove)(void* ctx, const char* service, const char* account);
} kov_keychain_port;

/* The running application. */
typedef struct kov_application_port {
  void* ctx;
  int (*state)(void* ctx); /* 0 active, 1 inactive, 2 background */
  int64_t (*badge)(void* ctx);
  void (*set_badge)(void* ctx, int64_t badge);
  /* The expiration task runs if the time runs out; the port drops it when the task ends. */
  uint64_t (*begin_background_task)(void* ctx, const char* name, kov_task* expiration);
  void (*end_background_task)(void* ctx, uint64_t task);
  int (*can_open_url)(void* ctx, const char* url);
  void (*open_url)(void* ctx, const char* url, kov_handler* completion); /* args: true or false */
  void (*open_settings)(void* ctx);
  void (*register_for_remote_notifications)(void* ctx);
  int (*is_registered_for_remote_notifications)(void* ctx);
  void (*key_window_root)(void* ctx, kov_out* screen_json); /* unset before anything is shown */
  void (*delegate_window_root)(void* ctx, kov_out* screen_json);
  int (*keyboard_shown)(void* ctx);
  int (*delegate_handles_notification_responses)(void* ctx); /* optional */
} kov_application_port;

/* The main queue (a run loop on the host's main thread) and the shared concurrent queue. */
typedef struct kov_dispatch_port {
  void* ctx;
  void (*async_main)(void* ctx, kov_task* task);
  void (*async_background)(void* ctx, kov_task* task);
  uint64_t (*after_main)(void* ctx, double delay_seconds, kov_task* task);
  uint64_t (*after_background)(void* ctx, double delay_seconds, kov_task* task);
  int (*cancel)(void* ctx, uint64_t token); /* 1 when it was pending (its task is dropped) */
  int (*is_main_thread)(void* ctx);
} kov_dispatch_port;

/* What the user sees. A screen the port shows is its own pointer (NULL: not shown); the SDK
 * updates, removes and finally releases it. View events reach their handler on the main thread. */
typedef struct kov_user_interface_port {
  void* ctx;
  int (*supports_alert_controller)(void* ctx);
  /* actions_json: [{"title", "style": "default"|"cancel"|"destructive"}]; on_action args: the
   * index tapped. presenter: a screen name or NULL. */
  void (*present_alert)(void* ctx, const char* title, const char* message, const char* actions_json,
                        const char* presenter, kov_handler* on_action);
  /* popover_json: {"x", "y", "width", "height"} on a tablet, or NULL. */
  void (*present_share_sheet)(void* ctx, const char* items_json, const char* excluded_json, const char* presenter,
                              const char* popover_json);
  void (*size_of_text)(void* ctx, const char* text, const char* font_name, double point_size, double* width,
                       double* height);
  double (*height_of_text)(void* ctx, const char* text, double width, const char* font_name, double point_size);
  double (*system_font_size)(void* ctx);
  void* (*embed_screen)(void* ctx, const char* host, const char* view_json, kov_handler* on_event);
  void* (*present_screen)(void* ctx, const char* view_json, kov_handler* on_event);
  /* The platform's browser; did_finish (args: null) when the user is done with it. */
  void* (*present_browser)(void* ctx, const char* url, const char* presenter, kov_handler* did_finish);
  void (*update_screen)(void* ctx, void* screen, const char* view_json);
  void (*remove_screen)(void* ctx, void* screen);
  /* What the user made of an input view: {"kind": "rating"|"textField"|"textView"|"switch"|
   * "slider"|"other", "value", "isOn", "text"}; a web view's last load error as {"text"}. */
  void (*view_with_tag)(void* ctx, void* screen, int64_t tag, kov_out* view_json);
  void (*release_screen)(void* ctx, void* screen);
  void (*set_pasteboard)(void* ctx, const char* text);
} kov_user_interface_port;

/* The notification centre (both generations). */
typedef struct kov_notification_center_port {
  void* ctx;
  /* completion args: {"granted": bool, "error": text or null}; options: badge 1, sound 2, alert 4. */
  void (*request_authorization)(void* ctx, int options, kov_handler* completion);
  /* completion args: the alert setting, 0 not supported, 1 disabled, 2 enabled. */
  void (*get_settings)(void* ctx, kov_handler* completion);
  void (*set_categories)(void* ctx, const char* categories_json);
  /* The host's delegate as the SDK hands it on: -1 none, 0 one that does not answer responses,
   * 1 one that does (and calls kov_did_receive_notification_response). */
  void (*set_delegate)(void* ctx, int delegate);
  void (*register_settings)(void* ctx, int types, const char* categories_json); /* before 10.0 */
} kov_notification_center_port;

/* Location managers (optional: make_manager NULL means no location services). A manager reports
 * through its events handler, on the main thread, args one of
 *   {"event": "locations", "locations": [{"latitude", "longitude", "accuracy", "timestamp"}]}
 *   {"event": "error", "code", "message"}        {"event": "authorization", "status"}
 *   {"event": "enter" | "exit", "region"}        {"event": "monitoringFailed", "region", "code", "message"}
 * regions as {"identifier", "latitude", "longitude", "radius", "notifyOnEntry", "notifyOnExit"};
 * authorisation 0 not determined, 1 restricted, 2 denied, 3 always, 4 when in use. */
typedef struct kov_location_port {
  void* ctx;
  void* (*make_manager)(void* ctx, kov_handler* events);
  int (*services_enabled)(void* ctx, void* manager);
  int (*authorization_status)(void* ctx, void* manager);
  int (*offers_always)(void* ctx, void* manager);
  void (*request_always)(void* ctx, void* manager);
  int (*offers_when_in_use)(void* ctx, void* manager);
  void (*request_when_in_use)(void* ctx, void* manager);
  void (*start_updating)(void* ctx, void* manager);
  void (*stop_updating)(void* ctx, void* manager);
  int (*monitoring_available)(void* ctx, void* manager);
  void (*start_monitoring)(void* ctx, void* manager, const char* region_json);
  void (*stop_monitoring)(void* ctx, void* manager, const char* identifier);
  void (*monitored_regions)(void* ctx, void* manager, kov_out* regions_json);
  void (*release_manager)(void* ctx, void* manager);
} kov_location_port;

/* The logger's lines. */
typedef struct kov_console_port {
  void* ctx;
  void (*write_line)(void* ctx, const char* line, size_t length);
} kov_console_port;

/* Where the service lives. A member left 0 or NULL keeps the production default (HTTPS on port
 * 443 with certificates verified, a 60 s timeout per request). */
typedef struct kov_endpoints {
  const char* scheme;
  const char* api_host;
  const char* india_api_host;
  const char* inbox_host;
  const char* log_host;
  int port;
  int skip_certificate_verification;
  double timeout_seconds;
} kov_endpoints;

typedef struct kov_platform {
  kov_device_port device;
  kov_files_port files;
  kov_preferences_port preferences;
  kov_keychain_port keychain;
  kov_application_port application;
  kov_dispatch_port dispatch;
  kov_user_interface_port user_interface;
  kov_notification_center_port notification_center;
  kov_location_port location;
  kov_console_port console;
  kov_endpoints endpoints;
} kov_platform;

/* Makes these ports the platform the SDK uses from now on; KOV_INVALID_ARGUMENT names the first
 * required function missing. */
KOV_API kov_status kov_platform_install(const kov_platform* platform);
/* Points the service calls somewhere else (the local emulator, say), at once. */
KOV_API kov_status kov_set_service_endpoints(const kov_endpoints* endpoints);

#ifdef __cplusplus
}
#endif

#endif /* KOVANTIS_C_H */
