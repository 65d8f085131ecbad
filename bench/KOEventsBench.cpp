// The event path: one tracked event, a batch cut with its file write as stored batches grow, and
// events tracked until the local emulator accepted them.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "KOBenchRig.h"
#include "KODataHandler/KOEventsHandler.h"
#include "KODataHandler/KOUserAttributesHandler.h"
#include "KODelivery.h"
#include "KOEventsBenchSupport.h"
#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"
#include "kovantis/Kovantis.h"

namespace {

using namespace kobench;

// One trackEvent, no batch cut (the threshold is out of reach), in a fixed number of iterations so
// that callgrind can count instructions per event.
void BM_TrackEvent(benchmark::State& state) {
  KOBenchCleanRig clean;
  KOEventsHandler& events = KOEventsHandler::sharedInstance();
  events.setEventsBatchCountTreshold(UINT64_MAX);
  const KOValue name("PRODUCT_VIEWED");
  {
    KOCallgrindWindow window("track");
    for (auto _ : state) events.trackEvent(name, payload());
  }
  state.counters["window_items"] = static_cast<double>(state.iterations());
}
BENCHMARK(BM_TrackEvent)->Iterations(100000);

// The host's call: the event recorded and offered to the in-app trigger check (a list of trigger
// events is stored; this event is not on it), as every tracked event is.
void BM_TrackEventThroughFacade(benchmark::State& state) {
  KOBenchCleanRig clean;
  Kovantis& sdk = Kovantis::sharedInstance();
  KOEventsHandler::sharedInstance().setEventsBatchCountTreshold(UINT64_MAX);
  KOInAppV2Manager::saveInAppCampaignsWithData(KOValue(KODictionary{{"event_list", KOArray{"ADD_TO_CART"}}}), [] {});
  const KOValue name("PRODUCT_VIEWED");
  {
    KOCallgrindWindow window("facade");
    for (auto _ : state) sdk.trackEvent(name, payload());
  }
  state.counters["window_items"] = static_cast<double>(state.iterations());
}
BENCHMARK(BM_TrackEventThroughFacade)->Iterations(100000);

// The host's call with the attributes built in the call, as a host app builds them for each event.
[[gnu::noinline]] void trackWithBuiltPayload(Kovantis& sdk, const KOValue& name) {
  sdk.trackEvent(
      name,
      KOValue(KODictionary{
          {"sku", "SKU-12345"}, {"category", "shoes"}, {"brand", "kovantis"}, {"quantity", 2}, {"price", 49.99}}));
}

void BM_TrackEventBuiltPayload(benchmark::State& state) {
  KOBenchCleanRig clean;
  Kovantis& sdk = Kovantis::sharedInstance();
  KOEventsHandler::sharedInstance().setEventsBatchCountTreshold(UINT64_MAX);
  const KOValue name("PRODUCT_VIEWED");
  {
    KOCallgrindWindow window("built");
    for (auto _ : state) trackWithBuiltPayload(sdk, name);
  }
  state.counters["window_items"] = static_cast<double>(state.iterations());
}
BENCHMARK(BM_TrackEventBuiltPayload)->Iterations(100000);

// The same with an observer installed on the per-event hook (the in-app trigger check's place),
// one that only counts: the hook's own cost.
void BM_TrackEventObserved(benchmark::State& state) {
  KOBenchCleanRig clean;
  KOEventsHandler& events = KOEventsHandler::sharedInstance();
  events.setEventsBatchCountTreshold(UINT64_MAX);
  std::size_t seen = 0;
  events.setEventObserver([&seen](const std::string&, const KOValue&) { ++seen; });
  const KOValue name("PRODUCT_VIEWED");
  for (auto _ : state) events.trackEvent(name, payload());
  events.setEventObserver(nullptr);
  if (seen != static_cast<std::size_t>(state.iterations())) state.SkipWithError("the observer missed events");
}
BENCHMARK(BM_TrackEventObserved)->Iterations(100000);

// Memory per event held, before its cut and once cut into batches of 30 (the service refusing
// them), at 100,000 events: the heap's growth, and the growth of the process's peak resident
// memory, which counts the journal's mapped pages as well.
void BM_HeldMemory(benchmark::State& state) {
  KOBenchCleanRig clean;
  KOEventsHandler& events = KOEventsHandler::sharedInstance();
  const bool cut = state.range(0) != 0;
  constexpr std::size_t kHeld = 100000;
  double heapPerEvent = 0;
  double peakPerEvent = 0;
  for (auto _ : state) {
    state.PauseTiming();
    clean.rig.clean();
    events.setEventsBatchCountTreshold(cut ? 30 : UINT64_MAX);
    malloc_trim(0);
    const std::size_t before = heapInUse();
    resetPeakResidentMemory();
    const double residentBefore = residentMegabytes();
    if (cut) {
      holdWithServiceDown(clean.rig, kHeld);
    } else {
      track(kHeld);
    }
    heapPerEvent = (static_cast<double>(heapInUse()) - static_cast<double>(before)) / static_cast<double>(kHeld);
    peakPerEvent = (peakResidentMegabytes() - residentBefore) * 1e6 / static_cast<double>(kHeld);
    state.ResumeTiming();
  }
  state.counters["heap_bytes_per_event"] = heapPerEvent;
  state.counters["peak_bytes_per_event"] = peakPerEvent;
}
BENCHMARK(BM_HeldMemory)->ArgName("cut")->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);

// Everything one event costs while the service refuses every report, a batch cut every 30: the
// recording, the cuts, the journal, the batch file's rewrites and the sync rounds, on every
// thread. Instructions come from `scripts/bench-instructions.sh BM_AllThreadsPerEvent`.
void BM_AllThreadsPerEvent(benchmark::State& state) {
  KOBenchCleanRig clean;
  KOBenchRig& r = clean.rig;
  r.device.clock().setNow(1800000000);
  r.emulator->injectFault(KOEmulatorFault{"/v2/report/add", 503, 0, false, -1, 1.0});
  const auto events = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    KOCallgrindWindow window("all-threads");
    track(events);
    waitForBackground(r);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * events));
  state.counters["window_items"] = static_cast<double>(events);
}
BENCHMARK(BM_AllThreadsPerEvent)->Arg(30000)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// One cut (the 30th event of a batch) and all it starts in the background, with `range(0)`
// batches already stored and the service refusing them: flat, whatever is stored.
void BM_BatchCut(benchmark::State& state) {
  KOBenchCleanRig clean;
  holdWithServiceDown(clean.rig, static_cast<std::size_t>(state.range(0)) * 30);
  for (auto _ : state) {
    track(30);
    waitForBackground(clean.rig);
  }
  state.counters["stored_batches"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_BatchCut)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond)->UseRealTime();

// What a tracked event costs the whole process while the service is down, with a few events
// already stored (the growth curve to a million is the soak run's).
void BM_TrackWhileStored(benchmark::State& state) { trackWhileStored(state); }
BENCHMARK(BM_TrackWhileStored)->Arg(0)->Arg(1000)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Events tracked until the emulator accepted every one, over loopback.
void BM_EndToEnd(benchmark::State& state) {
  KOBenchCleanRig clean;
  KOBenchRig& r = clean.rig;
  KOEventsHandler& events = KOEventsHandler::sharedInstance();
  std::size_t journalPeak = 0;
  const auto deliverAll = [&] {
    r.device.runMainUntil(
        [&] {
          journalPeak = std::max(journalPeak, events.journalBytes());
          return deliveredAll(r.device);
        },
        120);
  };
  const auto perIteration = static_cast<std::size_t>(state.range(0));
  std::size_t stored = 0;
  double senderCPU = 0;
  for (auto _ : state) {
    const double before = senderCPUSeconds();
    track(perIteration);
    deliverAll();
    senderCPU += senderCPUSeconds() - before;
    state.PauseTiming();
    stored += r.emulator->batches().size();
    r.emulator->reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * perIteration));
  state.counters["batches_stored"] = static_cast<double>(stored);
  // The SDK's threads alone (the caller's, the shared queue's, the network's): the emulator in the
  // same process is the service's cost, not the sender's.
  state.counters["sender_cpu_us_per_event"] =
      senderCPU * 1e6 / static_cast<double>(static_cast<std::size_t>(state.iterations()) * perIteration);
  // Steady load with the service up: the journal starts over as the batch file catches up.
  state.counters["journal_peak_bytes"] = static_cast<double>(journalPeak);
}
BENCHMARK(BM_EndToEnd)->Arg(30000)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

// A changed user attribute with `range(0)` attributes already sent: what the caller's thread pays
// (the cache file is written on the shared queue, many changes in one write).
void BM_SetUserAttribute(benchmark::State& state) {
  KOBenchCleanRig clean;
  KOEventsHandler& events = KOEventsHandler::sharedInstance();
  events.setEventsBatchCountTreshold(UINT64_MAX);
  KOUserAttributesHandler& attributes = KOUserAttributesHandler::sharedInstance();
  KOUserAttributesHandler::cleanUpUserData();
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    attributes.setUserAttribute(KOValue(i), KOValue("key" + std::to_string(i)));
  }
  attributes.writeCacheNow();
  const KOValue key("key0");
  std::int64_t value = state.range(0);
  for (auto _ : state) {
    if (!attributes.setUserAttribute(KOValue(++value), key)) state.SkipWithError("not tracked");
  }
  attributes.writeCacheNow();
  events.getBatchesWithViewsArray(false);
}
BENCHMARK(BM_SetUserAttribute)->Arg(10)->Arg(10000)->Iterations(20000);

}  // namespace
