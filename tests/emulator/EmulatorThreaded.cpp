// Concurrency, shutdown and the command-line binary: the tests the ThreadSanitizer run covers.

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include "EmulatorFixture.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
const httplib::Params kConfigQuery = {{"app_id", "A"}, {"unique_id", "U"}, {"os", "iOS"}};

// A child kovantis-emulator with its stdout on a pipe. The destructor kills a child that is still
// running, so a failing test never leaves one behind.
class Child {
 public:
  // Reads the child's standard output, and its standard error too when `withErrors`.
  explicit Child(const std::vector<std::string>& args, bool withErrors = false) {
    int fds[2];
    if (pipe(fds) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    if (withErrors) posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    posix_spawn_file_actions_addclose(&actions, fds[1]);
    std::string binary = KOVANTIS_EMULATOR_BINARY;
    std::vector<std::string> copies = args;
    std::vector<char*> argv = {binary.data()};
    for (auto& a : copies) argv.push_back(a.data());
    argv.push_back(nullptr);
    int rc = posix_spawn(&pid_, binary.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    out_ = fds[0];
    if (rc != 0) throw std::runtime_error("posix_spawn failed");
  }
  ~Child() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(out_);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Reads stdout until `until` appears, the output ends or the time is up.
  std::string readUntil(const std::string& until, Clock::duration limit) {
    auto deadline = Clock::now() + limit;
    while (!ended_ && output_.find(until) == std::string::npos && Clock::now() < deadline) {
      pollfd p{out_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      char buffer[512];
      ssize_t n = read(out_, buffer, sizeof buffer);
      if (n > 0) output_.append(buffer, static_cast<size_t>(n));
      ended_ = n <= 0;
    }
    return output_;
  }
  // The exit status, once the output ended (the child closes it on exit); -1 if it did not in time.
  int exitStatus(Clock::duration limit) {
    readUntil("\x01never", limit);
    int status = -1;
    if (ended_ && waitpid(pid_, &status, 0) == pid_) pid_ = -1;
    return status;
  }
  void signal(int sig) { kill(pid_, sig); }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  bool ended_ = false;
  std::string output_;
};

}  // namespace

TEST_F(EmulatorTest, ConcurrentReportsAreStoredExactlyOnceEach) {
  constexpr int kThreads = 50;
  std::atomic<int> accepted{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    // Every batch id is sent by two threads at once.
    threads.emplace_back([&, i] {
      auto res = post("/v2/report/add", universal({{"batch_id", std::to_string(1000 + i % 25)}}), report(2));
      if (res && res->status == 200) ++accepted;
    });
  }
  for (auto& t : threads) t.join();

  EXPECT_EQ(accepted.load(), kThreads);
  EXPECT_EQ(emulator->batches().size(), 25u);
  EXPECT_EQ(emulator->events().size(), 50u);
  EXPECT_EQ(emulator->duplicates().size(), 25u);
  EXPECT_EQ(emulator->requests().size(), static_cast<size_t>(kThreads));
}

TEST_F(EmulatorTest, InspectionWhileServingIsSafe) {
  std::atomic<bool> done{false};
  std::thread reader([&] {
    auto deadline = Clock::now() + std::chrono::seconds(20);
    while (!done && Clock::now() < deadline) {
      emulator->inspectJSON("events");
      emulator->faults();
      client().Get("/__emulator/requests");  // the control rows, on the server's threads
    }
  });
  emulator->injectFault(fault("/v1/getConfig", 500, 0, false, -1, 0.5));
  std::vector<std::thread> writers;
  for (int i = 0; i < 8; ++i) {
    writers.emplace_back([&, i] {
      for (int j = 0; j < 5; ++j) {
        post("/v2/report/add", universal({{"batch_id", std::to_string(i * 10 + j)}}), report(1));
        get("/v1/getConfig", kConfigQuery);
      }
    });
  }
  for (auto& w : writers) w.join();
  done = true;
  reader.join();
  EXPECT_EQ(emulator->batches().size(), 40u);
  size_t failed = 0;
  for (const auto& r : emulator->requests("/v1/getConfig")) failed += r.status == 500;
  EXPECT_EQ(failed, 20u) << "half of the 40 calls, however they interleave";
}

TEST_F(EmulatorTest, PeakOfConcurrentRequestsCountsStalledOnesAndResets) {
  emulator->seed(R"({"images": {"/images/a.png": "iVBORw0KGgo="}})");
  emulator->injectFault(fault("/images/", 0, 300));
  std::vector<std::thread> callers;
  for (int i = 0; i < 3; ++i) callers.emplace_back([&] { client().Get("/images/a.png"); });
  for (auto& c : callers) c.join();
  client().Get("/__emulator/health");  // control calls are not counted
  EXPECT_EQ(emulator->peakConcurrentRequests(), 3u) << "three stalls of 300 ms overlap";
  emulator->reset();
  EXPECT_EQ(emulator->peakConcurrentRequests(), 0u);
  emulator->clearFaults();
  client().Get("/images/a.png");
  client().Get("/images/a.png");
  EXPECT_EQ(emulator->peakConcurrentRequests(), 1u) << "one after the other";
}

TEST(EmulatorStop, DoesNotWaitForAnIdleKeptAliveClient) {
  auto dir = makeTemporaryDirectory();
  KOEmulator::Options options = emulatorOptions(dir);
  options.keepAliveSeconds = 60;  // a test's teardown must not wait this out
  KOEmulator emulator(options);
  httplib::Client cli("127.0.0.1", emulator.start(0));
  cli.set_keep_alive(true);
  cli.set_connection_timeout(5);
  cli.set_read_timeout(10);
  auto health = cli.Get("/__emulator/health");
  ASSERT_TRUE(health);
  ASSERT_EQ(health->status, 200);  // the connection now idles, kept alive by both sides
  const auto started = Clock::now();
  emulator.stop();
  EXPECT_LT(Clock::now() - started, std::chrono::seconds(10));
  EXPECT_FALSE(emulator.isRunning());
  std::filesystem::remove_all(dir);
}

TEST_F(EmulatorTest, StopCutsAStallShortAndTheEmulatorStartsAgain) {
  emulator->injectFault(fault("/v1/getConfig", 0, 60000, false, 1));
  std::thread caller([&] { get("/v1/getConfig", kConfigQuery); });
  // The fault is used up once the request has arrived and begun to stall.
  auto deadline = Clock::now() + std::chrono::seconds(10);
  while (!emulator->faults().empty() && Clock::now() < deadline) std::this_thread::yield();
  ASSERT_TRUE(emulator->faults().empty());

  auto started = Clock::now();
  emulator->stop();
  EXPECT_LT(Clock::now() - started, std::chrono::seconds(10));
  caller.join();
  EXPECT_FALSE(emulator->isRunning());
  EXPECT_FALSE(get("/v1/getConfig", kConfigQuery)) << "nothing listens after stop";

  port = emulator->start(0);
  EXPECT_THROW(emulator->start(0), std::runtime_error);
  auto res = get("/v1/getConfig", kConfigQuery);
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
}

TEST(EmulatorCommandLine, PrintsItsPortServesAndStopsOnSigterm) {
  auto dir = makeTemporaryDirectory();
  {
    std::filesystem::create_directories(dir / "images");
    std::ofstream(dir / "images" / "a.gif") << "GIF89a";
    Child child({"--port", "0", "--data", dir.string(), "--images", (dir / "images").string()});
    std::string out = child.readUntil("\n", std::chrono::seconds(30));
    const std::string prefix = "kovantis-emulator listening on 127.0.0.1:";
    ASSERT_EQ(out.rfind(prefix, 0), 0u) << out;
    int childPort = std::stoi(out.substr(prefix.size()));
    ASSERT_GT(childPort, 0);
    // Then where the control API and the dashboard live, on the port it bound.
    const std::string base = "http://127.0.0.1:" + std::to_string(childPort);
    out = child.readUntil("dashboard ", std::chrono::seconds(10));
    out = child.readUntil("\n", std::chrono::seconds(10));
    EXPECT_NE(out.find("control API  " + base + "/__emulator/health"), std::string::npos) << out;
    EXPECT_NE(out.find("dashboard    " + base + "/\n"), std::string::npos) << out;

    httplib::Client cli("127.0.0.1", childPort);
    cli.set_connection_timeout(5);
    cli.set_read_timeout(10);
    auto health = cli.Get("/__emulator/health");
    ASSERT_TRUE(health);
    EXPECT_EQ(health->body, "{\"ok\":true,\"port\":" + std::to_string(childPort) + "}");
    auto sent = cli.Post(httplib::append_query_params("/v2/report/add", EmulatorTest::universal({{"batch_id", "42"}})),
                         R"({"viewsInfo":[{"EVENT_ACTION":"x"}],"viewsCount":1})", "application/json");
    ASSERT_TRUE(sent);
    EXPECT_EQ(sent->status, 200) << sent->body;
    auto image = cli.Get("/images/a.gif");
    ASSERT_TRUE(image);
    EXPECT_EQ(image->body, "GIF89a") << "--images serves the directory";
    // The run's token, printed for scripts: a change needs it.
    out = child.readUntil(" (header", std::chrono::seconds(10));
    const auto at = out.find("  token        ");
    ASSERT_NE(at, std::string::npos) << out;
    const std::string token = out.substr(at + 15, 32);
    auto refused = cli.Delete("/__emulator/fault");
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 403);
    auto allowed = cli.Delete("/__emulator/fault", {{KOEmulator::kTokenHeader, token}});
    ASSERT_TRUE(allowed);
    EXPECT_EQ(allowed->status, 200) << allowed->body;

    child.signal(SIGTERM);
    int status = child.exitStatus(std::chrono::seconds(30));
    ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(child.readUntil("stopping", std::chrono::seconds(1)).find("stopping"), std::string::npos);
  }
  KOEmulator reopened(emulatorOptions(dir));
  ASSERT_EQ(reopened.events().size(), 1u) << "what the binary stored is in its data directory";
  EXPECT_EQ(reopened.events()[0].name, "x");

  std::filesystem::remove_all(dir);
}

TEST(EmulatorCommandLine, AWrongArgumentIsNamedInOneLineWithStatus2) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--port", "abc", "--data", "/tmp"}, "kovantis-emulator: --port abc: not a port number"},
      {{"--port", "99999", "--data", "/tmp"}, "kovantis-emulator: --port 99999: out of range"},
      {{"--bogus", "--port", "0"}, "kovantis-emulator: unknown option --bogus"},
      {{"--port", "0", "--data"}, "kovantis-emulator: --data needs a value"},
      {{"--port", "0"}, "kovantis-emulator: --data DIR is required"},
  };
  for (const auto& [args, line] : cases) {
    Child child(args, /*withErrors=*/true);
    const std::string out = child.readUntil("\x01never", std::chrono::seconds(30));
    const int status = child.exitStatus(std::chrono::seconds(30));
    ASSERT_TRUE(WIFEXITED(status)) << line;
    EXPECT_EQ(WEXITSTATUS(status), 2) << line;
    EXPECT_EQ(out.rfind(line, 0), 0u) << out;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << "one line, not the usage text:\n" << out;
  }
}

TEST(EmulatorCommandLine, HelpDocumentsEveryOptionAndTheControlAPI) {
  Child help({"--help"});
  const std::string out = help.readUntil("\x01never", std::chrono::seconds(30));
  const int status = help.exitStatus(std::chrono::seconds(30));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "help is asked for, not a usage error";
  for (const char* option : {"--port N", "--data DIR", "--seed FILE", "--images DIR", "--quiet", "--help"}) {
    EXPECT_NE(out.find(std::string("\n  ") + option + " "), std::string::npos) << option << " in\n" << out;
  }
  EXPECT_NE(out.find("/__emulator/dashboard/"), std::string::npos) << out;
}
