// A campaign's images fetched from the local emulator: ten 12 KiB files, five at a time, until
// the one answer for the lot arrives on the main queue.
#include <benchmark/benchmark.h>

#include <string>

#include "KOBenchRig.h"
#include "KOInAppV2/InAppHandlers/KODownloadManager.h"

namespace {

constexpr int kImages = 10;

void BM_InAppImageDownload(benchmark::State& state) {
  KOBenchRig& r = KOBenchRig::shared();
  // 16 KiB of base64 "A" decodes to 12 KiB of zero bytes: the size of a small banner.
  r.emulator->seed(R"({"images": {"/images/banner.png": ")" + std::string(16384, 'A') + R"("}})");
  KOArray urls;
  for (int i = 0; i < kImages; ++i) urls.push_back(r.emulator->baseURL() + "/images/banner.png?i=" + std::to_string(i));
  std::int64_t failures = 0;
  for (auto _ : state) {
    KODownloadManager manager;
    bool done = false;
    bool ok = false;
    manager.download(urls, [&](bool success, const KOValue&, const KOValue&) {
      done = true;
      ok = success;
    });
    r.device.runMainUntil([&] { return done; }, 30);
    if (!ok) ++failures;
  }
  state.SetItemsProcessed(state.iterations() * kImages);
  state.counters["failures"] = static_cast<double>(failures);
}
BENCHMARK(BM_InAppImageDownload)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
