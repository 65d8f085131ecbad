#include <gtest/gtest.h>

#include <filesystem>

#include "KOTestDevice.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"

class KOSimDeviceTest : public KOTestDevice {
 protected:
  KOSimDeviceConfig config() override {
    KOSimDeviceConfig c;
    c.appGroups = {"group.com.kovantis.demo"};
    return c;
  }
};

TEST_F(KOSimDeviceTest, PreferencesPersistOnlyWhenSynchronised) {
  KOPreferenceStore& prefs = device().preferences().standard();
  prefs.setObject(KOValue("v1"), "KO_appId");
  device().preferences().standardStore().reload();
  EXPECT_TRUE(prefs.objectForKey("KO_appId").isNil());  // never written to disk

  prefs.setObject(KOValue("v2"), "KO_appId");
  prefs.setObject(KOValue(KODictionary{{"n", 1}}), "nested");
  ASSERT_TRUE(prefs.synchronize());
  const KOValue onDisk = KOPropertyListFile::read(device().standardPreferencesPath());
  EXPECT_EQ(onDisk["KO_appId"], KOValue("v2"));
  EXPECT_EQ(onDisk["nested"], KOValue(KODictionary{{"n", 1}}));

  prefs.setObject(KOValue(), "KO_appId");  // nil removes
  EXPECT_FALSE(prefs.dictionaryRepresentation().contains("KO_appId"));
}

TEST_F(KOSimDeviceTest, AppGroupSuitesAreSeparateAndEntitled) {
  EXPECT_EQ(device().preferences().suite("group.other"), nullptr);
  KOPreferenceStore* suite = device().preferences().suite("group.com.kovantis.demo");
  ASSERT_NE(suite, nullptr);
  EXPECT_EQ(suite, device().preferences().suite("group.com.kovantis.demo"));
  suite->setObject(KOValue("shared"), "kov_params");
  ASSERT_TRUE(suite->synchronize());
  EXPECT_TRUE(device().preferences().standard().objectForKey("kov_params").isNil());
  EXPECT_TRUE(std::filesystem::exists(device().preferences().suitePath("group.com.kovantis.demo")));
}

TEST_F(KOSimDeviceTest, UninstallClearsTheSandboxButKeepsTheKeychain) {
  device().preferences().standard().setObject(KOValue("x"), "KO_appId");
  device().preferences().standard().synchronize();
  device().rawFiles().writeFile(device().documentsDirectory() + "/KovantisBatchEvents.plist", "data");
  device().keychain().add("svc", "svc", "secret", "ak");
  const std::string vendorId = device().profile().identifierForVendor();

  device().uninstall();
  EXPECT_TRUE(device().preferences().standard().objectForKey("KO_appId").isNil());
  EXPECT_FALSE(device().files().fileExists(device().documentsDirectory() + "/KovantisBatchEvents.plist"));
  EXPECT_TRUE(device().files().fileExists(device().documentsDirectory()));  // a fresh, empty sandbox
  std::string secret;
  EXPECT_EQ(device().keychain().copyMatching("svc", "svc", &secret), KOKeychainSuccess);
  EXPECT_EQ(secret, "secret");
  EXPECT_NE(device().profile().identifierForVendor(), vendorId);
}

TEST_F(KOSimDeviceTest, LifecyclePostsNotificationsAndSetsState) {
  std::vector<std::string> seen;
  const auto token =
      KONotificationCenter::defaultCenter().addObserver("", [&](const KONotification& n) { seen.push_back(n.name); });
  device().launch();
  device().becomeActive();
  EXPECT_EQ(device().application().applicationState(), KOApplicationState::Active);
  device().resignActive();
  device().enterBackground();
  EXPECT_EQ(device().application().applicationState(), KOApplicationState::Background);
  device().enterForeground();
  KONotificationCenter::defaultCenter().removeObserver(token);
  device().terminate();
  EXPECT_EQ(seen, (std::vector<std::string>{
                      KOApplicationDidFinishLaunchingNotification, KOApplicationDidBecomeActiveNotification,
                      KOApplicationWillResignActiveNotification, KOApplicationDidEnterBackgroundNotification,
                      KOApplicationWillEnterForegroundNotification}));
}

TEST_F(KOSimDeviceTest, ApplicationRecordsWhatItWasAsked) {
  auto& app = device().application();
  bool opened = false, refused = true;
  app.openURL("https://kovantis.example/offer", [&](bool ok) { opened = ok; });
  app.openURL("myapp://deep", [&](bool ok) { refused = ok; });
  EXPECT_TRUE(waitFor([&] { return opened && !refused; }));
  EXPECT_EQ(app.openedURLs(), std::vector<std::string>{"https://kovantis.example/offer"});
  app.addOpenableScheme("myapp");
  EXPECT_TRUE(app.canOpenURL("myapp://deep"));
  EXPECT_FALSE(app.canOpenURL("no-scheme"));

  bool expired = false;
  const auto task = app.beginBackgroundTask("sync", [&] { expired = true; });
  EXPECT_EQ(app.activeBackgroundTasks(), std::vector<std::string>{"sync"});
  app.expireBackgroundTasks();
  EXPECT_TRUE(expired);
  app.endBackgroundTask(task);
  EXPECT_TRUE(app.activeBackgroundTasks().empty());
}

TEST_F(KOSimDeviceTest, ScriptedAlertAnswersRunOnTheMainQueue) {
  device().userInterface().setAlertAnswer(1);
  std::string tapped;
  device().userInterface().presentAlert("Allow?", "Push",
                                        {{"No", KOAlertActionStyle::Cancel, [&] { tapped = "No"; }},
                                         {"Yes", KOAlertActionStyle::Default, [&] { tapped = "Yes"; }}},
                                        nullptr);
  EXPECT_TRUE(tapped.empty());  // not synchronously inside the presentation
  EXPECT_TRUE(waitFor([&] { return tapped == "Yes"; }));
}

TEST(KOPlatformTest, InstallRefusesAnIncompletePlatform) {
  auto partial = std::make_shared<KOPlatform>();
  EXPECT_THROW(KOPlatform::install(partial), KOAssertionFailure);
  EXPECT_THROW(KOPlatform::install(nullptr), KOAssertionFailure);
  EXPECT_FALSE(KOPlatform::isInstalled());
  EXPECT_THROW(KOPlatform::current(), KOAssertionFailure);
}
