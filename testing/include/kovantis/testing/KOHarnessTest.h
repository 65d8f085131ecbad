// A GoogleTest fixture over KOTestHarness: a fresh simulated device and emulator for every test,
// waits that fail the test with the reason when they time out, and the SDK's console kept for
// each test and printed when it fails. Strict by default: an exception or error line the SDK
// logs fails the test unless the test declared it (expectLogLine). Header only, so that it builds
// with the host's own GoogleTest.
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

#include <algorithm>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kovantis/Kovantis.h"
#include "kovantis/testing/KOTestHarness.h"

class KOHarnessTest : public ::testing::Test {
 protected:
  /// Override to shape the device, seed the emulator or go without one.
  virtual KOTestHarness::Options harnessOptions() { return {}; }

  void SetUp() override { harness_.emplace(harnessOptions()); }
  void TearDown() override {
    if (harness_) {
      checkConsole();
      if (HasFailure()) printConsole();
    }
    harness_.reset();
  }

  KOTestHarness& harness() { return *harness_; }
  KOSimDevice& device() { return harness_->device(); }
  KOEmulator& emulator() { return harness_->emulator(); }
  Kovantis& sdk() { return Kovantis::sharedInstance(); }

  /// Pumps the main queue until the condition holds; fails the test after the timeout.
  bool waitFor(const std::function<bool()>& condition, double timeoutSeconds = 10) {
    const bool ok = harness_->waitFor(condition, timeoutSeconds);
    EXPECT_TRUE(ok) << "condition not met within " << timeoutSeconds << " s" << why();
    return ok;
  }
  /// Pumps the main queue until the emulator received that many requests on the path.
  bool waitForRequests(const std::string& path, std::size_t count, double timeoutSeconds = 10) {
    const bool ok = harness_->waitForRequests(path, count, timeoutSeconds);
    EXPECT_TRUE(ok) << count << " requests on " << path << " not received within " << timeoutSeconds
                    << " s: " << emulator().requestCount(path) << " were" << why();
    return ok;
  }
  /// Syncs until the service accepted every batch; fails the test, saying why, after the timeout.
  bool deliverAll(double timeoutSeconds = 20) {
    const bool ok = harness_->deliverAll(timeoutSeconds);
    EXPECT_TRUE(ok) << "batches still waiting for the service after " << timeoutSeconds << " s" << why();
    return ok;
  }
  std::vector<std::string> storedEventNames(const std::string& prefix = {}) const {
    return harness_->storedEventNames(prefix);
  }
  std::vector<KOValue> storedEvents(const std::string& name) const { return harness_->storedEvents(name); }
  KODictionary storedUserAttributes() const { return harness_->storedUserAttributes(); }
  void seedCampaign(const KOTestCampaign& campaign) { harness_->seedCampaign(campaign); }

  // A push reaching the app (see KOTestHarness); fails the test when no code of the app heard it.
  KODictionary launchWithPush(const KOTestPush& push) { return harness_->launchWithPush(push); }
  bool openPush(const KOTestPush& push) { return heard(harness_->openPush(push), "opened"); }
  bool receivePushInForeground(const KOTestPush& push) {
    return heard(harness_->receivePushInForeground(push), "received");
  }
  bool tapPushAction(const KOTestPush& push, const std::string& actionIdentifier) {
    return heard(harness_->tapPushAction(push, actionIdentifier), "answered with " + actionIdentifier);
  }
  bool dismissPush(const KOTestPush& push) { return heard(harness_->dismissPush(push), "dismissed"); }

  /// Whether an exception or error line of the SDK fails the test (yes by default).
  void setStrictLog(bool strict) { strict_ = strict; }
  /// Declares a line the test expects the SDK to log (a part of its text): it must come before the
  /// test ends, and in strict mode it fails nothing.
  void expectLogLine(std::string text) { expected_.push_back({std::move(text), false}); }
  /// Checks what the SDK logged so far: in strict mode an exception or error line not declared
  /// fails the test, and so does a declared line that never came. TearDown checks the rest.
  void checkConsole() {
    const std::vector<std::string> lines = harness_->consoleLines();
    std::vector<std::pair<std::string, int>> undeclared;  // each line once, with how often it came
    for (; checked_ < lines.size(); ++checked_) {
      const std::string& line = lines[checked_];
      bool declared = false;
      for (Expected& e : expected_) {
        if (line.find(e.text) == std::string::npos) continue;
        e.seen = true;
        declared = true;
      }
      if (!strict_ || declared || !isErrorLine(line)) continue;
      auto same = std::find_if(undeclared.begin(), undeclared.end(), [&](const auto& u) { return u.first == line; });
      if (same == undeclared.end()) {
        undeclared.emplace_back(line, 1);
      } else {
        ++same->second;
      }
    }
    if (!undeclared.empty()) {
      std::string listed;
      for (const auto& [line, times] : undeclared) {
        listed += "\n  " + line + (times > 1 ? " (" + std::to_string(times) + " times)" : "");
      }
      ADD_FAILURE() << "the SDK logged exception or error lines the test did not expect:" << listed
                    << "\n(declare one with expectLogLine(\"...\") when the test expects it; setStrictLog(false) "
                       "allows them all)";
    }
    for (const Expected& e : expected_) {
      if (!e.seen) ADD_FAILURE() << "the SDK never logged the expected line \"" << e.text << "\"";
    }
    expected_.clear();
  }

 private:
  struct Expected {
    std::string text;
    bool seen;
  };

  static bool isErrorLine(const std::string& line) {
    return line.starts_with("[EXCEPTION]") || line.starts_with("[ERROR]");
  }
  std::string why() const {
    const std::string diagnosis = harness_->diagnosis();
    return diagnosis.empty() ? std::string() : ":\n" + diagnosis;
  }
  bool heard(bool ok, const std::string& how) {
    EXPECT_TRUE(ok) << "no code of the app heard the push " << how
                    << ": the simulated phone's delegates are not set (KOTestHarness::Options::forwardPushes, "
                       "or the app's own)";
    return ok;
  }
  // The SDK's console as GoogleTest shows a test's output: after its failures, the latest lines.
  void printConsole() const {
    constexpr std::size_t kShown = 200;
    const std::vector<std::string> lines = harness_->consoleLines();
    std::cout << "The SDK's console during the test (" << lines.size() << (lines.size() == 1 ? " line" : " lines");
    const std::size_t first = lines.size() > kShown ? lines.size() - kShown : 0;
    if (first > 0) std::cout << ", the last " << kShown;
    std::cout << "):\n";
    for (std::size_t i = first; i < lines.size(); ++i) {
      std::string line = lines[i];
      for (std::size_t at = line.find('\n'); at != std::string::npos; at = line.find('\n', at + 5)) {
        line.replace(at, 1, "\n    ");
      }
      std::cout << "  " << line << "\n";
    }
    std::cout.flush();
  }

  std::optional<KOTestHarness> harness_;
  bool strict_ = true;
  std::vector<Expected> expected_;
  std::size_t checked_ = 0;
};
