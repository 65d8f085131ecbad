// The notification handler. Registration: the push preference kept in step with what the user
// granted (an event only when the stored status changes, the attribute on every check), and the
// notification categories serialised and handed to the service once per application version.
// Receipt: what a push from the service does when it arrives or the user answers it — the event
// it records (clicked, dismissed, received while active) and the one follow-up it carries out
// (coupon dialog, deep link, landing page, in-app campaign). Pushes without the service's block,
// silent ones and ones without a campaign id are left alone.
#pragma once

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
  /// every session start (the facade's sessionStarted).
  void checkForPushPermission();
  /// Serialises the categories (current interface: their actions) and sends them.
  void setNotificationCategories(const std::vector<std::shared_ptr<KOUserNotificationCategory>>& categories);
  /// The same for the older interface: only the actions set for the minimal context count.
  void setNotificationCategoriesForEarlierVersions(
      const std::vector<std::shared_ptr<KONotificationCategory>>& categories);

  // --------------------------------------------------------------------------- registration
  /// Asks for permission, registers for remote notifications and installs the categories of the
  /// system's generation (see the facade's call of the same name).
  void registerForRemoteNotificationWithCategories(const KONotificationCategorySet& categories,
                                                   const KONotificationCategorySet& andCategoriesForPreviousVersions,
                                                   std::shared_ptr<KOUserNotificationCenterDelegate> delegate);
  /// The device token the system delivered: a new or changed one is saved and the device
  /// registered again.
  void registerForPush(const KOValue& deviceToken);
  void saveAndRegisterWithToken(const KOValue& token);
  /// Installs the categories plus the SDK's dismiss category and tells the service once per
  /// application version (current interface only).
  void setUserNotificationCategories(const KONotificationCategorySet& categories);
  /// The same for older systems (nothing installed here).
  void setNotificationCategoriesForEarlieriOSVersionsWithCategories(const KONotificationCategorySet& categories);

  /// Whether the system has the current notification interface (version 10.0 or later).
  static bool usesCurrentNotificationInterface();

  // ------------------------------------------------------------------------------ receipt
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
  /// The push that launched the app, unless the platform hands its tap to a delegate that answers
  /// responses. Throws KOTypeError when its block is not a dictionary (the start ends there).
  void handleLaunchPush(KOApplication* application, const KODictionary& launchOptions, bool handleDeeplink);
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
  /// The platform browser's delegate call: the user is done with a landing page; it is dismissed.
  static void browserDidFinish(std::shared_ptr<KOPresentedScreen> browser);

 private:
  KONotificationHandler();
  void handOver(KOArray serialised);
  void track(const char* event, const KOValue& attributes);
  void syncNow();
  void resetBadge();
  // The follow-ups that come after a coupon dialog's button, or straight after an older dialog.
  void afterCoupon(const KOValue& payload, bool openDeepLink);

  std::mutex preferenceMutex_;  // the stored status is read, compared and written as one step
};
