#include <gtest/gtest.h>
#include <sys/stat.h>

#include "KOTestDevice.h"
#include "KOUtilities/KOKeychain.h"
#include "KOUtilities/KOLogger.h"

class KOKeychainTest : public KOTestDevice {};

TEST_F(KOKeychainTest, SaveLoadReplaceRemove) {
  EXPECT_TRUE(KOKeychain::load("svc").isNil());
  KOKeychain::save("svc", KOValue("P-1"));
  EXPECT_EQ(KOKeychain::load("svc"), KOValue("P-1"));
  KOKeychain::save("svc", KOValue("P-2"));  // a second save replaces, never duplicates
  EXPECT_EQ(KOKeychain::keychainItem("svc"), "P-2");
  KOKeychain::save("svc", KOValue(KODictionary{{"n", 1}}));
  EXPECT_EQ(KOKeychain::keychainItem("svc"), "");  // not a string
  KOKeychain::remove("svc");
  EXPECT_TRUE(KOKeychain::load("svc").isNil());
}

TEST_F(KOKeychainTest, ItemsLiveOutsideTheSandboxWithOwnerOnlyAccess) {
  KOKeychain::save("svc", KOValue("secret"));
  const std::string path = device().keychain().itemPath("svc", "svc");
  EXPECT_EQ(path.rfind(device().keychainDirectory(), 0), 0u);
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  device().uninstall();
  EXPECT_EQ(KOKeychain::load("svc"), KOValue("secret"));
}

TEST_F(KOKeychainTest, CorruptItemIsLoggedAndReadsAsNil) {
  KOLogger::debug(1);
  KOKeychain::save("svc", KOValue("ok"));
  const std::string item = device().keychain().itemPath("svc", "svc");
  device().rawFiles().writeFile(item, "<plist><dict><key>v_Data</key><data>!!");
  EXPECT_TRUE(KOKeychain::load("svc").isNil());
  // Set aside with a line, so that saving a new identity does not destroy it.
  EXPECT_TRUE(device().console().contains("could not be read"));
  KOKeychain::save("svc", KOValue("new"));
  EXPECT_EQ(device().rawFiles().readFile(item + ".unreadable"),
            std::optional<std::string>("<plist><dict><key>v_Data</key><data>!!"));
  EXPECT_EQ(KOKeychain::load("svc"), KOValue("new"));
  // The item itself is readable but its archive is not: that is the unarchive failure.
  device().keychain().remove("svc", "svc");
  device().keychain().add("svc", "svc", "not an archive", "ak");
  EXPECT_TRUE(KOKeychain::load("svc").isNil());
  EXPECT_TRUE(device().console().contains("Kovantis - Unarchive of svc failed:"));
}

TEST_F(KOKeychainTest, AnItemThatCannotBeReadIsNotMissingAndIsReadAgainLater) {
  bool unreadable = true;
  EXPECT_TRUE(KOKeychain::load("svc", &unreadable).isNil());
  EXPECT_FALSE(unreadable);  // simply missing
  KOKeychain::save("svc", KOValue("P-1"));
  const std::string item = device().keychain().itemPath("svc", "svc");
  device().keychain().injectReadFaults(2);
  EXPECT_TRUE(KOKeychain::load("svc", &unreadable).isNil());
  EXPECT_TRUE(unreadable);
  EXPECT_TRUE(device().rawFiles().fileExists(item + ".unreadable"));
  EXPECT_EQ(KOKeychain::keychainItem("svc", &unreadable), "");  // tried again where it was set aside
  EXPECT_TRUE(unreadable);
  EXPECT_EQ(KOKeychain::load("svc", &unreadable), KOValue("P-1"));  // readable again: back in its place
  EXPECT_FALSE(unreadable);
  EXPECT_TRUE(device().rawFiles().fileExists(item));
  EXPECT_FALSE(device().rawFiles().fileExists(item + ".unreadable"));
  // An archive that cannot be unarchived will never read better: that one counts as missing.
  device().keychain().remove("svc", "svc");
  device().keychain().add("svc", "svc", "not an archive", "ak");
  EXPECT_TRUE(KOKeychain::load("svc", &unreadable).isNil());
  EXPECT_FALSE(unreadable);
}
