// A host app that tracks events until it is killed, and says which ones it tracked: the kill test
// starts it again and again on one device directory and kills it with SIGKILL at random moments.
//   kovantis-kill-child <device dir> <emulator port> <run> <pace> <reset after>
// pace 0 tracks at full speed, pace 1 at a person's rate (a few milliseconds of main-queue work
// between events). After `reset after` events (never when negative) it logs the user out.
// pace 2 is a first start that sets two user attributes, waits until the attribute cache is on
// disk, says "T 0" and waits to be killed. pace 3 tracks 29 "GOOD" events and one "POISON" among
// them, syncs, and waits to be killed.
// Writes "T <seq>" once trackEvent returned for event seq, and "R <seq>" before a reset that
// follows event seq, each with one write to standard output (a pipe); after a reset it tracks
// again only once the reset is over.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "KODataHandler/KOUserAttributesHandler.h"
#include "Sim/KOSimDevice.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"
#include "kovantis/Kovantis.h"

namespace {

void say(char what, std::int64_t seq) {
  char line[32];
  const int n = std::snprintf(line, sizeof line, "%c %lld\n", what, static_cast<long long>(seq));
  if (n > 0 && ::write(STDOUT_FILENO, line, static_cast<std::size_t>(n)) < 0) std::_Exit(3);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  KOSimDeviceConfig config;
  config.rootDirectory = argv[1];
  KOSimDevice device(config);
  device.install();
  KOServiceEndpoints endpoints = KOServiceEndpoints::local("127.0.0.1", std::atoi(argv[2]));
  endpoints.timeoutSeconds = 2;
  device.setServiceEndpoints(endpoints);
  const std::int64_t run = std::atoll(argv[3]);
  const bool humanPace = std::atoi(argv[4]) == 1;
  const std::int64_t resetAfter = std::atoll(argv[5]);

  Kovantis& sdk = Kovantis::sharedInstance();
  std::atomic<bool> newUser{false};
  KONotificationCenter::defaultCenter().addObserver(KOV_INIT_NEW_USER,
                                                    [&](const KONotification&) { newUser.store(true); });
  sdk.initializeWithApiKey(KOValue("kill-app"));
  if (std::atoi(argv[4]) == 2) {
    sdk.setUserEmailID(KOValue("first@kill.example"));
    sdk.setUserAttribute(KOValue("gold"), KOValue("plan"));
    // The worst moment: the cache on disk already says both were sent.
    KOUserAttributesHandler::sharedInstance().writeCacheNow();
    say('T', 0);
    device.runMainUntil([] { return false; }, 60);
    return 0;
  }
  if (std::atoi(argv[4]) == 3) {
    // One record the service refuses among 29 good ones, in one batch: the split that follows is
    // where the parent kills.
    for (std::int64_t seq = 0; seq < 30; ++seq) {
      sdk.trackEvent(KOValue(seq == 14 ? "POISON" : "GOOD"), KOValue(KODictionary{{"seq", seq}}));
      say('T', seq);
    }
    sdk.syncNow();
    device.runMainUntil([] { return false; }, 60);
    return 0;
  }
  device.becomeActive();
  // Bounded: the parent kills it long before; should the parent die, this ends on its own.
  for (std::int64_t seq = 0; seq < 2000000; ++seq) {
    sdk.trackEvent(KOValue("TICK"), KOValue(KODictionary{{"run", run}, {"seq", seq}, {"pad", "payload text"}}));
    say('T', seq);
    if (seq == resetAfter) {
      // A logout drops what it could not send, up to the records its sync cut: events tracked
      // while it runs could be among them, so the app waits until the new user starts.
      say('R', seq);
      sdk.resetUser();
      device.runMainUntil([&] { return newUser.load(); }, 30);
    }
    if (humanPace) {
      device.runMainUntil([] { return false; }, 0.003);
      if (seq % 40 == 39) {
        // The app goes to the background and comes back: the session end syncs.
        device.resignActive();
        device.enterBackground();
        device.enterForeground();
        device.becomeActive();
      }
    } else if (seq % 50 == 49) {
      sdk.syncNow();
      device.pumpMain();
    }
  }
  return 0;
}
