// The event path's persistence: a 30-event batch read and written as JSON (request bodies) and as a
// property list (the events file on disk).
#include <benchmark/benchmark.h>

#include <string>

#include "KOBenchRig.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOPropertyListSerialization.h"
#include "kovantis/KOValue.h"

namespace {

constexpr int kEventsPerBatch = 30;

KOValue event(int i) {
  return KODictionary{
      {"EVENT_ACTION", "PRODUCT_VIEWED"},
      {"EVENT_ATTRS", KODictionary{{"sku", "A" + std::to_string(i)},
                                   {"price", 9.99 + i},
                                   {"qty", 2 + i % 3},
                                   {"category", "shoes"},
                                   {"brand", "kov"}}},
      {"EVENT_ATTRS_CUST", KODictionary{}},
      {"EVENT_G_TIME", std::to_string(1700000000 + i)},
      {"EVENT_L_TIME", "14:11:2023:22:13:20"},
  };
}

KOArray events() {
  KOArray out;
  for (int i = 0; i < kEventsPerBatch; ++i) out.push_back(event(i));
  return out;
}

// The events file on disk keeps each batch under its id (milliseconds).
KOValue storedBatch() { return KODictionary{{"1700000000123", events()}}; }

// The body of the report sent to the service.
KOValue reportBody() { return KODictionary{{"viewsInfo", events()}, {"viewsCount", kEventsPerBatch}}; }

void BM_BatchJSONParse(benchmark::State& state) {
  const std::string text = KOJSONSerialization::write(reportBody());
  for (auto _ : state) benchmark::DoNotOptimize(KOJSONSerialization::parse(text));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(text.size()));
  state.counters["bytes"] = static_cast<double>(text.size());
}

void BM_BatchJSONWrite(benchmark::State& state) {
  const KOValue value = reportBody();
  std::size_t size = 0;
  for (auto _ : state) {
    std::string text = KOJSONSerialization::write(value);
    size = text.size();
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
}

void BM_BatchPlistParse(benchmark::State& state) {
  const std::string xml = KOPropertyListSerialization::writeXML(storedBatch());
  for (auto _ : state) benchmark::DoNotOptimize(KOPropertyListSerialization::parse(xml));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(xml.size()));
  state.counters["bytes"] = static_cast<double>(xml.size());
}

void BM_BatchPlistWrite(benchmark::State& state) {
  const KOValue value = storedBatch();
  std::size_t size = 0;
  for (auto _ : state) {
    std::string xml = KOPropertyListSerialization::writeXML(value);
    size = xml.size();
    benchmark::DoNotOptimize(xml);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
}

// What the batch file writer does once per batch: the records' JSON text to their XML fragment.
void BM_BatchFragmentFromJSON(benchmark::State& state) {
  const std::string json = KOJSONSerialization::write(KOValue(events()));
  std::size_t size = 0;
  {
    KOCallgrindWindow window("fragment");
    for (auto _ : state) {
      std::string xml = KOPropertyListSerialization::xmlFragmentFromJSON(json);
      size = xml.size();
      benchmark::DoNotOptimize(xml);
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
  state.counters["bytes"] = static_cast<double>(size);
  // Per record, for scripts/bench-instructions.sh.
  state.counters["window_items"] = static_cast<double>(state.iterations() * events().size());
}

}  // namespace

BENCHMARK(BM_BatchJSONParse);
BENCHMARK(BM_BatchJSONWrite);
BENCHMARK(BM_BatchPlistParse);
BENCHMARK(BM_BatchPlistWrite);
BENCHMARK(BM_BatchFragmentFromJSON)->Iterations(2000);
