// The wipe and the export, both made from the SDK's footprint: after a whole session the wipe leaves
// the device as an app that never started the SDK, and the export holds every personal item of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>

#include "KOPrivacy/KOSDKFootprint.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOKeychain.h"
#include "KOUtilities/KovantisUtils.h"
#include "PrivacySession.h"

namespace fs = std::filesystem;

class WipeExportTest : public KOSDKTestDevice {
 protected:
  KOSimDeviceConfig config() override {
    KOSimDeviceConfig c;
    c.appGroups = {privacy_session::kAppGroup};
    return c;
  }
  void SetUp() override {
    KOSDKTestDevice::SetUp();
    emulator().seed(privacy_session::seed(emulator().baseURL()));
    // What the host app keeps itself, which no wipe of the SDK's may touch.
    device().rawFiles().writeFile(device().documentsDirectory() + "/notes.txt", "the host's");
    device().preferences().standard().setObject(KOValue("dark"), "host_theme");
    device().preferences().standard().synchronize();
    device().preferences().suite(privacy_session::kAppGroup)->setObject(KOValue(1), "host_shared");
    device().preferences().suite(privacy_session::kAppGroup)->synchronize();
    device().keychain().add("host.service", "host", "secret", "ak");
  }

  /// The device as a set of lines: every file and directory of the sandbox, the app groups and the
  /// keychain (the preference files read as their keys and values instead).
  std::set<std::string> snapshot() {
    std::set<std::string> lines;
    const fs::path root = device().rootDirectory();
    for (const char* part : {"Sandbox", "AppGroups", "Keychain"}) {
      if (!fs::exists(root / part)) continue;
      for (const auto& entry : fs::recursive_directory_iterator(root / part)) {
        const std::string path = fs::relative(entry.path(), root).string();
        if (path.find("/Preferences") != std::string::npos) continue;
        lines.insert((entry.is_directory() ? "dir  " : "file ") + path);
      }
    }
    for (const auto& [key, value] : device().preferences().standard().dictionaryRepresentation()) {
      lines.insert("pref " + key + " = " + value.description());
    }
    for (const auto& [key, value] :
         device().preferences().suite(privacy_session::kAppGroup)->dictionaryRepresentation()) {
      lines.insert("group " + key + " = " + value.description());
    }
    return lines;
  }
  static std::string difference(const std::set<std::string>& a, const std::set<std::string>& b) {
    std::string out;
    for (const auto& line : a) {
      if (!b.count(line)) out += "\n  - " + line;
    }
    for (const auto& line : b) {
      if (!a.count(line)) out += "\n  + " + line;
    }
    return out;
  }
  std::size_t sdkRegions() {
    const auto regions = device().location().monitoredRegions();
    return std::count_if(regions.begin(), regions.end(),
                         [](const KOCircularRegion& r) { return r.identifier.ends_with("-KO"); });
  }
  bool documentsHold(const char* name) {
    return device().rawFiles().fileExists(device().documentsDirectory() + "/" + name);
  }
};

TEST_F(WipeExportTest, AfterAWholeSessionTheWipeLeavesTheDeviceAsAnAppThatNeverStartedTheSDK) {
  const std::set<std::string> neverStarted = snapshot();
  privacy_session::Session session(device(), /*traffic=*/true);
  session.run();
  ASSERT_TRUE(deliverAll());
  sdk().trackEvent(KOValue("HELD"));  // and one waiting for the service
  // The session left its marks everywhere the footprint says.
  ASSERT_TRUE(session.shownInApp);
  for (const char* kept :
       {"InboxMessages.plist", "InAppCampaignsV2.plist", "KovantisUserAttributes.plist", "Kovantis"}) {
    EXPECT_TRUE(documentsHold(kept)) << kept;
  }
  EXPECT_TRUE(documentsHold("Kovantis/InAppImages/sale"));
  EXPECT_GE(sdkRegions(), 1u);
  EXPECT_TRUE(KOKeychain::load(KOSDKFootprint::keychainService(KOSDKFootprint::items().back())).isString());
  EXPECT_FALSE(device().preferences().suite(privacy_session::kAppGroup)->objectForKey("kov_params").isNil());
  ASSERT_NE(snapshot(), neverStarted);

  sdk().wipeData();
  EXPECT_EQ(difference(neverStarted, snapshot()), "");
  EXPECT_EQ(sdkRegions(), 0u);
  EXPECT_FALSE(session.manager->isUpdatingLocation());

  // Until the next launch the SDK stays as it is now: nothing recorded, sent or stored.
  emulator().reset();
  session.attributesAndEvents();
  session.lifecycle();
  sdk().initializeWithApiKey(KOValue("privacy-app"));
  session.settle();
  EXPECT_EQ(difference(neverStarted, snapshot()), "");
  EXPECT_EQ(emulator().requestCount(), 0u);
}

TEST_F(WipeExportTest, AWipeThatKeepsThePersistentIdLeavesItsKeychainItemAlone) {
  const std::set<std::string> neverStarted = snapshot();
  start();
  ASSERT_TRUE(deliverAll());
  const std::string persistentId = KovantisUtils::persistentDeviceId();
  ASSERT_FALSE(persistentId.empty());
  sdk().wipeData(KOWipeOptions{.keepPersistentDeviceId = true});
  const std::string left = difference(neverStarted, snapshot());
  EXPECT_EQ(std::count(left.begin(), left.end(), '\n'), 1) << left;
  EXPECT_NE(left.find("+ file Keychain/"), std::string::npos) << left;
  std::string item;
  const std::string service = KOSDKFootprint::keychainService(KOSDKFootprint::items().back());
  ASSERT_EQ(device().keychain().copyMatching(service, service, &item), KOKeychainSuccess);
  EXPECT_NE(item.find(persistentId), std::string::npos);
}

TEST_F(WipeExportTest, TheExportHoldsEveryPersonalItemOfTheFootprintAndTheRestSaysWhyNot) {
  privacy_session::Session session(device(), /*traffic=*/true);
  session.run();
  ASSERT_TRUE(deliverAll());
  sdk().trackEvent(KOValue("HELD"), KOValue(KODictionary{{"sku", "B2"}}));  // not yet accepted
  const KOValue exported = sdk().exportUserData();
  ASSERT_TRUE(exported.isDictionary());

  KOPreferenceStore& standard = device().preferences().standard();
  KOPreferenceStore& group = *device().preferences().suite(privacy_session::kAppGroup);
  for (const KOFootprintItem& item : KOSDKFootprint::items()) {
    SCOPED_TRACE(item.name);
    EXPECT_TRUE(item.holds && *item.holds) << "every item says what it holds";
    if (!item.exportedAs) continue;  // holds nothing personal, and says why
    const KOValue& entry = exported[item.exportedAs];
    ASSERT_FALSE(entry.isAbsent()) << "exported as " << item.exportedAs;
    switch (item.kind) {
      case KOFootprintKind::Preference:
        if (!standard.objectForKey(item.name).isNil()) {
          EXPECT_EQ(entry[item.name], standard.objectForKey(item.name));
        }
        break;
      case KOFootprintKind::AppGroupPreference:
        EXPECT_EQ(entry[item.name], group.objectForKey(item.name));
        break;
      case KOFootprintKind::KeychainItem:
        EXPECT_EQ(entry[item.name], KOValue(KovantisUtils::persistentDeviceId()));
        break;
      case KOFootprintKind::DocumentsFile:
      case KOFootprintKind::DocumentsDirectory:
        EXPECT_FALSE(entry.isArray() ? entry.arrayValue().empty() : entry.dictionaryValue().empty());
        break;
    }
  }
  // What each entry holds after this session.
  EXPECT_TRUE(exported["identifiers"]["KO_identifierForVendor"].isString());
  EXPECT_EQ(exported["attributes"]["USER_ATTRIBUTE_UNIQUE_ID"], KOValue("user-7"));
  EXPECT_EQ(exported["attributes"]["USER_ATTRIBUTE_USER_EMAIL"], KOValue("ada@example.com"));
  const KOArray& events = exported["events"].arrayValue();
  ASSERT_EQ(events.size(), 1u) << "the delivered events are the service's now";
  EXPECT_EQ(events[0]["EVENT_ATTRS"]["sku"], KOValue("B2"));
  EXPECT_FALSE(exported["inbox"].arrayValue().empty());
  EXPECT_FALSE(exported["inAppStatistics"]["campaigns"]["sale"].isAbsent());
  EXPECT_TRUE(exported["push"]["KO_deviceToken"].isString());
  EXPECT_TRUE(exported["push"]["kKovPushPreferenceUserDefaultKey"].isNumber());
  ASSERT_EQ(exported["geofences"].arrayValue().size(), 1u);
  EXPECT_EQ(exported["geofences"].arrayValue()[0]["identifier"], KOValue("gate-KO"));
  EXPECT_EQ(exported["consent"]["current"], KOValue("granted"));

  // The JSON form: the same, with dates as seconds.
  const KOValue json = KOJSONSerialization::parse(sdk().exportUserDataJSON());
  EXPECT_EQ(json["attributes"], exported["attributes"]);
  EXPECT_TRUE(json["inAppStatistics"]["KO_lastInAppShowedTime"].isNumber());
}
