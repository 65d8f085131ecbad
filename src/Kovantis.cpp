#include "kovantis/Kovantis.h"

#include "KODataHandler/KODeviceHandler.h"
#include "KODataHandler/KOEventsHandler.h"
#include "KODataHandler/KOUserAttributesHandler.h"
#include "KOGeofence/KOGeofenceHandler.h"
#include "KOInAppV2/InAppHandlers/KOInAppV2Handler.h"
#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOInAppV2/Nudges/KONudgesHandler.h"
#include "KOInbox/KOInboxHandler.h"
#include "KONotification/KONotificationHandler.h"
#include "KOPrivacy/KOPrivacyHandler.h"
#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOSDKSettings.h"
#include "KOUtilities/KOStackTrace.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"

namespace {

constexpr const char* kMissingAppId = "Kovantis - Please check the initialize call. You have missed the APP ID";

const KOPlatform& platform() { return KOPlatform::current(); }
KOPreferenceStore& prefs() { return platform().preferences->standard(); }

bool emptyText(const KOValue& v) { return !v.isString() || v.stringValue().empty(); }

KOSDKSettings& settings() { return KOSDKSettings::shared(); }
KOEventsHandler& events() { return KOEventsHandler::sharedInstance(); }
KOUserAttributesHandler& attributes() { return KOUserAttributesHandler::sharedInstance(); }
KODeviceHandler& device() { return KODeviceHandler::sharedInstance(); }
KONotificationHandler& push() { return KONotificationHandler::sharedInstance(); }
KOInAppV2Handler& inApps() { return KOInAppV2Handler::sharedInstance(); }
KONudgesHandler& nudges() { return KONudgesHandler::sharedInstance(); }
KOPrivacyHandler& privacy() { return KOPrivacyHandler::sharedInstance(); }

// Handlers subscribe to what they care about when created; create them before anything can post
// it (a reset can come before or without a start, an event before the in-app fetch).
void createHandlers() {
  attributes();
  KOInAppV2Manager::sharedInstance();
  inApps();
  KOInboxHandler::sharedInstance();
  push();
}

}  // namespace

Kovantis& Kovantis::sharedInstance() {
  static auto* instance = new Kovantis();
  return *instance;
}

Kovantis::Kovantis() {
  // Without a platform they cannot be made yet: the start makes them, and each call before it
  // logs why it did nothing (a flush answers at once).
  KOLogger::guard(KO_HERE, this, "Kovantis - exception : %@", [] { createHandlers(); });
}

// The switches live below the handlers, which read them there.
bool Kovantis::disableInbox() const { return settings().disableInbox(); }
void Kovantis::setDisableInbox(bool value) { settings().setDisableInbox(value); }
bool Kovantis::disableInApps() const { return settings().disableInApps(); }
void Kovantis::setDisableInApps(bool value) { settings().setDisableInApps(value); }
bool Kovantis::disableBadgeReset() const { return settings().disableBadgeReset(); }
void Kovantis::setDisableBadgeReset(bool value) { settings().setDisableBadgeReset(value); }
std::shared_ptr<KOInAppDelegate> Kovantis::delegate() const { return settings().inAppDelegate(); }
void Kovantis::setDelegate(std::weak_ptr<KOInAppDelegate> delegate) {
  settings().setInAppDelegate(std::move(delegate));
}

// ------------------------------------------------------------------------------------------ start

void Kovantis::initializeDevWithApiKey(const KOValue& apiKey, KOApplication* inApplication,
                                       const KODictionary& withLaunchOptions, bool openDeeplinkUrlAutomatically) {
  if (emptyText(apiKey)) {
    KOLogger::logLocated(KO_HERE, this, KOLogSeverityException, kMissingAppId);
    return;
  }
  start(KOValue(apiKey.stringValue() + "_DEBUG"), inApplication, withLaunchOptions, openDeeplinkUrlAutomatically);
}

void Kovantis::initializeProdWithApiKey(const KOValue& apiKey, KOApplication* inApplication,
                                        const KODictionary& withLaunchOptions, bool openDeeplinkUrlAutomatically) {
  start(apiKey, inApplication, withLaunchOptions, openDeeplinkUrlAutomatically);
}
void Kovantis::initializeWithApiKey(const KOValue& apiKey, KOApplication* inApplication,
                                    const KODictionary& withLaunchOptions, bool openDeeplinkUrlAutomatically) {
  start(apiKey, inApplication, withLaunchOptions, openDeeplinkUrlAutomatically);
}

void Kovantis::start(const KOValue& apiKey, KOApplication* application, const KODictionary& launchOptions,
                     bool openDeeplinkUrlAutomatically) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in initialize is %@", [&] {
    privacy().launched();
    if (KOConsentGate::shared().stopped()) {
      KOLogger::logPlain("Kovantis - The SDK's data was wiped in this launch: it starts again at the next one");
      return;
    }
    createHandlers();
    KOInAppV2Manager::removeV1InApps();
    checkReinstallAndSaveAppID(apiKey);
    push().handleLaunchPush(application, launchOptions, openDeeplinkUrlAutomatically);
    if (sameAppId(apiKey)) startModules(openDeeplinkUrlAutomatically);
  });
}

bool Kovantis::sameAppId(const KOValue& apiKey) {
  if (KovantisUtils::getAppId().description() == apiKey.description()) return true;
  // Another app id: the data so far belongs to another app. Nothing else starts on this launch.
  KovantisUtils::saveAppId(apiKey);
  resetUser();
  return false;
}

void Kovantis::startModules(bool openDeeplinkUrlAutomatically) {
  addObserverForApplicationLifeCycle();
  queryForAdvertisingID();
  settings().setHandleDeepLinks(openDeeplinkUrlAutomatically);
  updateModules();
  trackLocale();
}

void Kovantis::checkReinstallAndSaveAppID(const KOValue& appId) {
  if (!KovantisUtils::getAppId().isNil()) return device().checkOwedReinstall();
  if (emptyText(appId)) {
    KOLogger::logPlain(kMissingAppId);
    throw KOAssertionFailure(kMissingAppId);
  }
  KovantisUtils::saveAppId(appId);
  // Preferences that could not be read may hold an app id: this need not be a first start, so
  // nothing is decided on the id's absence. The store reads them again at the next start.
  if (!prefs().unreadable()) device().checkKeychainForReinstall();
}

void Kovantis::appStatus(int status) {
  try {
    const KOValue version = KovantisUtils::versionId();
    const KOValue stored = prefs().objectForKey(KOV_APP_VERSION_APP_STATUS);
    if (!stored.isNil()) {
      if (stored == version) return;
      prefs().setObject(version, KOV_APP_VERSION_APP_STATUS);
      prefs().synchronize();
      smartTriggerForAppStatus(KOAppStatusUpdate);  // a changed version is an update, whatever was passed
      return;
    }
    prefs().setObject(version, KOV_APP_VERSION_APP_STATUS);
    prefs().synchronize();
    smartTriggerForAppStatus(status);
  } catch (const std::exception& e) {
    KOLogger::logLocated(
        KO_HERE, this, KOLogSeverityException,
        KOStringFormat::format("Kovantis - Exception while tracking  INSTALL/UPDATE %@", {KOValue(e.what())}),
        KOValue(KOStackTrace::current()));
  }
}

void Kovantis::smartTriggerForAppStatus(int status) {
  try {
    if (status == KOAppStatusInstall) {
      if (KovantisUtils::installRegistered()) return;
      KovantisUtils::registerInstall();
    }
    const char* name = status == KOAppStatusInstall ? "INSTALL" : status == KOAppStatusUpdate ? "UPDATE" : nullptr;
    if (!name) return;
    trackEvent(KOValue(name));
    if (!disableInApps()) inApps().smartTriggerInAppForEvent(name, KOValue());
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception while tracking  INSTALL/UPDATE %@", e);
  }
}

void Kovantis::debug(int level) { KOLogger::debug(level); }

void Kovantis::setAppGroupID(const KOValue& groupId) {
  KOLogger::guard(KO_HERE, nullptr, "Kovantis - Exception : %@", [&] {
    if (emptyText(groupId)) return;
    prefs().setObject(groupId, KOV_APP_GROUP_ID_KEY);
    prefs().synchronize();
  });
}

void Kovantis::setDataRedirection(bool redirect) {
  KOLogger::guard(KO_HERE, nullptr, "Kovantis - Exception : %@", [&] {
    prefs().setObject(KOValue(redirect), KO_SHOULD_REDIRECT_DATA);
    prefs().synchronize();
  });
}

void Kovantis::applicationBecameActiveinApplication(KOApplication*) {
  KOLogger::logPlain("Kovantis - applicationBecameActiveinApplication method has been deprecated");
}
void Kovantis::applicationWillEnterForeground(KOApplication*) {
  KOLogger::logPlain("Kovantis - applicationWillEnterForeground method has been deprecated");
}
void Kovantis::applicationTerminated(KOApplication*) {
  KOLogger::logPlain("Kovantis - applicationTerminated method has been deprecated");
}
void Kovantis::stop(KOApplication*) { KOLogger::logPlain("Kovantis - stop method has been deprecated"); }

// ----------------------------------------------------------------------------------------- events

// Every recorded event also reaches the in-app trigger check, through the events handler.
void Kovantis::trackEvent(const KOValue& name, const KOValue& andPayload) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception is %@", [&] { events().trackEvent(name, andPayload); });
}
void Kovantis::trackEvent(const KOValue& name, KOPayloadBuilder& builderPayload) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception is %@", [&] { events().trackEvent(name, builderPayload); });
}

// -------------------------------------------------------------------------------- user attributes

void Kovantis::setUserAttribute(const KOValue& value, const KOValue& forKey) {
  attributes().trackUserAttribute(value, forKey);
}
void Kovantis::setUserAttributeTimestamp(double timeStamp, const KOValue& forKey) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception : %@",
                  [&] { attributes().setUserAttributeTimestamp(timeStamp, forKey); });
}
void Kovantis::setUserAttributeLocationLatitude(double latitude, double longitude, const KOValue& forKey) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception : %@",
                  [&] { attributes().setUserAttributeLocationLatitude(latitude, longitude, forKey); });
}
void Kovantis::setUserUniqueID(const KOValue& value) { setUserAttribute(value, KOValue(USER_ATTRIBUTE_UNIQUE_ID)); }
void Kovantis::setUserEmailID(const KOValue& value) { setUserAttribute(value, KOValue(USER_ATTRIBUTE_USER_EMAIL)); }
void Kovantis::setUserName(const KOValue& value) { setUserAttribute(value, KOValue(USER_ATTRIBUTE_USER_NAME)); }
void Kovantis::setUserFirstName(const KOValue& value) {
  setUserAttribute(value, KOValue(USER_ATTRIBUTE_USER_FIRST_NAME));
}
void Kovantis::setUserLastName(const KOValue& value) {
  setUserAttribute(value, KOValue(USER_ATTRIBUTE_USER_LAST_NAME));
}
void Kovantis::setUserMobileNo(const KOValue& value) { setUserAttribute(value, KOValue(USER_ATTRIBUTE_USER_MOBILE)); }

void Kovantis::setUserGender(int gender) {
  if (gender == KOUserGenderMale)
    setUserAttribute(KOValue("male"), KOValue(USER_ATTRIBUTE_USER_GENDER));
  else if (gender == KOUserGenderFemale)
    setUserAttribute(KOValue("female"), KOValue(USER_ATTRIBUTE_USER_GENDER));
}

void Kovantis::setUserDateOfBirth(const KOValue& date) {
  if (date.isDate()) setUserAttributeTimestamp(date.dateValue().secondsSince1970, KOValue(USER_ATTRIBUTE_USER_BDAY));
}
void Kovantis::setUserLocationLatitude(double latitude, double andLongitude) {
  setUserAttributeLocationLatitude(latitude, andLongitude, KOValue(USER_ATTRIBUTE_USER_LOCATION));
}

// ---------------------------------------------------------------------------------------- privacy

void Kovantis::setTrackingConsent(KOTrackingConsent consent, KOPendingData pendingData) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    // A grant lets the modules go on at once: configuration, inbox, in-apps and the held events.
    if (privacy().setTrackingConsent(consent, pendingData)) updateModules();
  });
}
KOTrackingConsent Kovantis::trackingConsent() const {
  try {
    return privacy().trackingConsent();
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception : %@", e);
    return KOTrackingConsent::Pending;
  }
}
void Kovantis::setDefaultTrackingConsent(KOTrackingConsent consent) {
  KOConsentGate::shared().setDefaultConsent(consent);
}
void Kovantis::wipeData(const KOWipeOptions& options) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] { privacy().wipeData(options); });
}
KOValue Kovantis::exportUserData() {
  KOValue exported;
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] { exported = privacy().exportUserData(); });
  return exported;
}
std::string Kovantis::exportUserDataJSON() {
  std::string exported;
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] { exported = privacy().exportUserDataJSON(); });
  return exported;
}

// ------------------------------------------------------------------------------------------- push

void Kovantis::registerForRemoteNotificationWithCategories(
    const KONotificationCategorySet& categories, const KONotificationCategorySet& andCategoriesForPreviousVersions,
    std::shared_ptr<KOUserNotificationCenterDelegate> andWithUserNotificationCenterDelegate) {
  push().registerForRemoteNotificationWithCategories(categories, andCategoriesForPreviousVersions,
                                                     std::move(andWithUserNotificationCenterDelegate));
}

void Kovantis::registerForPush(const KOValue& deviceToken) { push().registerForPush(deviceToken); }
void Kovantis::saveAndRegisterWithToken(const KOValue& token) { push().saveAndRegisterWithToken(token); }
void Kovantis::didFailToRegisterForPush() { push().didFailToRegisterForPush(); }
void Kovantis::didRegisterForUserNotificationSettings(int grantedTypes) {
  push().didRegisterForUserNotificationSettings(grantedTypes);
}
void Kovantis::setUserNotificationCategories(const KONotificationCategorySet& categories) {
  push().setUserNotificationCategories(categories);
}
void Kovantis::setNotificationCategoriesForEarlieriOSVersionsWithCategories(
    const KONotificationCategorySet& categories) {
  push().setNotificationCategoriesForEarlieriOSVersionsWithCategories(categories);
}

// ----------------------------------------------------------------------------------- push receipt

void Kovantis::didReceieveNotificationinApplication(KOApplication* application, const KOValue& withInfo,
                                                    bool openDeeplinkUrlAutomatically) {
  push().didReceieveNotificationinApplication(application, withInfo, openDeeplinkUrlAutomatically);
}
void Kovantis::userNotificationCenter(KOUserNotificationCenter* center,
                                      const KONotificationResponse& didReceiveNotificationResponse) {
  push().userNotificationCenter(center, didReceiveNotificationResponse);
}
void Kovantis::handleActionWithIdentifier(const KOValue& identifier, const KOValue& forRemoteNotification) {
  push().handleActionWithIdentifier(identifier, forRemoteNotification);
}
void Kovantis::safariViewControllerDidFinish(std::shared_ptr<KOPresentedScreen> controller) {
  KONotificationHandler::browserDidFinish(std::move(controller));
}

// -------------------------------------------------------------------------- lifecycle and sessions

void Kovantis::addObserverForApplicationLifeCycle() {
  // Once per process, however many starts: the facade lives as long as the process.
  std::call_once(lifecycleObservers_, [this] {
    KONotificationCenter& center = KONotificationCenter::defaultCenter();
    center.addObserver(KOApplicationDidBecomeActiveNotification,
                       [this](const KONotification& n) { applicationIsActive(n.userInfo); });
    center.addObserver(KOApplicationWillResignActiveNotification,
                       [this](const KONotification& n) { applicationIsInactive(n.userInfo); });
    center.addObserver(KOApplicationWillEnterForegroundNotification,
                       [this](const KONotification& n) { applicationEnteredForeground(n.userInfo); });
    center.addObserver(KOApplicationDidEnterBackgroundNotification,
                       [this](const KONotification& n) { applicationEnteredBackground(n.userInfo); });
    center.addObserver(KOApplicationWillTerminateNotification,
                       [this](const KONotification& n) { applicationEnteredBackground(n.userInfo); });
    center.addObserver(KOV_INIT_NEW_USER, [this](const KONotification&) { initNewUser(); });
  });
}

void Kovantis::applicationIsActive(const KODictionary&) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in application is active : %@", [&] { sessionStarted(); });
}
void Kovantis::sessionStarted() {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in Session start : %@", [&] {
    trackEvent(KOValue(EVENT_ACTION_IOS_SESSION_START));
    push().checkForPushPermission();  // the user may have changed it in the system's settings
  });
}

void Kovantis::applicationIsInactive(const KODictionary&) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in application is Inactive : %@", [&] {
    trackEvent(KOValue(EVENT_ACTION_IOS_SESSION_END));
    syncOnSessionTerminationWithApplication(platform().application.get());
  });
}

void Kovantis::applicationEnteredForeground(const KODictionary&) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in application did enter Foreground is %@",
                  [&] { updateModules(); });
}

void Kovantis::applicationEnteredBackground(const KODictionary&) {
  // Events of the next foreground period are no longer after the push opened in this one.
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in application did enter Background is %@",
                  [&] { push().setDidReceivePush(false); });
}

void Kovantis::updateModules() {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception while updating modules %@", [&] {
    KOServerInterface::sharedInstance().getConfigForKovantis();
    if (!disableInbox()) getInboxMessages();
    if (!disableInApps()) inApps().getInAppCampaigns();
    if (!KovantisUtils::getDeviceToken().isAbsent() && !disableBadgeReset()) {
      platform().application->setApplicationIconBadgeNumber(0);
    }
    events().syncToServerFromDumpFile();
    events().syncTrackedEventsInBackground(false, false, true);
  });
}

void Kovantis::getInboxMessages() { KOInboxHandler::getInboxMessagesWithCompletion(nullptr); }

// ---------------------------------------------------------------------------------------- in-apps

void Kovantis::handleInAppMessage() { handleInAppMessageForViewController(nullptr); }

void Kovantis::handleInAppMessageForViewController(const KOViewController* viewController) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    if (disableInApps() || !KOInAppV2Handler::canShowInAppWithPreConditions()) return;
    inApps().showInAppForViewController(viewController);
  });
}

void Kovantis::getSelfHandledInApp() { getSelfHandledInAppForViewController(nullptr); }

void Kovantis::getSelfHandledInAppForViewController(const KOViewController* viewController) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    if (disableInApps() || !KOInAppV2Handler::canShowInAppWithPreConditions()) return;
    inApps().getSelfHandledInAppForViewController(viewController);
  });
}

void Kovantis::selfHandledInAppViewShownWithCampaignID(const std::string& campaignID) {
  inApps().selfHandledInAppShownWithCampaignID(campaignID);
}
void Kovantis::selfHandledInAppClickedWithPrimaryActionAndCampaignID(const std::string& campaignID) {
  inApps().selfHandledInAppClickedWithPrimaryActionAndCampaignID(campaignID);
}
void Kovantis::selfHandledInAppClickedWithSecondaryActionAndCampaignID(const std::string& campaignID) {
  inApps().selfHandledInAppClickedWithSecondaryActionAndCampaignID(campaignID);
}
void Kovantis::selfHandledInAppClickedWithDismissActionAndCampaignID(const std::string& campaignID) {
  inApps().selfHandledInAppClickedWithDismissActionAndCampaignID(campaignID);
}
void Kovantis::getNudgeViewWithCompletionBlock(
    const std::function<void(const KOViewDescription&, const std::string&)>& completion) {
  getNudgeViewForViewController(nullptr, completion);
}

void Kovantis::getNudgeViewForViewController(
    const KOViewController* viewController,
    const std::function<void(const KOViewDescription&, const std::string&)>& andCompletionBlock) {
  nudges().getNudgeViewForViewController(viewController, andCompletionBlock);
}

void Kovantis::nudgeViewShownWithCampaignID(const std::string& campaignID) {
  nudges().nudgeShownWithCampaignID(campaignID);
}
void Kovantis::showNudgeViewAtNudgePosition(int position) {
  const auto top = KovantisUtils::getTopViewControllerForNudges();
  showNudgeViewInViewController(top.get(), position);
}
void Kovantis::showNudgeViewInViewController(const KOViewController* viewController, int atNudgePosition) {
  nudges().showNudgeInViewController(viewController, atNudgePosition);
}
void Kovantis::dontShowInAppInViewController(const KOViewController* viewController) {
  inApps().dontShowInAppInViewController(viewController);
}
KOArray Kovantis::inAppDecisionReport(const KOViewController* viewController) {
  return inApps().decisionReport(viewController);
}

// -------------------------------------------------------------------------------------- geofences

void Kovantis::startGeofencingWithLocationManager(std::shared_ptr<KOLocationManager> locationManager,
                                                  std::optional<KOLocation> andCurrentLocation) {
  KOGeofenceHandler::sharedInstance().startGeofenceWithManager(std::move(locationManager), andCurrentLocation);
}
void Kovantis::setGeoDelegate(std::weak_ptr<KOGeoDelegate> delegate) {
  KOGeofenceHandler::sharedInstance().setDelegate(std::move(delegate));
}

void Kovantis::syncOnSessionTerminationWithApplication(KOApplication* application) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception while trying to sync data : %@", [&] {
    bgTask_ = events().syncInBackgroundTask(application ? application : platform().application.get());
  });
}

void Kovantis::syncNow() {
  KOLogger::guard(KO_HERE, this, "Kovantis - SyncNow exception : %@",
                  [&] { events().syncTrackedEventsInBackground(false, false, false); });
}
void Kovantis::flush(std::function<void(bool allDelivered)> completion) {
  try {
    platform();
  } catch (const std::exception& e) {
    // Nothing can be sent, and there is no main queue to answer on: the answer comes at once.
    KOLogger::logException(KO_HERE, this, "Kovantis - SyncNow exception : %@", e);
    if (completion) completion(false);
    return;
  }
  KOLogger::guard(KO_HERE, this, "Kovantis - SyncNow exception : %@", [&] { events().flush(std::move(completion)); });
}

void Kovantis::initNewUser() {
  KOLogger::logPlain("Kovantis - Creating new user now");
  if (!disableInApps()) inApps().getInAppCampaigns();
  device().registerNewUser();
}

void Kovantis::addDeviceWithCompletion(std::function<void(bool)> completion) {
  device().addDeviceWithCompletion(std::move(completion));
}
void Kovantis::setModelDeviceAttribute() { device().setModelDeviceAttribute(); }
void Kovantis::queryForAdvertisingID() { device().queryForAdvertisingID(); }
void Kovantis::trackLocale() { device().trackLocale(); }
void Kovantis::setDeviceAttribute(const KOValue& value, const KOValue& forKey) {
  device().setDeviceAttribute(value, forKey);
}

void Kovantis::resetUser() {
  KOLogger::guard(KO_HERE, this, "Kovantis - Reset User exception : %@", [&] {
    trackEvent(KOValue(KOV_LOGOUT));
    events().syncTrackedEventsInBackground(false, true, false);
  });
}
