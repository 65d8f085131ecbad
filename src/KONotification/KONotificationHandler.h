// The notification handler. Registration: the push preference kept in step with what the user
// granted (an event only when the stored status changes, the attribute on every check), and the
// notification categories serialised and handed to the service once per application version.
// Receipt: what a push from the service does when it arrives or the user answers it — the event
// it records (clicked, dismissed, received while active) and the one follow-up it carries out
// (coupon dialog, deep link, landing page, in-app campaign). Pushes without the service's block,
// silent ones and ones without a campaign id are left alone.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "KORichPush/KOWebViewHandler.h"
#include "kovantis/KOPlatform.h"
#include "kovantis/KOValue.h"

class KONotificationHandler {
 public:
  static KONotificationHandler& sharedInstance();

  /// Registration failed: the attribute says push is off; the stored preference stays.
  void didFailToRegisterForPush();
  /// The older interface's answer: any granted type means push is on.
  void didRegisterForUserNotificationSettings(int grantedTypes);
  void pushEnabled();
  void pushDisabled();
  /// Stores the status and tracks "KO_PUSH_PREFERENCE_CHANGED" with it.
  void trackPushPreferenceChangedEventWithStatus(bool status);
  /// Reads the alert setting (current interface only) and settles the preference from it. Runs at
  /// every session start once observeSessionStarts() was called (by the SDK's start).
  void checkForPushPermission();
  /// From now on every session start checks the push permission; later calls change nothing.
  void observeSessionStarts();
  /// Serialises the categories (current interface: their actions) and sends them.
  void setNotificationCategories(const std::vector<std::shared_ptr<KOUserNotificationCategory>>& categories);
  /// The same for the older interface: only the actions set for the minimal context count.
  void setNotificationCategoriesForEarlierVersions(
      const std::vector<std::shared_ptr<KONotificationCategory>>& categories);

  /// Whether the system has the current notification interface (version 10.0 or later).
  static bool usesCurrentNotificationInterface();

  // ------------------------------------------------------------------------------ receipt
  /// How push events reach the rest of the SDK: the facade installs tracking (so a push event
  /// also reaches the in-app trigger check), its sync, its switches and its browser delegate.
  struct Host {
    std::function<void(const KOValue& name, const KOValue& payload)> trackEvent;
    std::function<void()> syncNow;
    std::function<bool()> disableBadgeReset;
    std::function<bool()> disableInbox;
    KOWebViewHandler::BrowserDelegate browserDidFinish;
  };
  void setHost(Host host);

  /// A push delivered to the app delegate: opened while inactive, arrived while active, or
  /// ignored in the background.
  void didReceieveNotificationinApplication(KOApplication* application, const KOValue& withInfo,
                                            bool handleDeeplinking);
  /// The user's answer on systems with the current interface: dismissed, tapped, or a button.
  void userNotificationCenter(KOUserNotificationCenter* center,
                              const KONotificationResponse& didReceiveNotificationResponse);
  /// A button: its title from the stored categories (the last that holds the identifier).
  void handleActionWithIdentifier(const KOValue& identifier, const KOValue& forRemoteNotification);
  /// Whether the service's block asks for handling: present, not silent, with a campaign id.
  /// Throws KOTypeError when the block is not a dictionary.
  static bool shouldProcessNotificationKovantisDict(const KOValue& block);
  /// A push opened: the click, then its follow-up, the badge and the inbox.
  void handlePushNotificationInApplication(KOApplication* application, const KOValue& userInfo, bool handleDeeplink);
  /// A push that arrived while the app is active: its in-app campaign, then the received event.
  void handlePushNotificationForeground(const KOValue& payload);
  /// The one follow-up of an opened push: coupon, else deep link, else landing page; its in-app
  /// campaign after the deep link or landing page.
  void handlePushInMainQueueWithData(const KOValue& payload, bool handleDeeplink);
  void handleCouponCodeForPush(const KOValue& payload, bool handleDeeplink);
  void showCouponAlertView(const KOValue& coupon, const KOValue& andUserInfo, bool handleDeeplink);
  void handleDeepLinking(const KOValue& payload);
  void handleRichLandingPage(const KOValue& payload);
  void handleInAppFromPush(const KOValue& payload);

  /// A push was opened in this foreground period: events tracked through the plain call are
  /// marked as after-push until the app goes to the background.
  bool didReceivePush() const;
  void setDidReceivePush(bool value);
  /// Whether the SDK opens a push's deep link itself (the host's choice at start).
  bool handleDeepLinks() const { return handleDeepLinks_.load(); }
  void setHandleDeepLinks(bool value) { handleDeepLinks_.store(value); }

 private:
  KONotificationHandler();
  void handOver(KOArray serialised);
  // One of the host's calls, copied under the lock so it runs outside it.
  template <typename Call>
  Call fromHost(Call Host::*member) const {
    std::lock_guard<std::mutex> lock(hostMutex_);
    return host_.*member;
  }
  void track(const char* event, const KOValue& attributes);
  void syncNow();
  void resetBadge();
  // The follow-ups that come after a coupon dialog's button, or straight after an older dialog.
  void afterCoupon(const KOValue& payload, bool openDeepLink);

  mutable std::mutex hostMutex_;
  Host host_;
  std::atomic<bool> handleDeepLinks_{false};
  std::once_flag sessionStarts_;

  std::mutex preferenceMutex_;  // the stored status is read, compared and written as one step
};
