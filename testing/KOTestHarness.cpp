#include "kovantis/testing/KOTestHarness.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "kovantis/Kovantis.h"

struct KOTestHarness::State {
  explicit State(const Options& options) : device(options.device) {}

  // Declared first, so destroyed last: the emulator closes its store, kept in the device's
  // directory, before the directory goes.
  KOSimDevice device;
  std::unique_ptr<KOEmulator> emulator;
};

KOTestHarness::KOTestHarness() : KOTestHarness(Options{}) {}

KOTestHarness::KOTestHarness(Options options) : state_(std::make_unique<State>(options)) {
  state_->device.install();
  if (!options.emulator) return;
  KOEmulator::Options emulatorOptions;
  emulatorOptions.dataDir = state_->device.rootDirectory() + "/emulator";
  state_->emulator = std::make_unique<KOEmulator>(emulatorOptions);
  if (!options.seed.empty()) state_->emulator->seed(options.seed);
  KOServiceEndpoints endpoints = KOServiceEndpoints::local("127.0.0.1", state_->emulator->start(0));
  endpoints.timeoutSeconds = options.requestTimeoutSeconds;
  state_->device.setServiceEndpoints(endpoints);
}

KOTestHarness::~KOTestHarness() {
  if (state_->emulator) state_->emulator->stop();
}

KOSimDevice& KOTestHarness::device() { return state_->device; }

bool KOTestHarness::hasEmulator() const { return state_->emulator != nullptr; }

KOEmulator& KOTestHarness::emulator() { return service(); }

KOEmulator& KOTestHarness::service() const {
  if (!state_->emulator) throw std::logic_error("KOTestHarness was built without an emulator");
  return *state_->emulator;
}

bool KOTestHarness::waitFor(const std::function<bool()>& condition, double timeoutSeconds) {
  return state_->device.runMainUntil(condition, timeoutSeconds);
}

bool KOTestHarness::waitForRequests(const std::string& path, std::size_t count, double timeoutSeconds) {
  KOEmulator& service = emulator();
  return waitFor([&] { return service.requestCount(path) >= count; }, timeoutSeconds);
}

namespace {
constexpr double kRetryPauseSeconds = 0.05;
}  // namespace

bool KOTestHarness::deliverAll(double timeoutSeconds) {
  // The flush's answer outlives this call when the timeout passes first: it holds its own state.
  struct Round {
    bool done = false;
    bool delivered = false;
  };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  // A refused batch stays for the next sync; each round is one sync, so a service that keeps
  // refusing ends the loop at the deadline, and the count bounds it should the clock not move.
  for (int round = 0; round < 1000; ++round) {
    const double left = std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) return false;
    auto state = std::make_shared<Round>();
    Kovantis::sharedInstance().flush([state](bool allDelivered) {
      state->done = true;
      state->delivered = allDelivered;
    });
    if (!waitFor([&] { return state->done; }, left)) return false;
    if (state->delivered) return true;
    // Not all delivered: give the service (and what the SDK still tracks itself) a moment before
    // the next round, pumping the main queue meanwhile, instead of asking again at once.
    const double pause = std::min(kRetryPauseSeconds,
                                  std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count());
    if (pause > 0) waitFor([] { return false; }, pause);
  }
  return false;
}

std::vector<std::string> KOTestHarness::storedEventNames(const std::string& prefix) const {
  std::vector<std::string> names;
  for (const auto& event : service().events()) {
    if (event.name.starts_with(prefix)) names.push_back(event.name);
  }
  return names;
}

std::vector<KOValue> KOTestHarness::storedEvents(const std::string& name) const {
  std::vector<KOValue> records;
  for (const auto& event : service().events()) {
    if (event.name == name) records.push_back(KOValue::fromJSON(event.json));
  }
  return records;
}
