/* A session of a host app written in C, against the local emulator: events and attributes, push
 * registration and a push opened with a deep link, the inbox, a triggered in-app shown and tapped;
 * then what the service stored. C11 only, linked with libkovantis_c and libkovantis_sim_c: the
 * example of docs/bindings.md. The device's ports go through the C tables, the console wrapped by a
 * function of this file, as a wrapper would wrap one. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kovantis/kovantis_sim_c.h"

static int failures = 0;

#define CHECK(condition, what)                                            \
  do {                                                                    \
    if (!(condition)) {                                                   \
      fprintf(stderr, "%s:%d: FAILED: %s\n", __FILE__, __LINE__, (what)); \
      ++failures;                                                         \
    }                                                                     \
  } while (0)

/* A call that must succeed; the run stops here otherwise. */
#define MUST(call)                                                                                               \
  do {                                                                                                           \
    kov_status status_ = (call);                                                                                 \
    if (status_ != KOV_OK) {                                                                                     \
      fprintf(stderr, "%s:%d: %s returned %d: %s\n", __FILE__, __LINE__, #call, (int)status_, kov_last_error()); \
      exit(1);                                                                                                   \
    }                                                                                                            \
  } while (0)

static kov_sim_device* device;

/* ----------------------------------------------------------------------- the app's own code */

struct app {
  int token_registered;
  int flushed; /* -1 while a flush runs */
  int delivered;
  int fetched;
  int pending_messages;
  char inbox_selection[256];
  char inapp_screen[64];
  char inapp_data[256];
  size_t console_lines;
  kov_console_port sim_console;
};
static struct app app = {0, 0, 0, 0, 0, "", "", "", 0, {0}};

static void on_token(void* ctx, const void* token, size_t length) {
  (void)ctx;
  if (kov_register_for_push(token, length) == KOV_OK) app.token_registered = 1;
}

static void on_remote_notification(void* ctx, const char* payload_json) {
  (void)ctx;
  kov_did_receive_notification(payload_json, 1);
}

static void on_notification_response(void* ctx, const char* action, const char* payload_json,
                                     const char* attachments_json) {
  (void)ctx;
  kov_did_receive_notification_response(action, payload_json, attachments_json);
}

static void on_flushed(void* ctx, int delivered) {
  (void)ctx;
  app.flushed = 1;
  app.delivered = delivered;
}

static void on_fetched(void* ctx, int answered) {
  (void)ctx;
  app.fetched = answered ? 1 : -1;
}

static void on_pending(void* ctx, const char* name, const char* user_info_json) {
  const char* at = user_info_json;
  (void)ctx;
  (void)name;
  while ((at = strstr(at, "\"cid\":\"welcome\"")) != NULL) {
    ++app.pending_messages;
    ++at;
  }
}

static void on_inbox_selected(void* ctx, const char* app_extra_json) {
  (void)ctx;
  snprintf(app.inbox_selection, sizeof app.inbox_selection, "%s", app_extra_json);
}

static void on_inapp_clicked(void* ctx, int widget, const char* screen_name, const char* data_json) {
  (void)ctx;
  (void)widget;
  snprintf(app.inapp_screen, sizeof app.inapp_screen, "%s", screen_name);
  snprintf(app.inapp_data, sizeof app.inapp_data, "%s", data_json);
}

/* The console port, wrapped: counts the lines, then hands them to the device's own. */
static void counting_console(void* ctx, const char* line, size_t length) {
  ++app.console_lines;
  app.sim_console.write_line(ctx, line, length);
}

/* ----------------------------------------------------------------------------- waiting */

static int flag_set(void* flag) { return *(int*)flag != 0; }
static int text_set(void* text) { return *(char*)text != '\0'; }

static int wait_for(int* flag, double seconds) {
  int met = 0;
  MUST(kov_sim_device_run_main_until(device, flag_set, flag, seconds, &met));
  return met;
}

/* The campaigns the start fetched are stored once the decision report lists them. */
static int campaigns_stored(void* ctx) {
  char* report = NULL;
  int stored;
  (void)ctx;
  if (kov_inapp_decision_report("Home", &report) != KOV_OK) return 0;
  stored = strstr(report, "home-banner") != NULL;
  kov_free(report);
  return stored;
}

static int view_shown(void* presented) {
  char* view = NULL;
  int shown;
  MUST(*(int*)presented ? kov_sim_device_presented_screen(device, &view)
                        : kov_sim_device_embedded_screen(device, &view));
  shown = strcmp(view, "null") != 0;
  kov_free(view);
  return shown;
}

static int url_opened(void* url) {
  char* record = NULL;
  char needle[128];
  int opened;
  MUST(kov_sim_device_screen_record(device, &record));
  snprintf(needle, sizeof needle, "\"url\":\"%s\"", (const char*)url);
  opened = strstr(record, "\"kind\":\"openURL\"") != NULL && strstr(record, needle) != NULL;
  kov_free(record);
  return opened;
}

/* Syncs until nothing waits on the device for the service (bounded in rounds and time). */
static int deliver_all(void) {
  int round;
  for (round = 0; round < 20; ++round) {
    app.flushed = 0;
    MUST(kov_flush(on_flushed, NULL));
    if (!wait_for(&app.flushed, 10)) return 0;
    if (app.delivered) return 1;
  }
  return 0;
}

/* ------------------------------------------------------------------------------ JSON text */

static size_t count(const char* text, const char* needle) {
  size_t n = 0;
  while ((text = strstr(text, needle)) != NULL) {
    ++n;
    ++text;
  }
  return n;
}

/* The tag of the view showing the text: the description writes "tag" before "text". */
static long tag_of(const char* view_json, const char* text) {
  char needle[128];
  const char* at;
  const char* tag = NULL;
  const char* scan;
  snprintf(needle, sizeof needle, "\"text\":\"%s\"", text);
  at = strstr(view_json, needle);
  if (!at) return -1;
  for (scan = view_json; (scan = strstr(scan, "\"tag\":")) != NULL && scan < at; ++scan) tag = scan;
  return tag ? strtol(tag + 6, NULL, 10) : -1;
}

/* The object of a campaign in the emulator's campaign events, up to its closing brace. */
static int campaign_count(const char* events, const char* cid, const char* field) {
  char needle[128];
  const char* at;
  const char* end;
  const char* value;
  snprintf(needle, sizeof needle, "\"cid\":\"%s\"", cid);
  at = strstr(events, needle);
  if (!at) return 0;
  end = strchr(at, '}');
  snprintf(needle, sizeof needle, "\"%s\":", field);
  value = strstr(at, needle);
  if (!value || value > end) return 0;
  return atoi(value + strlen(needle));
}

/* ------------------------------------------------------------------------------------ run */

static const char* seed =
    "{\"config\": {\"e_b_c\": 30},"
    " \"inapps\": {\"event_list\": [\"ADD_TO_CART\"], \"campaign_info\": ["
    "   {\"cid\": \"home-banner\", \"status\": \"active\", \"type\": \"general\", \"ttl\": 4102444800,"
    "    \"show_only_screen\": \"NeverShown\", \"widgets\": [{\"id\": 1, \"type\": \"text\", \"content\": \"Hi\"}]}]},"
    " \"smart_triggers\": {\"ADD_TO_CART\": {\"cid\": \"cart-offer\", \"status\": \"active\", \"type\": \"smart\","
    "   \"ttl\": 4102444800, \"max_times\": 2, \"widgets\": ["
    "   {\"id\": 1, \"type\": \"text\", \"content\": \"Add a second pair and save 10%.\"},"
    "   {\"id\": 2, \"type\": \"button\", \"content\": \"Add\", \"primary\": true, \"action\": ["
    "     {\"tag\": \"m_track\", \"track\": \"iOS_IN_APP_CLICKED\"},"
    "     {\"tag\": \"m_nav\", \"screen\": \"Cart\", \"extras\": {\"from\": \"offer\"}},"
    "     {\"tag\": \"m_dismiss\"}]}]}}}";

static const char* deeplink_push =
    "{\"aps\": {\"alert\": \"Shoes, 20% off\", \"badge\": 1}, \"kovantis\": {\"cid\": \"push-deeplink\"},"
    " \"app_extra\": {\"kov_deeplink\": \"kovtest://shop/shoes\"}}";

int main(void) {
  kov_emulator* emulator = NULL;
  kov_platform ports;
  kov_sim_app_delegate delegate;
  kov_payload* checkout = NULL;
  char inbox_seed[512];
  char* text = NULL;
  int port = 0;
  int presented = 1;
  int embedded = 0;
  uint64_t observer = 0;
  long tag;

  /* The device, the service's stand-in, and the device's ports pointed at it. */
  MUST(kov_sim_device_create("{\"bundleIdentifier\": \"com.example.ctest\"}", &device));
  MUST(kov_emulator_start(NULL, &emulator));
  MUST(kov_emulator_seed(emulator, seed));
  snprintf(inbox_seed, sizeof inbox_seed,
           "{\"inbox\": {\"messagesInfo\": [{\"cid\": \"welcome\", \"c_cr_t\": %lld, \"data\": {\"aps\": {\"alert\": "
           "\"Welcome!\"}, \"kovantis\": {\"cid\": \"welcome\"}, \"app_extra\": {\"screen\": \"home\"}}}]}}",
           (long long)time(NULL) - 60);
  MUST(kov_emulator_seed(emulator, inbox_seed));
  MUST(kov_emulator_port(emulator, &port));
  MUST(kov_sim_device_ports(device, &ports));
  ports.endpoints.scheme = "http";
  ports.endpoints.api_host = ports.endpoints.india_api_host = "127.0.0.1";
  ports.endpoints.inbox_host = ports.endpoints.log_host = "127.0.0.1";
  ports.endpoints.port = port;
  ports.endpoints.timeout_seconds = 5;
  app.sim_console = ports.console;
  ports.console.write_line = counting_console;
  CHECK(kov_track_event("EARLY", NULL) == KOV_NOT_INSTALLED, "the facade waits for a platform");
  MUST(kov_platform_install(&ports));
  MUST(kov_debug(2));

  memset(&delegate, 0, sizeof delegate);
  delegate.registered = on_token;
  delegate.remote_notification = on_remote_notification;
  delegate.notification_response = on_notification_response;
  MUST(kov_sim_device_set_app_delegate(device, &delegate));
  MUST(kov_sim_device_add_openable_scheme(device, "kovtest"));
  MUST(kov_sim_device_set_screens(device, "{\"name\": \"Home\"}"));

  /* Launch and start. */
  MUST(kov_sim_device_lifecycle(device, KOV_SIM_LAUNCH));
  MUST(kov_initialize_prod("c-test-app", NULL, 1));
  MUST(kov_app_status(KOV_APP_STATUS_INSTALL));
  MUST(kov_sim_device_lifecycle(device, KOV_SIM_BECOME_ACTIVE));
  {
    int met = 0;
    MUST(kov_sim_device_run_main_until(device, campaigns_stored, NULL, 10, &met));
    CHECK(met, "the start fetched the in-app campaigns");
  }

  /* Events and attributes. */
  MUST(kov_track_event("PRODUCT_VIEWED", "{\"sku\": \"A1\", \"price\": 9.99, \"in_stock\": true}"));
  MUST(kov_payload_create("{\"order\": \"A-77\"}", &checkout));
  MUST(kov_payload_set_location(checkout, "store", 12.97, 77.59));
  MUST(kov_track_event_with_payload("CHECKOUT", checkout));
  kov_payload_destroy(checkout);
  MUST(kov_set_user_email("ada@example.com"));
  MUST(kov_set_user_attribute("plan", "\"gold\""));
  MUST(kov_set_user_gender(KOV_GENDER_FEMALE));

  /* What C gets wrong is refused before the SDK sees it, in the SDK's words. */
  CHECK(kov_track_event("LIST", "[1, 2]") == KOV_INVALID_JSON, "attributes must be an object");
  CHECK(strstr(kov_last_error(), "payload with the event has to be a NSDictionary") != NULL, kov_last_error());
  CHECK(kov_set_user_attribute("nested", "{\"a\": 1}") == KOV_INVALID_JSON, "a user attribute is text or a number");
  CHECK(strcmp(kov_last_error(), "Kovantis - The attribue value should be either of string, integer or bool") == 0,
        kov_last_error());
  CHECK(kov_track_event("BROKEN", "{\"sku\": ") == KOV_INVALID_JSON, "text that is not JSON");
  /* What the SDK itself refuses comes back as the line it logged. */
  CHECK(kov_track_event("NUL", "{\"note\": \"a\\u0000b\"}") == KOV_REFUSED, "the SDK refuses a NUL character");
  CHECK(strcmp(kov_last_error(),
               "Kovantis - exception is a key or value holds a NUL character, which cannot be stored") == 0,
        kov_last_error());

  /* Push: permission, categories, the token the app delegate hands over. */
  MUST(kov_register_for_remote_notifications(
      "[{\"identifier\": \"ORDER\", \"actions\": [{\"identifier\": \"TRACK\", \"title\": \"Track\", \"options\": 4}]}]",
      NULL, 1));
  CHECK(wait_for(&app.token_registered, 10), "the device token reached the SDK");

  /* The inbox: fetched, handed out once, marked read, shown and tapped. */
  MUST(kov_add_observer(KOV_NOTIFICATION_INBOX_PENDING, on_pending, NULL, &observer));
  MUST(kov_inbox_fetch(on_fetched, NULL));
  CHECK(wait_for(&app.fetched, 10) && app.fetched == 1, "the service answered the inbox fetch");
  CHECK(app.pending_messages == 1, "the new message was handed to the app once");
  MUST(kov_remove_observer(observer));
  MUST(kov_inbox_messages(&text));
  CHECK(strstr(text, "\"cid\":\"welcome\"") != NULL && count(text, "\"isRead\":true") == 0, text);
  kov_free(text);
  MUST(kov_inbox_mark_read("welcome"));
  MUST(kov_inbox_messages(&text));
  CHECK(count(text, "\"isRead\":true") == 1, "marked read, and stored so");
  kov_free(text);
  CHECK(kov_inbox_mark_read("no-such-campaign") == KOV_INVALID_ARGUMENT, "no message of that campaign");
  MUST(kov_inbox_show("Home", "{\"title\": \"Messages\"}", on_inbox_selected, NULL));
  {
    int met = 0;
    MUST(kov_sim_device_run_main_until(device, view_shown, &embedded, 10, &met));
    MUST(kov_sim_device_embedded_screen(device, &text));
    CHECK(strstr(text, "\"text\":\"Messages\"") != NULL, "the inbox screen has the title given");
    kov_free(text);
  }
  MUST(kov_sim_device_tap_view(device, 1));
  CHECK(strcmp(app.inbox_selection, "{\"screen\":\"home\"}") == 0, app.inbox_selection);

  /* A triggered in-app, shown and tapped. */
  MUST(kov_set_inapp_callbacks(on_inapp_clicked, NULL, NULL));
  MUST(kov_track_event("ADD_TO_CART", "{\"sku\": \"SHOE-42\"}"));
  {
    int met = 0;
    MUST(kov_sim_device_run_main_until(device, view_shown, &presented, 10, &met));
    CHECK(met, "ADD_TO_CART showed its in-app");
  }
  MUST(kov_sim_device_presented_screen(device, &text));
  tag = tag_of(text, "Add");
  kov_free(text);
  CHECK(tag > 0, "the in-app has its button");
  MUST(kov_sim_device_tap_view(device, tag));
  {
    int met = 0;
    MUST(kov_sim_device_run_main_until(device, text_set, app.inapp_screen, 10, &met));
  }
  CHECK(strcmp(app.inapp_screen, "Cart") == 0, "the tap's navigation reached the app");
  CHECK(strcmp(app.inapp_data, "{\"from\":\"offer\"}") == 0, app.inapp_data);

  /* A push opened from the background, with a deep link. */
  MUST(kov_sim_device_lifecycle(device, KOV_SIM_RESIGN_ACTIVE));
  MUST(kov_sim_device_lifecycle(device, KOV_SIM_ENTER_BACKGROUND));
  {
    int heard = 0, met = 0;
    char link[] = "kovtest://shop/shoes";
    MUST(kov_sim_device_open_push(device, deeplink_push, NULL, &heard));
    CHECK(heard, "the host's delegate heard the tap");
    MUST(kov_sim_device_run_main_until(device, url_opened, link, 10, &met));
    CHECK(met, "the push's deep link was opened");
  }

  /* What the service stored. */
  CHECK(deliver_all(), "everything was delivered");
  MUST(kov_emulator_inspect(emulator, "events", NULL, &text));
  CHECK(strstr(text, "\"EVENT_ATTRS\":{\"sku\":\"A1\",\"price\":9.99,\"in_stock\":true}") != NULL, "PRODUCT_VIEWED");
  CHECK(strstr(text, "\"location\":[{\"store\":\"12.970000,77.590000\"}]") != NULL, "CHECKOUT with its place");
  CHECK(strstr(text, "\"USER_ATTRIBUTE_USER_EMAIL\":\"ada@example.com\"") != NULL, "the e-mail");
  CHECK(strstr(text, "\"plan\":\"gold\"") != NULL, "the custom attribute");
  CHECK(strstr(text, "\"name\":\"LIST\"") == NULL && strstr(text, "\"name\":\"NUL\"") == NULL, "refused events stayed");
  kov_free(text);
  MUST(kov_emulator_inspect(emulator, "campaign_events", NULL, &text));
  CHECK(campaign_count(text, "push-deeplink", "push_clicked") == 1, "the opened push's click");
  CHECK(campaign_count(text, "cart-offer", "inapp_shown") == 1, "the in-app's showing");
  CHECK(campaign_count(text, "cart-offer", "inapp_clicked") == 1, "the in-app's click");
  kov_free(text);
  CHECK(app.console_lines > 0, "the wrapped console port saw the SDK's lines");

  kov_emulator_stop(emulator);
  if (failures) fprintf(stderr, "%d check(s) failed\n", failures);
  return failures ? 1 : 0;
}
