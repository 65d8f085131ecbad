// A complete simulated phone for the SDK: builds every port interface over one directory, installs
// them as the platform, drives the application lifecycle and pumps the main queue.
//
//   <root>/Sandbox/...      the app's sandbox (Documents, Library/Preferences, Library/Caches, tmp)
//   <root>/AppGroups/<id>/  app-group containers shared with extensions
//   <root>/Keychain/        keychain items (kept by an uninstall)
//   <root>/Device/          per-install device facts such as the vendor id
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Sim/KOSimApplication.h"
#include "Sim/KOSimClock.h"
#include "Sim/KOSimConsole.h"
#include "Sim/KOSimDeviceProfile.h"
#include "Sim/KOSimDispatch.h"
#include "Sim/KOSimFaultyFileSystem.h"
#include "Sim/KOSimFileSystem.h"
#include "Sim/KOSimKeychain.h"
#include "Sim/KOSimLocationManager.h"
#include "Sim/KOSimNotificationCenter.h"
#include "Sim/KOSimPreferences.h"
#include "Sim/KOSimScreen.h"
#include "Sim/KOSimUserInterface.h"

struct KOSimDeviceConfig {
  /// The device's directory; created when missing. Empty: a fresh temporary directory that is
  /// removed with the device.
  std::string rootDirectory;
  KOSimProfileSettings profile;
  /// App groups the app is entitled to.
  std::vector<std::string> appGroups;
  /// Echo console lines to standard error.
  bool echoConsole = false;
  int backgroundThreads = 3;
};

class KOSimDevice {
 public:
  explicit KOSimDevice(KOSimDeviceConfig config = {});
  ~KOSimDevice();
  KOSimDevice(const KOSimDevice&) = delete;
  KOSimDevice& operator=(const KOSimDevice&) = delete;

  /// Makes this device the platform the SDK runs on.
  void install();
  std::shared_ptr<const KOPlatform> platform() const { return platform_; }
  /// Points the SDK's service calls somewhere else (the local emulator, say). Takes effect at once
  /// when the device is installed.
  void setServiceEndpoints(const KOServiceEndpoints& endpoints);

  KOSimDeviceProfile& profile() { return *profile_; }
  KOSimFaultyFileSystem& files() { return *faulty_; }
  KOSimFileSystem& rawFiles() { return *files_; }
  KOSimPreferences& preferences() { return *preferences_; }
  KOSimKeychain& keychain() { return *keychain_; }
  KOSimApplication& application() { return *application_; }
  KOSimUserInterface& userInterface() { return *userInterface_; }
  KOSimNotificationCenter& notificationCenter() { return *notificationCenter_; }
  /// Location services: authorisation, the device's position, the app's watched regions. Managers
  /// come from location().makeManager(); the SDK makes its own through the platform when the host
  /// hands it none.
  KOSimLocationServices& location() { return *location_; }
  /// Everything shown on the screen and dismissed, in order (see KOSimScreen for the entries).
  KOSimScreen& screen() { return *screen_; }
  KOSimConsole& console() { return *console_; }
  KOSimClock& clock() { return *clock_; }
  KOSimDispatch& dispatch() { return *dispatch_; }

  const std::string& rootDirectory() const { return root_; }
  std::string sandboxDirectory() const { return root_ + "/Sandbox"; }
  std::string documentsDirectory() const { return files_->documentsDirectory(); }
  std::string keychainDirectory() const { return root_ + "/Keychain"; }
  std::string standardPreferencesPath() const;

  /// Deletes the app: its sandbox, app-group containers and vendor id go; the keychain stays.
  /// The next use of the SDK sees a fresh install on the same device.
  void uninstall();

  // The application lifecycle. Each sets the state and posts the matching notification on the
  // calling thread, which should be the main thread.
  void launch();
  void becomeActive();
  void resignActive();
  void enterBackground();
  void enterForeground();
  void terminate();

  // Pushes from the service, handed to the app as the system does. The system version picks the
  // path: with the current notification interface (10.0 and later) a user's answer goes to the
  // notification centre's delegate when it handles responses, otherwise to the app delegate's
  // callbacks (KOSimApplication::setRemoteNotificationHandler and setNotificationActionHandler).
  // Call them on the main thread; each returns whether any of the app's code heard it.

  /// A push arrives; the app delegate hears it in the app's present state (in the background, a
  /// content-available push wakes it).
  bool receivePush(const KODictionary& payload);
  /// The user taps the notification: an app in the background comes to the foreground (inactive)
  /// first, hears the tap, then becomes active; an app already active only hears the tap.
  /// `attachments` are what the notification showed.
  bool openPush(const KODictionary& payload, std::vector<std::string> attachments = {});
  /// The user answers with an action: a button's identifier, or the dismiss identifiers (the
  /// SDK's own dismiss button or the swipe-away, KONotificationDismissActionIdentifier). Older
  /// systems report only buttons, to the app delegate; they never report a swipe-away.
  bool respondToPush(const KODictionary& payload, const std::string& actionIdentifier,
                     std::vector<std::string> attachments = {});
  /// The user taps a push while the app is not running: the launch options the app's start hands
  /// the SDK. On current systems a delegate that handles responses also hears the tap, on the main
  /// queue once the launch code has run (so the SDK must not handle it twice). An app delegate that
  /// says it answers responses itself (KOSimApplication::setDelegateHandlesNotificationResponses) is
  /// not given the tap here: the device models only the notification centre's delegate.
  KODictionary launchFromPush(const KODictionary& payload);

  std::size_t pumpMain() { return dispatch_->pumpMain(); }
  /// Pumps the main queue until the condition holds or the timeout passes.
  bool runMainUntil(const std::function<bool()>& condition, double timeoutSeconds = 10) {
    return dispatch_->runMainUntil(condition, timeoutSeconds);
  }

 private:
  void post(const char* name, KOApplicationState state);
  bool currentNotificationInterface() const;
  // Hands the response to the notification centre's delegate when it handles responses.
  bool respondThroughDelegate(const KODictionary& payload, const std::string& actionIdentifier,
                              std::vector<std::string> attachments);

  std::string root_;
  bool ownsRoot_ = false;
  KOSimDeviceConfig config_;
  std::shared_ptr<KOSimFileSystem> files_;
  std::shared_ptr<KOSimFaultyFileSystem> faulty_;
  std::shared_ptr<KOSimDispatch> dispatch_;
  std::shared_ptr<KOSimDeviceProfile> profile_;
  std::shared_ptr<KOSimPreferences> preferences_;
  std::shared_ptr<KOSimKeychain> keychain_;
  std::shared_ptr<KOSimScreen> screen_;
  std::shared_ptr<KOSimApplication> application_;
  std::shared_ptr<KOSimUserInterface> userInterface_;
  std::shared_ptr<KOSimNotificationCenter> notificationCenter_;
  std::shared_ptr<KOSimLocationServices> location_;
  std::shared_ptr<KOSimConsole> console_;
  std::shared_ptr<KOSimClock> clock_;
  std::shared_ptr<KOPlatform> platform_;
  bool installed_ = false;
};
