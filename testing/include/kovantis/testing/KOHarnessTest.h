// A GoogleTest fixture over KOTestHarness: a fresh simulated device and emulator for every test,
// and waits that fail the test when they time out. Header only, so that it builds with the
// host's own GoogleTest.
//
//   class CheckoutTest : public KOHarnessTest {};
//   TEST_F(CheckoutTest, ReachesTheService) {
//     sdk().initializeProdWithApiKey("my-app");
//     sdk().trackEvent("CHECKOUT");
//     ASSERT_TRUE(deliverAll());
//     EXPECT_EQ(storedEventNames("CHECKOUT").size(), 1u);
//   }
#pragma once

#include <gtest/gtest.h>

#include <optional>

#include "kovantis/Kovantis.h"
#include "kovantis/testing/KOTestHarness.h"

class KOHarnessTest : public ::testing::Test {
 protected:
  /// Override to shape the device, seed the emulator or go without one.
  virtual KOTestHarness::Options harnessOptions() { return {}; }

  void SetUp() override { harness_.emplace(harnessOptions()); }
  void TearDown() override { harness_.reset(); }

  KOTestHarness& harness() { return *harness_; }
  KOSimDevice& device() { return harness_->device(); }
  KOEmulator& emulator() { return harness_->emulator(); }
  Kovantis& sdk() { return Kovantis::sharedInstance(); }

  /// Pumps the main queue until the condition holds; fails the test after the timeout.
  bool waitFor(const std::function<bool()>& condition, double timeoutSeconds = 10) {
    const bool ok = harness_->waitFor(condition, timeoutSeconds);
    EXPECT_TRUE(ok) << "condition not met within " << timeoutSeconds << " s";
    return ok;
  }
  /// Pumps the main queue until the emulator received that many requests on the path.
  bool waitForRequests(const std::string& path, std::size_t count, double timeoutSeconds = 10) {
    const bool ok = harness_->waitForRequests(path, count, timeoutSeconds);
    EXPECT_TRUE(ok) << count << " requests on " << path << " not received within " << timeoutSeconds << " s";
    return ok;
  }
  /// Syncs until the service accepted every batch; fails the test after the timeout.
  bool deliverAll(double timeoutSeconds = 20) {
    const bool ok = harness_->deliverAll(timeoutSeconds);
    EXPECT_TRUE(ok) << "batches still waiting for the service after " << timeoutSeconds << " s";
    return ok;
  }
  std::vector<std::string> storedEventNames(const std::string& prefix = {}) const {
    return harness_->storedEventNames(prefix);
  }
  std::vector<KOValue> storedEvents(const std::string& name) const { return harness_->storedEvents(name); }

 private:
  std::optional<KOTestHarness> harness_;
};
