// Test fixture: the whole SDK on a fresh simulated device against an in-process emulator. What a
// host app's test has (kovantis/testing/KOHarnessTest.h: sdk(), deliverAll(), storedEvents()...)
// plus what only our own tests may see: the events handler and its batch file.
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
    ASSERT_TRUE(deliverAll());
    emulator().reset();
  }

  /// Waits until no sync runs and nothing waits on the shared queue (without starting a sync).
  bool settle(double timeoutSeconds = 10) {
    return waitFor([&] { return syncSettled(device()); }, timeoutSeconds);
  }

  // Earlier names of the harness's helpers, kept for tests written against them.
  bool flush(double timeoutSeconds = 20) { return deliverAll(timeoutSeconds); }
  std::vector<std::string> storedNames(const std::string& prefix = "") { return storedEventNames(prefix); }
  std::vector<KOValue> storedRecords(const std::string& name) { return storedEvents(name); }

  /// The ids of the batches waiting for the service, oldest first.
  std::vector<std::string> storedBatchIds() { return events().getBatchesWithViewsArray(false).keys(); }

  /// The batch file as it is on disk.
  KOValue batchFile() { return KOPropertyListFile::read(events().eventsPlistFilePath()); }
};
