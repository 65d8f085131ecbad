#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KONotification/KONotificationHandler.h"
#include "KOSDKTestDevice.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KovantisUtils.h"
#include "kovantis/KOConstants.h"

namespace {

std::shared_ptr<KOUserNotificationCategory> category(std::optional<std::string> id,
                                                     std::vector<KONotificationAction> actions) {
  auto c = std::make_shared<KOUserNotificationCategory>();
  c->identifier = std::move(id);
  c->actions = std::move(actions);
  return c;
}

KOValue tokenBytes(char fill, std::size_t size = 32) {
  return KOValue(KOData{std::vector<std::uint8_t>(size, static_cast<std::uint8_t>(fill))});
}

}  // namespace

class PushRegistrationTest : public KOSDKTestDevice {
 protected:
  KOPreferenceStore& prefs() { return device().preferences().standard(); }

  /// The category lists the service received, each as its JSON text.
  std::vector<std::string> categoryUploads() {
    std::vector<std::string> out;
    for (const auto& c : emulator().categories()) out.push_back(c.dataJSON);
    return out;
  }

  /// "KO_PUSH_PREFERENCE_CHANGED" statuses and "PUSH_PREFERENCE" attribute values, as received.
  std::vector<bool> preferenceEvents() {
    std::vector<bool> out;
    for (const KOValue& r : storedEvents(KO_PUSH_PREF_CHANGED_EVENT))
      out.push_back(r["EVENT_ATTRS"]["push_preference_status"].boolValue());
    return out;
  }
  std::vector<bool> preferenceAttributes() {
    std::vector<bool> out;
    for (const KOValue& r : storedEvents(EVENT_ACTION_USER_ATTRIBUTE)) {
      const KOValue& v = r["EVENT_ATTRS"][KO_PUSH_PREFERENCE];
      if (v.isNumber()) out.push_back(v.boolValue());
    }
    return out;
  }
};

TEST_F(PushRegistrationTest, TheSameTokenRegistersOnceAndANewOneReplacesIt) {
  KOLogger::debug(1);
  startClean();
  sdk().registerForPush(tokenBytes('\x01'));
  sdk().registerForPush(tokenBytes('\x01'));
  ASSERT_TRUE(waitFor([] { return KovantisUtils::isUserRegisteredForV2(); }));
  std::string hex01;
  for (int i = 0; i < 32; ++i) hex01 += "01";
  EXPECT_EQ(prefs().objectForKey(KO_DEVICE_TOKEN_KEY), KOValue(hex01));

  // A new token is saved; the registered device is not added again, and the service learns the
  // token from the next call's parameters.
  std::string hex02;
  for (int i = 0; i < 32; ++i) hex02 += "02";
  sdk().registerForPush(tokenBytes('\x02'));
  EXPECT_EQ(prefs().objectForKey(KO_DEVICE_TOKEN_KEY), KOValue(hex02));
  EXPECT_TRUE(device().console().contains("Kovantis - could not register for push"));
  sdk().trackEvent(KOValue("AFTER_TOKEN"));
  ASSERT_TRUE(deliverAll());
  EXPECT_EQ(emulator().requests("/v2/device/add").size(), 1u);
  EXPECT_EQ(emulator().requests("/v2/report/add").back().query.at("push_id"), hex02);
  EXPECT_EQ(preferenceAttributes(), std::vector<bool>{true});  // sent once: unchanged since
  EXPECT_TRUE(preferenceEvents().empty());                     // the token alone tracks no event
}

TEST_F(PushRegistrationTest, BadTokensAreLoggedAndNeverCrash) {
  KOLogger::debug(1);
  startClean();
  for (const KOValue& bad : {KOValue(), KOValue("0102"), tokenBytes('\x03', 0)}) sdk().registerForPush(bad);
  EXPECT_EQ(device().console().count("Kovantis - Exception while registering for push"), 3u);
  EXPECT_TRUE(KovantisUtils::getDeviceToken().isNil());
  for (std::size_t size : {31u, 4096u}) sdk().registerForPush(tokenBytes('\x04', size));
  EXPECT_EQ(device().console().count("Kovantis - Unexpected device token length"), 2u);
  EXPECT_EQ(KovantisUtils::getDeviceToken().stringValue().size(), 64u);  // the first 32 bytes
}

TEST_F(PushRegistrationTest, CategoriesReachTheServiceOncePerVersionAndAgainAfterAFailure) {
  startClean();
  const KONotificationCategorySet set = std::vector<std::shared_ptr<KONotificationCategoryBase>>{
      category("SHOP", {{"BUY", "Buy", 4}, {"LATER", std::nullopt, 0}, {"SAVE", "Save", 0}}),
      category(std::nullopt, {{"X", "X", 0}}),                 // no identifier
      category("EMPTY", {{std::nullopt, "Untitled id", 0}})};  // no usable action
  const std::string expected =
      R"([{"name":"SHOP","actions":["Buy","Save"],"actionsIdentifier":["BUY","SAVE"]},)"
      R"({"name":"KOV_DISMISS_CATEGORY","actions":["Dismiss"],"actionsIdentifier":["KOV_DISMISS_ACTION"]}])";
  emulator().injectFault(KOEmulatorFault{"/v2/categories/add", 500, 0, false, 1, 1.0});
  sdk().setUserNotificationCategories(set);  // refused: the flag stays down
  ASSERT_TRUE(waitForRequests("/v2/categories/add", 1));
  sdk().setUserNotificationCategories(set);
  ASSERT_TRUE(waitFor([&] { return categoryUploads().size() == 1; }));
  ASSERT_TRUE(waitFor([&] { return prefs().objectForKey(KOV_NOTIFICATION_CATEGORIES_SENT) == KOValue(true); }));
  sdk().setUserNotificationCategories(set);  // already sent for this version
  EXPECT_EQ(categoryUploads(), std::vector<std::string>{expected});
  // The service keeps them with the device they came from.
  EXPECT_EQ(emulator().categories()[0].deviceUniqueId,
            emulator().requests("/v2/categories/add")[1].query.at("device_unique_id"));
  EXPECT_FALSE(emulator().categories()[0].deviceUniqueId.empty());
  // Installed on the device: the host's categories as given, plus the dismiss category.
  const auto installed = device().notificationCenter().installedCategories();
  ASSERT_EQ(installed.size(), 4u);
  EXPECT_EQ(installed.back()->identifier, std::optional<std::string>(KOV_DISMISS_CATEGORY));
  EXPECT_EQ(installed.back()->options, 1);

  device().profile().update([](KOSimProfileSettings& s) { s.shortVersion = "2.0.0"; });  // an update
  sdk().setUserNotificationCategories(std::nullopt);
  ASSERT_TRUE(waitFor([&] { return categoryUploads().size() == 2; }));
  EXPECT_EQ(categoryUploads()[1],
            R"([{"name":"KOV_DISMISS_CATEGORY","actions":["Dismiss"],"actionsIdentifier":["KOV_DISMISS_ACTION"]}])");
}

TEST_F(PushRegistrationTest, OlderSystemsUseSettingsAndMinimalContextActionsWithoutTheDismissCategory) {
  KOLogger::debug(1);
  device().profile().update([](KOSimProfileSettings& s) { s.systemVersion = "9.3"; });
  startClean();
  int grantedTypes = -1;
  device().notificationCenter().setUserNotificationSettingsHandler([&](int types) {
    grantedTypes = types;
    sdk().didRegisterForUserNotificationSettings(types);
  });
  auto older = std::make_shared<KONotificationCategory>();
  older->identifier = "REPLY";
  older->setActions({{"OPEN", "Open", 0}}, KOUserNotificationActionContextDefault);  // not reported
  older->setActions({{"YES", "Yes", 0}}, KOUserNotificationActionContextMinimal);
  older->setActions({{"NO", "No", 0}}, KOUserNotificationActionContextMinimal);
  const KONotificationCategorySet olderSet =
      std::vector<std::shared_ptr<KONotificationCategoryBase>>{older, category("WRONG_KIND", {{"A", "A", 0}})};
  sdk().registerForRemoteNotificationWithCategories(std::nullopt, olderSet);
  EXPECT_TRUE(device().console().contains("Kovantis - Categories are not of type KONotificationCategory"));
  ASSERT_TRUE(waitFor([&] { return grantedTypes == 7 && categoryUploads().size() == 1; }));
  EXPECT_EQ(categoryUploads()[0], R"([{"name":"REPLY","actions":["Yes","No"],"actionsIdentifier":["YES","NO"]}])");
  EXPECT_EQ(device().notificationCenter().registeredCategories().size(), 1u);
  EXPECT_TRUE(device().notificationCenter().installedCategories().empty());
  EXPECT_EQ(device().notificationCenter().authorizationRequests(), 0);
  ASSERT_TRUE(waitFor([&] { return !device().application().deviceToken().empty(); }));
  // The current interface's category call does nothing on this system.
  sdk().setUserNotificationCategories(std::nullopt);
  ASSERT_TRUE(deliverAll());
  EXPECT_EQ(categoryUploads().size(), 1u);
  EXPECT_EQ(preferenceEvents(), std::vector<bool>{true});
}

TEST_F(PushRegistrationTest, EachPermissionChangeTracksOneEventWhileTheAttributeFollowsEveryCheck) {
  startClean();
  device().application().setRemoteNotificationHandlers([&](const std::string& token) {
    sdk().registerForPush(KOValue(KOData{{token.begin(), token.end()}}));
  });
  sdk().registerForRemoteNotificationWithCategories(std::nullopt);
  ASSERT_TRUE(waitFor([&] { return !KovantisUtils::getDeviceToken().isNil(); }));
  auto session = [&](int alertSetting) {
    device().notificationCenter().setAlertSetting(alertSetting);
    const std::size_t before = emulator().requests().size();
    device().resignActive();
    device().becomeActive();  // the session start checks the permission
    return waitFor([&] { return emulator().requests().size() > before; }) && settle() && deliverAll();
  };
  ASSERT_TRUE(session(KONotificationSettingEnabled));
  ASSERT_TRUE(session(KONotificationSettingEnabled));  // unchanged: no event
  ASSERT_TRUE(session(KONotificationSettingDisabled));
  ASSERT_TRUE(session(KONotificationSettingEnabled));
  EXPECT_EQ(preferenceEvents(), (std::vector<bool>{true, false, true}));
  EXPECT_EQ(preferenceAttributes(), (std::vector<bool>{true, false, true}));
  EXPECT_EQ(prefs().objectForKey(KO_PUSH_PREFERENCE_KEY), KOValue(true));

  // A failed registration turns the attribute off and tracks nothing.
  sdk().didFailToRegisterForPush();
  ASSERT_TRUE(deliverAll());
  EXPECT_EQ(preferenceAttributes().back(), false);
  EXPECT_EQ(preferenceEvents().size(), 3u);
}

TEST_F(PushRegistrationTest, AFirstRefusalTracksNothingAndABrokenPortIsOnlyLogged) {
  KOLogger::debug(1);
  startClean();
  device().notificationCenter().setAuthorizationAnswer(KOSimNotificationCenter::Answer::DenyWithError);
  sdk().registerForRemoteNotificationWithCategories(
      std::vector<std::shared_ptr<KONotificationCategoryBase>>{std::make_shared<KONotificationCategory>()});
  EXPECT_TRUE(device().console().contains("Kovantis - Categories are not of type UNNotificationCategory"));
  ASSERT_TRUE(waitFor([&] { return device().console().contains("Kovantis - Push permission denied : "); }));
  KONotificationHandler::sharedInstance().checkForPushPermission();
  ASSERT_TRUE(settle());  // the settings answer arrives on the background queue
  ASSERT_TRUE(deliverAll());
  EXPECT_EQ(preferenceAttributes(), std::vector<bool>{false});
  EXPECT_TRUE(preferenceEvents().empty());

  device().notificationCenter().setThrows(true);
  sdk().registerForRemoteNotificationWithCategories(std::nullopt);
  sdk().setUserNotificationCategories(std::vector<std::shared_ptr<KONotificationCategoryBase>>{});
  KONotificationHandler::sharedInstance().checkForPushPermission();
  EXPECT_TRUE(device().console().contains("Kovantis - Exception while registering for push : "));
  EXPECT_TRUE(device().console().contains("Kovantis - exception while setting categories : "));
}

// The host's own session start settles the permission too, and the preference change the SDK tracks
// reaches the in-app trigger check as any event does.
TEST_F(PushRegistrationTest, TheHostsSessionStartChecksThePermissionAndItsEventCanTriggerACampaign) {
  startClean();
  prefs().setObject(KOValue(true), KO_PUSH_PREFERENCE_KEY);
  KOInAppV2Manager::saveInAppCampaignsWithData(
      KOJSONSerialization::parse(R"({"event_list": ["KO_PUSH_PREFERENCE_CHANGED"]})"), [] {});
  device().notificationCenter().setAlertSetting(KONotificationSettingDisabled);
  sdk().sessionStarted();
  ASSERT_TRUE(waitFor([&] { return !emulator().requests("/v2/autotriggerinapps").empty(); }));
  ASSERT_TRUE(settle() && deliverAll());
  EXPECT_EQ(prefs().objectForKey(KO_PUSH_PREFERENCE_KEY), KOValue(false));
  EXPECT_EQ(preferenceEvents(), std::vector<bool>{false});
  EXPECT_EQ(storedEvents(EVENT_ACTION_IOS_SESSION_START).size(), 1u);
}
