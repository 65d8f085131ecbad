#include <gtest/gtest.h>
#include <httplib.h>

#include <condition_variable>
#include <thread>

#include "KOTestDevice.h"
#include "KOUtilities/KOLogger.h"
#include "Network/ADHttpClient.h"

// A bare local server whose answers each test scripts, for the answers the emulator never gives.
class ADHttpClientTest : public KOTestDevice {
 protected:
  void SetUp() override {
    KOTestDevice::SetUp();
    KOLogger::debug(1);
    server_.Get("/status/(\\d+)", [](const httplib::Request& req, httplib::Response& res) {
      res.status = std::stoi(req.matches[1]);
      res.set_content(req.has_param("body") ? req.get_param_value("body") : "", "application/json");
    });
    server_.Get("/stall", [this](const httplib::Request&, httplib::Response& res) {
      std::unique_lock<std::mutex> lock(stallMutex_);
      stallCv_.wait_for(lock, std::chrono::seconds(10), [this] { return released_; });
      res.set_content("{}", "application/json");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // stop() before the server runs would be lost and leave it serving forever.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!server_.is_running() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    ASSERT_TRUE(server_.is_running());
  }
  void TearDown() override {
    {
      std::lock_guard<std::mutex> lock(stallMutex_);
      released_ = true;
    }
    stallCv_.notify_all();
    client_.shutdown();
    server_.stop();
    thread_.join();
    KOTestDevice::TearDown();
  }

  KOURLRequest get(const std::string& path, double timeout = 5) {
    KOURLRequest r;
    r.url = "http://127.0.0.1:" + std::to_string(port_) + path;
    r.method = "GET";
    r.timeoutSeconds = timeout;
    return r;
  }

  KOValue fetch(const KOURLRequest& r) {
    bool done = false;
    KOValue answer(KONull{});
    client_.fetchRequest(r, [&](const KOValue& v) {
      answer = v;
      done = true;
    });
    EXPECT_TRUE(waitFor([&] { return done; }));
    return answer;
  }

  template <typename Call>
  bool flag(Call call) {
    std::atomic<int> result{-1};
    call([&](bool ok) { result = ok ? 1 : 0; });
    EXPECT_TRUE(waitFor([&] { return result.load() >= 0; }));
    return result.load() == 1;
  }

  ADHttpClient client_;
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex stallMutex_;
  std::condition_variable stallCv_;
  bool released_ = false;
};

TEST_F(ADHttpClientTest, FetchSucceedsOnlyOn200AndReadsAnyBodyAsAnAnswer) {
  EXPECT_EQ(fetch(get("/status/200?body=%7B%22a%22%3A1%7D")), KOValue(KODictionary{{"a", 1}}));
  EXPECT_EQ(fetch(get("/status/200")), KOValue(KODictionary{}));                     // empty body
  EXPECT_EQ(fetch(get("/status/200?body=%7B%22a%22%3A")), KOValue(KODictionary{}));  // malformed
  EXPECT_EQ(fetch(get("/status/200?body=5")), KOValue(KODictionary{}));              // a bare number
  EXPECT_EQ(fetch(get("/status/200?body=%5B1%5D")), KOValue(KOArray{1}));
  EXPECT_TRUE(fetch(get("/status/201?body=%7B%7D")).isNil());
  EXPECT_TRUE(fetch(get("/status/500")).isNil());
  EXPECT_TRUE(device().console().contains("Kovantis - Api failed with response 201 and error (null)"));
}

TEST_F(ADHttpClientTest, SyncNeeds200AndLogUploadNeeds204) {
  EXPECT_TRUE(flag([&](auto done) { client_.syncRequest(get("/status/200"), done); }));
  EXPECT_FALSE(flag([&](auto done) { client_.syncRequest(get("/status/204"), done); }));
  EXPECT_FALSE(flag([&](auto done) { client_.syncRequest(get("/status/201"), done); }));
  EXPECT_TRUE(flag([&](auto done) { client_.sendLogRequest(get("/status/204"), done); }));
  EXPECT_FALSE(flag([&](auto done) { client_.sendLogRequest(get("/status/200"), done); }));
  EXPECT_TRUE(device().console().contains("Kovantis - the connection failed with response 200 error (null)"));
}

TEST_F(ADHttpClientTest, RefusedAndStalledConnectionsFail) {
  KOURLRequest refused = get("/status/200");
  refused.url = "http://127.0.0.1:1/status/200";
  EXPECT_TRUE(fetch(refused).isNil());
  EXPECT_FALSE(flag([&](auto done) { client_.syncRequest(refused, done); }));
  EXPECT_TRUE(device().console().contains("Kovantis - Api failed with response 0 and error"));

  const auto started = std::chrono::steady_clock::now();
  EXPECT_TRUE(fetch(get("/stall", 0.3)).isNil());
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
  EXPECT_EQ(client_.inFlight(), 0u);
}

TEST_F(ADHttpClientTest, ShutdownFailsWhatIsInFlightAndWhatComesAfter) {
  std::atomic<int> failures{0};
  client_.syncRequest(get("/stall"), [&](bool ok) { failures += ok ? 0 : 1; });
  client_.shutdown();
  client_.syncRequest(get("/status/200"), [&](bool ok) { failures += ok ? 0 : 1; });
  EXPECT_EQ(failures.load(), 2);
}
