// Faults, reset, inspection and persistence: the controls tests of the SDK rely on.

#include <chrono>

#include "EmulatorFixture.h"

namespace {
const httplib::Params kConfigQuery = {{"app_id", "APP-1"}, {"unique_id", "A1B2"}, {"os", "iOS"}};
const std::string kReport = "/v2/report/add";

std::string reportBatch(int id) { return std::to_string(1700000000000LL + id); }
}  // namespace

TEST_F(EmulatorTest, StatusFaultHitsItsCountThenRunsOut) {
  auto res =
      client().Post("/__emulator/fault", R"({"path":"/v2/report/add","status":500,"count":2})", "application/json");
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200) << res->body;

  std::vector<int> statuses;
  for (int i = 0; i < 3; ++i) {
    auto r = post(kReport, universal({{"batch_id", reportBatch(i)}}), report(1));
    ASSERT_TRUE(r);
    statuses.push_back(r->status);
  }
  EXPECT_EQ(statuses, (std::vector<int>{500, 500, 200}));
  ASSERT_EQ(emulator->batches().size(), 1u) << "a failed call stores nothing";
  EXPECT_EQ(emulator->batches()[0].batchId, reportBatch(2));
  EXPECT_TRUE(emulator->faults().empty());

  auto recorded = emulator->requests(kReport);
  ASSERT_EQ(recorded.size(), 3u);
  EXPECT_EQ(recorded[0].fault, "status 500");
  EXPECT_TRUE(recorded[2].fault.empty());
  // Other paths were never affected.
  EXPECT_EQ(get("/v1/getConfig", kConfigQuery)->status, 200);
}

TEST_F(EmulatorTest, ShareFaultSpreadsItsHitsEvenly) {
  emulator->injectFault(fault("/v1/getConfig", 503, 0, false, -1, 0.5));
  std::vector<int> statuses;
  for (int i = 0; i < 6; ++i) statuses.push_back(get("/v1/getConfig", kConfigQuery)->status);
  EXPECT_EQ(statuses, (std::vector<int>{200, 503, 200, 503, 200, 503}));
  EXPECT_EQ(emulator->faults().size(), 1u) << "without a count the fault stays";
}

TEST_F(EmulatorTest, DropClosesTheConnectionWithoutAnAnswer) {
  emulator->injectFault(fault("/v1/getConfig", 0, 0, true, 1));
  auto dropped = get("/v1/getConfig", kConfigQuery);
  EXPECT_FALSE(dropped) << "got status " << (dropped ? dropped->status : 0);
  auto next = get("/v1/getConfig", kConfigQuery);
  ASSERT_TRUE(next);
  EXPECT_EQ(next->status, 200);

  auto recorded = emulator->requests("/v1/getConfig");
  ASSERT_EQ(recorded.size(), 2u);
  EXPECT_EQ(recorded[0].status, 0);
  EXPECT_EQ(recorded[0].fault, "drop");
}

TEST_F(EmulatorTest, DelayStallsBeforeAnsweringNormally) {
  emulator->injectFault(fault("/v1/getConfig", 0, 300, false, 1));
  auto started = std::chrono::steady_clock::now();
  auto res = get("/v1/getConfig", kConfigQuery);
  auto elapsed = std::chrono::steady_clock::now() - started;
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_GE(elapsed, std::chrono::milliseconds(300));
}

TEST_F(EmulatorTest, FaultPathsMatchPrefixesAndWildcardButNeverControlEndpoints) {
  emulator->injectFault(fault("*", 502));
  EXPECT_EQ(get("/v1/getConfig", kConfigQuery)->status, 502);
  EXPECT_EQ(client().Get("/__emulator/events")->status, 200);
  auto cleared = client().Delete("/__emulator/fault");
  ASSERT_TRUE(cleared);
  EXPECT_EQ(cleared->status, 200);
  EXPECT_EQ(get("/v1/getConfig", kConfigQuery)->status, 200);

  emulator->injectFault(fault("/noformat/logs/", 500));
  emulator->injectFault(fault("/v1/getConfig", 500));
  EXPECT_EQ(client().Post("/noformat/logs/ANY", "{}", "application/json")->status, 500);
  EXPECT_EQ(client().Delete("/__emulator/fault?path=/noformat/logs/")->status, 200);
  ASSERT_EQ(emulator->faults().size(), 1u);
  EXPECT_EQ(emulator->faults()[0].path, "/v1/getConfig");
}

TEST_F(EmulatorTest, UnusableFaultsAreRefused) {
  for (const char *bad :
       {R"({"path":"/v1/getConfig"})", R"({"path":"/v1/getConfig","status":42})",
        R"({"path":"/v1/getConfig","status":500,"share":0})", R"({"path":"/v1/getConfig","status":500,"count":0})",
        R"({"path":"v1","status":500})", R"({"path":"/v1/getConfig","status":"500"})",
        R"({"path":"/v1/getConfig","status":500,"retry":true})", "not json"}) {
    SCOPED_TRACE(bad);
    auto res = client().Post("/__emulator/fault", bad, "application/json");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 400);
    EXPECT_TRUE(json(res->body).HasMember("error"));
  }
  EXPECT_TRUE(emulator->faults().empty());
  EXPECT_THROW(emulator->injectFault(fault("/v1/getConfig", 0)), std::invalid_argument);
}

TEST_F(EmulatorTest, ResetForgetsWhatWasReceivedAndOptionallyTheSeeds) {
  emulator->seed(R"({"config":{"e_b_c":3}})");
  post(kReport, universal({{"batch_id", "1"}}), report(2));
  post(kReport, universal({{"batch_id", "1"}}), report(2));
  post("/v2/device/add", universal(), "{}");
  client().Post("/noformat/logs/T", "{}", "application/json");

  auto res = client().Post("/__emulator/reset", "", "application/json");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_TRUE(emulator->requests().empty());
  EXPECT_TRUE(emulator->batches().empty());
  EXPECT_TRUE(emulator->events().empty());
  EXPECT_TRUE(emulator->duplicates().empty());
  EXPECT_TRUE(emulator->devices().empty());
  EXPECT_EQ(json(get("/v1/getConfig", kConfigQuery)->body)["e_b_c"].GetInt(), 3) << "seeds survive a reset";

  // After a reset the same batch id is new again.
  post(kReport, universal({{"batch_id", "1"}}), report(2));
  EXPECT_EQ(emulator->batches().size(), 1u);
  EXPECT_TRUE(emulator->duplicates().empty());

  client().Post("/__emulator/reset", R"({"seeds":true})", "application/json");
  EXPECT_EQ(json(get("/v1/getConfig", kConfigQuery)->body)["e_b_c"].GetInt(), 30);
  EXPECT_EQ(client().Post("/__emulator/reset", R"({"seeds":"yes"})", "application/json")->status, 400);
}

TEST_F(EmulatorTest, InspectionEndpointsMirrorTheInProcessViewAndAreNotRecorded) {
  post(kReport, universal({{"batch_id", "77"}}), report(2));
  get("/v1/getConfig", kConfigQuery);
  for (const char *what : {"requests", "devices", "batches", "events", "duplicates", "logs", "categories", "seed"}) {
    SCOPED_TRACE(what);
    auto res = client().Get(std::string("/__emulator/") + what);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200);
    EXPECT_EQ(res->get_header_value("Content-Type"), "application/json");
    EXPECT_EQ(res->body, emulator->inspectJSON(what));
  }
  auto events = json(client().Get("/__emulator/events")->body);
  ASSERT_EQ(events.Size(), 2u);
  EXPECT_EQ(std::string(events[1]["batch_id"].GetString()), "77");
  EXPECT_EQ(std::string(events[1]["event"]["EVENT_ACTION"].GetString()), "EVENT1");

  auto filtered = json(client().Get("/__emulator/requests?path=/v2/report/add")->body);
  ASSERT_EQ(filtered.Size(), 1u);
  EXPECT_EQ(std::string(filtered[0]["query"]["batch_id"].GetString()), "77");
  EXPECT_EQ(emulator->requests().size(), 2u) << "control calls stay out of the record";
  EXPECT_EQ(client().Get("/__emulator/nothing")->status, 404);
  EXPECT_THROW(emulator->inspectJSON("nothing"), std::invalid_argument);
}

TEST_F(EmulatorTest, WaitForRequestsReturnsOnceTheCountIsReachedOrTimesOut) {
  EXPECT_FALSE(emulator->waitForRequests("/v1/getConfig", 1, std::chrono::milliseconds(20)));
  get("/v1/getConfig", kConfigQuery);
  client().Post("/noformat/logs/A", "{}", "application/json");
  EXPECT_TRUE(emulator->waitForRequests("/v1/getConfig", 1, std::chrono::seconds(5)));
  EXPECT_TRUE(emulator->waitForRequests("/noformat/logs/", 1, std::chrono::seconds(5)));
  EXPECT_FALSE(emulator->waitForRequests("/v1/getConfig", 2, std::chrono::milliseconds(20)));
}

TEST_F(EmulatorTest, StoreOutlivesTheEmulatorAndRestartsServe) {
  post(kReport, universal({{"batch_id", "5"}}), report(1));
  emulator->stop();
  EXPECT_FALSE(emulator->isRunning());
  EXPECT_FALSE(get("/v1/getConfig", kConfigQuery)) << "nothing listens after stop";
  emulator.reset();

  emulator = std::make_unique<KOEmulator>(emulatorOptions(dataDir));
  EXPECT_EQ(emulator->batches().size(), 1u);
  port = emulator->start(0);
  EXPECT_THROW(emulator->start(0), std::runtime_error);
  auto again = post(kReport, universal({{"batch_id", "5"}}), report(1));
  ASSERT_TRUE(again);
  EXPECT_EQ(emulator->duplicates().size(), 1u);
  EXPECT_EQ(emulator->baseURL(), "http://127.0.0.1:" + std::to_string(port));
}
