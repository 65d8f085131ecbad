#include "kovantis/Kovantis.h"

#include <cstdlib>

#include "KODataHandler/KOEventsHandler.h"
#include "KODataHandler/KOUserAttributesHandler.h"
#include "KOGeofence/KOGeofenceHandler.h"
#include "KOInAppV2/InAppHandlers/KOInAppV2ActionHandler.h"
#include "KOInAppV2/InAppHandlers/KOInAppV2Handler.h"
#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOInAppV2/Nudges/KONudgesHandler.h"
#include "KOInbox/KOInboxHandler.h"
#include "KONotification/KONotificationHandler.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOKeychain.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStackTrace.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KOValueHelpers.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"

namespace {

constexpr const char* kMissingAppId = "Kovantis - Please check the initialize call. You have missed the APP ID";

const KOPlatform& platform() { return KOPlatform::current(); }
KOPreferenceStore& prefs() { return platform().preferences->standard(); }

bool emptyText(const KOValue& v) { return !v.isString() || v.stringValue().empty(); }

std::string keychainService() {
  return KOStringFormat::format("%@.%@", {KOValue(KO_KEYCHAIN_SERVICE), KovantisUtils::bundleIdentifier()});
}

// The operating system's major and minor version as one number (17.4 -> 17.4).
double systemVersionNumber() { return std::strtod(KovantisUtils::getDeviceSystemVersion().c_str(), nullptr); }

}  // namespace

Kovantis& Kovantis::sharedInstance() {
  static auto* instance = new Kovantis();
  return *instance;
}

Kovantis::Kovantis() {
  // Handlers subscribe to what they care about when created; create them before anything can
  // post it (a reset can come before or without a start).
  KOUserAttributesHandler::sharedInstance();
  KOInAppV2Manager::sharedInstance();
  KOInboxHandler::sharedInstance();
  // In-app actions track, set attributes and ask for push exactly as the host's own calls do.
  KOInAppV2ActionHandler::sharedInstance().setHost(KOInAppV2ActionHandler::Host{
      [this](const KOValue& name, const KOValue& payload) { trackEvent(name, payload); },
      [this](const KOValue& value, const KOValue& key) { setUserAttribute(value, key); },
      [this] { registerForRemoteNotificationWithCategories({}); },
      [this] { return delegate(); },
  });
  // Push events are tracked as the host's are (so they reach the in-app trigger check), and the
  // facade is the platform browser's delegate.
  KONotificationHandler::sharedInstance().setHost(KONotificationHandler::Host{
      [this](const KOValue& name, const KOValue& payload) { trackEvent(name, payload); },
      [this] { syncNow(); },
      [this] { return disableBadgeReset(); },
      [this] { return disableInbox(); },
      [this](std::shared_ptr<KOPresentedScreen> browser) { safariViewControllerDidFinish(std::move(browser)); },
  });
}

std::shared_ptr<KOInAppDelegate> Kovantis::delegate() const {
  std::lock_guard<std::mutex> lock(delegateMutex_);
  return delegate_.lock();
}

void Kovantis::setDelegate(std::weak_ptr<KOInAppDelegate> delegate) {
  std::lock_guard<std::mutex> lock(delegateMutex_);
  delegate_ = std::move(delegate);
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
    KOInAppV2Manager::removeV1InApps();
    checkReinstallAndSaveAppID(apiKey);
    handleLaunchPush(application, launchOptions, openDeeplinkUrlAutomatically);
    const KOValue stored = KovantisUtils::getAppId();
    if (stored.description() != apiKey.description()) {
      // Another app id: the data so far belongs to another app. Nothing else starts on this launch.
      KovantisUtils::saveAppId(apiKey);
      resetUser();
      return;
    }
    KONotificationHandler::sharedInstance().observeSessionStarts();
    addObserverForApplicationLifeCycle();
    queryForAdvertisingID();
    KONotificationHandler::sharedInstance().setHandleDeepLinks(openDeeplinkUrlAutomatically);
    updateModules();
    trackLocale();
  });
}

void Kovantis::handleLaunchPush(KOApplication* application, const KODictionary& launchOptions,
                                bool openDeeplinkUrlAutomatically) {
  // Where the platform will deliver the tap to a delegate that answers responses, that answer
  // handles it; handling it here too would count the click twice.
  if (systemVersionNumber() >= 10.0) {
    const std::shared_ptr<KOUserNotificationCenterDelegate> centerDelegate = platform().notificationCenter->delegate();
    if (platform().application->delegateHandlesNotificationResponses() ||
        (centerDelegate && centerDelegate->handlesNotificationResponses())) {
      return;
    }
  }
  const KOValue& payload = safeObjectForKey(launchOptions, KOApplicationLaunchOptionsRemoteNotificationKey);
  if (payload.isNil()) return;
  // A block that is no dictionary throws here, and the start ends with its line.
  if (!KONotificationHandler::shouldProcessNotificationKovantisDict(validObjectForKey(payload, kKovantis))) return;
  KONotificationHandler::sharedInstance().handlePushNotificationInApplication(
      application ? application : platform().application.get(), payload, openDeeplinkUrlAutomatically);
}

void Kovantis::checkReinstallAndSaveAppID(const KOValue& appId) {
  if (!KovantisUtils::getAppId().isNil()) return;
  if (emptyText(appId)) {
    KOLogger::logPlain(kMissingAppId);
    throw KOAssertionFailure(kMissingAppId);
  }
  KovantisUtils::saveAppId(appId);
  // The keychain outlives the app: an item from an earlier install means this is a reinstall.
  if (!KOKeychain::keychainItem(keychainService()).empty()) trackEvent(KOValue("REINSTALL"));
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
    if (!disableInApps_) KOInAppV2Handler::sharedInstance().smartTriggerInAppForEvent(name, KOValue());
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

void Kovantis::trackEvent(const KOValue& name, const KOValue& andPayload) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception is %@",
                  [&] { KOEventsHandler::sharedInstance().trackEvent(name, andPayload); });
  checkInAppTrigger(name, andPayload);
}

void Kovantis::trackEvent(const KOValue& name, KOPayloadBuilder& builderPayload) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception is %@",
                  [&] { KOEventsHandler::sharedInstance().trackEvent(name, builderPayload); });
  checkInAppTrigger(name, KOValue());
}

// -------------------------------------------------------------------------------- user attributes

void Kovantis::setUserAttribute(const KOValue& value, const KOValue& forKey) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception : %@", [&] {
    if (KOUserAttributesHandler::sharedInstance().setUserAttribute(value, forKey)) {
      KOLogger::logPlain(KOStringFormat::format("Kovantis - UserAttribute %@ tracked with Value %@", {forKey, value}));
    } else {
      KOLogger::logPlain("Kovantis - UserAttribute wasn't tracked as it was already present OR the key/value was nil");
    }
  });
}

void Kovantis::setUserAttributeTimestamp(double timeStamp, const KOValue& forKey) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception : %@",
                  [&] { KOUserAttributesHandler::sharedInstance().setUserAttributeTimestamp(timeStamp, forKey); });
}

void Kovantis::setUserAttributeLocationLatitude(double latitude, double longitude, const KOValue& forKey) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception : %@", [&] {
    KOUserAttributesHandler::sharedInstance().setUserAttributeLocationLatitude(latitude, longitude, forKey);
  });
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

// ------------------------------------------------------------------------------------------- push

namespace {

// The members of one generation, in order; the first member of another kind is logged (once) and
// skipped, and registration goes on.
template <typename Category>
std::vector<std::shared_ptr<Category>> membersOfKind(const KONotificationCategorySet& set, const char* wrongKindLine) {
  std::vector<std::shared_ptr<Category>> members;
  if (!set) return members;
  bool logged = false;
  for (const auto& member : *set) {
    if (auto typed = std::dynamic_pointer_cast<Category>(member)) {
      members.push_back(std::move(typed));
    } else if (!logged) {
      KOLogger::logPlain(wrongKindLine);
      logged = true;
    }
  }
  return members;
}

constexpr const char* kNotUNCategory = "Kovantis - Categories are not of type UNNotificationCategory";
constexpr const char* kNotKOCategory = "Kovantis - Categories are not of type KONotificationCategory";

// Steps shared by both generations: a new application version means the categories go to the
// service again; then they are handed over unless the service already has them.
bool categoriesDueForService() {
  const KOValue version = KovantisUtils::versionId();
  const KOValue stored = prefs().objectForKey(KOV_APP_VERSION);
  if (stored.isNil() || !(stored == version)) {
    prefs().setObject(KOValue(false), KOV_NOTIFICATION_CATEGORIES_SENT);
    prefs().setObject(version, KOV_APP_VERSION);
    prefs().synchronize();
  }
  const KOValue sent = prefs().objectForKey(KOV_NOTIFICATION_CATEGORIES_SENT);
  return !(sent.isNumber() && sent.boolValue());
}

}  // namespace

void Kovantis::registerForRemoteNotificationWithCategories(
    const KONotificationCategorySet& categories, const KONotificationCategorySet& andCategoriesForPreviousVersions,
    std::shared_ptr<KOUserNotificationCenterDelegate> andWithUserNotificationCenterDelegate) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - Exception while registering for push : %@", [&] {
    KOUserNotificationCenter& center = *platform().notificationCenter;
    if (KONotificationHandler::usesCurrentNotificationInterface()) {
      membersOfKind<KOUserNotificationCategory>(categories, kNotUNCategory);
      platform().application->registerForRemoteNotifications();
      center.requestAuthorizationWithOptions(
          KOUserNotificationOptionBadge | KOUserNotificationOptionSound | KOUserNotificationOptionAlert,
          [](bool granted, std::optional<std::string> error) {
            // Only logged: the preference is settled by the next permission check.
            if (granted) {
              KOLogger::logPlain("Kovantis - Push permission granted");
            } else {
              KOLogger::logPlain(KOStringFormat::format("Kovantis - Push permission denied : %@",
                                                        {error ? KOValue(*error) : KOValue()}));
            }
          });
      setUserNotificationCategories(categories);
      center.setDelegate(std::move(andWithUserNotificationCenterDelegate));
    } else {
      auto older = membersOfKind<KOMutableUserNotificationCategory>(andCategoriesForPreviousVersions, kNotKOCategory);
      center.registerUserNotificationSettings(
          KOUserNotificationOptionBadge | KOUserNotificationOptionSound | KOUserNotificationOptionAlert,
          std::move(older));
      platform().application->registerForRemoteNotifications();
      setNotificationCategoriesForEarlieriOSVersionsWithCategories(andCategoriesForPreviousVersions);
    }
  });
}

void Kovantis::registerForPush(const KOValue& deviceToken) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - Exception while registering for push %@", [&] {
    const KOValue token = KovantisUtils::hexTokenForData(deviceToken);
    if (!token.isString() || token.stringValue().empty()) throw std::invalid_argument("no device token");
    if (const std::size_t bytes = deviceToken.dataValue().bytes.size(); bytes != 32) {
      KOLogger::logPlain(KOStringFormat::format("Kovantis - Unexpected device token length %@",
                                                {KOValue(static_cast<std::int64_t>(bytes))}));
    }
    const KOValue stored = KovantisUtils::getDeviceToken();
    if (!stored.isNil() && stored == token) return;  // the same token: the service has it
    saveAndRegisterWithToken(token);
    addDeviceWithCompletion([](bool) {});
  });
}

void Kovantis::saveAndRegisterWithToken(const KOValue& token) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - Exception while registering for push %@", [&] {
    setUserAttribute(KOValue(true), KOValue(KO_PUSH_PREFERENCE));
    KovantisUtils::saveDeviceToken(token);
  });
}

void Kovantis::didFailToRegisterForPush() { KONotificationHandler::sharedInstance().didFailToRegisterForPush(); }

void Kovantis::didRegisterForUserNotificationSettings(int grantedTypes) {
  KONotificationHandler::sharedInstance().didRegisterForUserNotificationSettings(grantedTypes);
}

void Kovantis::setUserNotificationCategories(const KONotificationCategorySet& categories) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - exception while setting categories : %@", [&] {
    if (!KONotificationHandler::usesCurrentNotificationInterface()) return;
    auto installed = membersOfKind<KOUserNotificationCategory>(categories, kNotUNCategory);
    // The SDK's own category: a swipe-away reaches the app as a dismiss action.
    auto dismiss = std::make_shared<KOUserNotificationCategory>();
    dismiss->identifier = KOV_DISMISS_CATEGORY;
    dismiss->actions.push_back(KONotificationAction{KOV_DISMISS_ACTION, "Dismiss", 2});
    dismiss->options = 1;
    installed.push_back(dismiss);
    platform().notificationCenter->setNotificationCategories(installed);
    if (categoriesDueForService()) KONotificationHandler::sharedInstance().setNotificationCategories(installed);
  });
}

void Kovantis::setNotificationCategoriesForEarlieriOSVersionsWithCategories(
    const KONotificationCategorySet& categories) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - exception while setting categories : %@", [&] {
    auto older = membersOfKind<KONotificationCategory>(categories, kNotKOCategory);
    if (categoriesDueForService())
      KONotificationHandler::sharedInstance().setNotificationCategoriesForEarlierVersions(older);
  });
}

// ----------------------------------------------------------------------------------- push receipt

void Kovantis::didReceieveNotificationinApplication(KOApplication* application, const KOValue& withInfo,
                                                    bool openDeeplinkUrlAutomatically) {
  KONotificationHandler::sharedInstance().didReceieveNotificationinApplication(application, withInfo,
                                                                               openDeeplinkUrlAutomatically);
}

void Kovantis::userNotificationCenter(KOUserNotificationCenter* center,
                                      const KONotificationResponse& didReceiveNotificationResponse) {
  KONotificationHandler::sharedInstance().userNotificationCenter(center, didReceiveNotificationResponse);
}

void Kovantis::handleActionWithIdentifier(const KOValue& identifier, const KOValue& forRemoteNotification) {
  KONotificationHandler::sharedInstance().handleActionWithIdentifier(identifier, forRemoteNotification);
}

void Kovantis::safariViewControllerDidFinish(std::shared_ptr<KOPresentedScreen> controller) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    if (controller) controller->remove();
  });
}

// -------------------------------------------------------------------------- lifecycle and sessions

void Kovantis::addObserverForApplicationLifeCycle() {
  KONotificationCenter& center = KONotificationCenter::defaultCenter();
  observers_.push_back(center.addObserver(KOApplicationDidBecomeActiveNotification,
                                          [this](const KONotification& n) { applicationIsActive(n.userInfo); }));
  observers_.push_back(center.addObserver(KOApplicationWillResignActiveNotification,
                                          [this](const KONotification& n) { applicationIsInactive(n.userInfo); }));
  observers_.push_back(
      center.addObserver(KOApplicationWillEnterForegroundNotification,
                         [this](const KONotification& n) { applicationEnteredForeground(n.userInfo); }));
  observers_.push_back(center.addObserver(KOApplicationDidEnterBackgroundNotification, [this](const KONotification& n) {
    applicationEnteredBackground(n.userInfo);
  }));
  observers_.push_back(center.addObserver(KOApplicationWillTerminateNotification, [this](const KONotification& n) {
    applicationEnteredBackground(n.userInfo);
  }));
  observers_.push_back(center.addObserver(KOV_INIT_NEW_USER, [this](const KONotification&) { initNewUser(); }));
}

void Kovantis::applicationIsActive(const KODictionary&) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in application is active : %@", [&] { sessionStarted(); });
}

void Kovantis::sessionStarted() {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in Session start : %@",
                  [&] { trackEvent(KOValue(EVENT_ACTION_IOS_SESSION_START)); });
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
                  [&] { KONotificationHandler::sharedInstance().setDidReceivePush(false); });
}

void Kovantis::updateModules() {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception while updating modules %@", [&] {
    KOServerInterface::sharedInstance().getConfigForKovantis();
    if (!disableInbox_) getInboxMessages();
    if (!disableInApps_) KOInAppV2Handler::sharedInstance().getInAppCampaigns();
    if (!KovantisUtils::getDeviceToken().isAbsent() && !disableBadgeReset_) {
      platform().application->setApplicationIconBadgeNumber(0);
    }
    KOEventsHandler& events = KOEventsHandler::sharedInstance();
    events.syncToServerFromDumpFile();
    events.syncTrackedEventsInBackground(false, false, true);
  });
}

void Kovantis::getInboxMessages() { KOInboxHandler::getInboxMessagesWithCompletion(nullptr); }

// ---------------------------------------------------------------------------------------- in-apps

void Kovantis::checkInAppTrigger(const KOValue& name, const KOValue& payload) {
  if (disableInApps_ || !name.isString()) return;
  KOInAppV2Handler::sharedInstance().checkTriggerWithEventName(name.stringValue(), payload);
}

void Kovantis::handleInAppMessage() { handleInAppMessageForViewController(nullptr); }

void Kovantis::handleInAppMessageForViewController(const KOViewController* viewController) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    if (disableInApps_ || !KOInAppV2Handler::canShowInAppWithPreConditions()) return;
    KOInAppV2Handler::sharedInstance().showInAppForViewController(viewController);
  });
}

void Kovantis::getSelfHandledInApp() { getSelfHandledInAppForViewController(nullptr); }

void Kovantis::getSelfHandledInAppForViewController(const KOViewController* viewController) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    if (disableInApps_ || !KOInAppV2Handler::canShowInAppWithPreConditions()) return;
    KOInAppV2Handler::sharedInstance().getSelfHandledInAppForViewController(viewController);
  });
}

void Kovantis::selfHandledInAppViewShownWithCampaignID(const std::string& campaignID) {
  KOInAppV2Handler::sharedInstance().selfHandledInAppShownWithCampaignID(campaignID);
}

void Kovantis::selfHandledInAppClickedWithPrimaryActionAndCampaignID(const std::string& campaignID) {
  KOInAppV2Handler::sharedInstance().selfHandledInAppClickedWithPrimaryActionAndCampaignID(campaignID);
}

void Kovantis::selfHandledInAppClickedWithSecondaryActionAndCampaignID(const std::string& campaignID) {
  KOInAppV2Handler::sharedInstance().selfHandledInAppClickedWithSecondaryActionAndCampaignID(campaignID);
}

void Kovantis::selfHandledInAppClickedWithDismissActionAndCampaignID(const std::string& campaignID) {
  KOInAppV2Handler::sharedInstance().selfHandledInAppClickedWithDismissActionAndCampaignID(campaignID);
}

void Kovantis::getNudgeViewWithCompletionBlock(
    const std::function<void(const KOViewDescription&, const std::string&)>& completion) {
  getNudgeViewForViewController(nullptr, completion);
}

void Kovantis::getNudgeViewForViewController(
    const KOViewController* viewController,
    const std::function<void(const KOViewDescription&, const std::string&)>& andCompletionBlock) {
  if (disableInApps_) return;
  KONudgesHandler::sharedInstance().getNudgeViewForViewController(viewController, andCompletionBlock);
}

void Kovantis::nudgeViewShownWithCampaignID(const std::string& campaignID) {
  KONudgesHandler::sharedInstance().nudgeShownWithCampaignID(campaignID);
}

void Kovantis::showNudgeViewAtNudgePosition(int position) {
  const auto top = KovantisUtils::getTopViewControllerForNudges();
  showNudgeViewInViewController(top.get(), position);
}

void Kovantis::showNudgeViewInViewController(const KOViewController* viewController, int atNudgePosition) {
  if (disableInApps_) return;
  KONudgesHandler::sharedInstance().showNudgeInViewController(viewController, atNudgePosition);
}

void Kovantis::dontShowInAppInViewController(const KOViewController* viewController) {
  KOInAppV2Handler::sharedInstance().dontShowInAppInViewController(viewController);
}

KOArray Kovantis::inAppDecisionReport(const KOViewController* viewController) {
  return KOInAppV2Handler::sharedInstance().decisionReport(viewController);
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
    KOApplication* app = application ? application : platform().application.get();
    auto task = std::make_shared<std::atomic<KOBackgroundTaskIdentifier>>(KOBackgroundTaskInvalid);
    *task = app->beginBackgroundTask(KOV_BACKGROUND_TASK_NAME, [app, task] { app->endBackgroundTask(*task); });
    bgTask_ = task->load();
    KOEventsHandler::sharedInstance().setBgTask(task->load());
    KOEventsHandler::sharedInstance().syncTrackedEventsInBackground(true, false, false);  // queues the sync itself
  });
}

void Kovantis::syncNow() {
  KOLogger::guard(KO_HERE, this, "Kovantis - SyncNow exception : %@",
                  [&] { KOEventsHandler::sharedInstance().syncTrackedEventsInBackground(false, false, false); });
}

void Kovantis::flush(std::function<void(bool allDelivered)> completion) {
  KOLogger::guard(KO_HERE, this, "Kovantis - SyncNow exception : %@",
                  [&] { KOEventsHandler::sharedInstance().flush(std::move(completion)); });
}

void Kovantis::initNewUser() {
  KOLogger::logPlain("Kovantis - Creating new user now");
  if (!disableInApps_) KOInAppV2Handler::sharedInstance().getInAppCampaigns();
  addDeviceWithCompletion([this](bool registered) {
    try {
      const KOValue advertisingId = KovantisUtils::getSavedAdvertisingID();
      if (registered && !advertisingId.isAbsent()) {
        setUserAttribute(advertisingId, KOValue(KO_ADVERTISING_IDENTIFIER));
        setDeviceAttribute(advertisingId, KOValue(KO_ADVERTISING_IDENTIFIER));
      }
    } catch (const std::exception& e) {
      KOLogger::logException(KO_HERE, this, "Kovantis - exception : %@", e);
    }
  });
}

void Kovantis::addDeviceWithCompletion(std::function<void(bool)> completion) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception in device add call %@", [&] {
    if (emptyText(KovantisUtils::getAppId())) {
      KOLogger::logPlain("Kovantis - Please initialze the app with the api key in did finish launching");
      return;
    }
    if (KovantisUtils::isUserRegisteredForV2()) {
      KOLogger::logPlain("Kovantis - could not register for push");
      return;
    }
    KOServerInterface::sharedInstance().initializeWith({}, [this, completion](bool) {
      try {
        // Registered whatever the answer: the service adds the device again from any later call.
        setModelDeviceAttribute();
        prefs().setObject(KOValue(true), KO_REGISTER_V2);
        prefs().synchronize();
        KOLogger::logPlain("Kovantis - registered for push");
        if (completion) completion(true);
      } catch (const std::exception& e) {
        KOLogger::logException(KO_HERE, this, "Kovantis - Exception in device add call %@", e);
      }
    });
  });
}

void Kovantis::setModelDeviceAttribute() {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception is %@", [&] {
    setDeviceAttribute(KOValue(KovantisUtils::getDeviceModel()), KOValue("device_model"));
    setDeviceAttribute(KOValue(KovantisUtils::getIdentifierForVendor()), KOValue("device_IDFV"));
    setDeviceAttribute(KOValue(KovantisUtils::getDeviceSystemVersion()), KOValue("os_version"));
  });
}

void Kovantis::queryForAdvertisingID() {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception is %@", [&] {
    const KOValue advertisingId = KovantisUtils::advertiserID();
    if (advertisingId.isAbsent() || advertisingId == KovantisUtils::getSavedAdvertisingID()) return;
    setUserAttribute(advertisingId, KOValue(KO_ADVERTISING_IDENTIFIER));
    setDeviceAttribute(advertisingId, KOValue(KO_ADVERTISING_IDENTIFIER));
    KovantisUtils::saveAdvertisingID(advertisingId);
  });
}

void Kovantis::trackLocale() {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception while tracking Locale %@", [&] {
    const KOLocale& locale = *platform().locale;
    std::string country, language;
    const std::string identifier = locale.localeIdentifier();
    if (systemVersionNumber() >= 10.0) {
      country = locale.countryCode();
      language = locale.languageCode();
    } else {
      // Older systems: the codes come from the identifier's components.
      const auto separator = identifier.find_first_of("_-");
      language = identifier.substr(0, separator);
      if (separator != std::string::npos) country = identifier.substr(separator + 1);
    }
    const std::string countryName = locale.displayNameForCountry(country);
    const std::string languageName = locale.displayNameForLanguage(language);
    const std::string display = country.empty() ? languageName : languageName + " (" + countryName + ")";
    const std::pair<const char*, std::string> attributes[] = {
        {LOCALE_COUNTRY, country},   {LOCALE_COUNTRY_DISPLAY, countryName},
        {LOCALE_LANGUAGE, language}, {LOCALE_LANGUAGE_DISPLAY, languageName},
        {LOCALE_DISPLAY, display},   {LOCALE_IDENTIFIER, identifier}};
    KOUserAttributesHandler& handler = KOUserAttributesHandler::sharedInstance();
    for (const auto& [key, value] : attributes) {
      // Only a new or changed value goes out, as a device attribute too.
      if (handler.setUserAttribute(KOValue(value), KOValue(key))) setDeviceAttribute(KOValue(value), KOValue(key));
    }
  });
}

void Kovantis::setDeviceAttribute(const KOValue& value, const KOValue& forKey) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception is %@", [&] {
    std::optional<KODictionary> attributes = KOUserAttributesHandler::attributeEntry(value, forKey);
    if (attributes) trackEvent(KOValue(EVENT_ACTION_DEVICE_ATTRIBUTE), KOValue(std::move(*attributes)));
  });
}

void Kovantis::resetUser() {
  KOLogger::guard(KO_HERE, this, "Kovantis - Reset User exception : %@", [&] {
    trackEvent(KOValue(KOV_LOGOUT));
    KOEventsHandler::sharedInstance().syncTrackedEventsInBackground(false, true, false);
  });
}
