// The long runs, sized to soak rather than to measure: a million events held while the service
// refuses them, and the growth curve of a tracked event's cost up to a million stored. Run apart
// from the quick suite (`kovantis_bench_soak`, several minutes).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>

#include "KOEventsBenchSupport.h"
#include "kovantis/Kovantis.h"

namespace {

using namespace kobench;

// What a tracked event costs the whole process while the service is down, with `range(0)` events
// already stored.
void BM_TrackWhileStoredLarge(benchmark::State& state) { trackWhileStored(state); }
BENCHMARK(BM_TrackWhileStoredLarge)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// A million events tracked while the service refuses every report, then the service back: how many
// requests failed, the peak memory of the process (SDK and emulator), the batch file's size, and
// whether every event arrived exactly once. The peak is the process's, the emulator's store included.
void BM_MillionRefusedThenRestored(benchmark::State& state) {
  KOBenchCleanRig clean;
  KOBenchRig& r = clean.rig;
  constexpr std::size_t kEvents = 1000000;
  for (auto _ : state) {
    resetPeakResidentMemory();
    const std::size_t heapBefore = heapInUse();
    holdWithServiceDown(r, kEvents);
    const std::size_t heldBytes = heapInUse() - std::min(heapInUse(), heapBefore);
    std::error_code error;
    const auto fileBytes = std::filesystem::file_size(KOEventsHandler::sharedInstance().eventsPlistFilePath(), error);
    const std::size_t failed = r.emulator->requestCount("/v2/report/add");
    r.emulator->clearFaults();
    r.device.runMainUntil([&] { return deliveredAll(r.device); }, 600);
    waitForBackground(r);
    // What the app keeps on disk once everything was delivered and it is idle.
    const auto [documentsMB, documentsApparentMB] = directoryMegabytes(r.device.documentsDirectory());
    state.counters["documents_MB"] = documentsMB;
    state.counters["documents_apparent_MB"] = documentsApparentMB;
    std::size_t delivered = 0;
    for (const auto& batch : r.emulator->batches()) delivered += static_cast<std::size_t>(batch.eventCount);
    state.counters["failed_requests"] = static_cast<double>(failed);
    state.counters["batch_file_MB"] = error ? 0.0 : static_cast<double>(fileBytes) / 1e6;
    state.counters["held_heap_MB"] = static_cast<double>(heldBytes) / 1e6;
    state.counters["peak_rss_MB"] = peakResidentMegabytes();
    state.counters["delivered"] = static_cast<double>(delivered);
    state.counters["duplicates"] = static_cast<double>(r.emulator->duplicates().size());
    if (delivered != kEvents) state.SkipWithError("not every event was delivered once");
  }
}
BENCHMARK(BM_MillionRefusedThenRestored)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
