// One launch of a host app on a device directory, for the privacy tests that need a real next
// launch (a new process: the SDK's state in memory gone, only what the device keeps).
//   kovantis-privacy-child <device dir> <emulator port> <step> [clock offset seconds]
// Steps: "track" (starts, tracks, syncs), "deny" (starts, opts out with the held events sent
// first, tracks), "wipe" (starts, wipes). The clock offset moves the device's clock forward, as a
// launch some time later. Prints the consent the launch ended with.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "Sim/KOSimDevice.h"
#include "kovantis/Kovantis.h"

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  KOSimDeviceConfig config;
  config.rootDirectory = argv[1];
  KOSimDevice device(config);
  device.install();
  KOServiceEndpoints endpoints = KOServiceEndpoints::local("127.0.0.1", std::atoi(argv[2]));
  endpoints.timeoutSeconds = 2;
  device.setServiceEndpoints(endpoints);
  if (argc > 4) device.clock().advance(std::atof(argv[4]));
  const std::string step = argv[3];

  Kovantis& sdk = Kovantis::sharedInstance();
  sdk.initializeWithApiKey(KOValue("privacy-app"));
  device.becomeActive();
  const auto flush = [&] {
    auto done = std::make_shared<int>(-1);
    sdk.flush([done](bool all) { *done = all; });
    device.runMainUntil([&] { return *done >= 0; }, 10);
    return *done == 1;
  };
  if (step == "wipe") {
    sdk.wipeData();
  } else {
    sdk.trackEvent(KOValue("PURCHASE"), KOValue(KODictionary{{"sku", "A1"}}));
    sdk.setUserEmailID(KOValue("ada@example.com"));
    if (step == "deny") {
      sdk.setTrackingConsent(KOTrackingConsent::Denied, KOPendingData::Send);
      device.runMainUntil([&] { return sdk.trackingConsent() == KOTrackingConsent::Denied; }, 10);
      sdk.trackEvent(KOValue("AFTER_DENIAL"));
    }
    // Bounded: held events never deliver, and each round answers at once.
    for (int round = 0; round < 5 && !flush(); ++round) {
    }
  }
  device.resignActive();
  device.enterBackground();
  device.runMainUntil([&] { return device.dispatch().backgroundIdle(); }, 10);
  const KOTrackingConsent consent = sdk.trackingConsent();
  std::printf("%s\n", consent == KOTrackingConsent::Granted  ? "granted"
                      : consent == KOTrackingConsent::Denied ? "denied"
                                                             : "pending");
  return 0;
}
