// The running application on the simulated device: state, badge, background tasks, URLs and the
// screens on show. Records what the SDK asked of it so tests can read it back; the URLs it opens go
// on the device's screen record (KOSimScreen).
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Sim/KOSimScreen.h"
#include "kovantis/KOPlatform.h"

class KOSimApplication : public KOApplication {
 public:
  KOSimApplication(KODispatch& dispatch, std::shared_ptr<KOSimScreen> screen);

  KOApplicationState applicationState() const override;
  std::int64_t applicationIconBadgeNumber() const override;
  void setApplicationIconBadgeNumber(std::int64_t badge) override;
  KOBackgroundTaskIdentifier beginBackgroundTask(const std::string& name,
                                                 std::function<void()> expirationHandler) override;
  void endBackgroundTask(KOBackgroundTaskIdentifier task) override;
  bool canOpenURL(const std::string& url) const override;
  void openURL(const std::string& url, std::function<void(bool success)> completion) override;
  void openSettings() override;
  void registerForRemoteNotifications() override;
  bool isRegisteredForRemoteNotifications() const override;
  std::shared_ptr<KOViewController> keyWindowRootViewController() const override;
  std::shared_ptr<KOViewController> delegateWindowRootViewController() const override;
  bool isKeyboardShown() const override;
  bool delegateHandlesNotificationResponses() const override;

  // Scripting and inspection.
  void setApplicationState(KOApplicationState state);
  void setKeyWindowRootViewController(std::shared_ptr<KOViewController> root);
  void setDelegateWindowRootViewController(std::shared_ptr<KOViewController> root);
  void setKeyboardShown(bool shown);
  /// URL schemes the device can open (http, https, tel, mailto and sms by default).
  void addOpenableScheme(const std::string& scheme);
  /// The app's own URL router: a URL that starts with the prefix (the app's scheme, "myshop://",
  /// or a site of its links, "https://shop.example/") opens in the app. Whoever opens it (the SDK
  /// following a deep link, an in-app's button), the handler hears it on the main queue, as the
  /// system hands an app its URLs, and answers whether it handled it: the opener's completion
  /// hears that answer. Such a URL is on the screen record too. A later handler for the same
  /// prefix replaces the earlier one; nullptr removes it.
  void setURLHandler(const std::string& prefix, std::function<bool(const std::string& url)> handler);
  /// The URLs opened, from the screen record, oldest first.
  std::vector<std::string> openedURLs() const;
  int settingsOpenedCount() const;
  /// Names of the background tasks begun and not yet ended.
  std::vector<std::string> activeBackgroundTasks() const;
  /// What the app delegate does with a remote-notification registration: the token (32 bytes) or
  /// the failure arrives on the main queue after each registerForRemoteNotifications().
  void setRemoteNotificationHandlers(std::function<void(const std::string& token)> registered,
                                     std::function<void()> failed = nullptr);
  void setRemoteNotificationRegistrationFails(bool fails);
  /// The token the push service issued to this install (empty before the first registration).
  std::string deviceToken() const;
  /// The push service issues a new token; a registered app hears of it as after a registration.
  void rotateDeviceToken();
  /// The app delegate's push callbacks: a remote notification delivered to the app (in whatever
  /// state it is in), and an action button tapped on systems without the current notification
  /// interface. KOSimDevice's push calls reach them.
  void setRemoteNotificationHandler(std::function<void(const KODictionary& userInfo)> handler);
  void setNotificationActionHandler(
      std::function<void(const std::string& identifier, const KODictionary& userInfo)> handler);
  /// Whether the app delegate answers notification responses itself (no by default).
  void setDelegateHandlesNotificationResponses(bool handles);
  /// What KOSimDevice calls: false when the app has no such handler.
  bool deliverRemoteNotification(const KODictionary& userInfo);
  bool deliverNotificationAction(const std::string& identifier, const KODictionary& userInfo);
  /// Runs the expiration handlers of every active background task, as the system does when the
  /// app's background time runs out.
  void expireBackgroundTasks();

 private:
  static std::string newToken();
  // The app's handler for the URL (longest prefix wins); empty when the URL is not the app's.
  std::function<bool(const std::string&)> urlHandlerFor(const std::string& url) const;
  void deliverToken();

  struct Task {
    std::string name;
    std::function<void()> expiration;
  };

  KODispatch& dispatch_;
  std::shared_ptr<KOSimScreen> screen_;
  mutable std::mutex mutex_;
  KOApplicationState state_ = KOApplicationState::Inactive;
  std::int64_t badge_ = 0;
  KOBackgroundTaskIdentifier nextTask_ = 1;
  std::map<KOBackgroundTaskIdentifier, Task> tasks_;
  std::set<std::string> schemes_{"http", "https", "tel", "mailto", "sms"};
  std::map<std::string, std::function<bool(const std::string&)>> urlHandlers_;  // by prefix
  int settingsOpened_ = 0;
  bool registeredForRemote_ = false;
  bool registrationFails_ = false;
  std::string token_;
  std::function<void(const std::string&)> tokenHandler_;
  std::function<void()> failureHandler_;
  bool keyboardShown_ = false;
  bool delegateHandlesResponses_ = false;
  std::function<void(const KODictionary&)> remoteNotificationHandler_;
  std::function<void(const std::string&, const KODictionary&)> actionHandler_;
  std::shared_ptr<KOViewController> keyRoot_;
  std::shared_ptr<KOViewController> delegateRoot_;
};
