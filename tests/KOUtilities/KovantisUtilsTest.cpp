#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>

#include "KOTestDevice.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOKeychain.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KovantisUtils.h"
#include "kovantis/KOConstants.h"

using Utils = KovantisUtils;

namespace {
std::shared_ptr<KOViewController> screen(const std::string& name,
                                         KOViewControllerKind kind = KOViewControllerKind::Plain) {
  auto vc = std::make_shared<KOViewController>();
  vc->name = name;
  vc->kind = kind;
  return vc;
}
}  // namespace

class KovantisUtilsTest : public KOTestDevice {
 protected:
  void SetUp() override {
    KOTestDevice::SetUp();
    KOLogger::debug(1);
  }
  KOValue storedPreference(const char* key) {
    // Read what reached the disk, not the in-memory store: every setter must synchronise.
    device().preferences().standardStore().reload();
    return device().preferences().standard().objectForKey(key);
  }
};

TEST_F(KovantisUtilsTest, VendorIdIsMadeOnceAndPersisted) {
  device().clock().setNow(1700000000.4);
  const std::string first = Utils::getIdentifierForVendor();
  EXPECT_TRUE(
      std::regex_match(first, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}-1700000000")))
      << first;
  device().clock().advance(3600);
  EXPECT_EQ(Utils::getIdentifierForVendor(), first);
  EXPECT_EQ(storedPreference(KO_IDENTIFIER_FOR_VENDOR), KOValue(first));
}

TEST_F(KovantisUtilsTest, NoVendorIdFromThePlatformMeansNoPersistentId) {
  device().profile().update([](KOSimProfileSettings& s) { s.vendorIdAvailable = false; });
  EXPECT_EQ(Utils::getIdentifierForVendor(), "");
  EXPECT_EQ(Utils::persistentDeviceId(), "");
  EXPECT_TRUE(Utils::getPersistentId().isNil());
}

TEST_F(KovantisUtilsTest, PersistentIdSurvivesUninstallThroughTheKeychain) {
  const std::string service = std::string(KO_KEYCHAIN_SERVICE) + ".com.kovantis.demo";
  // The first install resolves its id in a forked process, as the app did before it was deleted:
  // this process's cache stays empty.
  EXPECT_EXIT(
      {
        const std::string id = Utils::persistentDeviceId();
        // _Exit, not exit: a child forked from a threaded process may inherit the allocator's
        // lock held by another thread, and the leak check that exit runs would wait on it forever.
        std::_Exit(id.rfind("P-", 0) == 0 && KOKeychain::keychainItem(service) == id ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  const std::string firstInstallId = KOKeychain::keychainItem(service);
  ASSERT_EQ(firstInstallId.rfind("P-", 0), 0u);

  device().uninstall();
  const std::string newVendorId = Utils::getIdentifierForVendor();
  EXPECT_NE("P-" + newVendorId, firstInstallId);
  EXPECT_TRUE(Utils::getPersistentId().isNil());
  EXPECT_EQ(Utils::persistentDeviceId(), firstInstallId);
  EXPECT_EQ(storedPreference(KO_PERSISTENT_ID_KEY), KOValue(firstInstallId));
}

TEST_F(KovantisUtilsTest, SettersStoreWhatTheyGetAndRefuseWhatTheyMust) {
  Utils::saveAppId(KOValue("app-1"));
  Utils::saveUniqueId(KOValue(42));
  EXPECT_EQ(storedPreference(KO_APP_ID_KEY), KOValue("app-1"));
  EXPECT_EQ(Utils::getUniqueId(), KOValue(42));  // stored as given, no conversion

  Utils::saveAdvertisingID(KOValue("AD-1"));
  Utils::saveAdvertisingID(KOValue());
  EXPECT_EQ(Utils::getSavedAdvertisingID(), KOValue("AD-1"));

  Utils::savePersistenceId(KOValue(""));
  EXPECT_TRUE(Utils::getPersistentId().isNil());
  EXPECT_TRUE(device().console().contains("Kovantis - Persistence ID is empty"));

  Utils::saveAppId(KOValue());  // nil clears
  EXPECT_TRUE(Utils::getAppId().isNil());

  EXPECT_FALSE(Utils::isUserRegisteredForV2());
  device().preferences().standard().setObject(KOValue(false), KO_REGISTER_V2);
  EXPECT_TRUE(Utils::isUserRegisteredForV2());  // presence, not value
}

TEST_F(KovantisUtilsTest, AdvertisingIdFollowsTheFrameworkAndTrackingSwitch) {
  EXPECT_EQ(Utils::advertiserID(), KOValue("6D92078A-8246-4BA4-AE5B-76104861E7DC"));
  device().profile().update([](KOSimProfileSettings& s) { s.advertisingTrackingEnabled = false; });
  EXPECT_TRUE(Utils::advertiserID().isNil());
  EXPECT_TRUE(device().console().contains("Kovantis - Limited ad tracking. Can't track advertising identifier"));
  device().profile().update([](KOSimProfileSettings& s) { s.advertisingAvailable = false; });
  EXPECT_TRUE(Utils::advertiserID().isNil());
  EXPECT_TRUE(device().console().contains("Kovantis - ADSupport Framework unavailable"));
}

TEST_F(KovantisUtilsTest, TimeStrings) {
  // 5 November 2015, 09:07:03 in a zone five and a half hours east of GMT.
  device().profile().update([](KOSimProfileSettings& s) { s.secondsFromGMT = 19800; });
  device().clock().setNow(1446694623.75);
  EXPECT_EQ(Utils::getLocalTime(), "5:11:2015:9:7:3");
  EXPECT_EQ(Utils::getGMTtime(), "1446694623");
  device().clock().setNow(-0.5);  // floored, not truncated
  EXPECT_EQ(Utils::getGMTtime(), "-1");
}

TEST_F(KovantisUtilsTest, HexTokenTakesThirtyTwoBytesInOrder) {
  KOData token;
  for (int i = 0; i < 40; ++i) token.bytes.push_back(static_cast<std::uint8_t>(i * 7));
  for (const auto& [data, hex] : std::vector<std::pair<KOValue, KOValue>>{
           {token, "00070e151c232a31383f464d545b626970777e858c939aa1a8afb6bdc4cbd2d9"},
           {KOValue(), KOValue()},
           {KOData{{0xAB}}, "ab"}}) {
    EXPECT_EQ(Utils::hexTokenForData(data), hex) << data.description();
  }
}

TEST_F(KovantisUtilsTest, PayloadTransformationMakesEveryValueStorableAsJSON) {
  const KODictionary payload{
      {"token", KOData{{0xDE, 0xAD}}},
      {"link", KOURL{"https://example.com/a?b=1"}},
      {"gone", KONull{}},
      {"when", KODate{1700000000.25}},
      {"nested", KODictionary{{"inner", KONull{}}, {"n", 1}}},
      {"list", KOArray{KONull{}, KODate{1}}},
      {"plain", "x"},
  };
  const KODictionary out = Utils::transformPayloadForIncompatibleTypes(payload);
  EXPECT_EQ(out["token"], KOValue("dead"));
  EXPECT_EQ(out["link"], KOValue("https://example.com/a?b=1"));
  EXPECT_EQ(out["gone"], KOValue(""));
  EXPECT_EQ(out["when"], KOValue(1700000000.25));
  EXPECT_EQ(out["nested"], KOValue(KODictionary{{"inner", ""}, {"n", 1}}));
  EXPECT_EQ(out["list"], KOValue(KOArray{KONull{}, KODate{1}}));  // arrays are not descended into
  EXPECT_EQ(out.keys(), payload.keys());
}

TEST_F(KovantisUtilsTest, ColoursFromHexText) {
  const KOColor black{0, 0, 0, 1};
  // The short form is read as the number it spells: 0xF00 is green 0x0F, blue 0x00.
  for (const auto& [text, colour] :
       std::vector<std::pair<KOValue, KOColor>>{{"", black},
                                                {KOValue(), black},
                                                {"#zz", black},
                                                {"#FF0000", {1, 0, 0, 1}},
                                                {"#336699", {0x33 / 255.0, 0x66 / 255.0, 0x99 / 255.0, 1}},
                                                {"#F00", {0, 0x0F / 255.0, 0, 1}}}) {
    EXPECT_EQ(Utils::getColorFromHexValue(text), colour) << text.description();
  }
}

TEST_F(KovantisUtilsTest, ScreenSizesForInAppAreCapped) {
  device().profile().update([](KOSimProfileSettings& s) { s.screenSize = {768, 1024}; });
  EXPECT_EQ(Utils::screenWidthForInApp(), 414.0);
  EXPECT_EQ(Utils::screenHeightForInApp(), 736.0);
  device().profile().update([](KOSimProfileSettings& s) { s.screenSize = {320, 568}; });
  EXPECT_EQ(Utils::screenWidthForInApp(), 320.0);
  EXPECT_EQ(Utils::screenHeightForInApp(), 568.0);

  EXPECT_EQ(Utils::getOptmisedImageSizeFromImage(KOImage{{200, 100}}, 300), (KOSize{300, 150}));
  EXPECT_EQ(Utils::getOptmisedImageSizeFromImage(KOImage{{0, 100}}, 300), (KOSize{300, 0}));
  // Text goes through the device's metric; no font means the system font of the system size.
  const KOFont big{"HelveticaNeue", 20};
  EXPECT_EQ(Utils::findSizeForText("abcd", nullptr), (KOSize{34, 17 * 1.2}));
  EXPECT_DOUBLE_EQ(Utils::findHeightForText("abcdefghij", 40, &big), 3 * 24.0);
}

TEST_F(KovantisUtilsTest, TopScreenSkipsAlertsAndUnwrapsContainersForNudges) {
  EXPECT_EQ(Utils::getTopViewController(), nullptr);
  auto fallback = screen("Fallback");
  device().application().setDelegateWindowRootViewController(fallback);
  EXPECT_EQ(Utils::getTopViewController(), fallback);

  auto home = screen("Home");
  auto detail = screen("Detail");
  auto nav = screen("Nav", KOViewControllerKind::Navigation);
  nav->children = {home, detail};
  auto tabs = screen("Tabs", KOViewControllerKind::TabBar);
  tabs->children = {home, nav};
  tabs->selectedIndex = 1;
  auto root = screen("Root");
  root->presented = tabs;
  tabs->presented = screen("Alert", KOViewControllerKind::Alert);
  device().application().setKeyWindowRootViewController(root);

  EXPECT_EQ(Utils::getTopViewController(), tabs);
  EXPECT_EQ(Utils::getTopViewControllerForNudges(), detail);
  tabs->selectedIndex = 0;
  EXPECT_EQ(Utils::getTopViewControllerForNudges(), home);
}

TEST_F(KovantisUtilsTest, AlertAndShareSheetReachTheUserInterface) {
  auto root = screen("Root");
  device().application().setKeyWindowRootViewController(root);
  Utils::showAlertViewWithMessage("Body", "Title");
  device().userInterface().setSupportsAlertController(false);
  Utils::showAlertViewWithMessage("Old", "Older");
  const auto alerts = device().userInterface().alerts();
  ASSERT_EQ(alerts.size(), 2u);
  EXPECT_EQ(alerts[0].title, "Title");
  EXPECT_EQ(alerts[0].message, "Body");
  EXPECT_EQ(alerts[0].presenterName, "Root");
  EXPECT_EQ(alerts[1].presenterName, "");
  EXPECT_TRUE(device().userInterface().tapAlertAction(0, 0));

  Utils::openShareSheetWithContentToShare(KOArray{"text"});
  device().profile().update([](KOSimProfileSettings& s) {
    s.idiom = KOUserInterfaceIdiom::Pad;
    s.screenSize = {768, 1024};
  });
  Utils::openShareSheetWithContentToShare(KOArray{"text"});
  const auto sheets = device().userInterface().shareSheets();
  ASSERT_EQ(sheets.size(), 2u);
  EXPECT_FALSE(sheets[0].popoverAnchor.has_value());
  ASSERT_TRUE(sheets[1].popoverAnchor.has_value());
  EXPECT_EQ(*sheets[1].popoverAnchor, (KORect{384, 512, 0, 0}));
}

TEST_F(KovantisUtilsTest, CheckIfStringIsCaseSensitiveContainment) {
  EXPECT_TRUE(Utils::checkIfString("push_clicked", "click"));
  EXPECT_FALSE(Utils::checkIfString("push", "Push"));
  EXPECT_FALSE(Utils::checkIfString("push", ""));
}
