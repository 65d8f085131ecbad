// Testing a host app against the SDK: a fresh simulated device whose service calls go to an
// in-process emulator of the service on a free loopback port, and the waits such a test needs.
// No test framework is assumed (KOHarnessTest.h wraps it for GoogleTest).
//
//   KOTestHarness harness;                        // device installed, emulator started
//   Kovantis::sharedInstance().initializeProdWithApiKey("my-app");
//   Kovantis::sharedInstance().trackEvent("CHECKOUT");
//   harness.deliverAll();                         // every batch accepted by the service
//   harness.storedEventNames();                   // {..., "CHECKOUT"}
//
// The SDK is a process-wide singleton: run each test in a process of its own (GoogleTest's
// gtest_discover_tests does), and keep one harness alive at a time.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Sim/KOSimDevice.h"
#include "kovantis/KOValue.h"
#include "kovantis/emulator/KOEmulator.h"

class KOTestHarness {
 public:
  struct Options {
    /// Shapes the simulated device before it is built: profile, app groups, echoConsole.
    KOSimDeviceConfig device;
    /// Starts an in-process emulator and points every service host at it. Without one the
    /// device keeps the production hosts: only for tests that make no service call.
    bool emulator = true;
    /// Applied before the emulator starts: config, campaigns, inbox (see the emulator's seeds).
    std::string seed;
    /// Timeout of one service request: short, so that a test of a failure path stays fast.
    double requestTimeoutSeconds = 2;
  };

  /// Builds and installs the device and starts the emulator. Throws std::runtime_error when the
  /// emulator cannot start and std::invalid_argument when the seed is refused.
  KOTestHarness();
  explicit KOTestHarness(Options options);
  /// Stops the emulator; the device's temporary directory goes with it.
  ~KOTestHarness();
  KOTestHarness(const KOTestHarness&) = delete;
  KOTestHarness& operator=(const KOTestHarness&) = delete;

  KOSimDevice& device();
  bool hasEmulator() const;
  /// Throws std::logic_error when the harness was built without one.
  KOEmulator& emulator();

  /// Pumps the main queue until the condition holds or the timeout passes; whether it holds.
  bool waitFor(const std::function<bool()>& condition, double timeoutSeconds = 10);
  /// Pumps the main queue until the emulator received `count` requests on the path (exact, or
  /// every path under a prefix ending in "/"), whatever it answered.
  bool waitForRequests(const std::string& path, std::size_t count, double timeoutSeconds = 10);
  /// Syncs, and syncs again while a sync leaves something behind (a batch the service refused),
  /// until nothing waits on the device for the service, pausing 50 ms between rounds that left
  /// something; false when the timeout passed first.
  bool deliverAll(double timeoutSeconds = 20);

  /// Names of the events the service stored, oldest first; only those starting with the prefix.
  std::vector<std::string> storedEventNames(const std::string& prefix = {}) const;
  /// The records of the events of that name as the service stored them ("EVENT_ACTION",
  /// "EVENT_ATTRS", "SESSION_ID", ...), oldest first.
  std::vector<KOValue> storedEvents(const std::string& name) const;

 private:
  struct State;
  KOEmulator& service() const;
  std::unique_ptr<State> state_;
};
