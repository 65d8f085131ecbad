#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <filesystem>
#include <random>
#include <set>

#include "KOChildProcess.h"
#include "KOSDKTestDevice.h"
#include "KOUtilities/KOPropertyListSerialization.h"
#include "kovantis/emulator/KOEmulator.h"

namespace {

// Starts the child app and returns its pid and the read end of its output.
pid_t spawnChild(const std::string& root, int port, int run, int* output) {
  const KOChildProcess child =
      KOChildProcess::spawn({KOV_DURABILITY_CHILD, root, std::to_string(port), std::to_string(run)});
  *output = child.output;
  return child.pid;
}

// Reads the child's progress lines until it has tracked at least `events`, or the deadline passes.
bool waitForProgress(int fd, long events, std::chrono::steady_clock::time_point deadline) {
  std::string pending;
  char buffer[4096];
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 200) <= 0) continue;
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n <= 0) return false;
    pending.append(buffer, static_cast<std::size_t>(n));
    const auto lastNewline = pending.rfind('\n');
    if (lastNewline == std::string::npos) continue;
    const auto previous = pending.rfind('\n', lastNewline - 1);
    const long tracked = std::atol(pending.c_str() + (previous == std::string::npos ? 0 : previous + 1));
    if (tracked >= events) return true;
  }
  return false;
}

}  // namespace

// Kill the app at arbitrary moments, many times: the batch file is never corrupt, every batch that
// reached it is delivered, and the service never stores an event twice.
TEST(DurabilityTest, KilledAppsLoseNoStoredBatchAndNeverDuplicateAnEvent) {
  KOChildProcessRig rig("kovantis-durability-" + std::to_string(::getpid()));
  KOEmulator& emulator = rig.emulator;
  const std::string& root = rig.root;
  const int port = rig.port;

  std::mt19937 random(12345);
  std::set<std::string> storedBatchIds;
  const std::string batchFile = root + "/Sandbox/Documents/KovantisBatchEvents.plist";
  constexpr int kRuns = 12;
  for (int run = 0; run < kRuns; ++run) {
    if (run == 0) {
      // The service is down at first, so that the kills find stored batches...
      emulator.injectFault(KOEmulatorFault{"/v2/report/add", 503, 0, false, -1, 1.0});
    } else if (run == kRuns / 2) {
      // ...then it answers slowly, keeping batches in flight, so that kills land between the
      // service's answer and the file update too, and refuses some.
      emulator.clearFaults();
      emulator.injectFault(KOEmulatorFault{"/v2/report/add", 0, 25, false, -1, 1.0});
      emulator.injectFault(KOEmulatorFault{"/v2/report/add", 503, 25, false, -1, 0.3});
    }
    int output = -1;
    const pid_t child = spawnChild(root, port, run, &output);
    ASSERT_GT(child, 0);
    const long killAfter = std::uniform_int_distribution<long>(20, 400)(random);
    const bool progressed =
        waitForProgress(output, killAfter, std::chrono::steady_clock::now() + std::chrono::seconds(30));
    // While the service is down, the kill waits for a batch file (its writer runs a moment after
    // each cut), or the kills could all come before any.
    const auto fileDeadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (run < kRuns / 2 && !std::filesystem::exists(batchFile) && std::chrono::steady_clock::now() < fileDeadline) {
      waitForProgress(output, LONG_MAX, std::chrono::steady_clock::now() + std::chrono::milliseconds(20));
    }
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(output);
    ASSERT_TRUE(progressed) << "run " << run << " never reached " << killAfter << " events";
    ASSERT_TRUE(WIFSIGNALED(status));

    // Whatever moment the kill hit, the batch file is whole.
    std::error_code ec;
    if (std::filesystem::exists(batchFile, ec)) {
      KOSimFileSystem fs(root + "/Sandbox");
      const auto bytes = fs.readFile(batchFile);
      ASSERT_TRUE(bytes.has_value());
      KOValue batches;
      ASSERT_NO_THROW(batches = KOPropertyListSerialization::parse(*bytes)) << "run " << run;
      ASSERT_TRUE(batches.isDictionary());
      for (const auto& id : batches.dictionaryValue().keys()) storedBatchIds.insert(id);
    }
  }

  // The kills must have caught stored batches, or this test proved nothing.
  ASSERT_FALSE(storedBatchIds.empty());
  emulator.clearFaults();

  // The next start delivers everything that was stored.
  {
    KOSimDeviceConfig config;
    config.rootDirectory = root;
    KOSimDevice device(config);
    device.install();
    device.setServiceEndpoints(KOServiceEndpoints::local("127.0.0.1", port));
    Kovantis::sharedInstance().initializeWithApiKey(KOValue("durable-app"));
    KOEventsHandler& events = KOEventsHandler::sharedInstance();
    ASSERT_TRUE(device.runMainUntil(
        [&] {
          if (events.syncInProgress() || !device.dispatch().backgroundIdle()) return false;
          if (events.storedBatchCount() == 0) return true;
          Kovantis::sharedInstance().syncNow();
          return false;
        },
        30));
    KOServerInterface::sharedInstance().httpClient().closeIdleConnections();
  }

  std::set<std::string> delivered;
  for (const auto& b : emulator.batches()) delivered.insert(b.batchId);
  for (const auto& id : storedBatchIds) EXPECT_TRUE(delivered.count(id)) << "batch " << id << " was never delivered";

  std::set<std::pair<std::int64_t, std::int64_t>> seen;
  std::size_t ticks = 0;
  for (const auto& e : emulator.events()) {
    if (e.name != "TICK") continue;
    ++ticks;
    const KOValue record = KOJSONSerialization::parse(e.json);
    const auto key = std::make_pair(record["EVENT_ATTRS"]["run"].intValue(), record["EVENT_ATTRS"]["seq"].intValue());
    EXPECT_TRUE(seen.insert(key).second) << "event " << key.first << "/" << key.second << " stored twice";
  }
  EXPECT_GT(ticks, 0u);
  RecordProperty("stored_batches_seen", static_cast<int>(storedBatchIds.size()));
  RecordProperty("duplicates_recognised", static_cast<int>(emulator.duplicates().size()));
  std::printf("stored batches seen %zu, delivered %zu, duplicate sends recognised %zu, events %zu\n",
              storedBatchIds.size(), delivered.size(), emulator.duplicates().size(), ticks);
}
