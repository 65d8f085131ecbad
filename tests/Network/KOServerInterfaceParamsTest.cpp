#include <gtest/gtest.h>

#include "KOTestDevice.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"
#include "kovantis/KOConstants.h"

class KOServerInterfaceParamsTest : public KOTestDevice {
 protected:
  KOSimDeviceConfig config() override {
    KOSimDeviceConfig c;
    c.appGroups = {"group.kov"};
    c.profile.timeZoneName = "Asia/Kolkata";
    c.profile.secondsFromGMT = 19800;
    return c;
  }
  void SetUp() override {
    KOTestDevice::SetUp();
    KovantisUtils::saveAppId(KOValue("app-1"));
  }
  KOServerInterface& server() { return KOServerInterface::sharedInstance(); }
  void pref(const char* key, const KOValue& v) { device().preferences().standard().setObject(v, key); }
};

TEST_F(KOServerInterfaceParamsTest, UniversalParametersIdentifyAppSdkAndDevice) {
  device().clock().setNow(1700000000.9);
  const KODictionary p = server().getUniversalParams();
  const std::vector<std::string> keys = p.keys();
  ASSERT_GE(keys.size(), 12u);
  const std::vector<std::string> firstKeys(keys.begin(), keys.begin() + 12);
  EXPECT_EQ(firstKeys,
            (std::vector<std::string>{"os", "app_ver", "app_id", "sdk_ver", "unique_id", "model", "os_ver", "device_ts",
                                      "device_tz", "device_tz_offset", "device_unique_id", "os_value"}));
  EXPECT_EQ(p["app_ver"], KOValue("1.0.0"));
  EXPECT_EQ(p["device_ts"], KOValue("1700000000"));
  EXPECT_EQ(p["device_tz"], KOValue("Asia/Kolkata"));
  EXPECT_EQ(p["device_tz_offset"], KOValue("19800"));
  // unique_id and device_unique_id are checked on the wire by ServerInterfaceIntegrationTest.
  // Legacy twins.
  EXPECT_EQ(p["appId"], KOValue("app-1"));
  EXPECT_EQ(p["device_version"], KOValue("17.4"));
  // No push token, no user id: neither name of either appears.
  for (const char* absent : {"push_id", "pushToken", "account_id", "uid", "integration_type"}) {
    EXPECT_FALSE(p.contains(absent)) << absent;
  }
  KovantisUtils::saveDeviceToken(KOValue("ab12"));
  KovantisUtils::saveUniqueId(KOValue("user-9"));
  const KODictionary q = server().getUniversalParams();
  EXPECT_EQ(q["push_id"], KOValue("ab12"));
  EXPECT_EQ(q["pushToken"], KOValue("ab12"));
  EXPECT_EQ(q["account_id"], KOValue("user-9"));
  EXPECT_EQ(q["uid"], KOValue("user-9"));
}

TEST_F(KOServerInterfaceParamsTest, WrapperVersionsAndTheLastOneNamesTheIntegration) {
  pref(KOV_CORDOVA_SDK_VERSION, KOValue("2.1"));
  pref(KOV_SEGMENT_SDK_VERSION, KOValue("1.0"));
  const KODictionary p = server().getUniversalParams();
  EXPECT_EQ(p["cordova_ver"], KOValue("2.1"));
  EXPECT_EQ(p["segment_ver"], KOValue("1.0"));
  EXPECT_EQ(p["integration_type"], KOValue("segment"));
  EXPECT_FALSE(p.contains("unity_ver"));
  pref(KOV_SEGMENT_SDK_VERSION, KOValue());
  pref(KOV_UNITY_SDK_VERSION, KOValue("5"));
  EXPECT_EQ(server().getUniversalParams()["integration_type"], KOValue("cordova"));
}

TEST_F(KOServerInterfaceParamsTest, SharedWithTheAppGroupWhenOneIsSet) {
  server().getUniversalParams();
  EXPECT_TRUE(device().preferences().suite("group.kov")->objectForKey("kov_params").isNil());
  pref(KOV_APP_GROUP_ID_KEY, KOValue("group.kov"));
  KovantisUtils::saveDeviceToken(KOValue("ff00"));
  const KODictionary p = server().getUniversalParams();
  KOSimPreferenceStore& shared = *static_cast<KOSimPreferenceStore*>(device().preferences().suite("group.kov"));
  shared.reload();  // what an extension would read from disk
  EXPECT_EQ(shared.objectForKey("kov_params"), KOValue(p));
  pref(KOV_APP_GROUP_ID_KEY, KOValue("group.not-entitled"));
  EXPECT_NO_THROW(server().getUniversalParams());
}

TEST_F(KOServerInterfaceParamsTest, MissingAppIdOrVersionAbortsTheCall) {
  KOLogger::debug(1);
  KovantisUtils::saveAppId(KOValue(""));
  EXPECT_THROW(server().getUniversalParams(), KOAssertionFailure);
  EXPECT_TRUE(device().console().contains("Kovantis - App ID is missing in the initialize call"));
  // A public call catches it: nothing reaches the host, the completion reports failure.
  bool called = false, result = true;
  server().sendData(KOValue(KODictionary{}), KOValue("1"), [&](bool ok) {
    called = true;
    result = ok;
  });
  EXPECT_TRUE(called);
  EXPECT_FALSE(result);

  KovantisUtils::saveAppId(KOValue("app-1"));
  device().profile().update([](KOSimProfileSettings& s) { s.shortVersion = ""; });
  EXPECT_NO_THROW(server().getUniversalParams());  // empty is still a version
}
