// Test fixture: the whole SDK on a fresh simulated device against an in-process emulator, with
// helpers to read back what the service stored.
#pragma once

#include <set>

#include "KODataHandler/KOEventsHandler.h"
#include "KODelivery.h"
#include "KOEmulatorTestDevice.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "kovantis/Kovantis.h"

class KOSDKTestDevice : public KOEmulatorTestDevice {
 protected:
  bool presetAppId() override { return false; }

  Kovantis& sdk() { return Kovantis::sharedInstance(); }
  KOEventsHandler& events() { return KOEventsHandler::sharedInstance(); }

  /// Starts the SDK with the app id and waits for the start's own requests to settle.
  void start(const std::string& appId = "kov-test-app") {
    sdk().initializeWithApiKey(KOValue(appId));
    settle();
  }

  /// Starts, lets the start's own events reach the service, and forgets them there: the test
  /// then sees only what it does itself.
  void startClean(const std::string& appId = "kov-test-app") {
    start(appId);
    ASSERT_TRUE(flush());
    emulator().reset();
  }

  /// Waits until no sync runs and nothing waits on the shared queue.
  bool settle(double timeoutSeconds = 10) {
    return waitFor([&] { return syncSettled(device()); }, timeoutSeconds);
  }

  /// Syncs and waits until every cut batch is accepted.
  bool flush(double timeoutSeconds = 20) {
    sdk().syncNow();
    return waitFor([&] { return deliveredAll(device()); }, timeoutSeconds);
  }

  /// Names of the events the emulator stored, in the order it stored them.
  std::vector<std::string> storedNames(const std::string& prefix = "") {
    std::vector<std::string> names;
    for (const auto& e : emulator().events()) {
      if (e.name.rfind(prefix, 0) == 0) names.push_back(e.name);
    }
    return names;
  }

  std::vector<KOValue> storedRecords(const std::string& name) {
    std::vector<KOValue> out;
    for (const auto& e : emulator().events()) {
      if (e.name == name) out.push_back(KOJSONSerialization::parse(e.json));
    }
    return out;
  }

  /// The batch file as it is on disk.
  KOValue batchFile() { return KOPropertyListFile::read(events().eventsPlistFilePath()); }
};
