// Waiting for the SDK's syncs on a simulated device, shared by tests and benchmarks (no test
// framework needed).
#pragma once

#include "KODataHandler/KOEventsHandler.h"
#include "Sim/KOSimDevice.h"
#include "kovantis/Kovantis.h"

/// No sync runs and nothing waits on the shared queue.
inline bool syncSettled(KOSimDevice& device) {
  return !KOEventsHandler::sharedInstance().syncInProgress() && device.dispatch().backgroundIdle();
}

/// A main-queue condition: true once nothing is left in memory or on file; until then it starts
/// another sync whenever none runs.
inline bool deliveredAll(KOSimDevice& device) {
  if (!syncSettled(device)) return false;
  KOEventsHandler& events = KOEventsHandler::sharedInstance();
  if (events.storedBatchCount() == 0 && events.eventsInMemory() == 0) return true;
  Kovantis::sharedInstance().syncNow();
  return false;
}
