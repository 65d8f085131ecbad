// Test fixture: a fresh simulated device whose service calls go to an in-process emulator on a
// free loopback port (the public harness's), with a short request timeout so failure paths stay
// fast.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>

#include "KOTestDevice.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"

class KOEmulatorTestDevice : public KOTestDevice {
 protected:
  void SetUp() override {
    KOTestDevice::SetUp();
    if (presetAppId()) KovantisUtils::saveAppId(KOValue("kov-test-app"));
  }

  bool withEmulator() override { return true; }
  KOTestHarness::Options harnessOptions() override {
    KOTestHarness::Options options = KOTestDevice::harnessOptions();
    options.requestTimeoutSeconds = requestTimeout();
    return options;
  }

  virtual double requestTimeout() { return 2.0; }
  /// Whether the app id is stored before the test starts (tests of the start itself say no).
  virtual bool presetAppId() { return true; }
};
