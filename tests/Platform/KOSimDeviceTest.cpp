#include <gtest/gtest.h>

#include <filesystem>

#include "KOTestDevice.h"
#include "KOUtilities/KOKeychain.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "Sim/KOForwardingPlatform.h"
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

TEST_F(KOSimDeviceTest, BackgroundTimeRunningOutExpiresOnlyTasksStillActive) {
  auto& app = device().application();
  std::vector<std::string> expired;
  const auto ended = app.beginBackgroundTask("upload", [&] { expired.push_back("upload"); });
  app.beginBackgroundTask("sync", [&] { expired.push_back("sync"); });
  app.endBackgroundTask(ended);
  app.expireBackgroundTasks();
  EXPECT_EQ(expired, std::vector<std::string>{"sync"});
}

TEST_F(KOSimDeviceTest, ScreenRecordKeepsOneOrderAcrossTheDevice) {
  auto& ui = device().userInterface();
  auto& app = device().application();
  auto home = std::make_shared<KOViewController>();
  home->name = "Home";
  ui.setAlertAnswer(1);
  std::string tapped;
  ui.presentAlert("Allow?", "Push",
                  {{"No", KOAlertActionStyle::Cancel, [&] { tapped = "No"; }},
                   {"Yes", KOAlertActionStyle::Default, [&] { tapped = "Yes"; }}},
                  home.get());
  EXPECT_TRUE(tapped.empty());  // answered once the alert is up, not inside the call that shows it
  bool opened = false, refused = true;
  app.openURL("https://kovantis.example/offer", [&](bool ok) { opened = ok; });
  app.openURL("myapp://deep", [&](bool ok) { refused = ok; });  // cannot open: never on screen
  ui.presentShareSheet(KOArray{"text"}, {"mail"}, nullptr, KORect{384, 512, 0, 0});
  ASSERT_TRUE(waitFor([&] { return tapped == "Yes" && opened && !refused; }));
  EXPECT_FALSE(ui.tapAlertAction(0, 0));  // an answered alert is gone

  std::vector<std::string> kinds;
  for (const auto& e : device().screen().entries()) {
    kinds.push_back(e["kind"].stringValue());
    EXPECT_EQ(e["seq"], KOValue(kinds.size()));
  }
  EXPECT_EQ(kinds, (std::vector<std::string>{"alert", "openURL", "shareSheet", "dismiss"}));
  const KODictionary dismissal = device().screen().last("dismiss");
  EXPECT_EQ(dismissal["of"], KOValue(1));
  EXPECT_EQ(dismissal["button"], KOValue("Yes"));

  // The per-kind views read the same record.
  EXPECT_EQ(app.openedURLs(), std::vector<std::string>{"https://kovantis.example/offer"});
  const auto alerts = ui.alerts();
  ASSERT_EQ(alerts.size(), 1u);
  EXPECT_EQ(alerts[0].actionTitles, (std::vector<std::string>{"No", "Yes"}));
  EXPECT_EQ(alerts[0].presenterName, "Home");
  const auto sheets = ui.shareSheets();
  ASSERT_EQ(sheets.size(), 1u);
  EXPECT_EQ(sheets[0].popoverAnchor, (KORect{384, 512, 0, 0}));
  EXPECT_EQ(sheets[0].excludedActivityTypes, std::vector<std::string>{"mail"});

  app.addOpenableScheme("myapp");
  EXPECT_TRUE(app.canOpenURL("myapp://deep"));
  EXPECT_FALSE(app.canOpenURL("no-scheme"));
}

// A keychain that cannot be read, as on a device still locked after a restart.
class UnreadableKeychain : public KOForwardingKeychainStore {
 public:
  using KOForwardingKeychainStore::KOForwardingKeychainStore;
  int copyMatching(const std::string&, const std::string&, std::string*) const override { return KOKeychainIOError; }
};

TEST_F(KOSimDeviceTest, AWrappedPortBreaksOneCallAndForwardsTheRest) {
  auto platform = std::make_shared<KOPlatform>(*device().platform());
  platform->keychain = std::make_shared<UnreadableKeychain>(platform->keychain);
  KOPlatform::install(platform);

  KOKeychain::save("svc", KOValue("P-1"));
  EXPECT_TRUE(KOKeychain::load("svc").isNil());  // a failed read is a missing item, not an exception
  std::string stored;
  EXPECT_EQ(device().keychain().copyMatching("svc", "svc", &stored), KOKeychainSuccess);
  EXPECT_NE(stored.find("P-1"), std::string::npos);
  KOKeychain::remove("svc");
  EXPECT_EQ(device().keychain().copyMatching("svc", "svc", &stored), KOKeychainItemNotFound);
}

TEST(KOPlatformTest, InstallRefusesAnIncompletePlatform) {
  auto partial = std::make_shared<KOPlatform>();
  EXPECT_THROW(KOPlatform::install(partial), KOAssertionFailure);
  EXPECT_THROW(KOPlatform::install(nullptr), KOAssertionFailure);
  EXPECT_FALSE(KOPlatform::isInstalled());
  EXPECT_THROW(KOPlatform::current(), KOAssertionFailure);
}
