// The event path: one tracked event, a batch cut with its file write as stored batches grow, and
// events tracked until the local emulator accepted them.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <memory>

#include "KOBenchRig.h"
#include "KODataHandler/KOBatchStore.h"
#include "KODataHandler/KOEventsHandler.h"
#include "KODataHandler/KOUserAttributesHandler.h"
#include "KODelivery.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"
#include "kovantis/Kovantis.h"

namespace {

// Five attributes: three strings, an integer and a real.
const KOValue& payload() {
  static const KOValue p(KODictionary{
      {"sku", "SKU-12345"}, {"category", "shoes"}, {"brand", "kovantis"}, {"quantity", 2}, {"price", 49.99}});
  return p;
}

std::size_t heapInUse() { return mallinfo2().uordblks; }

// One trackEvent, no batch cut (the threshold is out of reach), in a fixed number of iterations so
// that callgrind can count instructions per event.
void BM_TrackEvent(benchmark::State& state) {
  KOBenchRig::shared();
  KOEventsHandler& events = KOEventsHandler::sharedInstance();
  events.setEventsBatchCountTreshold(UINT64_MAX);
  const KOValue name("PRODUCT_VIEWED");
  const std::size_t before = heapInUse();
  const std::size_t eventsBefore = events.eventsInMemory();
  for (auto _ : state) events.trackEvent(name, payload());
  const std::size_t held = events.eventsInMemory() - eventsBefore;
  state.counters["heap_bytes_per_event"] =
      held ? static_cast<double>(heapInUse() - before) / static_cast<double>(held) : 0;
  events.getBatchesWithViewsArray(false);
}
BENCHMARK(BM_TrackEvent)->Iterations(100000);

// The same with the attributes built in the call, as a host app builds them for each event.
[[gnu::noinline]] void trackWithBuiltPayload(KOEventsHandler& events, const KOValue& name) {
  events.trackEvent(
      name,
      KOValue(KODictionary{
          {"sku", "SKU-12345"}, {"category", "shoes"}, {"brand", "kovantis"}, {"quantity", 2}, {"price", 49.99}}));
}

void BM_TrackEventBuiltPayload(benchmark::State& state) {
  KOBenchRig::shared();
  KOEventsHandler& events = KOEventsHandler::sharedInstance();
  events.setEventsBatchCountTreshold(UINT64_MAX);
  const KOValue name("PRODUCT_VIEWED");
  for (auto _ : state) trackWithBuiltPayload(events, name);
  events.getBatchesWithViewsArray(false);
}
BENCHMARK(BM_TrackEventBuiltPayload)->Iterations(100000);

// The same with an observer installed on the per-event hook (the in-app trigger check's place),
// one that only counts: the hook's own cost.
void BM_TrackEventObserved(benchmark::State& state) {
  KOBenchRig::shared();
  KOEventsHandler& events = KOEventsHandler::sharedInstance();
  events.setEventsBatchCountTreshold(UINT64_MAX);
  std::size_t seen = 0;
  events.setEventObserver([&seen](const std::string&, const KOValue&) { ++seen; });
  const KOValue name("PRODUCT_VIEWED");
  for (auto _ : state) events.trackEvent(name, payload());
  events.setEventObserver(nullptr);
  if (seen != static_cast<std::size_t>(state.iterations())) state.SkipWithError("the observer missed events");
  events.getBatchesWithViewsArray(false);
}
BENCHMARK(BM_TrackEventObserved)->Iterations(100000);

// A cut of 30 records plus the whole-file write, with `range(0)` batches already stored.
void BM_BatchCut(benchmark::State& state) {
  KOBenchRig& r = KOBenchRig::shared();
  const std::string path = r.device.documentsDirectory() + "/BatchCutBench.plist";
  std::vector<std::string> records;
  for (int i = 0; i < 30; ++i) {
    records.push_back(KOEventsHandler::recordJSON("PRODUCT_VIEWED", &payload(), nullptr));
  }
  KOBatchStore store(path);
  for (std::int64_t i = 0; i < state.range(0); ++i) store.add(records, 1700000000000 + i);
  KOBatchStore::fileText(store.snapshot());  // stored batches have their fragments already
  for (auto _ : state) {
    const std::string id = store.add(records, 1800000000000);
    KOBatchStore::write(r.device.files(), path, store.snapshot());
    state.PauseTiming();
    store.remove(id);
    state.ResumeTiming();
  }
  state.counters["stored_batches"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_BatchCut)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Events tracked until the emulator accepted every one, over loopback.
void BM_EndToEnd(benchmark::State& state) {
  KOBenchRig& r = KOBenchRig::shared();
  Kovantis& sdk = Kovantis::sharedInstance();
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
  events.setEventsBatchCountTreshold(30);
  const auto perIteration = static_cast<std::size_t>(state.range(0));
  const KOValue name("PRODUCT_VIEWED");
  for (auto _ : state) {
    state.PauseTiming();
    deliverAll();  // whatever earlier benchmarks left behind is not this run's work
    r.emulator->reset();
    state.ResumeTiming();
    for (std::size_t i = 0; i < perIteration; ++i) sdk.trackEvent(name, payload());
    deliverAll();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * perIteration));
  state.counters["events_stored"] = static_cast<double>(r.emulator->events().size());
  // Steady load with the service up: the journal starts over as the batch file catches up.
  state.counters["journal_bytes"] = static_cast<double>(events.journalBytes());
  state.counters["journal_peak_bytes"] = static_cast<double>(journalPeak);
}
// A changed user attribute with `range(0)` attributes already sent: what the caller's thread pays
// (the cache file is written on the shared queue, many changes in one write).
void BM_SetUserAttribute(benchmark::State& state) {
  KOBenchRig::shared();
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

BENCHMARK(BM_EndToEnd)->Arg(30000)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
