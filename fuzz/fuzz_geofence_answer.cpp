// The fence request's answer, whatever the service sends, on a simulated device whose app watches
// five regions of its own. Input: the answer as JSON. Checks: the handler survives it, the app
// never watches more than the platform allows, the SDK's regions carry its suffix, and room is made
// exactly as far as a list of fences needs it (the host's regions go first in the platform's order).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "KOGeofence/KOGeofenceHandler.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOValueHelpers.h"
#include "Sim/KOSimDevice.h"

namespace fs = std::filesystem;

namespace {

constexpr int kHostRegions = 5;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::abort();
}

struct Rig {
  KOSimDevice* device;
  std::shared_ptr<KOSimLocationManager> manager;
};

Rig& rig() {
  static Rig* r = [] {
    const fs::path base = fs::exists("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
    std::string pattern = (base / "kovantis-fuzz-geofence-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) fail("no temporary directory");
    KOSimDeviceConfig config;
    config.rootDirectory = pattern + "/device";
    config.backgroundThreads = 1;
    config.echoConsole = std::getenv("KOV_FUZZ_ECHO") != nullptr;
    auto* device = new KOSimDevice(config);
    device->install();
    if (config.echoConsole) KOLogger::debug(1);
    device->location().setAuthorizationStatus(KOAuthorizationStatusAuthorizedAlways);
    auto manager = device->location().makeManager();
    KOGeofenceHandler::sharedInstance().startGeofenceWithManager(manager);
    return new Rig{device, manager};
  }();
  return *r;
}

void drain() {
  while (rig().device->pumpMain() > 0) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  KOValue answer;
  try {
    answer = KOJSONSerialization::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const KOParseError&) {
    return 0;
  }
  Rig& r = rig();
  for (const auto& region : r.manager->monitoredRegions()) r.manager->stopMonitoringForRegion(region);
  for (int i = 0; i < kHostRegions; ++i) {
    r.manager->startMonitoringForRegion({{10, 10}, 100, "host-" + std::to_string(i), true, true});
  }
  drain();

  KOGeofenceHandler::sharedInstance().handleGeofencesResponse(answer, KOValue("<fuzz>"));
  drain();

  const auto watched = r.manager->monitoredRegions();
  if (watched.size() > KOSimLocationServices::kMaximumRegions) fail("more regions watched than the platform allows");
  std::size_t hosts = 0;
  // The SDK's regions all end in its suffix (a fence may well be called "host-3"); the rest must be
  // the host's own.
  for (const auto& region : watched) {
    if (region.identifier.ends_with("-KO")) continue;
    if (!region.identifier.starts_with("host-")) fail("a region of the SDK without its suffix: " + region.identifier);
    ++hosts;
  }
  const KOValue& fences = validObjectForKey(answer, "fencesInfo");
  if (answer.isDictionary() && fences.isArray()) {
    const std::size_t total = kHostRegions + fences.arrayValue().size();
    const std::size_t excess = total < 20 ? 0 : total - 20;
    const std::size_t expected = excess >= kHostRegions ? 0 : kHostRegions - excess;
    if (hosts != expected) fail("room made wrongly: " + std::to_string(hosts) + " host regions left");
  } else if (hosts != kHostRegions) {
    fail("a host region was stopped for an answer without a list of fences");
  }
  return 0;
}
