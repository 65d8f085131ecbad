// An answer of 10,000 fences: what the handler spends reading them and handing them to region
// monitoring (the platform keeps 20 and refuses the rest), and the whole answer from its JSON text
// until the last refusal has reached the main queue.
#include <benchmark/benchmark.h>

#include <string>

#include "KOBenchRig.h"
#include "KOGeofence/KOGeofenceHandler.h"
#include "KOUtilities/KOJSONSerialization.h"

namespace {

constexpr int kFences = 10000;

std::string answerText() {
  std::string text = R"({"fencesInfo":[)";
  for (int i = 0; i < kFences; ++i) {
    text += (i ? "," : "") + std::string(R"({"geoId":"fence-)") + std::to_string(i) +
            R"(","lat":52.5,"lng":13.4,"distance":150,"transitionType":")" + (i % 2 ? "exit" : "enter") + "\"}";
  }
  return text + "]}";
}

// The handler works with a manager of the rig's device; the regions of the last round are gone.
KOSimDevice& prepared() {
  KOSimDevice& device = KOBenchRig::shared().device;
  static auto manager = [&] {
    auto m = device.location().makeManager();
    device.location().setAuthorizationStatus(KOAuthorizationStatusAuthorizedAlways);
    KOGeofenceHandler::sharedInstance().startGeofenceWithManager(m);
    return m;
  }();
  for (const auto& r : manager->monitoredRegions()) manager->stopMonitoringForRegion(r);
  return device;
}

void drain(KOSimDevice& device) {
  while (device.pumpMain() > 0) {
  }
}

void BM_GeofenceAdd10000(benchmark::State& state) {
  KOSimDevice& device = prepared();
  const KOValue fences = KOJSONSerialization::parse(answerText())["fencesInfo"];
  for (auto _ : state) {
    KOGeofenceHandler::sharedInstance().addGeofences(fences);
    state.PauseTiming();
    drain(device);
    prepared();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kFences);
}
BENCHMARK(BM_GeofenceAdd10000)->Unit(benchmark::kMillisecond);

void BM_GeofenceAnswer10000(benchmark::State& state) {
  KOSimDevice& device = prepared();
  const std::string text = answerText();
  for (auto _ : state) {
    const KOValue answer = KOJSONSerialization::parse(text);
    KOGeofenceHandler::sharedInstance().addGeofences(answer["fencesInfo"]);
    drain(device);
    state.PauseTiming();
    prepared();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BM_GeofenceAnswer10000)->Unit(benchmark::kMillisecond);

}  // namespace
