// Faults, reset, inspection and persistence: the controls tests of the SDK rely on.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "EmulatorFixture.h"

namespace {
const httplib::Params kConfigQuery = {{"app_id", "APP-1"}, {"unique_id", "A1B2"}, {"os", "iOS"}};
const std::string kReport = "/v2/report/add";
}  // namespace

TEST_F(EmulatorTest, EachKindOfFaultActsAsToldAndIsRecorded) {
  using std::chrono::milliseconds;
  struct Case {
    KOEmulatorFault fault;
    int status;  // 0: the connection is closed without an answer
    milliseconds stall;
    std::string recorded;  // the fault the request is recorded with
  };
  const std::vector<Case> cases = {
      {fault("/v1/getConfig", 503, 0, false, 1), 503, milliseconds(0), "status 503"},
      {fault("/v1/getConfig", 0, 0, true, 1), 0, milliseconds(0), "drop"},
      {fault("/v1/getConfig", 0, 300, false, 1), 200, milliseconds(300), ""},
      {fault("/v1/getConfig", 500, 200, false, 1), 500, milliseconds(200), "status 500 after 200 ms"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.recorded);
    emulator->reset();
    emulator->injectFault(c.fault);
    auto started = std::chrono::steady_clock::now();
    auto res = get("/v1/getConfig", kConfigQuery);
    EXPECT_GE(std::chrono::steady_clock::now() - started, c.stall);
    EXPECT_EQ(res ? res->status : 0, c.status);
    EXPECT_EQ(get("/v1/getConfig", kConfigQuery)->status, 200) << "a fault with a count runs out";
    auto recorded = emulator->requests();
    ASSERT_EQ(recorded.size(), 2u);
    EXPECT_EQ(recorded[0].status, c.status);
    EXPECT_EQ(recorded[0].fault, c.recorded);
  }
}

TEST_F(EmulatorTest, FaultsHitTheirCountOrTheirShareAndStoreNothing) {
  auto res =
      client().Post("/__emulator/fault", R"({"path":"/v2/report/add","status":500,"count":2})", "application/json");
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200) << res->body;
  emulator->injectFault(fault("/v1/getConfig", 503, 0, false, -1, 0.5));

  std::vector<int> reports, configs;
  for (int i = 0; i < 4; ++i) {
    reports.push_back(post(kReport, universal({{"batch_id", std::to_string(i)}}), report(1))->status);
    configs.push_back(get("/v1/getConfig", kConfigQuery)->status);
  }
  EXPECT_EQ(reports, (std::vector<int>{500, 500, 200, 200}));
  EXPECT_EQ(configs, (std::vector<int>{200, 503, 200, 503})) << "spread evenly, the same every run";
  ASSERT_EQ(emulator->faults().size(), 1u) << "a counted fault ends, one without a count stays";
  EXPECT_EQ(emulator->faults()[0].path, "/v1/getConfig");
  ASSERT_EQ(emulator->batches().size(), 2u) << "a failed call stores nothing";
  EXPECT_EQ(emulator->batches()[0].batchId, "2");
}

TEST_F(EmulatorTest, FaultPathsMatchPrefixesAndWildcardButNeverControlEndpoints) {
  emulator->injectFault(fault("*", 502));
  EXPECT_EQ(get("/v1/getConfig", kConfigQuery)->status, 502);
  EXPECT_EQ(client().Get("/__emulator/events")->status, 200);
  EXPECT_EQ(client().Delete("/__emulator/fault")->status, 200);
  EXPECT_EQ(get("/v1/getConfig", kConfigQuery)->status, 200);

  emulator->injectFault(fault("/noformat/logs/", 500));
  emulator->injectFault(fault("/v1/getConfig", 500));
  EXPECT_EQ(client().Post("/noformat/logs/ANY", "{}", "application/json")->status, 500);
  EXPECT_EQ(client().Delete("/__emulator/fault?path=/noformat/logs/")->status, 200);
  ASSERT_EQ(emulator->faults().size(), 1u);
  EXPECT_EQ(emulator->faults()[0].path, "/v1/getConfig");
}

TEST_F(EmulatorTest, UnusableFaultsAreRefused) {
  for (const char* bad :
       {R"({"path":"/v1/getConfig"})", R"({"path":"/v1/getConfig","status":42})",
        R"({"path":"/v1/getConfig","status":500,"share":0})", R"({"path":"/v1/getConfig","status":500,"count":0})",
        R"({"path":"v1","status":500})", R"({"path":"/v1/getConfig","status":"500"})",
        R"({"path":"/v1/getConfig","status":500,"retry":true})", "not json"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(errorOf(client().Post("/__emulator/fault", bad, "application/json")).empty());
  }
  EXPECT_TRUE(emulator->faults().empty());
  EXPECT_THROW(emulator->injectFault(fault("/v1/getConfig", 0)), std::invalid_argument);
}

TEST_F(EmulatorTest, ResetForgetsWhatWasReceivedAndOptionallyTheSeeds) {
  emulator->seed(R"({"config":{"e_b_c":3}})");
  post(kReport, universal({{"batch_id", "1"}}), report(2));
  post(kReport, universal({{"batch_id", "1"}}), report(2));
  post("/v2/device/add", universal(), "{}");

  EXPECT_EQ(client().Post("/__emulator/reset", "", "application/json")->status, 200);
  EXPECT_TRUE(emulator->requests().empty());
  EXPECT_TRUE(emulator->batches().empty() && emulator->events().empty() && emulator->devices().empty());
  EXPECT_EQ(json(get("/v1/getConfig", kConfigQuery)->body)["e_b_c"].GetInt(), 3) << "seeds survive a reset";
  // After a reset the same batch id is new again.
  post(kReport, universal({{"batch_id", "1"}}), report(2));
  EXPECT_EQ(emulator->batches().size(), 1u);
  EXPECT_TRUE(emulator->duplicates().empty());

  client().Post("/__emulator/reset", R"({"seeds":true})", "application/json");
  EXPECT_EQ(json(get("/v1/getConfig", kConfigQuery)->body)["e_b_c"].GetInt(), 30);
  EXPECT_FALSE(errorOf(client().Post("/__emulator/reset", R"({"seeds":"yes"})", "application/json")).empty());
}

namespace {
// A request as a script sends it with `curl -X POST URL`: no body and no Content-Length. Returns the
// answer's text, or "" when none came within two seconds.
std::string sendWithoutBody(int port, const std::string& method, const std::string& path, const std::string& token) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    const std::string request = method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n" +
                                KOEmulator::kTokenHeader + ": " + token + "\r\nConnection: close\r\n\r\n";
    if (write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
      char buffer[1024];
      pollfd p{fd, POLLIN, 0};
      while (std::chrono::steady_clock::now() < deadline && poll(&p, 1, 100) >= 0) {
        if (!(p.revents & POLLIN)) continue;
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        answer.append(buffer, static_cast<size_t>(n));
      }
    }
  }
  close(fd);
  return answer;
}
}  // namespace

TEST_F(EmulatorTest, ControlCallsWithoutABodyAreAnsweredAtOnceAsAnEmptyOne) {
  const std::string token = emulator->controlToken();
  emulator->seed(R"({"config":{"e_b_c":3}})");
  post(kReport, universal({{"batch_id", "1"}}), report(2));
  EXPECT_EQ(sendWithoutBody(port, "POST", "/__emulator/reset", token).rfind("HTTP/1.1 200", 0), 0u);
  EXPECT_TRUE(emulator->batches().empty());
  EXPECT_EQ(sendWithoutBody(port, "POST", "/__emulator/seed", token).rfind("HTTP/1.1 200", 0), 0u);
  EXPECT_EQ(json(get("/v1/getConfig", kConfigQuery)->body)["e_b_c"].GetInt(), 3) << "an empty seed changes nothing";
  const std::string fault = sendWithoutBody(port, "POST", "/__emulator/fault", token);
  EXPECT_EQ(fault.rfind("HTTP/1.1 400", 0), 0u) << fault;
  EXPECT_EQ(fault.find("HTTP layer"), std::string::npos) << "the fault's own refusal: " << fault;
  EXPECT_EQ(sendWithoutBody(port, "DELETE", "/__emulator/fault", token).rfind("HTTP/1.1 200", 0), 0u);
}

TEST_F(EmulatorTest, InspectionEndpointsShowTheStoreAndAreNotRecorded) {
  post(kReport, universal({{"batch_id", "77"}}), report(2));
  get("/v1/getConfig", kConfigQuery);
  auto res = client().Get("/__emulator/events");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->body, emulator->inspectJSON("events"));
  auto events = json(res->body);
  ASSERT_EQ(events.Size(), 2u);
  EXPECT_EQ(std::string(events[1]["batch_id"].GetString()), "77");
  EXPECT_EQ(std::string(events[1]["event"]["EVENT_ACTION"].GetString()), "EVENT1");

  auto filtered = json(client().Get("/__emulator/requests?path=/v2/report/add")->body);
  ASSERT_EQ(filtered.Size(), 1u);
  EXPECT_EQ(std::string(filtered[0]["query"]["batch_id"].GetString()), "77");
  EXPECT_EQ(json(client().Get("/__emulator/duplicates")->body).Size(), 0u);
  EXPECT_EQ(emulator->requests().size(), 2u) << "control calls stay out of the record";
  EXPECT_THROW(emulator->inspectJSON("health"), std::invalid_argument) << "only the inspections";
}

TEST_F(EmulatorTest, WaitForRequestsReturnsOnceTheCountIsReachedOrTimesOut) {
  EXPECT_FALSE(emulator->waitForRequests("/v1/getConfig", 1, std::chrono::milliseconds(20)));
  get("/v1/getConfig", kConfigQuery);
  client().Post("/noformat/logs/A", "{}", "application/json");
  EXPECT_TRUE(emulator->waitForRequests("/v1/getConfig", 1, std::chrono::seconds(5)));
  EXPECT_TRUE(emulator->waitForRequests("/noformat/logs/", 1, std::chrono::seconds(5)));
  EXPECT_FALSE(emulator->waitForRequests("/v1/getConfig", 2, std::chrono::milliseconds(20)));
}
