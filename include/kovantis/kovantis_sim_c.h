/* kovantis_sim_c.h: the simulated device and the local emulator of the service, from C
 * (libkovantis_sim_c), so that a wrapper's tests run the whole SDK headless, as the SDK's own do.
 *
 * The same rules as kovantis_c.h: kov_ names, UTF-8, JSON for anything compound, a kov_status
 * from every call with kov_last_error() saying why, char** answers freed with kov_free().
 *
 *   kov_sim_device* device;  kov_emulator* emulator;  kov_platform ports;
 *   kov_sim_device_create(NULL, &device);
 *   kov_emulator_start(NULL, &emulator);
 *   kov_sim_device_ports(device, &ports);           every port of the device, as C tables
 *   ports.endpoints.scheme = "http"; ...             the emulator's address (kov_emulator_port)
 *   kov_platform_install(&ports);                    a test may first replace any function
 *   kov_sim_device_lifecycle(device, KOV_SIM_LAUNCH);
 *   kov_initialize_prod("my-app", NULL, 1); ... */
#ifndef KOVANTIS_SIM_C_H
#define KOVANTIS_SIM_C_H

#include "kovantis/kovantis_c.h"

#ifdef __cplusplus
extern "C" {
#endif

/* --------------------------------------------------------------------------------- device */

typedef struct kov_sim_device kov_sim_device;

/* config_json (or NULL): {"rootDirectory": a directory kept after the device (default: a fresh
 * temporary one removed with it), "echoConsole": bool, "bundleIdentifier", "shortVersion",
 * "buildVersion", "systemVersion", "localeIdentifier", "timeZoneName"}. The calling thread is the
 * device's main thread. */
KOV_API kov_status kov_sim_device_create(const char* config_json, kov_sim_device** device);
/* Only once the SDK is done with the device: at the end of the process. */
KOV_API void kov_sim_device_destroy(kov_sim_device* device);
/* Every port of the device as C tables, endpoints at the production defaults. */
KOV_API kov_status kov_sim_device_ports(kov_sim_device* device, kov_platform* platform);
KOV_API kov_status kov_sim_device_root_directory(kov_sim_device* device, char** path);
/* Deletes the app (sandbox, app groups, vendor id); the keychain stays. */
KOV_API kov_status kov_sim_device_uninstall(kov_sim_device* device);

typedef enum kov_sim_lifecycle {
  KOV_SIM_LAUNCH = 0,
  KOV_SIM_BECOME_ACTIVE = 1,
  KOV_SIM_RESIGN_ACTIVE = 2,
  KOV_SIM_ENTER_BACKGROUND = 3,
  KOV_SIM_ENTER_FOREGROUND = 4,
  KOV_SIM_TERMINATE = 5
} kov_sim_lifecycle;

/* Sets the application state and posts its notification, on the main thread. */
KOV_API kov_status kov_sim_device_lifecycle(kov_sim_device* device, kov_sim_lifecycle step);

/* Whether the wait is over. */
typedef int (*kov_sim_condition)(void* ctx);
/* Runs the main-queue work that is ready; ran: how many items (may be NULL). */
KOV_API kov_status kov_sim_device_pump_main(kov_sim_device* device, size_t* ran);
/* Pumps the main queue until the condition holds (met 1) or the timeout passes (met 0). */
KOV_API kov_status kov_sim_device_run_main_until(kov_sim_device* device, kov_sim_condition condition, void* ctx,
                                                 double timeout_seconds, int* met);

/* The clock: fixed at a moment (delayed calls then run in its time), moved, or real again. */
KOV_API kov_status kov_sim_device_fix_clock(kov_sim_device* device, double seconds_since_1970);
KOV_API kov_status kov_sim_device_advance_clock(kov_sim_device* device, double seconds);
KOV_API kov_status kov_sim_device_use_real_time(kov_sim_device* device);

/* ---------------------------------------------------------------------- the app's delegate */

/* What the app's own code hears from the device; any member may be NULL. On the main thread. */
typedef struct kov_sim_app_delegate {
  void* ctx;
  /* The push token after each registration for remote notifications, or the failure. */
  void (*registered)(void* ctx, const void* token, size_t length);
  void (*registration_failed)(void* ctx);
  /* A push delivered to the app delegate, in the app's present state. */
  void (*remote_notification)(void* ctx, const char* payload_json);
  /* An action button tapped, on systems before 10.0. */
  void (*notification_action)(void* ctx, const char* identifier, const char* payload_json);
  /* The user's answer to a notification, heard by the notification-centre delegate the host
   * registered (kov_register_for_remote_notifications with delegate_answers_responses). */
  void (*notification_response)(void* ctx, const char* action_identifier, const char* payload_json,
                                const char* attachments_json);
} kov_sim_app_delegate;

KOV_API kov_status kov_sim_device_set_app_delegate(kov_sim_device* device, const kov_sim_app_delegate* delegate);

/* ---------------------------------------------------------------------------------- pushes */

/* heard (may be NULL): whether any of the app's code heard it. */
KOV_API kov_status kov_sim_device_receive_push(kov_sim_device* device, const char* payload_json, int* heard);
/* The user taps the notification: from the background the app comes forward, hears the tap, and
 * becomes active. attachments_json: the identifiers it showed, or NULL. */
KOV_API kov_status kov_sim_device_open_push(kov_sim_device* device, const char* payload_json,
                                            const char* attachments_json, int* heard);
KOV_API kov_status kov_sim_device_respond_to_push(kov_sim_device* device, const char* payload_json,
                                                  const char* action_identifier, const char* attachments_json,
                                                  int* heard);
/* A tap while the app is not running: the launch options for kov_initialize_*. */
KOV_API kov_status kov_sim_device_launch_from_push(kov_sim_device* device, const char* payload_json,
                                                   char** launch_options_json);
/* How the user answers the permission prompt: 0 allow (the default), 1 deny, 2 deny with an error. */
KOV_API kov_status kov_sim_device_set_push_permission_answer(kov_sim_device* device, int answer);
/* URL schemes the device can open beyond http, https, tel, mailto and sms. */
KOV_API kov_status kov_sim_device_add_openable_scheme(kov_sim_device* device, const char* scheme);

/* ---------------------------------------------------------------------------- the screen */

/* The app's screens (the key window's root), as a screen tree: {"name", "kind", "children", ...}. */
KOV_API kov_status kov_sim_device_set_screens(kov_sim_device* device, const char* root_screen_json);
/* Everything shown and dismissed, oldest first: [{"seq", "kind", ...}] with kinds "alert",
 * "shareSheet", "openURL", "embeddedScreen", "presentedScreen", "screenUpdate", "browser",
 * "dismiss". */
KOV_API kov_status kov_sim_device_screen_record(kov_sim_device* device, char** entries_json);
/* The newest presented screen (an in-app) or embedded one (the inbox, a nudge) still shown, as a
 * view description; "null" when none is. */
KOV_API kov_status kov_sim_device_presented_screen(kov_sim_device* device, char** view_json);
KOV_API kov_status kov_sim_device_embedded_screen(kov_sim_device* device, char** view_json);
/* The user taps or swipes a view of the topmost screen by its tag; KOV_INVALID_ARGUMENT when no
 * shown view has it. */
KOV_API kov_status kov_sim_device_tap_view(kov_sim_device* device, int64_t tag);
KOV_API kov_status kov_sim_device_swipe_to_delete(kov_sim_device* device, int64_t tag);
/* Taps an action of an alert (both count from 0, alerts in the order shown). */
KOV_API kov_status kov_sim_device_tap_alert_action(kov_sim_device* device, size_t alert, size_t action);
/* The user is done with the platform browser. */
KOV_API kov_status kov_sim_device_finish_browser(kov_sim_device* device);
KOV_API kov_status kov_sim_device_pasteboard(kov_sim_device* device, char** text);
/* Every line the SDK logged, as a JSON array. */
KOV_API kov_status kov_sim_device_console_lines(kov_sim_device* device, char** lines_json);

/* -------------------------------------------------------------------------------- location */

/* The device is here now: updating managers hear it, watched circles crossed fire. */
KOV_API kov_status kov_sim_device_move_to(kov_sim_device* device, double latitude, double longitude);
/* The app's watched regions: [{"identifier", "latitude", "longitude", "radius", ...}]. */
KOV_API kov_status kov_sim_device_monitored_regions(kov_sim_device* device, char** regions_json);

/* ---------------------------------------------------------------------- the local emulator */

typedef struct kov_emulator kov_emulator;

/* Starts an emulator of the service on 127.0.0.1, on a free port. data_directory: where its store
 * lives (NULL: a temporary directory removed when it stops). */
KOV_API kov_status kov_emulator_start(const char* data_directory, kov_emulator** emulator);
KOV_API kov_status kov_emulator_port(kov_emulator* emulator, int* port);
/* "http://127.0.0.1:PORT" */
KOV_API kov_status kov_emulator_base_url(kov_emulator* emulator, char** url);
/* Replaces the sections of the seed given (config, inapps, campaigns, smart_triggers, inbox, ...). */
KOV_API kov_status kov_emulator_seed(kov_emulator* emulator, const char* seed_json);
/* What the service received, as its control API answers it: "events", "batches", "devices",
 * "requests" (path_filter: an exact path, or a prefix ending in "/"; NULL for all),
 * "campaign_events", "categories", "geofence_hits", "logs", "duplicates". */
KOV_API kov_status kov_emulator_inspect(kov_emulator* emulator, const char* what, const char* path_filter, char** json);
/* Blocks until `count` requests matching the path arrived (reached 1) or the timeout passed. */
KOV_API kov_status kov_emulator_wait_for_requests(kov_emulator* emulator, const char* path_filter, size_t count,
                                                  double timeout_seconds, int* reached);
/* Forgets everything received. */
KOV_API kov_status kov_emulator_reset(kov_emulator* emulator);
/* Stops serving and frees it. */
KOV_API void kov_emulator_stop(kov_emulator* emulator);

#ifdef __cplusplus
}
#endif

#endif /* KOVANTIS_SIM_C_H */
