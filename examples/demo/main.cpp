// kovantis-demo: a scripted app session on the simulated device against a local emulator of the
// service, printing a timeline of what the SDK did and what the service received. The device lives
// in a directory of its own, so a second run is the same phone again (--reinstall deletes the app
// first; the keychain stays).
#include <cstdio>
#include <cstring>
#include <string>

#include "KOEmulator.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"
#include "Sim/KOSimDevice.h"
#include "kovantis/KOConstants.h"

namespace {

void section(const char* title) { std::printf("\n== %s\n", title); }
void step(const char* what, const std::string& detail) { std::printf("  %-26s %s\n", what, detail.c_str()); }

// Waits for a send completion by pumping the main queue, as the host's run loop would.
bool sendAndWait(KOSimDevice& device, const std::function<void(KOServerInterface::SuccessCompletion)>& call) {
  auto result = std::make_shared<std::atomic<int>>(-1);
  call([result](bool ok) { *result = ok ? 1 : 0; });
  device.runMainUntil([&] { return *result >= 0; }, 10);
  return *result == 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string root = "build/demo-device";
  bool reinstall = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--device") == 0 && i + 1 < argc) root = argv[++i];
    else if (std::strcmp(argv[i], "--reinstall") == 0) reinstall = true;
  }

  KOSimDeviceConfig config;
  config.rootDirectory = root;
  KOSimDevice device(config);
  device.install();
  if (reinstall) device.uninstall();

  KOEmulator::Options options;
  options.dataDir = root + "/emulator";
  KOEmulator emulator(options);
  emulator.reset();
  emulator.seed(R"({"config": {"l_e": 1, "tkn": "demo-log-token", "e_b_c": 25}})");
  const int port = emulator.start(0);
  device.setServiceEndpoints(KOServiceEndpoints::local("127.0.0.1", port));
  KOLogger::debug(1);

  std::printf("Kovantis SDK %s on a simulated %s (%s %s); emulator at %s\n", LIBRARY_VERSION,
              KovantisUtils::getDeviceModel().c_str(), device.profile().systemName().c_str(),
              KovantisUtils::getDeviceSystemVersion().c_str(), emulator.baseURL().c_str());
  if (reinstall) std::printf("(the app was deleted and installed again: the keychain kept the persistent id)\n");

  section("Identity");
  KovantisUtils::saveAppId(KOValue("kovantis-demo-app"));
  step("vendor id", KovantisUtils::getIdentifierForVendor());
  step("persistent id", KovantisUtils::persistentDeviceId());
  step("advertising id", KovantisUtils::advertiserID().description());
  step("GMT seconds / local time", KovantisUtils::getGMTtime() + " / " + KovantisUtils::getLocalTime());
  step("preference file", device.standardPreferencesPath());

  section("Service");
  KOServerInterface& server = KOServerInterface::sharedInstance();
  step("device add", sendAndWait(device, [&](auto done) { server.initializeWith({}, done); }) ? "accepted" : "FAILED");
  server.getConfigForKovantis();
  KOPreferenceStore& prefs = device.preferences().standard();
  device.runMainUntil([&] { return !prefs.objectForKey(kConfigLastUpdatedKey).isNil(); }, 10);
  step("configuration", "remote logging " + prefs.objectForKey(kShouldSendToLogEntries).description() +
                            ", batch size " + prefs.objectForKey(kEventsBatchCount).description() + ", log token " +
                            prefs.objectForKey(kLogEntriesTokenKey).description());
  server.getConfigForKovantis();
  step("configuration again", "skipped: asked less than an hour ago");

  emulator.injectFault(KOEmulatorFault{"/v2/device/add", 503, 0, false, 1, 1.0});
  step("device add (503 injected)",
       sendAndWait(device, [&](auto done) { server.initializeWith({}, done); }) ? "accepted?!" : "failed, as injected");
  device.runMainUntil([&] { return !emulator.logs().empty(); }, 10);
  step("remote log records", std::to_string(emulator.logs().size()) +
                                 (emulator.logs().empty() ? "" : ": " + emulator.logs()[0].msg.substr(0, 60) + "..."));

  section("What the emulator received");
  for (const auto& r : emulator.requests()) {
    std::printf("  %-4s %-22s -> %d%s\n", r.method.c_str(), r.path.c_str(), r.status,
                r.fault.empty() ? "" : (" (" + r.fault + ")").c_str());
  }
  const auto devices = emulator.devices();
  if (!devices.empty()) {
    step("registered device", devices[0].model + " " + devices[0].osVer + ", " + devices[0].deviceUniqueId);
  }

  section("SDK console (debug level 1: every line)");
  for (const auto& l : device.console().lines()) std::printf("  | %s\n", l.c_str());
  KOServerInterface::sharedInstance().httpClient().closeIdleConnections();
  emulator.stop();
  return 0;
}
