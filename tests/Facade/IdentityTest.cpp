// The app's identity across launches when its preference file or its keychain item cannot be read:
// what could not be read is never taken for absent, and is read again at the next start.
#include <gtest/gtest.h>

#include "KOSDKTestDevice.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOKeychain.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KovantisUtils.h"
#include "kovantis/KOConstants.h"

class IdentityTest : public KOSDKTestDevice {
 protected:
  /// Another launch of the app: the stores read their files again and the host starts the SDK.
  void relaunch() {
    device().preferences().reloadAll();
    start();
  }

  std::string keychainService() {
    return KOStringFormat::format("%@.%@", {KOValue(KO_KEYCHAIN_SERVICE), KovantisUtils::bundleIdentifier()});
  }
};

TEST_F(IdentityTest, UnreadablePreferencesAreNoReinstallNorResetAndComeBackAtTheNextStart) {
  start();
  ASSERT_TRUE(deliverAll());
  const KOValue persistentId = KovantisUtils::getPersistentId();
  const std::string vendorId = KovantisUtils::getIdentifierForVendor();
  ASSERT_TRUE(persistentId.isString());
  const std::string prefsPath = device().standardPreferencesPath();

  device().files().inject(KOFileFault::ReadError, "Library/Preferences", -1);
  relaunch();
  ASSERT_TRUE(deliverAll());
  EXPECT_TRUE(device().preferences().standard().unreadable());
  EXPECT_TRUE(storedNames("REINSTALL").empty());
  EXPECT_TRUE(storedNames("KOV_LOGOUT").empty());
  EXPECT_TRUE(device().rawFiles().fileExists(prefsPath + ".unreadable"));

  device().files().clear();
  relaunch();
  ASSERT_TRUE(deliverAll());
  EXPECT_FALSE(device().preferences().standard().unreadable());
  EXPECT_TRUE(storedNames("REINSTALL").empty());
  EXPECT_TRUE(storedNames("KOV_LOGOUT").empty());
  EXPECT_EQ(KovantisUtils::getAppId(), KOValue("kov-test-app"));
  EXPECT_EQ(KovantisUtils::getPersistentId(), persistentId);
  // Whatever the blind launch filled in, the values it could not see win.
  EXPECT_EQ(KovantisUtils::getIdentifierForVendor(), vendorId);
  EXPECT_FALSE(device().rawFiles().fileExists(prefsPath + ".unreadable"));
  EXPECT_TRUE(device().console().contains("were read again"));
}

TEST_F(IdentityTest, AnAppIdChangedWhileThePreferencesCannotBeReadResetsTheUserAtTheNextStart) {
  start();
  ASSERT_TRUE(deliverAll());
  device().files().inject(KOFileFault::ReadError, "Library/Preferences", -1);
  device().preferences().reloadAll();
  start("another-app");
  ASSERT_TRUE(deliverAll());
  EXPECT_TRUE(storedNames("KOV_LOGOUT").empty());  // the stored id is unknown: nothing to compare with

  device().files().clear();
  device().preferences().reloadAll();
  start("another-app");
  ASSERT_TRUE(waitFor([&] { return storedNames("KOV_LOGOUT").size() == 1; }));
  EXPECT_EQ(KovantisUtils::getAppId(), KOValue("another-app"));
}

TEST_F(IdentityTest, AnUnreadableKeychainAfterAnUninstallMintsNoIdAndTheReinstallComesAtTheNextStart) {
  // All an earlier install left on the device: its keychain item.
  KOKeychain::save(keychainService(), KOValue("P-earlier"));
  const std::string item = device().keychain().itemPath(keychainService(), keychainService());
  device().keychain().injectReadFaults(-1);
  start();
  ASSERT_TRUE(deliverAll());
  EXPECT_TRUE(storedNames("REINSTALL").empty());
  EXPECT_EQ(KovantisUtils::persistentDeviceId(), "");
  EXPECT_TRUE(KovantisUtils::getPersistentId().isNil());
  EXPECT_FALSE(device().rawFiles().fileExists(item));  // nothing new in its place
  EXPECT_TRUE(device().rawFiles().fileExists(item + ".unreadable"));

  device().keychain().injectReadFaults(0);
  relaunch();
  ASSERT_TRUE(deliverAll());
  EXPECT_EQ(storedNames("REINSTALL").size(), 1u);
  EXPECT_EQ(KovantisUtils::persistentDeviceId(), "P-earlier");
  EXPECT_EQ(KovantisUtils::getPersistentId(), KOValue("P-earlier"));
  EXPECT_TRUE(device().rawFiles().fileExists(item));

  relaunch();  // owed once, reported once
  ASSERT_TRUE(deliverAll());
  EXPECT_EQ(storedNames("REINSTALL").size(), 1u);
}
