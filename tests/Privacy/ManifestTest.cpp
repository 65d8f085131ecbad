// The privacy manifest proven by traffic: every key of every request and record the service
// received in a whole session maps, through the one table below, to a data type the manifest
// declares. A key the table does not know fails the test: a new attribute cannot ship undeclared.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "KOChildProcess.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOPropertyListSerialization.h"
#include "PrivacySession.h"

namespace {

// The manifest's data types, by their last word.
constexpr std::string_view kDeviceID = "NSPrivacyCollectedDataTypeDeviceID";
constexpr std::string_view kUserID = "NSPrivacyCollectedDataTypeUserID";
constexpr std::string_view kEmail = "NSPrivacyCollectedDataTypeEmailAddress";
constexpr std::string_view kName = "NSPrivacyCollectedDataTypeName";
constexpr std::string_view kPhone = "NSPrivacyCollectedDataTypePhoneNumber";
constexpr std::string_view kOther = "NSPrivacyCollectedDataTypeOtherDataTypes";  // date of birth, gender
constexpr std::string_view kLocation = "NSPrivacyCollectedDataTypePreciseLocation";
constexpr std::string_view kInteraction = "NSPrivacyCollectedDataTypeProductInteraction";
constexpr std::string_view kUsage = "NSPrivacyCollectedDataTypeOtherUsageData";
constexpr std::string_view kDiagnostic = "NSPrivacyCollectedDataTypeOtherDiagnosticData";

// Where a key was seen: a call's query or body, an event record, an event's name, or an event's
// attributes (EVENT_ATTRS, and the time stamps and places of EVENT_ATTRS_CUST).
struct Declared {
  std::string_view scope, key, type;
};

// Every key the SDK sends, and what it is.
constexpr Declared kTable[] = {
    // The universal parameters, and each call's own.
    {"query", "os", kUsage},
    {"query", "os_value", kUsage},
    {"query", "app_ver", kUsage},
    {"query", "version", kUsage},
    {"query", "app_id", kUsage},
    {"query", "appId", kUsage},
    {"query", "sdk_ver", kUsage},
    {"query", "lib_version", kUsage},
    {"query", "unique_id", kDeviceID},
    {"query", "device_unique_id", kDeviceID},
    {"query", "push_id", kDeviceID},
    {"query", "pushToken", kDeviceID},
    {"query", "account_id", kUserID},
    {"query", "uid", kUserID},
    {"query", "model", kUsage},
    {"query", "device_model", kUsage},
    {"query", "os_ver", kUsage},
    {"query", "device_version", kUsage},
    {"query", "device_ts", kUsage},
    {"query", "device_tz", kUsage},
    {"query", "device_tz_offset", kUsage},
    {"query", "integration_type", kUsage},
    {"query", "tracking_consent", kUsage},
    {"query", "batch_id", kUsage},
    {"query", "last_updated", kUsage},
    {"query", "campaign_id", kInteraction},
    {"query", "event", kInteraction},
    {"query", "lat", kLocation},
    {"query", "lng", kLocation},
    {"query", "geoId", kLocation},
    {"query", "transitionType", kLocation},
    // Bodies.
    {"body", "IDFV", kDeviceID},
    {"body", "ADVERTISING_IDENTIFIER", kDeviceID},
    {"body", "viewsInfo", kInteraction},
    {"body", "viewsCount", kInteraction},
    {"body", "campaign_ids", kInteraction},
    {"body", "EVENT_ATTRS", kInteraction},
    {"body", "data", kUsage},  // the app's notification categories
    {"body", "name", kUsage},
    {"body", "actions", kUsage},
    {"body", "actionsIdentifier", kUsage},
    {"body", "appid", kDiagnostic},  // a remote log record
    {"body", "uid", kDeviceID},
    {"body", "lvl", kDiagnostic},
    {"body", "tb", kDiagnostic},
    {"body", "sdk_ver", kDiagnostic},
    {"body", "msg", kDiagnostic},
    {"body", "tm_s", kDiagnostic},
    // An event record.
    {"record", "EVENT_ACTION", kInteraction},
    {"record", "EVENT_ATTRS", kInteraction},
    {"record", "EVENT_ATTRS_CUST", kInteraction},
    {"record", "EVENT_G_TIME", kInteraction},
    {"record", "EVENT_L_TIME", kInteraction},
    // The SDK's own events.
    {"event", "EVENT_ACTION_USER_ATTRIBUTE", kInteraction},
    {"event", "EVENT_ACTION_DEVICE_ATTRIBUTE", kUsage},
    {"event", "EVENT_ACTION_IOS_SESSION_START", kInteraction},
    {"event", "EVENT_ACTION_IOS_SESSION_END", kInteraction},
    {"event", "INSTALL", kUsage},
    {"event", "UPDATE", kUsage},
    {"event", "REINSTALL", kUsage},
    {"event", "KOV_LOGOUT", kInteraction},
    {"event", "KO_PUSH_PREFERENCE_CHANGED", kUsage},
    {"event", "NOTIFICATION_CLICKED_IOS_KOV", kInteraction},
    {"event", "NOTIFICATION_DISMISSED_IOS_KOV", kInteraction},
    {"event", "NOTIFICATION_RECEIVED_IOS_APP_ACTIVE", kInteraction},
    {"event", "iOS_IN_APP_SHOWN", kInteraction},
    {"event", "iOS_IN_APP_CLICKED", kInteraction},
    {"event", "iOS_IN_APP_AUTO_DISMISS", kInteraction},
    // User attributes.
    {"attribute", "USER_ATTRIBUTE_UNIQUE_ID", kUserID},
    {"attribute", "USER_ATTRIBUTE_USER_EMAIL", kEmail},
    {"attribute", "USER_ATTRIBUTE_USER_NAME", kName},
    {"attribute", "USER_ATTRIBUTE_USER_FIRST_NAME", kName},
    {"attribute", "USER_ATTRIBUTE_USER_LAST_NAME", kName},
    {"attribute", "USER_ATTRIBUTE_USER_MOBILE", kPhone},
    {"attribute", "USER_ATTRIBUTE_USER_GENDER", kOther},
    {"attribute", "USER_ATTRIBUTE_USER_BDAY", kOther},
    {"attribute", "USER_ATTRIBUTE_USER_LOCATION", kLocation},
    {"attribute", "ADVERTISING_IDENTIFIER", kDeviceID},
    {"attribute", "PUSH_PREFERENCE", kUsage},
    {"attribute", "push_preference_status", kUsage},
    // Device attributes and the locale.
    {"attribute", "device_model", kUsage},
    {"attribute", "device_IDFV", kDeviceID},
    {"attribute", "os_version", kUsage},
    {"attribute", "LOCALE_COUNTRY", kUsage},
    {"attribute", "LOCALE_COUNTRY_DISPLAY", kUsage},
    {"attribute", "LOCALE_LANGUAGE", kUsage},
    {"attribute", "LOCALE_LANGUAGE_DISPLAY", kUsage},
    {"attribute", "LOCALE_DISPLAY", kUsage},
    {"attribute", "LOCALE_IDENTIFIER", kUsage},
    // What push and in-app events carry: the campaign the user saw, and what they did with it.
    {"attribute", "cid", kInteraction},
    {"attribute", "couponCode", kInteraction},  // the opened push's block, as the service sent it
    {"attribute", "webUrl", kInteraction},
    {"attribute", "kov_inapp_cid", kInteraction},
    {"attribute", "campaign_id", kInteraction},
    {"attribute", "apns_action", kInteraction},
    {"attribute", "apns_action_identifier", kInteraction},
    {"attribute", "Event_After_Push", kInteraction},
    {"attribute", "kovAttachmentDownloadFailure", kInteraction},
    {"attribute", "widget_id", kInteraction},
};

using Keys = std::map<std::string, std::set<std::string>>;  // "scope key" -> where it was seen

void collectAttributes(const KOValue& record, const std::string& where, Keys& seen) {
  const KOValue& attributes = record["EVENT_ATTRS"];
  if (attributes.isDictionary()) {
    for (const auto& [key, value] : attributes.dictionaryValue()) seen["attribute " + key].insert(where);
  }
  const KOValue& custom = record["EVENT_ATTRS_CUST"];
  if (!custom.isDictionary()) return;
  for (const auto& [kind, entries] : custom.dictionaryValue()) {
    seen["custom " + kind].insert(where);
    if (!entries.isArray()) continue;
    for (const KOValue& entry : entries.arrayValue()) {
      if (!entry.isDictionary()) continue;
      for (const auto& [key, value] : entry.dictionaryValue()) seen["attribute " + key].insert(where);
    }
  }
}

// Every key the service received: queries and bodies of the calls, and the records of the reports.
Keys received(const KOEmulator& service) {
  Keys seen;
  for (const KOEmulatorRequest& request : service.requests()) {
    if (request.path.starts_with("/images/")) continue;  // a file the SDK asked for, nothing sent
    for (const auto& [key, value] : request.query) seen["query " + key].insert(request.path);
    if (request.body.empty()) continue;
    const KOValue body = KOJSONSerialization::parse(request.body);
    if (!body.isDictionary()) continue;
    for (const auto& [key, value] : body.dictionaryValue()) {
      if (key == "viewsInfo") continue;  // the records, read below as the service stored them
      seen["body " + key].insert(request.path);
      if (key == "data" && value.isArray()) {  // notification categories
        for (const KOValue& category : value.arrayValue()) {
          if (!category.isDictionary()) continue;
          for (const auto& [field, unused] : category.dictionaryValue()) seen["body " + field].insert(request.path);
        }
      }
      if (key == "EVENT_ATTRS" && value.isDictionary()) collectAttributes(body, request.path, seen);
    }
    if (body.dictionaryValue().contains("viewsInfo")) seen["body viewsInfo"].insert(request.path);
  }
  for (const KOEmulatorEvent& event : service.events()) {
    const KOValue record = KOJSONSerialization::parse(event.json);
    for (const auto& [key, value] : record.dictionaryValue()) seen["record " + key].insert(event.name);
    seen["event " + event.name].insert("report");
    collectAttributes(record, event.name, seen);
  }
  return seen;
}

/// The data types the manifest declares; checks the rest of it on the way.
std::set<std::string> declaredTypes() {
  const auto text = [] {
    std::string bytes;
    FILE* f = std::fopen(KOV_PRIVACY_MANIFEST, "rb");
    if (!f) return bytes;
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, f)) > 0;) bytes.append(buffer, n);
    std::fclose(f);
    return bytes;
  }();
  const KOValue manifest = KOPropertyListSerialization::parse(text);
  std::set<std::string> types;
  for (const KOValue& entry : manifest["NSPrivacyCollectedDataTypes"].arrayValue()) {
    EXPECT_TRUE(entry["NSPrivacyCollectedDataTypeLinked"].isBool());
    EXPECT_TRUE(entry["NSPrivacyCollectedDataTypeTracking"].isBool());
    EXPECT_FALSE(entry["NSPrivacyCollectedDataTypePurposes"].arrayValue().empty());
    types.insert(entry["NSPrivacyCollectedDataType"].stringValue());
  }
  // The preferences are the one platform API with a required reason the SDK uses: its own
  // settings (CA92.1) and the parameters it shares with the app's extensions (1C8F.1).
  std::set<std::string> reasons;
  for (const KOValue& api : manifest["NSPrivacyAccessedAPITypes"].arrayValue()) {
    if (api["NSPrivacyAccessedAPIType"] != KOValue("NSPrivacyAccessedAPICategoryUserDefaults")) continue;
    for (const KOValue& reason : api["NSPrivacyAccessedAPITypeReasons"].arrayValue())
      reasons.insert(reason.stringValue());
  }
  EXPECT_EQ(reasons, (std::set<std::string>{"CA92.1", "1C8F.1"}));
  EXPECT_TRUE(manifest["NSPrivacyTracking"].isBool());
  return types;
}

/// Fails on every key received that neither the table nor the host app's own list declares.
void expectEveryKeyDeclared(const Keys& seen, const std::map<std::string, std::string_view>& hostKeys) {
  const std::set<std::string> declared = declaredTypes();
  ASSERT_FALSE(declared.empty());
  for (const Declared& row : kTable) EXPECT_TRUE(declared.count(std::string(row.type))) << row.key << ": " << row.type;
  std::size_t checked = 0;
  for (const auto& [scopedKey, where] : seen) {
    const std::string scope = scopedKey.substr(0, scopedKey.find(' '));
    const std::string key = scopedKey.substr(scope.size() + 1);
    if (scope == "custom" && (key == "timestamp" || key == "location")) continue;  // the builder's two lists
    bool known = false;
    for (const Declared& row : kTable) known |= row.scope == scope && row.key == key;
    if (!known && (scope == "attribute" || scope == "event")) {
      const auto host = hostKeys.find(key);
      known = host != hostKeys.end() && declared.count(std::string(host->second));
    }
    ++checked;
    EXPECT_TRUE(known) << "undeclared key sent: " << scope << " \"" << key << "\" (in " << *where.begin() << ")";
  }
  EXPECT_GT(checked, 80u) << "a whole session sends every kind of key";
}

}  // namespace

class ManifestTest : public KOSDKTestDevice {
 protected:
  KOSimDeviceConfig config() override {
    KOSimDeviceConfig c;
    c.appGroups = {privacy_session::kAppGroup};
    return c;
  }
};

TEST_F(ManifestTest, EveryKeyAWholeSessionSendsIsDeclared) {
  emulator().seed(privacy_session::seed(emulator().baseURL()));
  Kovantis::debug(1);
  privacy_session::Session session(device(), /*traffic=*/true);
  session.start();
  // Remote logging: once the configuration turned it on, a refused report is logged to the service.
  ASSERT_TRUE(
      waitFor([&] { return device().preferences().standard().objectForKey("LOG_ENTRIES_ENABLED").isNumber(); }));
  emulator().injectFault(KOEmulatorFault{"/v2/report/add", 503, 0, false, 1, 1.0});
  session.attributesAndEvents();
  session.push();
  session.inboxAndInApp();
  session.geofences();
  session.lifecycle();
  ASSERT_TRUE(deliverAll());
  sdk().resetUser();
  ASSERT_TRUE(deliverAll());
  ASSERT_TRUE(waitForRequests("/noformat/logs/", 1));
  std::map<std::string, std::string_view> host;
  for (const std::string& key : privacy_session::kHostKeys) host[key] = kInteraction;
  for (const char* key : {"plan", "last_order_at", "home"}) host[key] = kOther;  // its user attributes
  expectEveryKeyDeclared(received(emulator()), host);
}

#ifdef KOV_SAMPLE_APP
TEST(ManifestSampleAppTest, EveryKeyTheSampleAppsSessionSendsIsDeclared) {
  const std::string base =
      (std::filesystem::temp_directory_path() / ("kovantis-manifest-" + std::to_string(::getpid()))).string();
  KOChildProcess app = KOChildProcess::spawn({KOV_SAMPLE_APP, "--device", base});
  ASSERT_GT(app.pid, 0);
  char buffer[4096];
  while (::read(app.output, buffer, sizeof buffer) > 0) {
  }
  ::close(app.output);
  int status = 0;
  ::waitpid(app.pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  {
    KOEmulator::Options options;
    options.dataDir = base + "/emulator";  // what the sample app's emulator stored
    const KOEmulator service(options);
    ASSERT_GT(service.requestCount(), 20u);
    // The sample app's own events and attributes, and the actions its campaigns track.
    std::map<std::string, std::string_view> host;
    for (const char* key : {"PRODUCT_VIEWED", "CHECKOUT", "SEARCH", "ADD_TO_CART", "WISHLIST_ADD", "sku", "price",
                            "quantity", "in_stock", "viewed_at", "order", "total", "delivery", "store", "query"}) {
      host[key] = kInteraction;
    }
    expectEveryKeyDeclared(received(service), host);
  }
  std::filesystem::remove_all(base);
}
#endif
