// Testing a host app against the SDK: a fresh simulated device whose service calls go to an
// in-process emulator of the service on a free loopback port, and the waits such a test needs.
// No test framework is assumed (KOHarnessTest.h wraps it for GoogleTest).
//
//   KOTestHarness harness;                        // device installed, emulator started
//   Kovantis::sharedInstance().initializeProdWithApiKey("my-app");
//   Kovantis::sharedInstance().trackEvent("CHECKOUT");
//   harness.deliverAll();                         // every batch accepted by the service
//   harness.storedEventNames();                   // {..., "CHECKOUT"}
//   harness.diagnosis();                          // when it was not: why, in words
//
// The SDK is a process-wide singleton: run each test in a process of its own (GoogleTest's
// gtest_discover_tests does), and keep one harness alive at a time.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Sim/KOSimDevice.h"
#include "kovantis/KOValue.h"
#include "kovantis/emulator/KOEmulator.h"
#include "kovantis/testing/KOTestCampaign.h"
#include "kovantis/testing/KOTestPush.h"

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
    /// The SDK's console level for the test (Kovantis::debug): 1 keeps every line on the device's
    /// console, with its severity, so that a failing test can show them and a strict one can
    /// refuse exception and error lines. Nothing leaves the SDK's own setting.
    std::optional<int> logLevel = 1;
    /// The simulated phone's app delegate and notification-centre delegate hand every push
    /// callback to the SDK, deep links opened, as an app's delegates do; delegates the app sets
    /// (Kovantis::registerForRemoteNotificationWithCategories) take over.
    bool forwardPushes = true;
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
  /// something; false when the timeout passed first, or at once when this device is not the
  /// SDK's platform. diagnosis() then says why.
  bool deliverAll(double timeoutSeconds = 20);
  /// Why the service does not have everything, in words, one reason a line: no platform (or
  /// another one), no start or a start with an empty app id, faults still injected, each batch the
  /// service has not accepted with the last answer it got, exception and error lines the SDK
  /// logged. Empty when nothing stands out.
  std::string diagnosis() const;

  /// Names of the events the service stored, oldest first; only those starting with the prefix.
  std::vector<std::string> storedEventNames(const std::string& prefix = {}) const;
  /// The records of the events of that name as the service stored them ("EVENT_ACTION",
  /// "EVENT_ATTRS", "SESSION_ID", ...), oldest first.
  std::vector<KOValue> storedEvents(const std::string& name) const;
  /// The user's attributes as the service last stored them: those of the user whose attribute
  /// reached it last, each key with its latest value; empty when none did.
  KODictionary storedUserAttributes() const;

  /// Serves the campaign from the emulator, keeping the other seeded ones: in the campaign list
  /// (or, when triggered, as the answer to its events, which join the list's trigger events) and
  /// by its id (a push's or a button's campaign). The device learns the list when the SDK starts
  /// and on each foreground: seed before those.
  void seedCampaign(const KOTestCampaign& campaign);

  // A push reaching the app, in each way one does. Each returns whether the app's code heard it
  // (see Options::forwardPushes).
  /// The user taps the push while the app is not running: the launch options the app starts the
  /// SDK with (initialize...WithApiKey(appId, nullptr, options)).
  KODictionary launchWithPush(const KOTestPush& push);
  /// The user taps the notification; from the background the app comes to the foreground first.
  bool openPush(const KOTestPush& push);
  /// The push arrives while the app is open (brought to the foreground first when it is not).
  bool receivePushInForeground(const KOTestPush& push);
  /// The user taps one of the notification's buttons.
  bool tapPushAction(const KOTestPush& push, const std::string& actionIdentifier);
  /// The user swipes the notification away (systems before 10.0 never report it).
  bool dismissPush(const KOTestPush& push);

  /// The SDK's console lines so far, oldest first; exception and error lines carry their label
  /// ("[EXCEPTION]", "[ERROR]") when the SDK's level did not add it.
  std::vector<std::string> consoleLines() const;
  /// Only its exception and error lines.
  std::vector<std::string> errorLines() const;

 private:
  struct State;
  KOEmulator& service() const;
  bool isTheSDKsPlatform() const;
  std::unique_ptr<State> state_;
};
