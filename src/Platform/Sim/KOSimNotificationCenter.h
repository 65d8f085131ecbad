// The simulated notification centre. The user's answers are scripted: grant, deny, or deny with an
// error, and the alert setting the user may later change in the system settings. Answers arrive on
// a background thread, as the system's do; installed categories and registered settings are kept
// for tests to read back.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kovantis/KOPlatform.h"

class KOSimNotificationCenter : public KOUserNotificationCenter {
 public:
  enum class Answer { Grant, Deny, DenyWithError };

  /// The user's decision and alert setting are kept in `stateFile`, as the system keeps them
  /// across launches; forget() drops them, as deleting the app does.
  KOSimNotificationCenter(KODispatch& dispatch, KOFileSystem& files, std::string stateFile);

  void requestAuthorizationWithOptions(
      int options, std::function<void(bool granted, std::optional<std::string> error)> completionHandler) override;
  void getNotificationSettingsWithCompletionHandler(std::function<void(int alertSetting)> completion) override;
  void setNotificationCategories(std::vector<std::shared_ptr<KOUserNotificationCategory>> categories) override;
  void setDelegate(std::shared_ptr<KOUserNotificationCenterDelegate> delegate) override;
  void registerUserNotificationSettings(
      int types, std::vector<std::shared_ptr<KOMutableUserNotificationCategory>> categories) override;

  // Scripting.
  /// How the user answers the permission prompt (Grant unless told otherwise).
  void setAuthorizationAnswer(Answer answer);
  /// The user changed the alert setting in the system settings (KONotificationSetting). Until
  /// then it follows the last answer: enabled after a grant, disabled otherwise.
  void setAlertSetting(int setting);
  /// The app delegate's callback of the older interface: it gets the granted types (0 when denied).
  void setUserNotificationSettingsHandler(std::function<void(int types)> handler);
  /// Makes every call of the port throw, as a broken bridge might.
  void setThrows(bool throws);
  /// The app was deleted: no decision, no setting, nothing installed.
  void forget();

  // Inspection.
  std::vector<std::shared_ptr<KOUserNotificationCategory>> installedCategories() const;
  /// The older interface's registration: types and categories, once registered.
  std::optional<int> registeredTypes() const;
  std::vector<std::shared_ptr<KOMutableUserNotificationCategory>> registeredCategories() const;
  int authorizationRequests() const;
  std::shared_ptr<KOUserNotificationCenterDelegate> delegate() const override;

 private:
  void checkThrows() const;
  void saveLocked();

  KODispatch& dispatch_;
  KOFileSystem& files_;
  std::string stateFile_;
  mutable std::mutex mutex_;
  Answer answer_ = Answer::Grant;
  std::optional<Answer> answered_;
  std::optional<int> alertSetting_;
  bool throws_ = false;
  int requests_ = 0;
  std::function<void(int)> settingsHandler_;
  std::vector<std::shared_ptr<KOUserNotificationCategory>> installed_;
  std::optional<int> registeredTypes_;
  std::vector<std::shared_ptr<KOMutableUserNotificationCategory>> registeredCategories_;
  std::shared_ptr<KOUserNotificationCenterDelegate> delegate_;
};
