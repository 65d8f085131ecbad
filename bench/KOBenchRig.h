// One simulated device and one in-process emulator for the whole benchmark run: the SDK's
// handlers are process-wide, so every benchmark shares them.
#pragma once

#include <memory>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_DUMP_STATS_AT(label) (void)(label)
#endif

#include "KODataHandler/KOEventsHandler.h"
#include "KOUtilities/KovantisUtils.h"
#include "Sim/KOSimDevice.h"
#include "kovantis/emulator/KOEmulator.h"

struct KOBenchRig {
  KOSimDevice device;
  std::unique_ptr<KOEmulator> emulator;

  KOBenchRig() {
    device.install();
    KOEmulator::Options options;
    options.dataDir = device.rootDirectory() + "/emulator";
    emulator = std::make_unique<KOEmulator>(options);
    device.setServiceEndpoints(KOServiceEndpoints::local("127.0.0.1", emulator->start(0)));
    KovantisUtils::saveAppId(KOValue("bench-app"));
  }

  static KOBenchRig& shared() {
    static auto* rig = new KOBenchRig();
    return *rig;
  }

  /// The service answers again, nothing is held or stored, the batch size is the default: what
  /// every benchmark starts from and leaves behind, so that any filter and any repetition count
  /// run and each figure is measured alone.
  void clean() {
    emulator->clearFaults();
    device.runMainUntil([] { return !KOEventsHandler::sharedInstance().syncInProgress(); }, 120);
    KOEventsHandler::sharedInstance().discardEverythingStored();  // a back-off's retry included
    device.clock().useRealTime();
    device.runMainUntil([this] { return device.dispatch().backgroundIdle(); }, 120);
    KOEventsHandler::sharedInstance().setEventsBatchCountTreshold(30);
    emulator->reset();
  }
};

/// Cleans the shared rig when a benchmark ends, however it ends.
struct KOBenchCleanRig {
  KOBenchRig& rig = KOBenchRig::shared();
  KOBenchCleanRig() { rig.clean(); }
  ~KOBenchCleanRig() { rig.clean(); }
};

/// Under callgrind (`scripts/bench-instructions.sh`), the instructions of every thread between its
/// construction and its end go to a dump of their own, named by the label; elsewhere it costs
/// nothing. The script divides the dump's total by the items the benchmark reports.
struct KOCallgrindWindow {
  const char* label;
  explicit KOCallgrindWindow(const char* name) : label(name) { CALLGRIND_ZERO_STATS; }
  ~KOCallgrindWindow() { CALLGRIND_DUMP_STATS_AT(label); }
  KOCallgrindWindow(const KOCallgrindWindow&) = delete;
  KOCallgrindWindow& operator=(const KOCallgrindWindow&) = delete;
};
