// What the event benchmarks share: the attributes they track, the memory and CPU they read from
// the process, and a service that refuses everything.
#pragma once

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

#include "KOBenchRig.h"
#include "KODataHandler/KOEventsHandler.h"
#include "KODelivery.h"

namespace kobench {

// Five attributes: three strings, an integer and a real.
inline const KOValue& payload() {
  static const KOValue p(KODictionary{
      {"sku", "SKU-12345"}, {"category", "shoes"}, {"brand", "kovantis"}, {"quantity", 2}, {"price", 49.99}});
  return p;
}

inline std::size_t heapInUse() { return mallinfo2().uordblks; }

// The process's peak resident memory starts over from what it holds now (Linux), so that a figure
// belongs to one benchmark and not to whichever ran before it.
inline void resetPeakResidentMemory() {
  if (std::FILE* f = std::fopen("/proc/self/clear_refs", "w")) {
    std::fputs("5", f);
    std::fclose(f);
  }
}

inline double peakResidentMegabytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::strtod(line.c_str() + 6, nullptr) / 1e3;  // kB
  }
  return 0;
}

// CPU seconds of the whole process (every thread: the caller's, the shared queue's, the client's).
inline double processCPUSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Bytes the files under a directory take on the disk (allocated blocks) and their apparent size.
inline std::pair<double, double> directoryMegabytes(const std::string& directory) {
  double allocated = 0, apparent = 0;
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator it(directory, error), end; !error && it != end;
       it.increment(error)) {
    struct stat st {};
    if (::lstat(it->path().c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    allocated += static_cast<double>(st.st_blocks) * 512;
    apparent += static_cast<double>(st.st_size);
  }
  return {allocated / 1e6, apparent / 1e6};
}

inline void waitForBackground(KOBenchRig& r) {
  r.device.runMainUntil([&] { return syncSettled(r.device); }, 600);
}

inline void track(std::size_t count) {
  KOEventsHandler& events = KOEventsHandler::sharedInstance();
  const KOValue name("PRODUCT_VIEWED");
  for (std::size_t i = 0; i < count; ++i) events.trackEvent(name, payload());
}

// The service refuses every report, and `stored` events wait in batches of 30. The device's clock
// stands still, so that the back-off's waits do not end while a figure is taken.
inline void holdWithServiceDown(KOBenchRig& r, std::size_t stored) {
  r.device.clock().setNow(1800000000);
  r.emulator->injectFault(KOEmulatorFault{"/v2/report/add", 503, 0, false, -1, 1.0});
  track(stored);
  waitForBackground(r);
}

inline double residentMegabytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtod(line.c_str() + 6, nullptr) / 1e3;  // kB
  }
  return 0;
}

// CPU seconds of the SDK's threads: the calling (main) thread and those the SDK and the simulated
// device name "ko-..."; the in-process emulator's threads are left out.
inline double senderCPUSeconds() {
  double seconds = 0;
  const long ticks = sysconf(_SC_CLK_TCK);
  const std::string self = std::to_string(getpid());
  std::error_code error;
  for (std::filesystem::directory_iterator it("/proc/self/task", error), end; !error && it != end;
       it.increment(error)) {
    const std::string tid = it->path().filename().string();
    std::ifstream comm(it->path() / "comm");
    std::string name;
    std::getline(comm, name);
    if (tid != self && name.rfind("ko-", 0) != 0) continue;
    std::ifstream stat(it->path() / "stat");
    std::string text;
    std::getline(stat, text);
    const auto close = text.rfind(')');
    if (close == std::string::npos) continue;
    // After the name: state is field 3; utime and stime are fields 14 and 15.
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int n = 3; fields >> field; ++n) {
      if (n == 14) utime = std::stoull(field);
      if (n == 15) {
        stime = std::stoull(field);
        break;
      }
    }
    seconds += static_cast<double>(utime + stime) / static_cast<double>(ticks);
  }
  return seconds;
}

// What a tracked event costs the whole process (recording, cuts, file writes, sync rounds) while
// the service is down, with `range(0)` events already stored.
inline void trackWhileStored(benchmark::State& state) {
  KOBenchCleanRig clean;
  holdWithServiceDown(clean.rig, static_cast<std::size_t>(state.range(0)));
  // Long enough for the batch file's rewrites to be paid for in the figure as they are in use,
  // whatever is stored.
  const std::size_t kTracked = std::max<std::size_t>(30000, static_cast<std::size_t>(state.range(0)));
  double cpu = 0;
  for (auto _ : state) {
    const double before = processCPUSeconds();
    track(kTracked);
    waitForBackground(clean.rig);
    cpu += processCPUSeconds() - before;
  }
  state.counters["cpu_us_per_event"] = cpu * 1e6 / static_cast<double>(kTracked * state.iterations());
  state.counters["stored_events"] = static_cast<double>(state.range(0));
}

}  // namespace kobench
