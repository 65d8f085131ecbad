#include <gtest/gtest.h>

#include "KOTestDevice.h"
#include "KOUtilities/KOKeychain.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "Sim/KOForwardingPlatform.h"
#include "kovantis/KOConstants.h"

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
}

TEST_F(KOSimDeviceTest, AppGroupSuitesAreSeparateAndEntitled) {
  EXPECT_EQ(device().preferences().suite("group.other"), nullptr);
  KOPreferenceStore* suite = device().preferences().suite("group.com.kovantis.demo");
  ASSERT_NE(suite, nullptr);
  suite->setObject(KOValue("shared"), "kov_params");
  ASSERT_TRUE(suite->synchronize());
  EXPECT_TRUE(device().preferences().standard().objectForKey("kov_params").isNil());
}

// The keychain outliving an uninstall is KOKeychainTest's and KovantisUtilsTest's to check.
TEST_F(KOSimDeviceTest, UninstallLeavesAFreshSandboxAndANewVendorId) {
  device().preferences().standard().setObject(KOValue("x"), "KO_appId");
  device().preferences().standard().synchronize();
  device().rawFiles().writeFile(device().documentsDirectory() + "/KovantisBatchEvents.plist", "data");
  const std::string vendorId = device().profile().identifierForVendor();

  device().uninstall();
  EXPECT_TRUE(device().preferences().standard().objectForKey("KO_appId").isNil());
  EXPECT_FALSE(device().files().fileExists(device().documentsDirectory() + "/KovantisBatchEvents.plist"));
  EXPECT_TRUE(device().files().fileExists(device().documentsDirectory()));  // a fresh, empty sandbox
  EXPECT_NE(device().profile().identifierForVendor(), vendorId);
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

  // The per-kind views read the same record (alerts and share sheets are read through them by the SDK's tests).
  EXPECT_EQ(app.openedURLs(), std::vector<std::string>{"https://kovantis.example/offer"});
  EXPECT_EQ(ui.shareSheets().at(0).excludedActivityTypes, std::vector<std::string>{"mail"});

  app.addOpenableScheme("myapp");
  EXPECT_TRUE(app.canOpenURL("myapp://deep"));
  EXPECT_FALSE(app.canOpenURL("no-scheme"));
}

// The app's router hears its own URLs later on the main queue, as the system hands them over, and
// the opener hears what it answered.
TEST_F(KOSimDeviceTest, TheAppsURLHandlerHearsItsURLsAndAnswersTheOpener) {
  auto& app = device().application();
  std::vector<std::string> routed;
  app.setURLHandler("shop://", [&](const std::string& url) {
    routed.push_back("shop " + url);
    return url != "shop://gone";
  });
  app.setURLHandler("shop://cart/", [&](const std::string& url) {
    routed.push_back("cart " + url);
    return true;
  });
  EXPECT_TRUE(app.canOpenURL("shop://product/A1"));
  std::vector<bool> answers;
  for (const char* url : {"shop://product/A1", "shop://cart/2", "shop://gone"}) {
    app.openURL(url, [&answers](bool handled) { answers.push_back(handled); });
  }
  EXPECT_TRUE(routed.empty()) << "not inside the call that opens it";
  ASSERT_TRUE(waitFor([&] { return answers.size() == 3; }));
  EXPECT_EQ(routed, (std::vector<std::string>{"shop shop://product/A1", "cart shop://cart/2", "shop shop://gone"}));
  EXPECT_EQ(answers, (std::vector<bool>{true, true, false}));
  EXPECT_EQ(app.openedURLs().size(), 3u) << "on the screen record as well";

  app.setURLHandler("shop://", nullptr);
  app.setURLHandler("shop://cart/", nullptr);
  EXPECT_FALSE(app.canOpenURL("shop://product/A1"));
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
  try {
    KOPlatform::current();
    ADD_FAILURE() << "no platform, no answer";
  } catch (const KOAssertionFailure& e) {
    EXPECT_NE(std::string(e.what()).find("KOSimDevice::install"), std::string::npos) << "says what to do: " << e.what();
  }
}
