// What consent costs a tracked event: recorded while the app has not asked yet (pending: the same
// record and journal entry as with consent granted, BM_TrackEvent), and refused once the user said no.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "KOBenchRig.h"
#include "KODataHandler/KOEventsHandler.h"
#include "KOUtilities/KOConsentGate.h"

namespace {

// BM_TrackEvent's attributes: three strings, an integer and a real.
const KOValue& attributes() {
  static const KOValue p(KODictionary{
      {"sku", "SKU-12345"}, {"category", "shoes"}, {"brand", "kovantis"}, {"quantity", 2}, {"price", 49.99}});
  return p;
}

// Consent as given for the benchmark, granted again afterwards (the other benchmarks' state).
struct ConsentFor {
  explicit ConsentFor(KOTrackingConsent consent) { KOConsentGate::shared().setConsent(consent); }
  ~ConsentFor() { KOConsentGate::shared().setConsent(KOTrackingConsent::Granted); }
};

void BM_TrackEventWhilePending(benchmark::State& state) {
  KOBenchCleanRig clean;
  ConsentFor pending(KOTrackingConsent::Pending);
  KOEventsHandler& events = KOEventsHandler::sharedInstance();
  events.setEventsBatchCountTreshold(UINT64_MAX);
  const KOValue name("PRODUCT_VIEWED");
  for (auto _ : state) events.trackEvent(name, attributes());
  if (events.eventsInMemory() != static_cast<std::size_t>(state.iterations())) {
    state.SkipWithError("an event was not recorded while pending");
  }
}
BENCHMARK(BM_TrackEventWhilePending)->Iterations(100000);

void BM_TrackEventWhileDenied(benchmark::State& state) {
  KOBenchCleanRig clean;
  ConsentFor denied(KOTrackingConsent::Denied);
  KOEventsHandler& events = KOEventsHandler::sharedInstance();
  const KOValue name("PRODUCT_VIEWED");
  for (auto _ : state) benchmark::DoNotOptimize(events.trackEvent(name, attributes()));
  if (events.eventsInMemory() != 0) state.SkipWithError("an event was recorded while denied");
}
BENCHMARK(BM_TrackEventWhileDenied)->Iterations(100000);

}  // namespace
