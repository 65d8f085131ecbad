// The service endpoints: what the emulator stores, what it refuses and what it answers.

#include <fstream>
#include <tuple>

#include "EmulatorFixture.h"

namespace {
const std::string kReport = "/v2/report/add";
const std::string kJSON = "application/json";
const httplib::Params kConfigQuery = {{"app_id", "APP-1"}, {"unique_id", "A1B2"}, {"os", "iOS"}};
const std::string kLog = R"({"appid":"APP-1","uid":"A1B2","lvl":"5","tb":"","sdk_ver":"3.5.0",)"
                         R"("msg":"Kovantis - boom","tm_s":"1700000000"})";

struct Case {
  std::string method, path;
  httplib::Params query;
  std::string body;
  std::string expected = {};     // a key the answer carries, or what a refusal's error mentions
  std::string contentType = {};  // a POST's is JSON unless given
  std::string type() const { return contentType.empty() && method == "POST" ? kJSON : contentType; }
};
}  // namespace

TEST_F(EmulatorTest, EveryEndpointAcceptsAWellFormedCallAndStoresWhatItDelivers) {
  // Default answers are checked for the key that shapes them, not byte for byte.
  const std::vector<Case> cases = {
      {"POST", "/v2/device/add", universal({{"push_id", "beef"}, {"pushToken", "beef"}}),
       R"({"IDFV":"A1B2","ADVERTISING_IDENTIFIER":"AD-1"})", "status"},
      {"POST", kReport, universal({{"batch_id", "1700000000123"}}), report(3, "tap"), "status"},
      {"GET", "/v1/getConfig", kConfigQuery, "", "tkn"},
      {"POST", "/campaigns/inappcampaigns/fetch", universal({{"last_updated", ""}}), "{}", "campaign_info"},
      {"GET", "/campaigns/inappcampaign/fetch", universal({{"campaign_id", "zz"}}), "", "reason"},
      {"POST", "/v2/autotriggerinapps", universal({{"event", "buy"}}), R"({"EVENT_ATTRS":{}})", "campaign_info"},
      {"POST", "/v2/categories/add", universal(), R"({"data":[{"identifier":"c","actions":[]}]})", "status"},
      {"GET", "/v1/getInboxMessages", universal({{"last_updated", "0"}}), "", "messagesInfo"},
      {"GET", "/v1/geoFenceHit",
       universal({{"lat", "1.5"}, {"lng", "2.5"}, {"geoId", "g1"}, {"transitionType", "exit"}}), ""},
      {"GET", "/v1/geoFences", universal({{"lat", "1.500000"}, {"lng", "-2.5"}}), "", "fencesInfo"},
      {"POST", "/noformat/logs/TOKEN-9", {}, kLog},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method + " " + c.path);
    auto res = send(c.method, c.path, c.query, c.body, c.type());
    ASSERT_TRUE(res);
    const bool upload = c.path.starts_with("/noformat/logs/");
    EXPECT_EQ(res->status, upload ? 204 : 200) << "the log upload succeeds on 204 only";
    auto answer = json(upload ? "{}" : res->body);
    EXPECT_TRUE(answer.IsObject() && (c.expected.empty() || answer.HasMember(c.expected.c_str()))) << res->body;
  }
  for (const auto& route : KOEmulator::routes()) {
    EXPECT_TRUE(std::any_of(cases.begin(), cases.end(),
                            [&](const Case& c) { return c.method == route.method && c.path.starts_with(route.path); }))
        << "no well-formed call for " << route.method << " " << route.path;
  }

  send(cases[0].method, cases[0].path, cases[0].query, cases[0].body, kJSON);  // registers again
  auto devices = emulator->devices();
  ASSERT_EQ(devices.size(), 1u);
  const auto& d = devices[0];
  EXPECT_EQ(std::tie(d.registrations, d.idfv, d.advertisingId, d.pushId, d.deviceUniqueId),
            std::make_tuple(2, "A1B2", "AD-1", "beef", "P-42"));

  auto batches = emulator->batches();
  ASSERT_EQ(batches.size(), 1u);
  EXPECT_EQ(std::tie(batches[0].batchId, batches[0].uniqueId, batches[0].eventCount),
            std::make_tuple("1700000000123", "A1B2-1700000000", 3));
  auto events = emulator->events();
  ASSERT_EQ(events.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(events[i].name, "tap" + std::to_string(i));
    EXPECT_EQ(events[i].position, i);
    EXPECT_EQ(json(events[i].json)["EVENT_ATTRS"]["n"].GetInt(), i);
  }
  // What categories and log uploads store is read back by the SDK's integration tests.
  EXPECT_EQ(emulator->categories().size(), 1u);
  EXPECT_EQ(emulator->logs().size(), 1u);
}

TEST_F(EmulatorTest, RepeatedBatchIdIsRecordedAsDuplicateAndStoredOnce) {
  auto query = universal({{"batch_id", "555"}});
  for (const auto& body : {report(2), report(2), report(1, "other")}) {
    auto res = post(kReport, query, body);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200) << "a resent batch is accepted, or the device would resend it forever";
  }
  // The same id from another device is its own batch.
  post(kReport, universal({{"batch_id", "555"}, {"unique_id", "OTHER"}}), report(1));

  EXPECT_EQ(emulator->batches().size(), 2u);
  EXPECT_EQ(emulator->events().size(), 3u);
  auto duplicates = emulator->duplicates();
  ASSERT_EQ(duplicates.size(), 2u);
  EXPECT_EQ(duplicates[0].batchId, "555");
  EXPECT_TRUE(duplicates[0].identical);
  EXPECT_FALSE(duplicates[1].identical) << "same id, different events";
}

TEST_F(EmulatorTest, EveryEndpointRefusesWhatTheServiceWouldRefuse) {
  const auto q = universal({{"batch_id", "9"}});
  const std::vector<Case> cases = {
      // The universal parameters, on any endpoint that takes them.
      {"POST", kReport, universal({{"batch_id", "1"}, {"app_id", ""}, {"appId", ""}}), report(1), "app_id"},
      {"POST", kReport, universal({{"batch_id", "1"}, {"appId", "APP-2"}}), report(1), "appId"},
      {"POST", kReport, universal({{"batch_id", "1"}, {"push_id", "abcd"}}), report(1), "pushToken"},
      {"POST", kReport, universal({{"batch_id", "1"}, {"device_ts", "soon"}}), report(1), "device_ts"},
      // The method's shape: a GET carries no body, a POST is JSON, no key comes twice.
      {"GET", "/v1/getConfig", kConfigQuery, "{}", "GET", kJSON},
      {"POST", kReport, q, report(1), "application/json", "text/plain"},
      {"GET", "/v1/getConfig", {{"app_id", "A"}, {"app_id", "B"}, {"unique_id", "U"}, {"os", "iOS"}}, "", "once"},
      // Each endpoint's own query.
      {"POST", kReport, universal(), report(1), "batch_id"},
      {"POST", kReport, universal({{"batch_id", "12a"}}), report(1), "batch_id"},
      {"GET", "/campaigns/inappcampaign/fetch", universal(), "", "campaign_id"},
      {"GET", "/v1/geoFences", universal({{"lat", "52.5"}}), "", "lng"},
      {"GET", "/v1/geoFenceHit", universal({{"lat", "1"}, {"lng", "2"}, {"geoId", "g"}, {"transitionType", "in"}}), "",
       "transitionType"},
      {"GET", "/v1/geoFenceHit",
       universal({{"lat", "north"}, {"lng", "2"}, {"geoId", "g"}, {"transitionType", "enter"}}), "", "lat"},
      {"GET", "/v1/getInboxMessages", universal(), "", "last_updated"},
      {"GET", "/v1/getConfig", universal(), "", "unexpected"},
      {"GET", "/v1/getConfig", without(kConfigQuery, "unique_id"), "", "unique_id"},
      {"POST", "/noformat/logs/T", {{"x", "1"}}, kLog, "x"},
      {"POST", "/noformat/logs/a/b", {}, kLog, "token"},
      // Each endpoint's own body.
      {"POST", kReport, q, "", "missing"},
      {"POST", kReport, q, "{\"viewsInfo\": [", "invalid JSON"},
      {"POST", kReport, q, R"({"viewsInfo":[],"viewsCount":0} trailing)", "invalid JSON"},
      {"POST", kReport, q, "{\"viewsInfo\":[{\"EVENT_ACTION\":\"\xff\"}],\"viewsCount\":1}", "invalid JSON"},
      {"POST", kReport, q, "[1,2]", "object"},
      {"POST", kReport, q, R"({"viewsCount":0})", "viewsInfo"},
      {"POST", kReport, q, R"({"viewsInfo":{},"viewsCount":0})", "viewsInfo"},
      {"POST", kReport, q, R"({"viewsInfo":[],"viewsCount":"0"})", "viewsCount"},
      {"POST", kReport, q, R"({"viewsInfo":[],"viewsCount":0.5})", "viewsCount"},
      {"POST", kReport, q, R"({"viewsInfo":[{"EVENT_ACTION":"a"}],"viewsCount":2})", "viewsCount"},
      {"POST", kReport, q, R"({"viewsInfo":["tap"],"viewsCount":1})", "event 0"},
      {"POST", "/v2/autotriggerinapps", universal({{"event", "buy"}}), R"({"EVENT_ATTRS":[]})", "EVENT_ATTRS"},
      {"POST", "/campaigns/inappcampaigns/fetch", universal({{"last_updated", "soon"}}), "{}", "last_updated"},
      {"POST", "/campaigns/inappcampaigns/fetch", universal({{"last_updated", "0"}}), R"({"campaign_ids":"c1"})",
       "campaign_ids"},
      {"POST", "/campaigns/inappcampaigns/fetch", universal({{"last_updated", "0"}}), R"({"campaign_ids":[7]})",
       "campaign_ids"},
      {"POST", "/campaigns/inappcampaigns/fetch", universal({{"last_updated", "0"}}),
       R"({"campaign_ids":[{"id":"c1"}]})", "cid"},
      {"POST", "/v2/categories/add", universal(), R"({"data":{}})", "data"},
      {"POST", "/v2/device/add", universal(), R"({"IDFV":7})", "IDFV"},
      {"POST", "/noformat/logs/T", {}, R"({"appid":"A"})", "uid"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method + " " + c.path + " expecting " + c.expected);
    EXPECT_NE(errorOf(send(c.method, c.path, c.query, c.body, c.type())).find(c.expected), std::string::npos);
  }
  auto recorded = emulator->requests();
  ASSERT_EQ(recorded.size(), cases.size());
  for (const auto& r : recorded) {
    EXPECT_EQ(r.status, 400);
    EXPECT_FALSE(r.error.empty());
  }
  EXPECT_TRUE(emulator->batches().empty() && emulator->devices().empty() && emulator->logs().empty() &&
              emulator->categories().empty());
  EXPECT_EQ(post(kReport, q, report(1))->status, 200) << "the server keeps serving";
}

// A call no row of the table takes gets its answer from one place: 405 where another method has
// the path, else 404. Faults never hit an unknown path; only service paths are recorded.
TEST_F(EmulatorTest, CallsNoRowTakesAreAnswered405Or404) {
  size_t wrongMethods = 0;
  for (const auto& route : KOEmulator::routes()) {
    const std::string path = route.path.ends_with("/") ? route.path + "T" : route.path;
    for (const char* method : {"GET", "POST", "PUT", "DELETE"}) {
      if (method == route.method) continue;
      SCOPED_TRACE(std::string(method) + " " + path);
      auto res = send(method, path, universal());
      ASSERT_TRUE(res);
      EXPECT_EQ(res->status, 405);
      EXPECT_TRUE(json(res->body).HasMember("error"));
      ++wrongMethods;
    }
  }
  emulator->injectFault(fault("*", 503));
  const std::vector<std::pair<std::string, std::string>> unknown = {
      {"GET", "/v3/nothing"},         {"GET", "/v1/getConfigs"},   {"POST", "/noformat/logs"},
      {"GET", "/__emulator/nothing"}, {"PUT", "/__emulator/seed"}, {"GET", "/__emulator/reset"}};
  for (const auto& [method, path] : unknown) {
    SCOPED_TRACE(method + " " + path);
    auto res = send(method, path, {});
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 404);
    EXPECT_TRUE(json(res->body).HasMember("error"));
  }
  auto recorded = emulator->requests();
  ASSERT_EQ(recorded.size(), wrongMethods + 3) << "control endpoints stay out of the record";
  for (const auto& r : recorded) EXPECT_FALSE(r.error.empty());
  EXPECT_EQ(recorded.back().status, 404);
}

TEST_F(EmulatorTest, AnswersComeFromTheSeeds) {
  auto seedRes = client().Post("/__emulator/seed", R"({
        "inapps": [{"cid": "c1", "status": "active"}],
        "campaigns": {"c1": {"cid": "c1"}, "c2": {"reason": "expired"}},
        "smart_triggers": {"buy": {"cid": "s1"}},
        "inbox": [{"cid": "m1", "data": {"kovantis": {"cid": "m1"}}}],
        "geofences": {"fencesInfo": [{"geoId": "g1", "lat": 1.5, "lng": 2.5, "distance": 100}]}
    })",
                               kJSON);
  ASSERT_TRUE(seedRes);
  ASSERT_EQ(seedRes->status, 200) << seedRes->body;

  EXPECT_EQ(post("/campaigns/inappcampaigns/fetch", universal({{"last_updated", ""}}), "{}")->body,
            R"({"campaign_info":[{"cid":"c1","status":"active"}]})");
  EXPECT_EQ(get("/campaigns/inappcampaign/fetch", universal({{"campaign_id", "c2"}}))->body, R"({"reason":"expired"})")
      << "a whole answer is served as seeded";
  EXPECT_EQ(post("/v2/autotriggerinapps", universal({{"event", "buy"}}), R"({"EVENT_ATTRS":{}})")->body,
            R"({"campaign_info":[{"cid":"s1"}]})");
  EXPECT_EQ(get("/v1/getInboxMessages", universal({{"last_updated", "0"}}))->body,
            R"({"messagesInfo":[{"cid":"m1","data":{"kovantis":{"cid":"m1"}}}]})");
  auto fences = json(get("/v1/geoFences", universal({{"lat", "1.5"}, {"lng", "2.5"}}))->body);
  EXPECT_EQ(fences["fencesInfo"][0]["distance"].GetInt(), 100);
}

TEST_F(EmulatorTest, RejectedSeedChangesNothing) {
  emulator->seed(R"({"inbox":[{"cid":"keep","data":{}}]})");
  for (const char* bad : {R"({"inbox":[], "bogus":{}})", R"({"config":[1]})", R"({"campaigns":{"c":1}})",
                          R"([{"config":{}}])", "{", R"({"images":{"/img/a.png":"AA=="}})",
                          R"({"images":{"/images/":"AA=="}})", R"({"images":{"/images/a.png":"A*=="}})",
                          R"({"images":{"/images/a.png":"AAA"}})", R"({"images":{"/images/a.png":7}})"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(emulator->seed(bad), std::invalid_argument);
    EXPECT_FALSE(errorOf(client().Post("/__emulator/seed", bad, kJSON)).empty());
  }
  auto seeds = json(emulator->seedsJSON());
  EXPECT_EQ(std::string(seeds["inbox"]["messagesInfo"][0]["cid"].GetString()), "keep");
}

TEST_F(EmulatorTest, SeedFileIsAppliedAtConstruction) {
  auto dir = makeTemporaryDirectory();
  auto file = dir / "seed.json";
  std::ofstream(file) << R"({"config":{"e_b_c":7}})";
  KOEmulator seeded(emulatorOptions(dir / "data", file.string()));
  EXPECT_EQ(json(seeded.seedsJSON())["config"]["e_b_c"].GetInt(), 7);

  std::ofstream(file) << R"({"config":)";
  EXPECT_THROW(KOEmulator(emulatorOptions(dir / "data", file.string())), std::runtime_error);
  EXPECT_THROW(KOEmulator(emulatorOptions(dir / "data", (dir / "none").string())), std::runtime_error);
  std::filesystem::remove_all(dir);
}

// Each user keeps the last value reported for each attribute, time stamps and locations included;
// the user whose attribute came last is the last one.
TEST_F(EmulatorTest, UsersHoldTheLastValueReportedForEachAttribute) {
  auto attribute = [](const std::string& key, const std::string& value) {
    return R"({"EVENT_ACTION":"EVENT_ACTION_USER_ATTRIBUTE","EVENT_ATTRS":{")" + key + R"(":)" + value +
           R"(},"EVENT_G_TIME":"1700000000"})";
  };
  const std::string custom =
      R"({"EVENT_ACTION":"EVENT_ACTION_USER_ATTRIBUTE","EVENT_ATTRS_CUST":{"timestamp":[{"BDAY":86400000}],)"
      R"("location":[{"HOME":"52.500000,13.400000"}]},"EVENT_G_TIME":"1700000000"})";
  const auto reportOf = [](const std::vector<std::string>& views) {
    std::string joined;
    for (const auto& v : views) joined += (joined.empty() ? "" : ",") + v;
    return R"({"viewsInfo":[)" + joined + R"(],"viewsCount":)" + std::to_string(views.size()) + "}";
  };
  ASSERT_EQ(post(kReport, universal({{"batch_id", "1"}, {"unique_id", "U-1"}}),
                 reportOf({attribute("EMAIL", R"("a@x.io")"), attribute("SIZE", "3"), custom,
                           R"({"EVENT_ACTION":"EVENT_ACTION_DEVICE_ATTRIBUTE","EVENT_ATTRS":{"MODEL":"x"}})"}))
                ->status,
            200);
  ASSERT_EQ(
      post(kReport, universal({{"batch_id", "2"}, {"unique_id", "U-2"}}), reportOf({attribute("EMAIL", R"("b@x.io")")}))
          ->status,
      200);
  ASSERT_EQ(
      post(kReport, universal({{"batch_id", "3"}, {"unique_id", "U-1"}}), reportOf({attribute("SIZE", "4")}))->status,
      200);

  const std::vector<KOEmulatorUser> users = emulator->users();
  ASSERT_EQ(users.size(), 2u);
  EXPECT_EQ(users[0].uniqueId, "U-2");
  EXPECT_EQ(users[1].uniqueId, "U-1") << "its attribute came last";
  EXPECT_EQ(users[1].appId, "APP-1");
  EXPECT_EQ(users[1].attributesJSON, R"({"EMAIL":"a@x.io","SIZE":4,"BDAY":86400000,"HOME":"52.500000,13.400000"})")
      << "the device attribute is not the user's";
  EXPECT_EQ(users[0].attributesJSON, R"({"EMAIL":"b@x.io"})");
}

TEST_F(EmulatorTest, CampaignEventsAreCountedPerCampaignFromTheReports) {
  auto event = [](const std::string& name, const std::string& attributes) {
    return R"({"EVENT_ACTION":")" + name + R"(","EVENT_ATTRS":)" + attributes + R"(,"EVENT_G_TIME":"1700000000"})";
  };
  const std::string views = event("NOTIFICATION_CLICKED_IOS_KOV", R"({"cid":"p1","coupon_code":"X"})") + "," +
                            event("iOS_IN_APP_SHOWN", R"({"cid":"i1"})") + "," +
                            event("NOTIFICATION_DISMISSED_IOS_KOV", R"({"cid":"p1"})") + "," +
                            event("NOTIFICATION_RECEIVED_IOS_APP_ACTIVE", R"({"cid":"p1"})") + "," +
                            event("iOS_IN_APP_CLICKED", R"({"cid":"i1","widget_id":"2"})") + "," +
                            event("iOS_IN_APP_AUTO_DISMISS", R"({"cid":"i1"})") + "," +
                            // Neither an unrelated event nor a campaign event without a usable cid counts.
                            event("NOTIFICATION_CLICKED_IOS_KOV", R"({"cid":7})") + "," +
                            event("NOTIFICATION_CLICKED_IOS_KOV", "[]") + "," + event("purchase", R"({"cid":"p1"})");
  ASSERT_EQ(post(kReport, universal({{"batch_id", "1"}}), R"({"viewsInfo":[)" + views + R"(],"viewsCount":9})")->status,
            200);
  ASSERT_EQ(
      post(kReport, universal({{"batch_id", "2"}}),
           R"({"viewsInfo":[)" + event("NOTIFICATION_CLICKED_IOS_KOV", R"({"cid":"p1"})") + R"(],"viewsCount":1})")
          ->status,
      200);
  const auto counted = emulator->campaignEvents();
  ASSERT_EQ(counted.size(), 2u);
  EXPECT_EQ(counted[0].campaignId, "p1");
  EXPECT_EQ(
      std::tuple(counted[0].pushClicked, counted[0].pushDismissed, counted[0].pushReceived, counted[0].inAppShown),
      std::tuple(2, 1, 1, 0));
  EXPECT_EQ(counted[1].campaignId, "i1");
  EXPECT_EQ(
      std::tuple(counted[1].inAppShown, counted[1].inAppClicked, counted[1].inAppAutoDismissed, counted[1].pushClicked),
      std::tuple(1, 1, 1, 0));
  const auto answer = json(emulator->inspectJSON("campaign_events"));
  EXPECT_EQ(answer[0]["push_clicked"].GetInt(), 2);
  EXPECT_EQ(answer[1]["inapp_auto_dismissed"].GetInt(), 1);
}
