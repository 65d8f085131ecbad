// The service path: building a report request, and round trips to the local emulator over
// loopback, one at a time and many in flight.
#include <benchmark/benchmark.h>

#include <atomic>
#include <memory>

#include "KOBenchRig.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"

namespace {

// One device and one emulator for the whole run: the SDK's handlers are process-wide.

KOValue reportBody(int events) {
  KOArray views;
  for (int i = 0; i < events; ++i) {
    views.push_back(KODictionary{{"EVENT_ACTION", "PRODUCT_VIEWED"},
                                 {"EVENT_ATTRS", KODictionary{{"sku", "A1"}, {"price", 9.99}, {"qty", 2}}},
                                 {"EVENT_G_TIME", "1700000000"}});
  }
  return KODictionary{{"viewsInfo", views}, {"viewsCount", events}};
}

void BM_UniversalParams(benchmark::State& state) {
  KOBenchRig::shared();
  KOServerInterface& server = KOServerInterface::sharedInstance();
  for (auto _ : state) benchmark::DoNotOptimize(server.getUniversalParams());
}
BENCHMARK(BM_UniversalParams);

void BM_ReportRequestBuild(benchmark::State& state) {
  KOBenchRig::shared();
  KOServerInterface& server = KOServerInterface::sharedInstance();
  const KOValue body = reportBody(30);
  for (auto _ : state) {
    KODictionary params = server.getUniversalParams();
    params.set("batch_id", KOValue("1700000000123"));
    benchmark::DoNotOptimize(server.requestGenerator().requestForService(1, params, body));
  }
}
BENCHMARK(BM_ReportRequestBuild);

// Requests per second over loopback with `inFlight` reports outstanding at a time.
void BM_ReportRoundTrip(benchmark::State& state) {
  KOBenchRig& r = KOBenchRig::shared();
  KOServerInterface& server = KOServerInterface::sharedInstance();
  const auto inFlight = static_cast<int>(state.range(0));
  const KOValue body = reportBody(30);
  std::int64_t batch = 0, failures = 0;
  for (auto _ : state) {
    std::atomic<int> done{0};
    std::atomic<int> failed{0};
    for (int i = 0; i < inFlight; ++i) {
      server.sendData(body, KOValue(std::to_string(++batch)), [&](bool ok) {
        if (!ok) ++failed;
        ++done;
      });
    }
    r.device.runMainUntil([&] { return done.load() == inFlight; }, 30);
    failures += failed.load();
  }
  state.SetItemsProcessed(state.iterations() * inFlight);
  state.counters["failures"] = static_cast<double>(failures);
}
BENCHMARK(BM_ReportRoundTrip)->Arg(1)->Arg(6)->Arg(50)->UseRealTime();

}  // namespace
