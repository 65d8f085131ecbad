// What the C interface's boundary costs on the event path: kov_track_event with five attributes as
// JSON text against Kovantis::trackEvent with the same attributes built as values, each through
// the facade. Instructions per event come from callgrind, inclusive of the two functions below:
//   valgrind --tool=callgrind build/release/bench/kovantis_bench --benchmark_filter='BM_(C|Cpp)TrackEvent'
//   callgrind_annotate --inclusive=yes callgrind.out.<pid> | grep trackThrough
#include <benchmark/benchmark.h>

#include <cstdint>

#include "KOBenchRig.h"
#include "KODataHandler/KOEventsHandler.h"
#include "kovantis/Kovantis.h"
#include "kovantis/kovantis_c.h"

namespace {

// Five attributes: three strings, an integer and a real, as the events benchmarks track them.
constexpr const char* kAttributesJSON =
    R"({"sku":"SKU-12345","category":"shoes","brand":"kovantis","quantity":2,"price":49.99})";

[[gnu::noinline]] kov_status trackThroughC() { return kov_track_event("PRODUCT_VIEWED", kAttributesJSON); }

[[gnu::noinline]] void trackThroughCpp(Kovantis& sdk) {
  sdk.trackEvent(
      KOValue("PRODUCT_VIEWED"),
      KOValue(KODictionary{
          {"sku", "SKU-12345"}, {"category", "shoes"}, {"brand", "kovantis"}, {"quantity", 2}, {"price", 49.99}}));
}

void BM_CTrackEvent(benchmark::State& state) {
  KOBenchCleanRig clean;
  KOEventsHandler::sharedInstance().setEventsBatchCountTreshold(UINT64_MAX);
  for (auto _ : state) {
    if (trackThroughC() != KOV_OK) {
      state.SkipWithError(kov_last_error());
      break;
    }
  }
}
BENCHMARK(BM_CTrackEvent)->Iterations(100000);

void BM_CppTrackEvent(benchmark::State& state) {
  KOBenchCleanRig clean;
  KOEventsHandler::sharedInstance().setEventsBatchCountTreshold(UINT64_MAX);
  Kovantis& sdk = Kovantis::sharedInstance();
  for (auto _ : state) trackThroughCpp(sdk);
}
BENCHMARK(BM_CppTrackEvent)->Iterations(100000);

}  // namespace
