// A forwarding base for every port interface: each call goes to the wrapped implementation.
// A test derives from one, overrides the call it wants to break (fail, throw, answer something
// odd) and leaves the rest forwarded, then installs a platform with the wrapper in place:
//
//   class UnreadableKeychain : public KOForwardingKeychainStore {
//     using KOForwardingKeychainStore::KOForwardingKeychainStore;
//     int copyMatching(const std::string&, const std::string&, std::string*) const override {
//       return KOKeychainIOError;
//     }
//   };
//
// The wrapped implementation is shared, so the wrapper may outlive the device that built it.
#pragma once

#include <memory>
#include <utility>

#include "kovantis/KOPlatform.h"
#include "kovantis/KOViewDescription.h"

/// What every forwarding class has in common: the wrapped implementation.
template <typename Port>
class KOForwarding : public Port {
 public:
  explicit KOForwarding(std::shared_ptr<Port> target) : target_(std::move(target)) {}
  /// The implementation the calls go to.
  Port& target() const { return *target_; }

 private:
  std::shared_ptr<Port> target_;
};

class KOForwardingAppInfo : public KOForwarding<KOAppInfo> {
 public:
  using KOForwarding::KOForwarding;
  std::optional<std::string> shortVersion() const override { return target().shortVersion(); }
  std::optional<std::string> buildVersion() const override { return target().buildVersion(); }
  std::optional<std::string> bundleIdentifier() const override { return target().bundleIdentifier(); }
  KODictionary infoDictionary() const override { return target().infoDictionary(); }
};

class KOForwardingDeviceInfo : public KOForwarding<KODeviceInfo> {
 public:
  using KOForwarding::KOForwarding;
  std::string identifierForVendor() const override { return target().identifierForVendor(); }
  std::string model() const override { return target().model(); }
  std::string name() const override { return target().name(); }
  std::string systemName() const override { return target().systemName(); }
  std::string systemVersion() const override { return target().systemVersion(); }
  std::string localizedModel() const override { return target().localizedModel(); }
  KOUserInterfaceIdiom idiom() const override { return target().idiom(); }
  KOSize screenSize() const override { return target().screenSize(); }
  double screenScale() const override { return target().screenScale(); }
};

class KOForwardingAdvertising : public KOForwarding<KOAdvertising> {
 public:
  using KOForwarding::KOForwarding;
  bool isAvailable() const override { return target().isAvailable(); }
  bool isAdvertisingTrackingEnabled() const override { return target().isAdvertisingTrackingEnabled(); }
  std::string advertisingIdentifier() const override { return target().advertisingIdentifier(); }
};

class KOForwardingPreferenceStore : public KOForwarding<KOPreferenceStore> {
 public:
  using KOForwarding::KOForwarding;
  KOValue objectForKey(std::string_view key) const override { return target().objectForKey(key); }
  void setObject(const KOValue& value, std::string_view key) override { target().setObject(value, key); }
  void removeObjectForKey(std::string_view key) override { target().removeObjectForKey(key); }
  bool synchronize() override { return target().synchronize(); }
  KODictionary dictionaryRepresentation() const override { return target().dictionaryRepresentation(); }
  bool unreadable() const override { return target().unreadable(); }
};

/// Hands out the wrapped stores themselves; to break a store, override standard() or suite() and
/// return a KOForwardingPreferenceStore kept by the wrapper.
class KOForwardingPreferences : public KOForwarding<KOPreferences> {
 public:
  using KOForwarding::KOForwarding;
  KOPreferenceStore& standard() override { return target().standard(); }
  KOPreferenceStore* suite(std::string_view groupIdentifier) override { return target().suite(groupIdentifier); }
};

class KOForwardingFileSystem : public KOForwarding<KOFileSystem> {
 public:
  using KOForwarding::KOForwarding;
  std::string documentsDirectory() const override { return target().documentsDirectory(); }
  std::string cachesDirectory() const override { return target().cachesDirectory(); }
  std::string temporaryDirectory() const override { return target().temporaryDirectory(); }
  std::optional<std::string> readFile(const std::string& path, KOFileError* error = nullptr) const override {
    return target().readFile(path, error);
  }
  std::optional<std::string> readFileRange(const std::string& path, std::uint64_t offset, std::size_t length,
                                           KOFileError* error = nullptr) const override {
    return target().readFileRange(path, offset, length, error);
  }
  bool writeFile(const std::string& path, std::string_view bytes, KOFileError* error = nullptr,
                 unsigned mode = 0644) override {
    return target().writeFile(path, bytes, error, mode);
  }
  bool writeFileInPieces(const std::string& path, const std::function<bool(const KOPieceWriter&)>& produce,
                         KOFileError* error = nullptr, unsigned mode = 0644) override {
    return target().writeFileInPieces(path, produce, error, mode);
  }
  bool renameFile(const std::string& from, const std::string& to, KOFileError* error = nullptr) override {
    return target().renameFile(from, to, error);
  }
  bool removeItem(const std::string& path, KOFileError* error = nullptr) override {
    return target().removeItem(path, error);
  }
  bool createDirectories(const std::string& path, KOFileError* error = nullptr) override {
    return target().createDirectories(path, error);
  }
  bool fileExists(const std::string& path) const override { return target().fileExists(path); }
  std::vector<std::string> listDirectory(const std::string& path) const override {
    return target().listDirectory(path);
  }
  std::unique_ptr<KOMappedFile> mapFile(const std::string& path, std::size_t size,
                                        KOFileError* error = nullptr) override {
    return target().mapFile(path, size, error);
  }
};

class KOForwardingKeychainStore : public KOForwarding<KOKeychainStore> {
 public:
  using KOForwarding::KOForwarding;
  int add(const std::string& service, const std::string& account, std::string_view data,
          std::string_view accessibility) override {
    return target().add(service, account, data, accessibility);
  }
  int copyMatching(const std::string& service, const std::string& account, std::string* data) const override {
    return target().copyMatching(service, account, data);
  }
  int remove(const std::string& service, const std::string& account) override {
    return target().remove(service, account);
  }
};

class KOForwardingApplication : public KOForwarding<KOApplication> {
 public:
  using KOForwarding::KOForwarding;
  KOApplicationState applicationState() const override { return target().applicationState(); }
  std::int64_t applicationIconBadgeNumber() const override { return target().applicationIconBadgeNumber(); }
  void setApplicationIconBadgeNumber(std::int64_t badge) override { target().setApplicationIconBadgeNumber(badge); }
  KOBackgroundTaskIdentifier beginBackgroundTask(const std::string& name,
                                                 std::function<void()> expirationHandler) override {
    return target().beginBackgroundTask(name, std::move(expirationHandler));
  }
  void endBackgroundTask(KOBackgroundTaskIdentifier task) override { target().endBackgroundTask(task); }
  bool canOpenURL(const std::string& url) const override { return target().canOpenURL(url); }
  void openURL(const std::string& url, std::function<void(bool success)> completion) override {
    target().openURL(url, std::move(completion));
  }
  void openSettings() override { target().openSettings(); }
  void registerForRemoteNotifications() override { target().registerForRemoteNotifications(); }
  bool isRegisteredForRemoteNotifications() const override { return target().isRegisteredForRemoteNotifications(); }
  std::shared_ptr<KOViewController> keyWindowRootViewController() const override {
    return target().keyWindowRootViewController();
  }
  std::shared_ptr<KOViewController> delegateWindowRootViewController() const override {
    return target().delegateWindowRootViewController();
  }
  bool isKeyboardShown() const override { return target().isKeyboardShown(); }
  bool delegateHandlesNotificationResponses() const override { return target().delegateHandlesNotificationResponses(); }
};

class KOForwardingUserInterface : public KOForwarding<KOUserInterface> {
 public:
  using KOForwarding::KOForwarding;
  bool supportsAlertController() const override { return target().supportsAlertController(); }
  void presentAlert(const std::string& title, const std::string& message, std::vector<KOAlertAction> actions,
                    const KOViewController* presenter) override {
    target().presentAlert(title, message, std::move(actions), presenter);
  }
  void presentShareSheet(const KOArray& items, const std::vector<std::string>& excludedActivityTypes,
                         const KOViewController* presenter, std::optional<KORect> popoverAnchor) override {
    target().presentShareSheet(items, excludedActivityTypes, presenter, popoverAnchor);
  }
  KOSize sizeOfText(const std::string& text, const KOFont& font) const override {
    return target().sizeOfText(text, font);
  }
  double heightOfText(const std::string& text, double width, const KOFont& font) const override {
    return target().heightOfText(text, width, font);
  }
  double systemFontSize() const override { return target().systemFontSize(); }
  std::shared_ptr<KOPresentedScreen> embedScreen(const KOViewController* host, KOViewDescription screen,
                                                 KOViewEventHandler onEvent) override {
    return target().embedScreen(host, std::move(screen), std::move(onEvent));
  }
  void setPasteboardString(const std::string& text) override { target().setPasteboardString(text); }
  std::shared_ptr<KOPresentedScreen> presentScreen(KOViewDescription screen, KOViewEventHandler onEvent) override {
    return target().presentScreen(std::move(screen), std::move(onEvent));
  }
  std::shared_ptr<KOPresentedScreen> presentBrowser(
      const std::string& url, const KOViewController* presenter,
      std::function<void(std::shared_ptr<KOPresentedScreen>)> didFinish) override {
    return target().presentBrowser(url, presenter, std::move(didFinish));
  }
};

class KOForwardingUserNotificationCenter : public KOForwarding<KOUserNotificationCenter> {
 public:
  using KOForwarding::KOForwarding;
  void requestAuthorizationWithOptions(
      int options, std::function<void(bool granted, std::optional<std::string> error)> completionHandler) override {
    target().requestAuthorizationWithOptions(options, std::move(completionHandler));
  }
  void getNotificationSettingsWithCompletionHandler(std::function<void(int alertSetting)> completion) override {
    target().getNotificationSettingsWithCompletionHandler(std::move(completion));
  }
  void setNotificationCategories(std::vector<std::shared_ptr<KOUserNotificationCategory>> categories) override {
    target().setNotificationCategories(std::move(categories));
  }
  void setDelegate(std::shared_ptr<KOUserNotificationCenterDelegate> delegate) override {
    target().setDelegate(std::move(delegate));
  }
  std::shared_ptr<KOUserNotificationCenterDelegate> delegate() const override { return target().delegate(); }
  void registerUserNotificationSettings(
      int types, std::vector<std::shared_ptr<KOMutableUserNotificationCategory>> categories) override {
    target().registerUserNotificationSettings(types, std::move(categories));
  }
};

/// The delegate is handed to the wrapped manager, so its calls name that manager, not the wrapper.
class KOForwardingLocationManager : public KOForwarding<KOLocationManager> {
 public:
  using KOForwarding::KOForwarding;
  bool locationServicesEnabled() const override { return target().locationServicesEnabled(); }
  KOAuthorizationStatus authorizationStatus() const override { return target().authorizationStatus(); }
  bool respondsToRequestAlwaysAuthorization() const override { return target().respondsToRequestAlwaysAuthorization(); }
  void requestAlwaysAuthorization() override { target().requestAlwaysAuthorization(); }
  bool respondsToRequestWhenInUseAuthorization() const override {
    return target().respondsToRequestWhenInUseAuthorization();
  }
  void requestWhenInUseAuthorization() override { target().requestWhenInUseAuthorization(); }
  void startUpdatingLocation() override { target().startUpdatingLocation(); }
  void stopUpdatingLocation() override { target().stopUpdatingLocation(); }
  void setDelegate(std::weak_ptr<KOLocationManagerDelegate> delegate) override {
    target().setDelegate(std::move(delegate));
  }
  std::shared_ptr<KOLocationManagerDelegate> delegate() const override { return target().delegate(); }
  bool isMonitoringAvailableForCircularRegions() const override {
    return target().isMonitoringAvailableForCircularRegions();
  }
  void startMonitoringForRegion(const KOCircularRegion& region) override { target().startMonitoringForRegion(region); }
  void stopMonitoringForRegion(const KOCircularRegion& region) override { target().stopMonitoringForRegion(region); }
  std::vector<KOCircularRegion> monitoredRegions() const override { return target().monitoredRegions(); }
};

class KOForwardingLocale : public KOForwarding<KOLocale> {
 public:
  using KOForwarding::KOForwarding;
  std::string localeIdentifier() const override { return target().localeIdentifier(); }
  std::string languageCode() const override { return target().languageCode(); }
  std::string countryCode() const override { return target().countryCode(); }
  std::string displayNameForLanguage(const std::string& code) const override {
    return target().displayNameForLanguage(code);
  }
  std::string displayNameForCountry(const std::string& code) const override {
    return target().displayNameForCountry(code);
  }
  std::string timeZoneName() const override { return target().timeZoneName(); }
  std::int64_t secondsFromGMT(double atSecondsSince1970) const override {
    return target().secondsFromGMT(atSecondsSince1970);
  }
};

class KOForwardingClock : public KOForwarding<KOClock> {
 public:
  using KOForwarding::KOForwarding;
  double now() const override { return target().now(); }
};

class KOForwardingConsole : public KOForwarding<KOConsole> {
 public:
  using KOForwarding::KOForwarding;
  void writeLine(std::string_view line) override { target().writeLine(line); }
  void writeLogLine(std::string_view line, int severity) override { target().writeLogLine(line, severity); }
};

class KOForwardingDispatch : public KOForwarding<KODispatch> {
 public:
  using KOForwarding::KOForwarding;
  void asyncMain(std::function<void()> work) override { target().asyncMain(std::move(work)); }
  void asyncBackground(std::function<void()> work) override { target().asyncBackground(std::move(work)); }
  KODispatchToken afterMain(double delaySeconds, std::function<void()> work) override {
    return target().afterMain(delaySeconds, std::move(work));
  }
  KODispatchToken afterBackground(double delaySeconds, std::function<void()> work) override {
    return target().afterBackground(delaySeconds, std::move(work));
  }
  bool cancel(KODispatchToken token) override { return target().cancel(token); }
  bool isMainThread() const override { return target().isMainThread(); }
};
