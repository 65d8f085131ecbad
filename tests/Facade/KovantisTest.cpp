// The facade: the start (app id, development and production, reinstall), the lifecycle's sessions,
// the host's attribute calls, install and update, and what a start registers of the device.
#include <gtest/gtest.h>

#include "KOSDKTestDevice.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KovantisUtils.h"
#include "kovantis/KOConstants.h"

class KovantisTest : public KOSDKTestDevice {};

TEST_F(KovantisTest, SwitchingBetweenDevelopmentAndProductionResetsTheUser) {
  sdk().initializeProdWithApiKey(KOValue("app"));
  ASSERT_TRUE(settle());
  sdk().initializeDevWithApiKey(KOValue("app"));
  EXPECT_EQ(KovantisUtils::getAppId(), KOValue("app_DEBUG"));
  ASSERT_TRUE(waitFor([&] { return storedEventNames("KOV_LOGOUT").size() == 1; }));
  sdk().initializeDevWithApiKey(KOValue(""));  // refused, nothing changes
  EXPECT_EQ(KovantisUtils::getAppId(), KOValue("app_DEBUG"));
}

TEST_F(KovantisTest, AReinstallIsRecognisedThroughTheKeychain) {
  start();
  ASSERT_TRUE(deliverAll());
  EXPECT_TRUE(storedEventNames("REINSTALL").empty());
  device().uninstall();
  sdk().initializeWithApiKey(KOValue("kov-test-app"));
  ASSERT_TRUE(deliverAll());
  EXPECT_EQ(storedEventNames("REINSTALL").size(), 1u);
}

TEST_F(KovantisTest, SessionsFollowTheApplicationLifecycle) {
  start();
  start();  // the lifecycle is observed once, however many starts
  device().becomeActive();
  device().resignActive();
  // The session end syncs inside a background task, which the sync ends.
  EXPECT_EQ(device().application().activeBackgroundTasks(), std::vector<std::string>{"KOVTask"});
  ASSERT_TRUE(waitFor([&] { return device().application().activeBackgroundTasks().empty(); }));
  EXPECT_EQ(storedEventNames("EVENT_ACTION_IOS_SESSION"),
            (std::vector<std::string>{"EVENT_ACTION_IOS_SESSION_START", "EVENT_ACTION_IOS_SESSION_END"}));
  device().enterBackground();
  KovantisUtils::saveDeviceToken(KOValue("ab"));
  device().application().setApplicationIconBadgeNumber(4);
  device().enterForeground();  // refreshes the modules: badge reset on a device with a push token
  EXPECT_EQ(device().application().applicationIconBadgeNumber(), 0);
}

TEST_F(KovantisTest, UserAttributesAreSentOnlyWhenTheyChange) {
  KOLogger::debug(1);
  startClean();
  sdk().setUserEmailID(KOValue("a@example.com"));
  sdk().setUserEmailID(KOValue("a@example.com"));
  sdk().setUserAttribute(KOValue(1), KOValue("plan"));
  sdk().setUserAttribute(KOValue("1"), KOValue("plan"));  // the text 1 is not the number 1
  sdk().setUserAttribute(KOValue(KOArray{1}), KOValue("plan"));
  sdk().setUserAttribute(KOValue(), KOValue("plan"));
  sdk().setUserGender(2);
  sdk().setUserGender(KOUserGenderFemale);
  sdk().setUserDateOfBirth(KOValue(KODate{86400}));
  sdk().setUserDateOfBirth(KOValue(KODate{86400}));  // every time
  sdk().setUserLocationLatitude(0, 0);               // zero coordinates are accepted here
  ASSERT_TRUE(deliverAll());
  std::vector<std::string> sent;
  for (const KOValue& r : storedEvents(EVENT_ACTION_USER_ATTRIBUTE)) {
    sent.push_back(r.dictionaryValue().contains("EVENT_ATTRS") ? r["EVENT_ATTRS"].description()
                                                               : r["EVENT_ATTRS_CUST"].description());
  }
  EXPECT_EQ(sent,
            (std::vector<std::string>{R"({"USER_ATTRIBUTE_USER_EMAIL": "a@example.com"})", R"({"plan": 1})",
                                      R"({"plan": "1"})", R"({"USER_ATTRIBUTE_USER_GENDER": "female"})",
                                      R"({"timestamp": [{"USER_ATTRIBUTE_USER_BDAY": 86400000}]})",
                                      R"({"timestamp": [{"USER_ATTRIBUTE_USER_BDAY": 86400000}]})",
                                      R"({"location": [{"USER_ATTRIBUTE_USER_LOCATION": "0.000000,0.000000"}]})"}));
  EXPECT_TRUE(device().console().contains("Kovantis - UserAttribute wasn't tracked as it was already present"));
  EXPECT_TRUE(device().console().contains("Kovantis - The attribue value should be either of string, integer or bool"));
  EXPECT_TRUE(device().console().contains("Kovantis - Tried setting nil user attribute for key plan"));
}

TEST_F(KovantisTest, InstallAndUpdateAreTrackedOnce) {
  startClean();
  sdk().appStatus(KOAppStatusInstall);
  sdk().appStatus(KOAppStatusInstall);  // same version: nothing
  device().profile().update([](KOSimProfileSettings& s) { s.shortVersion = "1.1.0"; });
  sdk().appStatus(KOAppStatusInstall);  // a new version is an update whatever was passed
  ASSERT_TRUE(deliverAll());
  EXPECT_EQ(storedEventNames("INSTALL").size(), 1u);
  EXPECT_EQ(storedEventNames("UPDATE").size(), 1u);
}

TEST_F(KovantisTest, StartRegistersTheDeviceWithItsAttributesAndLocale) {
  start();
  ASSERT_TRUE(deliverAll());
  std::vector<std::string> deviceKeys;
  for (const KOValue& r : storedEvents(EVENT_ACTION_DEVICE_ATTRIBUTE))
    deviceKeys.push_back(r["EVENT_ATTRS"].dictionaryValue().keys()[0]);
  // Advertising id and the six locale keys at start.
  EXPECT_EQ(deviceKeys, (std::vector<std::string>{"ADVERTISING_IDENTIFIER", "LOCALE_COUNTRY", "LOCALE_COUNTRY_DISPLAY",
                                                  "LOCALE_LANGUAGE", "LOCALE_LANGUAGE_DISPLAY", "LOCALE_DISPLAY",
                                                  "LOCALE_IDENTIFIER"}));
  // A second start with the same locale and advertising id sends none of them again.
  sdk().initializeWithApiKey(KOValue("kov-test-app"));
  ASSERT_TRUE(deliverAll());
  EXPECT_EQ(storedEvents(EVENT_ACTION_DEVICE_ATTRIBUTE).size(), 7u);
}
