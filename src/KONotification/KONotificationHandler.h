// Push registration's half of the notification handler: the push preference kept in step with
// what the user granted (an event only when the stored status changes, the attribute on every
// check), and the notification categories serialised and handed to the service once per
// application version.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

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
  /// every session start: this handler hears the app become active itself.
  void checkForPushPermission();
  /// Serialises the categories (current interface: their actions) and sends them.
  void setNotificationCategories(const std::vector<std::shared_ptr<KOUserNotificationCategory>>& categories);
  /// The same for the older interface: only the actions set for the minimal context count.
  void setNotificationCategoriesForEarlierVersions(
      const std::vector<std::shared_ptr<KONotificationCategory>>& categories);

  /// Whether the system has the current notification interface (version 10.0 or later).
  static bool usesCurrentNotificationInterface();

 private:
  KONotificationHandler();
  void handOver(KOArray serialised);

  std::mutex preferenceMutex_;  // the stored status is read, compared and written as one step
};
