// Test fixture: a fresh simulated device whose service calls go to an in-process emulator on a
// free loopback port, with a short request timeout so failure paths stay fast.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>

#include "kovantis/emulator/KOEmulator.h"
#include "KOTestDevice.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"

class KOEmulatorTestDevice : public KOTestDevice {
 protected:
  void SetUp() override {
    KOTestDevice::SetUp();
    KOEmulator::Options options;
    options.dataDir = device().rootDirectory() + "/emulator";
    emulator_ = std::make_unique<KOEmulator>(options);
    const int port = emulator_->start(0);
    KOServiceEndpoints endpoints = KOServiceEndpoints::local("127.0.0.1", port);
    endpoints.timeoutSeconds = requestTimeout();
    device().setServiceEndpoints(endpoints);
    if (presetAppId()) KovantisUtils::saveAppId(KOValue("kov-test-app"));
  }

  void TearDown() override {
    // Kept-alive connections would hold the emulator's workers until they time out.
    KOServerInterface::sharedInstance().httpClient().closeIdleConnections();
    emulator_->stop();
    KOTestDevice::TearDown();
  }

  virtual double requestTimeout() { return 2.0; }
  /// Whether the app id is stored before the test starts (tests of the start itself say no).
  virtual bool presetAppId() { return true; }

  KOEmulator& emulator() { return *emulator_; }

  /// Pumps the main queue until the emulator received that many requests on the path.
  bool waitForRequests(const std::string& path, std::size_t count, double timeoutSeconds = 10) {
    return waitFor([&] { return emulator_->requestCount(path) >= count; }, timeoutSeconds);
  }

 private:
  std::unique_ptr<KOEmulator> emulator_;
};
