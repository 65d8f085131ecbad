// Test fixture: a fresh simulated device in a temporary directory, installed as the platform.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "Sim/KOSimDevice.h"

class KOTestDevice : public ::testing::Test {
 protected:
  void SetUp() override {
    device_ = std::make_unique<KOSimDevice>(config());
    device_->install();
  }
  void TearDown() override { device_.reset(); }

  /// Override to shape the device before it is built.
  virtual KOSimDeviceConfig config() { return {}; }

  KOSimDevice& device() { return *device_; }

  /// Pumps the main queue until the condition holds; fails the test after the timeout.
  bool waitFor(const std::function<bool()>& condition, double timeoutSeconds = 10) {
    const bool ok = device_->runMainUntil(condition, timeoutSeconds);
    EXPECT_TRUE(ok) << "condition not met within " << timeoutSeconds << " s";
    return ok;
  }

 private:
  std::unique_ptr<KOSimDevice> device_;
};
