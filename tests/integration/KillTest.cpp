#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <set>

#include "KOChildProcess.h"
#include "KODelivery.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "Network/KOServerInterface.h"
#include "kovantis/KOConstants.h"
#include "kovantis/emulator/KOEmulator.h"

namespace {

using EventKey = std::pair<std::int64_t, std::int64_t>;  // run, seq

KOChildProcess spawnChild(const std::string& root, int port, int run, int pace, std::int64_t resetAfter) {
  return KOChildProcess::spawn({KOV_KILL_CHILD, root, std::to_string(port), std::to_string(run), std::to_string(pace),
                                std::to_string(resetAfter)});
}

// What a killed child said: the events whose trackEvent returned, and the resets it began.
struct Transcript {
  std::string pending;
  std::vector<std::int64_t> tracked;
  std::vector<std::int64_t> resets;

  void feed(const char* data, std::size_t size) {
    pending.append(data, size);
    std::size_t start = 0;
    for (std::size_t nl = pending.find('\n'); nl != std::string::npos; nl = pending.find('\n', start)) {
      const std::string line = pending.substr(start, nl - start);
      start = nl + 1;
      if (line.size() < 3) continue;
      const std::int64_t seq = std::atoll(line.c_str() + 2);
      (line[0] == 'T' ? tracked : resets).push_back(seq);
    }
    pending.erase(0, start);
  }
};

// Reads until the deadline (or the end of the output when `toEnd`).
void readOutput(int fd, Transcript& transcript, std::chrono::steady_clock::time_point deadline, bool toEnd) {
  char buffer[65536];
  while (toEnd || std::chrono::steady_clock::now() < deadline) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 20) <= 0) {
      if (std::chrono::steady_clock::now() > deadline + std::chrono::seconds(10)) return;
      continue;
    }
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n <= 0) return;
    transcript.feed(buffer, static_cast<std::size_t>(n));
  }
}

// Starts a child app again and again on one device, tracking at full speed or at a person's rate
// against a service that fails, stalls or drops some requests, sometimes logging out, and kills it
// at a random moment. Then the next start must deliver every event whose trackEvent returned
// before the kill, and the service must never store one twice. A logout drops what it could not
// send on purpose: events acknowledged before one are only checked for duplicates.
void killAndRestart(int kills, unsigned seed) {
  KOChildProcessRig rig("kovantis-kill-" + std::to_string(::getpid()) + "-" + std::to_string(seed));
  KOEmulator& emulator = rig.emulator;
  const std::string& root = rig.root;
  const int port = rig.port;

  std::mt19937 random(seed);
  std::set<EventKey> acknowledged;
  EventKey excusedUpTo{-1, -1};
  std::size_t killedTracking = 0;
  for (int run = 0; run < kills; ++run) {
    emulator.clearFaults();
    switch (random() % 4) {
      case 0:
        emulator.injectFault(KOEmulatorFault{"/v2/report/add", 503, 0, false, -1, 0.3});
        break;
      case 1:
        emulator.injectFault(KOEmulatorFault{"/v2/report/add", 0, 30, false, -1, 1.0});
        break;
      case 2:
        emulator.injectFault(KOEmulatorFault{"/v2/report/add", 0, 0, true, -1, 0.2});
        break;
      default:
        break;
    }
    // Every tenth run lives a few seconds at a person's rate: a person's app delivers its backlog
    // sometimes, which killing it every few hundred milliseconds at full speed never lets it do.
    const bool draining = run % 10 == 9;
    const int pace = run % 3 == 2 || draining ? 1 : 0;
    std::int64_t resetAfter = -1;
    // Logouts in the first half only: the second half is checked whole.
    if (run < kills / 2 && random() % 5 == 0) resetAfter = pace ? random() % 40 : random() % 4000;
    KOChildProcess child = spawnChild(root, port, run, pace, resetAfter);
    ASSERT_GT(child.pid, 0);
    // Killed once it tracks, at a random moment: during the start, a cut, a write, a sync, a reset.
    Transcript transcript;
    const auto started = std::chrono::steady_clock::now();
    while (transcript.tracked.empty() && std::chrono::steady_clock::now() < started + std::chrono::seconds(30)) {
      readOutput(child.output, transcript, std::chrono::steady_clock::now() + std::chrono::milliseconds(20), false);
    }
    ASSERT_FALSE(transcript.tracked.empty()) << "run " << run << " never tracked";
    const auto killAt = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(draining ? 2000 + random() % 1000 : random() % 150);
    readOutput(child.output, transcript, killAt, false);
    ::kill(child.pid, SIGKILL);
    int status = 0;
    ::waitpid(child.pid, &status, 0);
    readOutput(child.output, transcript, std::chrono::steady_clock::now(), true);  // what it wrote before it died
    ::close(child.output);
    ASSERT_TRUE(WIFSIGNALED(status)) << "run " << run << " ended on its own";
    for (std::int64_t seq : transcript.tracked) acknowledged.emplace(run, seq);
    if (!transcript.resets.empty()) excusedUpTo = EventKey{run, transcript.resets.back()};
    killedTracking += transcript.tracked.size();
  }
  emulator.clearFaults();

  // The next start delivers everything.
  {
    KOSimDeviceConfig config;
    config.rootDirectory = root;
    KOSimDevice device(config);
    device.install();
    device.setServiceEndpoints(KOServiceEndpoints::local("127.0.0.1", port));
    Kovantis::sharedInstance().initializeWithApiKey(KOValue("kill-app"));
    ASSERT_TRUE(device.runMainUntil([&] { return deliveredAll(device); }, 60));
    KOServerInterface::sharedInstance().httpClient().closeIdleConnections();
  }

  std::map<EventKey, int> stored;
  for (const auto& e : emulator.events()) {
    if (e.name != "TICK") continue;
    const KOValue record = KOJSONSerialization::parse(e.json);
    ++stored[EventKey{record["EVENT_ATTRS"]["run"].intValue(), record["EVENT_ATTRS"]["seq"].intValue()}];
  }
  std::size_t lost = 0, checked = 0;
  std::string firstLost;
  for (const EventKey& key : acknowledged) {
    if (key <= excusedUpTo) continue;
    ++checked;
    if (stored.count(key)) continue;
    if (++lost <= 5) firstLost += " " + std::to_string(key.first) + "/" + std::to_string(key.second);
  }
  std::size_t twice = 0;
  for (const auto& [key, count] : stored) twice += count > 1;
  EXPECT_EQ(lost, 0u) << "of " << checked << " events tracked after the last logout, as" << firstLost;
  EXPECT_EQ(twice, 0u) << "events stored twice";
  EXPECT_GT(checked, 0u);
  std::printf("kills %d, events acknowledged %zu (checked %zu), stored %zu, resends recognised %zu\n", kills,
              killedTracking, checked, stored.size(), emulator.duplicates().size());
}

}  // namespace

// An app killed right after its first start set user attributes: the next start (which sets them
// again, as apps do at every launch) delivers them, although the cache may already hold them.
TEST(KillTest, AttributesSetBeforeAKillAtFirstStartReachTheService) {
  KOChildProcessRig rig("kovantis-kill-attrs-" + std::to_string(::getpid()));
  KOEmulator& emulator = rig.emulator;
  const std::string& root = rig.root;
  const int port = rig.port;
  // The service is slow: nothing the first start sends is answered before the kill.
  emulator.injectFault(KOEmulatorFault{"*", 0, 3000, false, -1, 1.0});
  KOChildProcess child = spawnChild(root, port, 0, 2, -1);
  ASSERT_GT(child.pid, 0);
  Transcript transcript;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (transcript.tracked.empty() && std::chrono::steady_clock::now() < deadline) {
    readOutput(child.output, transcript, std::chrono::steady_clock::now() + std::chrono::milliseconds(20), false);
  }
  ::kill(child.pid, SIGKILL);
  ::waitpid(child.pid, nullptr, 0);
  ::close(child.output);
  ASSERT_FALSE(transcript.tracked.empty());
  emulator.clearFaults();
  emulator.reset();  // whatever the first start got through does not count

  {
    KOSimDeviceConfig config;
    config.rootDirectory = root;
    KOSimDevice device(config);
    device.install();
    device.setServiceEndpoints(KOServiceEndpoints::local("127.0.0.1", port));
    Kovantis& sdk = Kovantis::sharedInstance();
    sdk.initializeWithApiKey(KOValue("kill-app"));
    sdk.setUserEmailID(KOValue("first@kill.example"));
    sdk.setUserAttribute(KOValue("gold"), KOValue("plan"));
    ASSERT_TRUE(device.runMainUntil([&] { return deliveredAll(device); }, 30));
    KOServerInterface::sharedInstance().httpClient().closeIdleConnections();
  }
  std::set<std::string> delivered;
  for (const auto& e : emulator.events()) {
    if (e.name != EVENT_ACTION_USER_ATTRIBUTE) continue;
    const KOValue attrs = KOJSONSerialization::parse(e.json)["EVENT_ATTRS"];
    for (const auto& [key, value] : attrs.dictionaryValue()) delivered.insert(key + "=" + value.description());
  }
  EXPECT_TRUE(delivered.count("USER_ATTRIBUTE_USER_EMAIL=first@kill.example"));
  EXPECT_TRUE(delivered.count("plan=gold"));
}

// A batch the service refuses for one record is split until that record stands alone. Killed while
// the halves are on their way, the app sends them again under the ids the journal kept: the good
// records all arrive, once each.
TEST(KillTest, ARefusedRecordHoldsBackNoOtherAcrossAKillInTheSplit) {
  KOChildProcessRig rig("kovantis-kill-split-" + std::to_string(::getpid()));
  KOEmulator& emulator = rig.emulator;
  KOEmulatorFault poison{"/v2/report/add", 400};
  poison.bodyContains = "POISON";
  emulator.injectFault(poison);  // taken first: the slow answer below is for everything else
  emulator.injectFault(KOEmulatorFault{"*", 0, 300, false, -1, 1.0});
  KOChildProcess child = spawnChild(rig.root, rig.port, 0, 3, -1);
  ASSERT_GT(child.pid, 0);
  Transcript transcript;
  const auto refusals = [&] {
    std::size_t n = 0;
    for (const auto& r : emulator.requests("/v2/report/add")) n += r.status == 400;
    return n;
  };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (refusals() < 2 && std::chrono::steady_clock::now() < deadline) {
    readOutput(child.output, transcript, std::chrono::steady_clock::now() + std::chrono::milliseconds(5), false);
  }
  ::kill(child.pid, SIGKILL);
  ::waitpid(child.pid, nullptr, 0);
  ::close(child.output);
  ASSERT_GE(refusals(), 2u) << "the child never split its batch";
  emulator.clearFaults();
  emulator.injectFault(poison);

  std::map<std::int64_t, int> good;
  {
    KOSimDeviceConfig config;
    config.rootDirectory = rig.root;
    KOSimDevice device(config);
    device.install();
    device.setServiceEndpoints(KOServiceEndpoints::local("127.0.0.1", rig.port));
    Kovantis& sdk = Kovantis::sharedInstance();
    sdk.initializeWithApiKey(KOValue("kill-app"));
    sdk.syncNow();
    const auto stored = [&] {
      good.clear();
      for (const auto& e : emulator.events()) {
        if (e.name == "GOOD") ++good[KOJSONSerialization::parse(e.json)["EVENT_ATTRS"]["seq"].intValue()];
      }
      return good.size() == 29;
    };
    EXPECT_TRUE(device.runMainUntil(stored, 30));
    KOServerInterface::sharedInstance().httpClient().closeIdleConnections();
  }
  EXPECT_EQ(good.size(), 29u);
  for (const auto& [seq, times] : good) EXPECT_EQ(times, 1) << "GOOD " << seq;
  for (const auto& e : emulator.events()) EXPECT_NE(e.name, "POISON");
}

TEST(KillTest, EveryTrackedEventSurvivesAKillAndIsStoredOnce) { killAndRestart(24, 20261123); }

// By hand: ctest -R KillTest --gtest_also_run_disabled_tests, or the test binary with
// --gtest_filter=KillTest.DISABLED_* --gtest_also_run_disabled_tests.
TEST(KillTest, DISABLED_TwoHundredKills) { killAndRestart(200, 7); }
