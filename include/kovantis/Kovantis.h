// Kovantis: the SDK's one public entry. Obtain the shared instance, initialise it once early in
// the app's launch with the app id, then track events and user attributes through it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kovantis/KOGeoDelegate.h"
#include "kovantis/KOInAppDelegate.h"
#include "kovantis/KOPayloadBuilder.h"
#include "kovantis/KOPlatform.h"
#include "kovantis/KOPrivacy.h"
#include "kovantis/KOValue.h"
#include "kovantis/KOViewDescription.h"

// Exported from the shared library (see KOExport.h).
#pragma GCC visibility push(default)

/// App status for appStatus(): 0 install, 1 update.
enum KOAppStatus : int { KOAppStatusInstall = 0, KOAppStatusUpdate = 1 };

/// Gender for setUserGender(): 0 male, 1 female.
enum KOUserGender : int { KOUserGenderMale = 0, KOUserGenderFemale = 1 };

class Kovantis {
 public:
  static Kovantis& sharedInstance();

  // ------------------------------------------------------------------------------ start
  /// Development start: the app id gets the suffix "_DEBUG", keeping test data apart.
  void initializeDevWithApiKey(const KOValue& apiKey, KOApplication* inApplication = nullptr,
                               const KODictionary& withLaunchOptions = {}, bool openDeeplinkUrlAutomatically = true);
  void initializeProdWithApiKey(const KOValue& apiKey, KOApplication* inApplication = nullptr,
                                const KODictionary& withLaunchOptions = {}, bool openDeeplinkUrlAutomatically = true);
  /// The common start: app id and reinstall handling, lifecycle observers, advertising id, module
  /// update and locale. A changed app id resets the user and ends the start there.
  void initializeWithApiKey(const KOValue& apiKey, KOApplication* inApplication = nullptr,
                            const KODictionary& withLaunchOptions = {}, bool openDeeplinkUrlAutomatically = true);
  void checkReinstallAndSaveAppID(const KOValue& appId);
  /// Install or update detection by app version; the host calls it with 0 (install) or 1 (update).
  void appStatus(int status);
  void smartTriggerForAppStatus(int status);

  static void debug(int level);
  static void setAppGroupID(const KOValue& groupId);
  static void setDataRedirection(bool redirect);

  bool disableInbox() const;
  void setDisableInbox(bool value);
  /// Hears the taps on in-app messages and receives self-handled campaigns; held weakly.
  std::shared_ptr<KOInAppDelegate> delegate() const;
  void setDelegate(std::weak_ptr<KOInAppDelegate> delegate);
  bool disableInApps() const;
  void setDisableInApps(bool value);
  bool disableBadgeReset() const;
  void setDisableBadgeReset(bool value);
  KOBackgroundTaskIdentifier bgTask() const { return bgTask_; }
  void setBgTask(KOBackgroundTaskIdentifier task) { bgTask_ = task; }

  // Deprecated: each only logs that it is.
  void applicationBecameActiveinApplication(KOApplication* application);
  void applicationWillEnterForeground(KOApplication* application);
  void applicationTerminated(KOApplication* application);
  void stop(KOApplication* application);

  // ----------------------------------------------------------------------------- events
  void trackEvent(const KOValue& name, const KOValue& andPayload = KOValue());
  void trackEvent(const KOValue& name, KOPayloadBuilder& builderPayload);

  // ------------------------------------------------------------------- user attributes
  void setUserAttribute(const KOValue& value, const KOValue& forKey);
  void setUserAttributeTimestamp(double timeStamp, const KOValue& forKey);
  void setUserAttributeLocationLatitude(double latitude, double longitude, const KOValue& forKey);
  void setUserUniqueID(const KOValue& value);
  void setUserEmailID(const KOValue& value);
  void setUserName(const KOValue& value);
  void setUserFirstName(const KOValue& value);
  void setUserLastName(const KOValue& value);
  void setUserMobileNo(const KOValue& value);
  void setUserGender(int gender);
  void setUserDateOfBirth(const KOValue& date);
  void setUserLocationLatitude(double latitude, double andLongitude);

  // ---------------------------------------------------------------------------- privacy
  /// The user's tracking consent (KOPrivacy.h), kept across launches. Granting sends what was held
  /// while pending. Denying discards it; when consent was granted, the app may have the events
  /// held on the device sent first (KOPendingData::Send), in one last sync that tells the service.
  void setTrackingConsent(KOTrackingConsent consent, KOPendingData pendingData = KOPendingData::Discard);
  KOTrackingConsent trackingConsent() const;
  /// The consent of an install where the app never chose one: Granted, unless an app that must ask
  /// first sets Pending (before the start). Not kept: set it at every launch.
  static void setDefaultTrackingConsent(KOTrackingConsent consent);
  /// Removes everything the SDK keeps on the device (files, preferences, app-group entries,
  /// keychain items), stops its region monitoring, timers and requests, and leaves it as on a
  /// fresh install: the SDK does nothing more until the app's next launch.
  void wipeData(const KOWipeOptions& options = {});
  /// Everything the device keeps about the user, for an access request: {"consent", "identifiers",
  /// "attributes", "events" (not yet accepted by the service), "inbox", "inAppStatistics", "push",
  /// "geofences" (watched now), "appGroup"}, each under the names the SDK keeps it by.
  KOValue exportUserData();
  /// The same as JSON (dates as seconds since 1970, data as hexadecimal text); "" on failure.
  std::string exportUserDataJSON();

  // ------------------------------------------------------------------------------- push
  /// Asks for permission (badge, sound, alert), registers for remote notifications and installs
  /// the categories: the first set on systems with the current notification interface (10.0 and
  /// later), the second (KONotificationCategory objects) on older ones. A member of the wrong
  /// kind is logged and registration goes on.
  void registerForRemoteNotificationWithCategories(
      const KONotificationCategorySet& categories,
      const KONotificationCategorySet& andCategoriesForPreviousVersions = {},
      std::shared_ptr<KOUserNotificationCenterDelegate> andWithUserNotificationCenterDelegate = nullptr);
  /// The device token the system delivered (data, 32 bytes). A new or changed token is saved and
  /// the device registered again; the same token again does nothing.
  void registerForPush(const KOValue& deviceToken);
  /// Marks push as on for the user and saves the token (hexadecimal text).
  void saveAndRegisterWithToken(const KOValue& token);
  void didFailToRegisterForPush();
  /// The older interface's answer: the granted types (0 when the user refused).
  void didRegisterForUserNotificationSettings(int grantedTypes);
  /// Installs the categories plus the SDK's own dismiss category, and tells the service once per
  /// application version. Does nothing on systems before 10.0.
  void setUserNotificationCategories(const KONotificationCategorySet& categories);
  /// The same for older systems (no dismiss category, nothing installed here).
  void setNotificationCategoriesForEarlieriOSVersionsWithCategories(const KONotificationCategorySet& categories);

  /// A push delivered to the app delegate (forward it from there). Opened while the app was
  /// inactive it records the click and carries out the push's follow-up (coupon dialog, deep link
  /// when openDeeplinkUrlAutomatically, landing page, in-app campaign); arrived while active it
  /// shows its in-app campaign and records the receipt; in the background it does nothing.
  void didReceieveNotificationinApplication(KOApplication* application, const KOValue& withInfo,
                                            bool openDeeplinkUrlAutomatically = true);
  /// The user's answer to a notification, from the notification centre's delegate (systems with
  /// the current interface): dismissals are recorded and sent at once, a tap opens the push (deep
  /// links as chosen at start), an action button records the click with its title.
  void userNotificationCenter(KOUserNotificationCenter* center,
                              const KONotificationResponse& didReceiveNotificationResponse);
  /// An action button tapped on older systems (the app delegate's action callback).
  void handleActionWithIdentifier(const KOValue& identifier, const KOValue& forRemoteNotification);
  /// The platform browser's delegate call: the user is done with a landing page; it is dismissed.
  void safariViewControllerDidFinish(std::shared_ptr<KOPresentedScreen> controller);

  // ------------------------------------------------------------ lifecycle and sessions
  void addObserverForApplicationLifeCycle();
  void applicationIsActive(const KODictionary& notification = {});
  void applicationIsInactive(const KODictionary& notification = {});
  void applicationEnteredForeground(const KODictionary& notification = {});
  void applicationEnteredBackground(const KODictionary& notification = {});
  void sessionStarted();
  void updateModules();
  void syncOnSessionTerminationWithApplication(KOApplication* application);
  /// Sends every stored batch and the events in memory now.
  void syncNow();
  /// Like syncNow(), then calls the completion on the main queue once that sync has ended and its
  /// outcome is on disk: true when nothing is left waiting for the service. For a host that must
  /// know its data left the device (before a logout screen, at the end of a test). Without an
  /// installed platform it answers false at once, on the calling thread.
  void flush(std::function<void(bool allDelivered)> completion);
  void initNewUser();
  /// Registers the device with the service unless it already is.
  void addDeviceWithCompletion(std::function<void(bool)> completion = nullptr);
  void setModelDeviceAttribute();
  void queryForAdvertisingID();
  void trackLocale();
  void setDeviceAttribute(const KOValue& value, const KOValue& forKey);
  /// Logout: tracks "KOV_LOGOUT", sends what is stored, then clears the user's data.
  void resetUser();

  // ------------------------------------------------------------------------------ inbox
  /// Fetches new inbox messages from the service (KOInbox lists and deletes them).
  void getInboxMessages();

  // In-app messages.
  /// Shows the best stored campaign the rules allow on the top screen (or the one given).
  void handleInAppMessage();
  void handleInAppMessageForViewController(const KOViewController* viewController);
  /// The first self-handled campaign the rules allow on the top screen (or the one given) goes to
  /// the delegate's selfHandledInAppWithData; the host reports what it did with the calls below.
  void getSelfHandledInApp();
  void getSelfHandledInAppForViewController(const KOViewController* viewController);
  void selfHandledInAppViewShownWithCampaignID(const std::string& campaignID);
  void selfHandledInAppClickedWithPrimaryActionAndCampaignID(const std::string& campaignID);
  void selfHandledInAppClickedWithSecondaryActionAndCampaignID(const std::string& campaignID);
  void selfHandledInAppClickedWithDismissActionAndCampaignID(const std::string& campaignID);
  // Nudges: campaigns shown inside a screen. The completion hears the nudge's view description
  // (empty without one) and its campaign id; a host that places it itself reports the showing.
  void getNudgeViewWithCompletionBlock(
      const std::function<void(const KOViewDescription& nudge, const std::string& campaignID)>& completion);
  void getNudgeViewForViewController(
      const KOViewController* viewController,
      const std::function<void(const KOViewDescription& nudge, const std::string& campaignID)>& andCompletionBlock);
  void nudgeViewShownWithCampaignID(const std::string& campaignID);
  /// The SDK shows the nudge itself, at the top or bottom of the screen (the top one when none).
  void showNudgeViewAtNudgePosition(int position);
  void showNudgeViewInViewController(const KOViewController* viewController, int atNudgePosition);
  /// No in-app shows on this screen from now on.
  void dontShowInAppInViewController(const KOViewController* viewController);
  /// Every stored campaign with whether it would show now on the screen (the top one when none is
  /// given) and, if not, the first rule that refuses it: [{"cid", "type", "shows", "refusedBy",
  /// "minutesLeft"}] in the order campaigns are considered. "refusedBy" is one of "wrongType",
  /// "globalDelay", "expired", "messageDelay", "clicked", "shownMaxTimes", "keyboard",
  /// "otherScreen", "blockedScreen", "imagesFailed".
  KOArray inAppDecisionReport(const KOViewController* viewController = nullptr);

  // -------------------------------------------------------------------------- geofences
  /// Monitors the service's fences near the device through the host's location manager (one of
  /// the SDK's own when none is given), becoming its delegate. Asks for location permission; the
  /// fences are fetched once per process, for the given location at once or else for the first
  /// location update.
  void startGeofencingWithLocationManager(std::shared_ptr<KOLocationManager> locationManager,
                                          std::optional<KOLocation> andCurrentLocation = std::nullopt);
  /// The host's observer of region entries and exits, told before the SDK reports them (held
  /// weakly: the host keeps it alive).
  void setGeoDelegate(std::weak_ptr<KOGeoDelegate> delegate);

 private:
  /// Connects the handlers that hear of the lifecycle and of a user reset by notification.
  Kovantis();
  void start(const KOValue& apiKey, KOApplication* application, const KODictionary& launchOptions,
             bool openDeeplinkUrlAutomatically);

  /// Whether the app id passed matches the stored one; another id resets the user and ends the
  /// start there.
  bool sameAppId(const KOValue& apiKey);
  /// What every start runs once the app id is settled.
  void startModules(bool openDeeplinkUrlAutomatically);

  std::atomic<KOBackgroundTaskIdentifier> bgTask_{KOBackgroundTaskInvalid};
  std::once_flag lifecycleObservers_;
};

#pragma GCC visibility pop
