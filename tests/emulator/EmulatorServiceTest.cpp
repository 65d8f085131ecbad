// The service endpoints: what the emulator stores, what it refuses and what it answers.

#include <fstream>

#include "EmulatorFixture.h"

namespace {
const std::string kReport = "/v2/report/add";
const httplib::Params kConfigQuery = {{"app_id", "APP-1"}, {"unique_id", "A1B2"}, {"os", "iOS"}};
}  // namespace

TEST_F(EmulatorTest, ReportBatchIsStoredWithItsEventsInOrder) {
  auto res = post(kReport, universal({{"batch_id", "1700000000123"}}), report(3, "tap"));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);

  auto batches = emulator->batches();
  ASSERT_EQ(batches.size(), 1u);
  EXPECT_EQ(batches[0].batchId, "1700000000123");
  EXPECT_EQ(batches[0].appId, "APP-1");
  EXPECT_EQ(batches[0].uniqueId, "A1B2-1700000000");
  EXPECT_EQ(batches[0].viewsCount, 3);
  EXPECT_EQ(batches[0].eventCount, 3);

  auto events = emulator->events();
  ASSERT_EQ(events.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(events[i].name, "tap" + std::to_string(i));
    EXPECT_EQ(events[i].position, i);
    EXPECT_EQ(events[i].batchId, "1700000000123");
    auto event = json(events[i].json);
    EXPECT_EQ(event["EVENT_ATTRS"]["n"].GetInt(), i);
  }

  auto requests = emulator->requests(kReport);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].status, 200);
  EXPECT_EQ(requests[0].query.at("batch_id"), "1700000000123");
  EXPECT_TRUE(requests[0].error.empty());
}

TEST_F(EmulatorTest, RepeatedBatchIdIsRecordedAsDuplicateAndStoredOnce) {
  auto query = universal({{"batch_id", "555"}});
  for (int i = 0; i < 2; ++i) {
    auto res = post(kReport, query, report(2));
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200) << "a resent batch is accepted, or the device would resend it forever";
  }
  auto changed = post(kReport, query, report(1, "other"));
  ASSERT_TRUE(changed);
  EXPECT_EQ(changed->status, 200);
  // The same id from another device is its own batch.
  auto otherDevice = post(kReport, universal({{"batch_id", "555"}, {"unique_id", "OTHER"}}), report(1));
  ASSERT_TRUE(otherDevice);

  EXPECT_EQ(emulator->batches().size(), 2u);
  EXPECT_EQ(emulator->events().size(), 3u);
  auto duplicates = emulator->duplicates();
  ASSERT_EQ(duplicates.size(), 2u);
  EXPECT_EQ(duplicates[0].batchId, "555");
  EXPECT_TRUE(duplicates[0].identical);
  EXPECT_FALSE(duplicates[1].identical) << "same id, different events";
}

TEST_F(EmulatorTest, MissingOrInconsistentQueryParametersAreRefused) {
  struct Case {
    std::string path;
    httplib::Params query;
    std::string mentions;
  };
  const std::vector<Case> cases = {
      {kReport, universal(), "batch_id"},
      {kReport, without(universal({{"batch_id", "1"}}), "app_id"), "app_id"},
      {kReport, without(universal({{"batch_id", "1"}}), "device_unique_id"), "device_unique_id"},
      {kReport, universal({{"batch_id", "1"}, {"app_id", ""}, {"appId", ""}}), "app_id"},
      {kReport, universal({{"batch_id", "1"}, {"appId", "APP-2"}}), "appId"},
      {kReport, universal({{"batch_id", "1"}, {"push_id", "abcd"}}), "pushToken"},
      {kReport, universal({{"batch_id", "1"}, {"device_ts", "soon"}}), "device_ts"},
      {kReport, universal({{"batch_id", "12a"}}), "batch_id"},
      {"/campaigns/inappcampaign/fetch", universal(), "campaign_id"},
      {"/v1/geoFences", universal({{"lat", "52.5"}}), "lng"},
      {"/v1/geoFenceHit", universal({{"lat", "1"}, {"lng", "2"}, {"geoId", "g"}, {"transitionType", "in"}}),
       "transitionType"},
      {"/v1/geoFenceHit", universal({{"lat", "north"}, {"lng", "2"}, {"geoId", "g"}, {"transitionType", "enter"}}),
       "lat"},
      {"/v1/getInboxMessages", universal(), "last_updated"},
      {"/v1/getConfig", universal(), "unexpected"},
      {"/v1/getConfig", without(kConfigQuery, "unique_id"), "unique_id"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.path + " expecting " + c.mentions);
    auto res = c.path == kReport ? post(c.path, c.query, report(1)) : get(c.path, c.query);
    EXPECT_NE(errorOf(res).find(c.mentions), std::string::npos);
  }
  // A key given twice is ambiguous.
  auto twice = client().Get("/v1/getConfig?app_id=A&app_id=B&unique_id=U&os=iOS");
  EXPECT_NE(errorOf(twice).find("more than once"), std::string::npos);

  auto recorded = emulator->requests();
  ASSERT_EQ(recorded.size(), cases.size() + 1);
  for (const auto &r : recorded) {
    EXPECT_EQ(r.status, 400);
    EXPECT_FALSE(r.error.empty());
  }
  EXPECT_TRUE(emulator->batches().empty());
}

TEST_F(EmulatorTest, MalformedBodiesAreRefusedAndTheServerKeepsServing) {
  auto q = universal({{"batch_id", "9"}});
  const std::vector<std::pair<std::string, std::string>> bodies = {
      {"", "missing"},
      {"{\"viewsInfo\": [", "invalid JSON"},
      {R"({"viewsInfo":[{"EVENT_ACTION":"a"}],"viewsCount":1)", "invalid JSON"},
      {R"({"viewsInfo":[],"viewsCount":0} trailing)", "invalid JSON"},
      {"[1,2]", "object"},
      {R"({"viewsCount":0})", "viewsInfo"},
      {R"({"viewsInfo":{},"viewsCount":0})", "viewsInfo"},
      {R"({"viewsInfo":[],"viewsCount":"0"})", "viewsCount"},
      {R"({"viewsInfo":[],"viewsCount":0.5})", "viewsCount"},
      {R"({"viewsInfo":[{"EVENT_ACTION":"a"}],"viewsCount":2})", "viewsCount"},
      {R"({"viewsInfo":["tap"],"viewsCount":1})", "event 0"},
      {"{\"viewsInfo\":[{\"EVENT_ACTION\":\"\xff\"}],\"viewsCount\":1}", "invalid JSON"},
  };
  for (const auto &[body, mentions] : bodies) {
    SCOPED_TRACE(body);
    EXPECT_NE(errorOf(post(kReport, q, body)).find(mentions), std::string::npos);
  }
  EXPECT_NE(errorOf(post(kReport, q, report(1), "text/plain")).find("application/json"), std::string::npos);
  EXPECT_NE(errorOf(post("/v2/autotriggerinapps", universal({{"event", "buy"}}), R"({"EVENT_ATTRS":[]})"))
                .find("EVENT_ATTRS"),
            std::string::npos);
  EXPECT_NE(errorOf(post("/v2/categories/add", universal(), R"({"data":{}})")).find("data"), std::string::npos);
  EXPECT_NE(errorOf(post("/v2/device/add", universal(), R"({"IDFV":7})")).find("IDFV"), std::string::npos);
  // A GET carries no body.
  httplib::Request getWithBody;
  getWithBody.method = "GET";
  getWithBody.path = "/v1/getConfig?app_id=A&unique_id=U&os=iOS";
  getWithBody.body = "{}";
  getWithBody.set_header("Content-Type", "application/json");
  EXPECT_NE(errorOf(client().send(getWithBody)).find("GET"), std::string::npos);

  EXPECT_TRUE(emulator->batches().empty());
  auto fine = post(kReport, q, report(1));
  ASSERT_TRUE(fine);
  EXPECT_EQ(fine->status, 200);
}

TEST_F(EmulatorTest, UnknownPathsAndWrongMethodsGetJSONErrors) {
  auto unknown = client().Get("/v3/nothing");
  ASSERT_TRUE(unknown);
  EXPECT_EQ(unknown->status, 404);
  EXPECT_TRUE(json(unknown->body).HasMember("error"));

  auto wrongMethod = get(kReport, universal({{"batch_id", "1"}}));
  ASSERT_TRUE(wrongMethod);
  EXPECT_EQ(wrongMethod->status, 405);
  EXPECT_TRUE(json(wrongMethod->body).HasMember("error"));
  EXPECT_EQ(emulator->requests().size(), 2u);
}

TEST_F(EmulatorTest, ConfigurationIsAnsweredFromDefaultsThenFromTheSeed) {
  auto res = get("/v1/getConfig", kConfigQuery);
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200);
  auto config = json(res->body);
  EXPECT_EQ(config["e_b_c"].GetInt(), 30);
  EXPECT_EQ(config["l_e"].GetInt(), 0);
  EXPECT_TRUE(config["tkn"].IsString());

  emulator->seed(R"({"config":{"l_e":1,"tkn":"T-1","e_b_c":5}})");
  auto seeded = json(get("/v1/getConfig", kConfigQuery)->body);
  EXPECT_EQ(seeded["l_e"].GetInt(), 1);
  EXPECT_EQ(std::string(seeded["tkn"].GetString()), "T-1");
  EXPECT_EQ(seeded["e_b_c"].GetInt(), 5);
}

TEST_F(EmulatorTest, CampaignInboxAndGeofenceAnswersComeFromSeeds) {
  auto seedRes = client().Post("/__emulator/seed", R"({
        "inapps": [{"cid": "c1", "status": "active"}],
        "campaigns": {"c1": {"cid": "c1"}, "c2": {"reason": "expired"}},
        "smart_triggers": {"buy": {"cid": "s1"}},
        "inbox": [{"cid": "m1"}],
        "geofences": {"fencesInfo": [{"geoId": "g1", "lat": 1.5, "lng": 2.5, "distance": 100}]}
    })",
                               "application/json");
  ASSERT_TRUE(seedRes);
  ASSERT_EQ(seedRes->status, 200) << seedRes->body;

  auto inapps = json(post("/campaigns/inappcampaigns/fetch", universal({{"last_updated", ""}}), "{}")->body);
  EXPECT_EQ(std::string(inapps["campaign_info"][0]["cid"].GetString()), "c1");

  auto single = json(get("/campaigns/inappcampaign/fetch", universal({{"campaign_id", "c1"}}))->body);
  EXPECT_EQ(std::string(single["campaign_info"][0]["cid"].GetString()), "c1") << "a bare campaign is wrapped";
  auto refused = json(get("/campaigns/inappcampaign/fetch", universal({{"campaign_id", "c2"}}))->body);
  EXPECT_EQ(std::string(refused["reason"].GetString()), "expired") << "a whole answer is served as seeded";
  auto missing = json(get("/campaigns/inappcampaign/fetch", universal({{"campaign_id", "zz"}}))->body);
  EXPECT_TRUE(missing.HasMember("reason"));

  auto trigger = json(post("/v2/autotriggerinapps", universal({{"event", "buy"}}), R"({"EVENT_ATTRS":{}})")->body);
  EXPECT_EQ(std::string(trigger["campaign_info"][0]["cid"].GetString()), "s1");
  auto noTrigger = json(post("/v2/autotriggerinapps", universal({{"event", "x"}}), R"({"EVENT_ATTRS":{}})")->body);
  EXPECT_TRUE(noTrigger["campaign_info"].Empty());

  auto inbox = json(get("/v1/getInboxMessages", universal({{"last_updated", "0"}}))->body);
  EXPECT_EQ(std::string(inbox["messagesInfo"][0]["cid"].GetString()), "m1");

  auto fences = json(get("/v1/geoFences", universal({{"lat", "1.500000"}, {"lng", "-2.5"}}))->body);
  EXPECT_EQ(fences["fencesInfo"][0]["distance"].GetInt(), 100);
  auto hit =
      get("/v1/geoFenceHit", universal({{"lat", "1.5"}, {"lng", "2.5"}, {"geoId", "g1"}, {"transitionType", "exit"}}));
  ASSERT_TRUE(hit);
  EXPECT_EQ(hit->status, 200);
}

TEST_F(EmulatorTest, RejectedSeedChangesNothing) {
  emulator->seed(R"({"inbox":[{"cid":"keep"}]})");
  for (const char *bad :
       {R"({"inbox":[], "bogus":{}})", R"({"config":[1]})", R"({"campaigns":{"c":1}})", R"([{"config":{}}])", "{"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(emulator->seed(bad), std::invalid_argument);
    auto res = client().Post("/__emulator/seed", bad, "application/json");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 400);
    EXPECT_TRUE(json(res->body).HasMember("error"));
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

TEST_F(EmulatorTest, DevicesCategoriesAndLogsAreStored) {
  for (int i = 0; i < 2; ++i) {
    auto res = post("/v2/device/add", universal({{"push_id", "beef"}, {"pushToken", "beef"}}),
                    R"({"IDFV":"A1B2","ADVERTISING_IDENTIFIER":"AD-1"})");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200);
  }
  auto devices = emulator->devices();
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(devices[0].registrations, 2);
  EXPECT_EQ(devices[0].idfv, "A1B2");
  EXPECT_EQ(devices[0].advertisingId, "AD-1");
  EXPECT_EQ(devices[0].pushId, "beef");
  EXPECT_EQ(devices[0].deviceUniqueId, "P-42");

  auto cat = post("/v2/categories/add", universal(), R"({"data":[{"identifier":"c","actions":[]}]})");
  ASSERT_TRUE(cat);
  EXPECT_EQ(cat->status, 200);
  ASSERT_EQ(emulator->categories().size(), 1u);
  EXPECT_EQ(std::string(json(emulator->categories()[0].dataJSON)[0]["identifier"].GetString()), "c");

  const std::string log = R"({"appid":"APP-1","uid":"A1B2","lvl":"5","tb":"","sdk_ver":"3.5.0",)"
                          R"("msg":"Kovantis - boom","tm_s":"1700000000"})";
  auto sent = client().Post("/noformat/logs/TOKEN-9", log, "application/json");
  ASSERT_TRUE(sent);
  EXPECT_EQ(sent->status, 204) << "the log upload succeeds only on 204";
  auto logs = emulator->logs();
  ASSERT_EQ(logs.size(), 1u);
  EXPECT_EQ(logs[0].token, "TOKEN-9");
  EXPECT_EQ(logs[0].msg, "Kovantis - boom");

  EXPECT_NE(errorOf(client().Post("/noformat/logs/T", R"({"appid":"A"})", "application/json")).find("uid"),
            std::string::npos);
  EXPECT_NE(errorOf(client().Post("/noformat/logs/T?x=1", log, "application/json")).find("x"), std::string::npos);
  EXPECT_EQ(emulator->logs().size(), 1u);
}
