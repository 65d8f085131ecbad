// Test fixture: a fresh simulated device in a temporary directory, installed as the platform.
// A thin layer over the public GoogleTest fixture (kovantis/testing/KOHarnessTest.h): the same
// device, waits and emulator as a host app's tests get, without the emulator by default.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "Sim/KOSimDevice.h"
#include "kovantis/testing/KOHarnessTest.h"

class KOTestDevice : public KOHarnessTest {
 protected:
  // Our tests set the SDK's log level themselves, read its console line by line, provoke its
  // exception lines on purpose and answer pushes with their own delegates.
  KOTestDevice() { setStrictLog(false); }

  /// Override to shape the device before it is built.
  virtual KOSimDeviceConfig config() { return {}; }
  /// Whether an in-process emulator starts with the device.
  virtual bool withEmulator() { return false; }

  KOTestHarness::Options harnessOptions() override {
    KOTestHarness::Options options;
    options.device = config();
    options.emulator = withEmulator();
    options.logLevel = std::nullopt;
    options.forwardPushes = false;
    return options;
  }
};
