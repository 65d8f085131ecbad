// kov_emulator_*: the local emulator of the service, in process, for a wrapper's tests.
#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "KOCSim.h"
#include "kovantis/emulator/KOEmulator.h"

struct kov_emulator {
  std::unique_ptr<KOEmulator> emulator;
  std::string ownedDirectory;  // a temporary store, removed when it stops
};

namespace {

KOEmulator& emulator(kov_emulator* e) { return *KOCSim::need(e, "emulator")->emulator; }

std::string temporaryDirectory() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/kovantis-emulator-XXXXXX";
  if (!mkdtemp(pattern.data())) KOCSim::fail(KOV_FAILED, "no temporary directory for the emulator's store");
  return pattern;
}

}  // namespace

extern "C" {

kov_status kov_emulator_start(const char* data_directory, kov_emulator** out) {
  return KOCSim::call([&] {
    kov_emulator*& made = *KOCSim::need(out, "emulator");
    auto e = std::make_unique<kov_emulator>();
    KOEmulator::Options options;
    if (data_directory) {
      options.dataDir = data_directory;
    } else {
      e->ownedDirectory = temporaryDirectory();
      options.dataDir = e->ownedDirectory;
    }
    options.bindAddress = "127.0.0.1";
    e->emulator = std::make_unique<KOEmulator>(options);
    e->emulator->start(0);
    made = e.release();
  });
}

kov_status kov_emulator_port(kov_emulator* e, int* port) {
  return KOCSim::call([&] { *KOCSim::need(port, "port") = emulator(e).port(); });
}

kov_status kov_emulator_base_url(kov_emulator* e, char** url) {
  return KOCSim::call([&] { KOCSim::answer(url, emulator(e).baseURL()); });
}

kov_status kov_emulator_seed(kov_emulator* e, const char* seed_json) {
  return KOCSim::call([&] { emulator(e).seed(KOCSim::need(seed_json, "seed_json")); });
}

kov_status kov_emulator_inspect(kov_emulator* e, const char* what, const char* path_filter, char** json) {
  return KOCSim::call([&] {
    KOCSim::answer(json, emulator(e).inspectJSON(KOCSim::need(what, "what"), path_filter ? path_filter : ""));
  });
}

kov_status kov_emulator_wait_for_requests(kov_emulator* e, const char* path_filter, size_t count,
                                          double timeout_seconds, int* reached) {
  return KOCSim::call([&] {
    const auto timeout = std::chrono::milliseconds(static_cast<long long>(timeout_seconds * 1000));
    const bool done = emulator(e).waitForRequests(path_filter ? path_filter : "", count, timeout);
    if (reached) *reached = done ? 1 : 0;
  });
}

kov_status kov_emulator_reset(kov_emulator* e) {
  return KOCSim::call([&] { emulator(e).reset(); });
}

void kov_emulator_stop(kov_emulator* e) {
  if (!e) return;
  try {
    e->emulator->stop();
    e->emulator.reset();
    if (!e->ownedDirectory.empty()) {
      std::error_code ignored;
      std::filesystem::remove_all(e->ownedDirectory, ignored);
    }
  } catch (...) {
    // Stopping is best effort: the process is usually ending.
  }
  delete e;
}

}  // extern "C"
