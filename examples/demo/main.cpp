// kovantis-demo: a scripted app session on the simulated device, printing a timeline of what the
// SDK did. The device lives in a directory of its own, so a second run is the same phone again.
#include <cstdio>
#include <cstring>
#include <string>

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KovantisUtils.h"
#include "Sim/KOSimDevice.h"
#include "kovantis/KOConstants.h"

namespace {

void step(const char* what, const std::string& detail) { std::printf("  %-28s %s\n", what, detail.c_str()); }

}  // namespace

int main(int argc, char** argv) {
  std::string root = "build/demo-device";
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--device") == 0 && i + 1 < argc) root = argv[++i];
  }
  bool reinstall = false;
  for (int i = 1; i < argc; ++i) reinstall |= std::strcmp(argv[i], "--reinstall") == 0;

  KOSimDeviceConfig config;
  config.rootDirectory = root;
  KOSimDevice device(config);
  device.install();
  if (reinstall) {
    device.uninstall();
    std::printf("Deleted the app from the device (the keychain stays).\n");
  }
  KOLogger::debug(2);

  std::printf("Kovantis SDK %s on a simulated %s (%s %s), device directory %s\n", LIBRARY_VERSION,
              KovantisUtils::getDeviceModel().c_str(), device.profile().systemName().c_str(),
              KovantisUtils::getDeviceSystemVersion().c_str(), root.c_str());
  std::printf("Identity\n");
  step("vendor id", KovantisUtils::getIdentifierForVendor());
  step("persistent id", KovantisUtils::persistentDeviceId());
  step("advertising id", KovantisUtils::advertiserID().description());
  step("install registered before", KovantisUtils::installRegistered() ? "yes" : "no (first launch)");
  KovantisUtils::registerInstall();
  std::printf("Time\n");
  step("GMT seconds", KovantisUtils::getGMTtime());
  step("local time", KovantisUtils::getLocalTime());
  std::printf("Storage\n");
  step("preference file", device.standardPreferencesPath());
  step("documents directory", KovantisUtils::getDocumentsDirectoryPath());
  step("keychain directory", device.keychainDirectory());
  const auto lines = device.console().lines();
  std::printf("SDK log lines: %zu\n", lines.size());
  for (const auto& l : lines) std::printf("  | %s\n", l.c_str());
  return 0;
}
