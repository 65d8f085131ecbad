#include "KONotificationHandler.h"

#include <cstdlib>

#include "KODataHandler/KODeviceHandler.h"
#include "KODataHandler/KOEventsHandler.h"
#include "KODataHandler/KOUserAttributesHandler.h"
#include "KOInAppV2/InAppHandlers/KOInAppV2Handler.h"
#include "KOInbox/KOInboxHandler.h"
#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOSDKNotifications.h"
#include "KOUtilities/KOSDKSettings.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KOValueHelpers.h"
#include "KOUtilities/KovantisDateUtils.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"

namespace {

constexpr const char* kCategoriesException = "Kovantis - Exception while setting categories : %@";

KOPreferenceStore& prefs() { return KOPlatform::current().preferences->standard(); }

void setPushPreferenceAttribute(bool on) {
  KOUserAttributesHandler::sharedInstance().setUserAttribute(KOValue(on), KOValue(KO_PUSH_PREFERENCE));
}

// One category as the service takes it: its name and the titles and identifiers of the actions
// that have both; nothing when it has no name or no usable action.
std::optional<KOValue> serialise(const std::optional<std::string>& identifier,
                                 const std::vector<KONotificationAction>& actions) {
  if (!identifier || identifier->empty()) return std::nullopt;
  KOArray titles, identifiers;
  for (const KONotificationAction& action : actions) {
    if (!action.title || !action.identifier) continue;
    titles.push_back(KOValue(*action.title));
    identifiers.push_back(KOValue(*action.identifier));
  }
  if (titles.empty()) return std::nullopt;
  return KOValue(KODictionary{
      {"name", *identifier}, {"actions", std::move(titles)}, {"actionsIdentifier", std::move(identifiers)}});
}

}  // namespace

KONotificationHandler& KONotificationHandler::sharedInstance() {
  static auto* instance = new KONotificationHandler();
  return *instance;
}

KONotificationHandler::KONotificationHandler() {
  // An in-app campaign's push action asks for registration from below this handler. Never
  // removed: the handler lives as long as the process.
  KONotificationCenter::defaultCenter().addObserver(
      KOPushRegistrationRequestedNotification,
      [this](const KONotification&) { registerForRemoteNotificationWithCategories({}, {}, nullptr); });
}

bool KONotificationHandler::usesCurrentNotificationInterface() { return KovantisUtils::systemVersionAtLeast(10.0); }

void KONotificationHandler::didFailToRegisterForPush() {
  try {
    setPushPreferenceAttribute(false);
  } catch (const std::exception& e) {
    KOLogger::logError(KO_HERE, this, "Kovantis - Exception while registering for push : %@", e);
  }
}

void KONotificationHandler::didRegisterForUserNotificationSettings(int grantedTypes) {
  if (grantedTypes != 0) {
    pushEnabled();
  } else {
    pushDisabled();
  }
}

void KONotificationHandler::pushEnabled() {
  try {
    if (!KOConsentGate::shared().mayRecord()) return;  // a change is reported once the user allows it
    {
      std::lock_guard<std::mutex> lock(preferenceMutex_);
      const KOValue stored = prefs().objectForKey(KO_PUSH_PREFERENCE_KEY);
      if (!(stored.isNumber() && stored.boolValue())) trackPushPreferenceChangedEventWithStatus(true);
    }
    setPushPreferenceAttribute(true);
  } catch (const std::exception& e) {
    KOLogger::logError(KO_HERE, this, "Kovantis - Exception while registering for push : %@", e);
  }
}

void KONotificationHandler::pushDisabled() {
  try {
    if (!KOConsentGate::shared().mayRecord()) return;
    {
      std::lock_guard<std::mutex> lock(preferenceMutex_);
      const KOValue stored = prefs().objectForKey(KO_PUSH_PREFERENCE_KEY);
      if (stored.isNumber() && stored.boolValue()) trackPushPreferenceChangedEventWithStatus(false);
    }
    setPushPreferenceAttribute(false);
  } catch (const std::exception& e) {
    KOLogger::logError(KO_HERE, this, "Kovantis - Exception while registering for push : %@", e);
  }
}

void KONotificationHandler::trackPushPreferenceChangedEventWithStatus(bool status) {
  prefs().setObject(KOValue(status), KO_PUSH_PREFERENCE_KEY);
  prefs().synchronize();
  KOEventsHandler::sharedInstance().trackEvent(KOValue(KO_PUSH_PREF_CHANGED_EVENT),
                                               KOValue(KODictionary{{"push_preference_status", status}}));
}

void KONotificationHandler::checkForPushPermission() {
  try {
    if (!usesCurrentNotificationInterface()) return;  // the settings callback covers older systems
    KOPlatform::current().notificationCenter->getNotificationSettingsWithCompletionHandler([this](int alertSetting) {
      if (alertSetting == KONotificationSettingEnabled) {
        pushEnabled();
      } else {
        pushDisabled();
      }
    });
  } catch (const std::exception& e) {
    KOLogger::logError(KO_HERE, this, "Kovantis - Exception while registering for push : %@", e);
  }
}

void KONotificationHandler::setNotificationCategories(
    const std::vector<std::shared_ptr<KOUserNotificationCategory>>& categories) {
  try {
    KOArray serialised;
    for (const auto& category : categories) {
      if (!category) continue;
      if (auto entry = serialise(category->identifier, category->actions)) serialised.push_back(std::move(*entry));
    }
    handOver(std::move(serialised));
  } catch (const std::exception& e) {
    KOLogger::logError(KO_HERE, this, kCategoriesException, e);
  }
}

void KONotificationHandler::setNotificationCategoriesForEarlierVersions(
    const std::vector<std::shared_ptr<KONotificationCategory>>& categories) {
  try {
    KOArray serialised;
    for (const auto& category : categories) {
      if (!category) continue;
      static const std::vector<KONotificationAction> kNone;
      const auto& actions = category->minimalContextActions ? *category->minimalContextActions : kNone;
      if (auto entry = serialise(category->identifier, actions)) serialised.push_back(std::move(*entry));
    }
    handOver(std::move(serialised));
  } catch (const std::exception& e) {
    KOLogger::logError(KO_HERE, this, kCategoriesException, e);
  }
}

void KONotificationHandler::handOver(KOArray serialised) {
  // Kept even when empty: what was last handed over is what the service was told.
  prefs().setObject(KOValue(serialised), KOV_NOTIFICATION_CATEGORIES);
  prefs().synchronize();
  KOServerInterface::sharedInstance().setNotificationCategoriesWithCategories(serialised);
}

// ------------------------------------------------------------------------------------- registration

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

void KONotificationHandler::registerForRemoteNotificationWithCategories(
    const KONotificationCategorySet& categories, const KONotificationCategorySet& andCategoriesForPreviousVersions,
    std::shared_ptr<KOUserNotificationCenterDelegate> delegate) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - Exception while registering for push : %@", [&] {
    const KOPlatform& platform = KOPlatform::current();
    KOUserNotificationCenter& center = *platform.notificationCenter;
    if (usesCurrentNotificationInterface()) {
      membersOfKind<KOUserNotificationCategory>(categories, kNotUNCategory);
      platform.application->registerForRemoteNotifications();
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
      center.setDelegate(std::move(delegate));
    } else {
      auto older = membersOfKind<KOMutableUserNotificationCategory>(andCategoriesForPreviousVersions, kNotKOCategory);
      center.registerUserNotificationSettings(
          KOUserNotificationOptionBadge | KOUserNotificationOptionSound | KOUserNotificationOptionAlert,
          std::move(older));
      platform.application->registerForRemoteNotifications();
      setNotificationCategoriesForEarlieriOSVersionsWithCategories(andCategoriesForPreviousVersions);
    }
  });
}

void KONotificationHandler::registerForPush(const KOValue& deviceToken) {
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
    KODeviceHandler::sharedInstance().addDeviceWithCompletion([](bool) {});
  });
}

void KONotificationHandler::saveAndRegisterWithToken(const KOValue& token) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - Exception while registering for push %@", [&] {
    KOUserAttributesHandler::sharedInstance().trackUserAttribute(KOValue(true), KOValue(KO_PUSH_PREFERENCE));
    KovantisUtils::saveDeviceToken(token);
  });
}

void KONotificationHandler::setUserNotificationCategories(const KONotificationCategorySet& categories) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - exception while setting categories : %@", [&] {
    if (!usesCurrentNotificationInterface()) return;
    auto installed = membersOfKind<KOUserNotificationCategory>(categories, kNotUNCategory);
    // The SDK's own category: a swipe-away reaches the app as a dismiss action.
    auto dismiss = std::make_shared<KOUserNotificationCategory>();
    dismiss->identifier = KOV_DISMISS_CATEGORY;
    dismiss->actions.push_back(KONotificationAction{KOV_DISMISS_ACTION, "Dismiss", 2});
    dismiss->options = 1;
    installed.push_back(dismiss);
    KOPlatform::current().notificationCenter->setNotificationCategories(installed);
    if (categoriesDueForService()) setNotificationCategories(installed);
  });
}

void KONotificationHandler::setNotificationCategoriesForEarlieriOSVersionsWithCategories(
    const KONotificationCategorySet& categories) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - exception while setting categories : %@", [&] {
    auto older = membersOfKind<KONotificationCategory>(categories, kNotKOCategory);
    if (categoriesDueForService()) setNotificationCategoriesForEarlierVersions(older);
  });
}

// ------------------------------------------------------------------------------------------ receipt

namespace {

const KOPlatform& platform() { return KOPlatform::current(); }

// The payload as a dictionary: nothing for none, KOTypeError for anything else.
const KODictionary* payloadDictionary(const KOValue& payload) {
  if (payload.isNil() || payload.isNull()) return nullptr;
  return &payload.dictionaryValue();
}

// The service's block of a payload (nil when there is none).
KOValue serviceBlock(const KOValue& payload) {
  const KODictionary* dict = payloadDictionary(payload);
  return dict ? validObjectForKey(*dict, kKovantis) : KOValue();
}

void onMain(std::function<void()> work) { platform().dispatch->asyncMain(std::move(work)); }

}  // namespace

bool KONotificationHandler::didReceivePush() const { return KOEventsHandler::sharedInstance().afterPush(); }

void KONotificationHandler::setDidReceivePush(bool value) { KOEventsHandler::sharedInstance().setAfterPush(value); }

void KONotificationHandler::track(const char* event, const KOValue& attributes) {
  KOEventsHandler::sharedInstance().trackEvent(KOValue(event), attributes);
}

void KONotificationHandler::syncNow() {
  KOLogger::guard(KO_HERE, this, "Kovantis - SyncNow exception : %@",
                  [&] { KOEventsHandler::sharedInstance().syncTrackedEventsInBackground(false, false, false); });
}

void KONotificationHandler::resetBadge() {
  if (!KOSDKSettings::shared().disableBadgeReset()) platform().application->setApplicationIconBadgeNumber(0);
}

void KONotificationHandler::browserDidFinish(std::shared_ptr<KOPresentedScreen> browser) {
  KOLogger::guard(KO_HERE, nullptr, "Kovantis - Exception : %@", [&] {
    if (browser) browser->remove();
  });
}

bool KONotificationHandler::shouldProcessNotificationKovantisDict(const KOValue& block) {
  if (block.isNil() || block.isNull()) return false;
  const KODictionary& dict = block.dictionaryValue();
  // Any "silentPush" at all, even null, makes the push silent.
  return !dict.find("silentPush") && !validObjectForKey(dict, "cid").isNil();
}

void KONotificationHandler::didReceieveNotificationinApplication(KOApplication* application, const KOValue& withInfo,
                                                                 bool handleDeeplinking) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - Exception in did receive notification : %@", [&] {
    if (!shouldProcessNotificationKovantisDict(serviceBlock(withInfo))) return;
    KOApplication& app = application ? *application : *platform().application;
    switch (app.applicationState()) {
      case KOApplicationState::Inactive:  // the user opened it
        handlePushNotificationInApplication(&app, withInfo, handleDeeplinking);
        break;
      case KOApplicationState::Active:
        handlePushNotificationForeground(withInfo);
        resetBadge();
        break;
      case KOApplicationState::Background:
        break;
    }
  });
}

void KONotificationHandler::userNotificationCenter(KOUserNotificationCenter*, const KONotificationResponse& response) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - Exception : %@", [&] {
    KOValue block = serviceBlock(response.userInfo);
    if (!shouldProcessNotificationKovantisDict(block)) return;
    KOValue payload = response.userInfo;
    // An attachment the notification should have shown and did not: its download failed.
    const KOValue& media = validObjectForKey(block, "media-attachment");
    if (response.attachments.empty() && media.isString() && !media.stringValue().empty()) {
      KODictionary marked = block.dictionaryValue();
      marked.set("kovAttachmentDownloadFailure", KOValue(true));
      block = KOValue(std::move(marked));
      KODictionary withMark = payload.dictionaryValue();
      withMark.set(kKovantis, block);
      payload = KOValue(std::move(withMark));
    }
    const std::string& action = response.actionIdentifier.stringValue();
    if (action == KONotificationDismissActionIdentifier || action == KOV_DISMISS_ACTION) {
      track(KO_PUSH_DISMISSED_EVENT, block);
      syncNow();  // a dismissal is sent at once
    } else if (action == KONotificationDefaultActionIdentifier) {
      handlePushNotificationInApplication(nullptr, payload, KOSDKSettings::shared().handleDeepLinks());
    } else {
      handleActionWithIdentifier(response.actionIdentifier, payload);
    }
  });
}

void KONotificationHandler::handleActionWithIdentifier(const KOValue& identifier,
                                                       const KOValue& forRemoteNotification) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - Exception while notification action : %@", [&] {
    if (identifier.isNil() || forRemoteNotification.isNil()) return;
    const std::string& id = identifier.stringValue();
    const KOValue stored = serviceBlock(forRemoteNotification);
    KODictionary block = stored.isNil() ? KODictionary() : stored.dictionaryValue();
    // Every category is looked at: when several hold the identifier, the last one names it.
    std::optional<KOValue> title;
    const KOValue categories = prefs().objectForKey(KOV_NOTIFICATION_CATEGORIES);
    if (categories.isArray()) {
      for (const KOValue& category : categories.arrayValue()) {
        const KOValue& ids = validObjectForKey(category, "actionsIdentifier");
        const KOValue& titles = validObjectForKey(category, "actions");
        if (!ids.isArray() || !titles.isArray()) continue;
        const KOArray& idList = ids.arrayValue();
        for (std::size_t i = 0; i < idList.size(); ++i) {
          if (!(idList[i].isString() && idList[i].stringValue() == id)) continue;
          if (titles.arrayValue().size() > i) title = titles.arrayValue()[i];
          break;
        }
      }
    }
    if (title) block.set(KOV_APNS_ACTION, *title);
    block.set(KOV_APNS_ACTION_IDENTIFIER, identifier);
    track(KO_PUSH_CLICKED_EVENT, KOValue(std::move(block)));
    syncNow();
  });
}

void KONotificationHandler::handleLaunchPush(KOApplication* application, const KODictionary& launchOptions,
                                             bool handleDeeplink) {
  // Where the platform will deliver the tap to a delegate that answers responses, that answer
  // handles it; handling it here too would count the click twice.
  if (KovantisUtils::systemVersionAtLeast(10.0)) {
    const std::shared_ptr<KOUserNotificationCenterDelegate> centerDelegate = platform().notificationCenter->delegate();
    if (platform().application->delegateHandlesNotificationResponses() ||
        (centerDelegate && centerDelegate->handlesNotificationResponses())) {
      return;
    }
  }
  const KOValue& payload = safeObjectForKey(launchOptions, KOApplicationLaunchOptionsRemoteNotificationKey);
  if (payload.isNil()) return;
  // A block that is no dictionary throws here, and the start ends with its line.
  if (!shouldProcessNotificationKovantisDict(validObjectForKey(payload, kKovantis))) return;
  handlePushNotificationInApplication(application ? application : platform().application.get(), payload,
                                      handleDeeplink);
}

void KONotificationHandler::handlePushNotificationInApplication(KOApplication*, const KOValue& userInfo,
                                                                bool handleDeeplink) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - Exception in handlePushNotification : %@", [&] {
    setDidReceivePush(true);
    KovantisUtils::saveLastPushClickedDateTime(KOValue(KODate{KovantisDateUtils::now()}));
    track(KO_PUSH_CLICKED_EVENT, serviceBlock(userInfo));
    handlePushInMainQueueWithData(userInfo, handleDeeplink);
    resetBadge();
    if (!KOSDKSettings::shared().disableInbox()) KOInboxHandler::saveClickedPushToLocalStorageWithData(userInfo);
  });
}

void KONotificationHandler::handlePushNotificationForeground(const KOValue& payload) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - Exception in handlePushNotificationForeground : %@",
                  [&] {
                    handleInAppFromPush(payload);
                    track(KO_PUSH_RECEIVED_ACTIVE_EVENT, serviceBlock(payload));
                  });
}

void KONotificationHandler::handlePushInMainQueueWithData(const KOValue& payload, bool handleDeeplink) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - Exception in handlePushInMainQueue : %@", [&] {
    if (!validObjectForKeyPath(payload, "kovantis.couponCode").isNil()) {
      handleCouponCodeForPush(payload, handleDeeplink);  // the dialog's buttons do the rest
    } else if (!validObjectForKeyPath(payload, "app_extra.kov_deeplink").isNil()) {
      if (handleDeeplink) handleDeepLinking(payload);
      handleInAppFromPush(payload);
    } else if (!validObjectForKeyPath(payload, "kovantis.webUrl").isNil()) {
      handleRichLandingPage(payload);
      handleInAppFromPush(payload);
    } else {
      handleInAppFromPush(payload);
    }
  });
}

void KONotificationHandler::handleCouponCodeForPush(const KOValue& payload, bool handleDeeplink) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - exception coupon code from push is %@", [&] {
    const KOValue block = serviceBlock(payload);
    if (block.isNil()) return;
    const KOValue& coupon = validObjectForKey(block, "couponCode");
    if (coupon.isNil()) return;
    showCouponAlertView(coupon, payload, handleDeeplink);
  });
}

void KONotificationHandler::afterCoupon(const KOValue& payload, bool openDeepLink) {
  if (openDeepLink) handleDeepLinking(payload);
  handleRichLandingPage(payload);
  handleInAppFromPush(payload);
}

void KONotificationHandler::showCouponAlertView(const KOValue& coupon, const KOValue& andUserInfo,
                                                bool handleDeeplink) {
  onMain([this, coupon, payload = andUserInfo, handleDeeplink] {
    KOLogger::guard(
        KO_HERE, this, KOLogSeverityError, "Kovantis - Exception while showing coupon code alert : %@", [&] {
          KOUserInterface& ui = *platform().userInterface;
          const std::shared_ptr<KOViewController> top = KovantisUtils::getTopViewController();
          const std::string code = KOStringFormat::format("%@", {coupon});
          if (ui.supportsAlertController()) {
            std::vector<KOAlertAction> buttons{{"COPY", KOAlertActionStyle::Default,
                                                [this, code, payload, handleDeeplink] {
                                                  platform().userInterface->setPasteboardString(code);
                                                  afterCoupon(payload, handleDeeplink);
                                                }},
                                               {"Cancel", KOAlertActionStyle::Default, [this, payload, handleDeeplink] {
                                                  afterCoupon(payload, handleDeeplink);
                                                }}};
            ui.presentAlert("Coupon", KOStringFormat::format("Coupon code : %@ \n Copy coupon code?", {coupon}),
                            std::move(buttons), top.get());
            return;
          }
          // The older dialog says the code was copied and leaves the pasteboard alone,
          // and opens the deep link whatever the host chose: both as the service's
          // older SDKs did, and kept.
          ui.presentAlert("Coupon", KOStringFormat::format("Coupon code %@ is copied to your clipboard", {coupon}),
                          {{"OK", KOAlertActionStyle::Cancel, nullptr}}, top.get());
          afterCoupon(payload, true);
        });
  });
}

void KONotificationHandler::handleDeepLinking(const KOValue& payload) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - Exception while handling deeplinking : %@", [&] {
    const KOValue& link = validObjectForKeyPath(payload, "app_extra.kov_deeplink");
    if (link.isNil()) return;
    const std::string& url = link.stringValue();
    if (url.empty() || !KOWebViewHandler::isURL(url)) return;
    KOApplication& app = *platform().application;
    if (!app.canOpenURL(url)) return;  // dropped silently, as the system would
    onMain([url] {
      KOLogger::guard(KO_HERE, nullptr, KOLogSeverityError, "Kovantis - Exception while handling deeplinking : %@",
                      [&] {
                        if (!usesCurrentNotificationInterface()) {
                          platform().application->openURL(url, nullptr);
                          return;
                        }
                        platform().application->openURL(url, [](bool opened) {
                          if (opened) KOLogger::log("%@", {KOValue("DeepLink Opened")});
                        });
                      });
    });
  });
}

void KONotificationHandler::handleRichLandingPage(const KOValue& payload) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - exception while handling rich landing page is %@",
                  [&] {
                    const KOValue page = validObjectForKeyPath(payload, "kovantis.webUrl");
                    if (page.isNil()) return;
                    onMain([page] { KOWebViewHandler::openWebViewWithUrl(page, &browserDidFinish); });
                  });
}

void KONotificationHandler::handleInAppFromPush(const KOValue& payload) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, "Kovantis - exception for in app from push is %@", [&] {
    const KOValue& cid = validObjectForKeyPath(payload, "kovantis.kov_inapp_cid");
    if (!cid.isString() || cid.stringValue().empty()) return;
    onMain([campaign = cid.stringValue()] { KOInAppV2Handler::fetchAndShowInAppForCampaignID(campaign, true); });
  });
}
