// The dashboard's timeline over a large store: 100,000 events as the SDK sends them (batches of
// 30) in an emulator of their own, then the first page asked for over HTTP as the page asks.
#include <benchmark/benchmark.h>
#include <httplib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "kovantis/emulator/KOEmulator.h"

namespace {

constexpr int kEvents = 100000;
constexpr int kPerBatch = 30;

std::string reportBody(int first, int count) {
  std::string views;
  for (int i = 0; i < count; ++i) {
    if (i) views += ",";
    // Every name is new but the first one's: a filter for it must read the whole store.
    const std::string name = first + i == 0 ? "FIRST_OPEN" : "PRODUCT_VIEWED_" + std::to_string(first + i);
    views += R"({"EVENT_ACTION":")" + name + R"(","EVENT_ATTRS":{"sku":"A1","price":9.99,"qty":2},)" +
             R"("EVENT_G_TIME":"1700000000"})";
  }
  return R"({"viewsInfo":[)" + views + R"(],"viewsCount":)" + std::to_string(count) + "}";
}

struct FullEmulator {
  std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("kovantis-bench-dashboard-" + std::to_string(::getpid()));
  std::unique_ptr<KOEmulator> emulator;
  int port = 0;

  FullEmulator() {
    std::filesystem::remove_all(dir);
    KOEmulator::Options options;
    options.dataDir = dir.string();
    emulator = std::make_unique<KOEmulator>(options);
    port = emulator->start(0);
    httplib::Client cli("127.0.0.1", port);
    cli.set_read_timeout(30);
    for (int first = 0, batch = 1; first < kEvents; first += kPerBatch, ++batch) {
      const int count = std::min(kPerBatch, kEvents - first);
      httplib::Params query;
      for (const std::string pair :
           {"os=iOS", "app_ver=2.1", "app_id=bench-app", "sdk_ver=3.5.0", "unique_id=BENCH-1", "model=iPhone14,2",
            "os_ver=17.1", "device_ts=1700000000", "device_tz=Europe/Berlin", "device_tz_offset=3600",
            "device_unique_id=P-1", "os_value=iOS", "version=2.1", "appId=bench-app", "lib_version=3.5.0",
            "device_model=iPhone14,2", "device_version=17.1"}) {
        query.emplace(pair.substr(0, pair.find('=')), pair.substr(pair.find('=') + 1));
      }
      query.emplace("batch_id", std::to_string(batch));
      auto res =
          cli.Post(httplib::append_query_params("/v2/report/add", query), reportBody(first, count), "application/json");
      if (!res || res->status != 200) {
        throw std::runtime_error("the emulator refused a report: " +
                                 (res ? res->body : httplib::to_string(res.error())));
      }
    }
    int64_t stored = 0;
    for (const auto& batch : emulator->batches()) stored += batch.eventCount;
    if (stored != kEvents) throw std::runtime_error("the emulator stored " + std::to_string(stored) + " events");
  }
  ~FullEmulator() {
    emulator->stop();
    std::filesystem::remove_all(dir);
  }

  static FullEmulator& shared() {
    static FullEmulator full;
    return full;
  }
};

void timelinePage(benchmark::State& state, const std::string& target) {
  FullEmulator& full = FullEmulator::shared();
  httplib::Client cli("127.0.0.1", full.port);
  cli.set_read_timeout(30);
  size_t bytes = 0;
  for (auto _ : state) {
    auto res = cli.Get(target);
    if (!res || res->status != 200) {
      state.SkipWithError("the timeline did not answer");
      break;
    }
    bytes = res->body.size();
  }
  state.counters["stored_events"] = kEvents;
  state.counters["page_bytes"] = static_cast<double>(bytes);
}

// The page as the dashboard opens it: the newest 50 events.
void BM_DashboardTimelineFirstPage(benchmark::State& state) { timelinePage(state, "/__emulator/timeline?limit=50"); }
BENCHMARK(BM_DashboardTimelineFirstPage)->Unit(benchmark::kMillisecond)->UseRealTime();

// The worst a filter can do: one event matches, the oldest, so every batch is read.
void BM_DashboardTimelineRareName(benchmark::State& state) {
  timelinePage(state, "/__emulator/timeline?limit=50&name=FIRST_OPEN");
}
BENCHMARK(BM_DashboardTimelineRareName)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
