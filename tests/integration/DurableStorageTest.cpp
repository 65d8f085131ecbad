#include <gtest/gtest.h>

#include "KODataHandler/KOUserAttributesHandler.h"
#include "KOSDKTestDevice.h"
#include "KOUtilities/KOLogger.h"
#include "kovantis/KOConstants.h"

class DurableStorageTest : public KOSDKTestDevice {
 protected:
  std::string attributeCachePath() { return device().documentsDirectory() + "/KovantisUserAttributes.plist"; }

  void track(const std::string& name, int count) {
    for (int i = 0; i < count; ++i) sdk().trackEvent(KOValue(name), KOValue(KODictionary{{"i", i}}));
  }
};

TEST_F(DurableStorageTest, AFullDiskDelaysTheBatchFileButLosesNothing) {
  startClean();
  emulator().injectFault(KOEmulatorFault{"/v2/report/add", 503, 0, false, -1, 1.0});  // the service is down
  device().files().inject(KOFileFault::DiskFull, "KovantisBatchEvents.plist", -1);
  // Thirty batches while the disk is full: every write of the file fails and is retried.
  track("KEPT", 900);
  ASSERT_TRUE(waitForRequests("/v2/report/add", 1));
  ASSERT_TRUE(waitFor([&] { return device().files().faultsFired() >= 2; }));  // written again, and failed again
  EXPECT_FALSE(device().files().fileExists(events().eventsPlistFilePath()));
  // Space again. Whether the file is written now or later depends on how much the journal holds:
  // it carries every batch the file misses (a restart replays them), so what counts is that every
  // event still reaches the service, once.
  device().files().clear();
  emulator().clearFaults();
  ASSERT_TRUE(flush());
  EXPECT_EQ(storedNames("KEPT").size(), 900u);
}

TEST_F(DurableStorageTest, OneReadErrorAtStartSetsNothingAsideAndEveryStoredEventIsDelivered) {
  KOArray records;
  for (int i = 0; i < 90; ++i) records.push_back(KODictionary{{"EVENT_ACTION", "STORED"}, {"i", i}});
  const std::string batchPath = device().documentsDirectory() + "/KovantisBatchEvents.plist";
  ASSERT_TRUE(
      KOPropertyListFile::write(device().rawFiles(), batchPath, KOValue(KODictionary{{"1700000000000", records}})));
  device().files().inject(KOFileFault::ReadError, "KovantisBatchEvents.plist", 1);
  start();
  ASSERT_TRUE(flush());
  EXPECT_EQ(storedNames("STORED").size(), 90u);
  EXPECT_FALSE(device().files().fileExists(batchPath + ".unreadable"));
  EXPECT_EQ(emulator().batches().front().batchId, "1700000000000");
}

TEST_F(DurableStorageTest, HostilePayloadsAreRefusedAloneAndTheirNeighboursDelivered) {
  KOLogger::debug(1);
  startClean();
  emulator().injectFault(KOEmulatorFault{"/v2/report/add", 503, 0, false, -1, 1.0});
  // 100,000 dictionaries deep, built and destroyed by the host around the call.
  {
    KOValue deep(KODictionary{{"leaf", 1}});
    for (int i = 0; i < 100000; ++i) {
      KODictionary level;
      level.set("d", std::move(deep));
      deep = KOValue(std::move(level));
    }
    sdk().trackEvent(KOValue("DEEP"), deep);
    auto shared = std::make_shared<KODictionary>();
    shared->set("deep", std::move(deep));
    KOPayloadBuilder builder(shared);
    sdk().trackEvent(KOValue("DEEP_BUILT"), builder);
    const KOValue& deepKey = (*shared)["deep"];
    sdk().setUserAttribute(KOValue("v"), deepKey);
    sdk().setUserAttributeTimestamp(1.0, deepKey);
  }
  sdk().trackEvent(KOValue("NUL"), KOValue(KODictionary{{"v", std::string("a\0b", 3)}}));
  sdk().trackEvent(KOValue("NUL_KEY"), KOValue(KODictionary{{std::string("k\0", 2), "v"}}));
  sdk().setUserAttribute(KOValue(std::string("x\0y", 3)), KOValue("nul_attribute"));
  sdk().trackEvent(KOValue("BAD_UTF8"), KOValue(KODictionary{{"v", std::string("\xC3\x28")}}));
  sdk().trackEvent(KOValue("ESCAPED"), KOValue(KODictionary{{"v", "\\u0000 is text here"}}));
  sdk().trackEvent(KOValue("LARGE"), KOValue(KODictionary{{"v", std::string(10 * 1024 * 1024, 'x')}}));
  track("NEIGHBOUR", 28);  // with ESCAPED and LARGE a full batch
  EXPECT_TRUE(device().console().contains("Kovantis - exception is"));
  // The service is down: every accepted record is in the batch file, none kept out by another.
  ASSERT_TRUE(waitFor([&] {
    const KOValue file = batchFile();
    return file.isDictionary() && file.dictionaryValue().size() == 1;
  }));
  EXPECT_EQ(batchFile().dictionaryValue().begin()->second.arrayValue().size(), 30u);
  emulator().clearFaults();
  ASSERT_TRUE(flush(60));
  EXPECT_EQ(storedNames("NEIGHBOUR").size(), 28u);
  EXPECT_EQ(storedNames("ESCAPED").size(), 1u);
  for (const char* refused : {"DEEP", "DEEP_BUILT", "NUL", "NUL_KEY", "BAD_UTF8"}) {
    EXPECT_TRUE(storedNames(refused).empty()) << refused;
  }
  EXPECT_TRUE(storedRecords(EVENT_ACTION_USER_ATTRIBUTE).empty());
  // A refused attribute does not count as sent.
  EXPECT_FALSE(KOUserAttributesHandler::sharedInstance().doesUserAttributeExistsWithKey(
      KOValue("nul_attribute"), KOValue(std::string("x\0y", 3))));
}

TEST_F(DurableStorageTest, TheAttributeCacheIsWrittenOffTheCallersThreadAndNeverOverwrittenUnread) {
  KOLogger::debug(1);
  // Left by an earlier generation or a bad disk: a list where the cache should be, and a
  // temporary of a write a crash interrupted.
  ASSERT_TRUE(KOPropertyListFile::write(device().rawFiles(), attributeCachePath(), KOValue(KOArray{1, 2})));
  device().rawFiles().writeFile(attributeCachePath() + ".tmp-3", "half");
  startClean();
  sdk().setUserEmailID(KOValue("a@example.com"));
  EXPECT_TRUE(device().console().contains("Kovantis - The user attribute cache could not be read"));
  EXPECT_EQ(KOPropertyListFile::read(device().rawFiles(), attributeCachePath() + ".unreadable"),
            KOValue(KOArray{1, 2}));
  EXPECT_FALSE(device().files().fileExists(attributeCachePath() + ".tmp-3"));

  // A write that fails stays due and is tried again until the disk takes it.
  device().files().inject(KOFileFault::DiskFull, "KovantisUserAttributes.plist", -1);
  sdk().setUserAttribute(KOValue("gold"), KOValue("plan"));
  ASSERT_TRUE(waitFor([&] { return device().files().faultsFired() >= 2; }));
  device().files().clear();
  ASSERT_TRUE(waitFor([&] {
    const KOValue cache = KOPropertyListFile::read(device().rawFiles(), attributeCachePath());
    return cache.isDictionary() && cache["plan"] == KOValue("gold") &&
           cache["USER_ATTRIBUTE_USER_EMAIL"] == KOValue("a@example.com");
  }));
  // A reset clears it for good: no write of the old cache comes after.
  sdk().setUserAttribute(KOValue("silver"), KOValue("plan"));
  KOUserAttributesHandler::cleanUpUserData();
  ASSERT_TRUE(settle());
  EXPECT_FALSE(device().files().fileExists(attributeCachePath()));
}

TEST_F(DurableStorageTest, AReadErrorOfThePreferencesIsNoReinstallAndNeverLosesThem) {
  start();
  ASSERT_TRUE(flush());
  const std::string deviceId = KovantisUtils::persistentDeviceId();
  const std::string prefsPath = device().standardPreferencesPath();
  const std::optional<std::string> before = device().rawFiles().readFile(prefsPath);
  ASSERT_TRUE(before.has_value());
  // The next launch meets one read error of the preference file: tried again, nothing changes.
  device().preferences().standardStore().reload();
  device().files().inject(KOFileFault::ReadError, "Library/Preferences", 1);
  sdk().initializeWithApiKey(KOValue("kov-test-app"));
  ASSERT_TRUE(flush());
  EXPECT_TRUE(storedNames("REINSTALL").empty());
  EXPECT_EQ(KovantisUtils::persistentDeviceId(), deviceId);
  EXPECT_FALSE(device().files().fileExists(prefsPath + ".unreadable"));

  // One that lasts: the store starts empty, but the file is set aside with a line, not replaced.
  device().preferences().standardStore().reload();
  device().files().inject(KOFileFault::ReadError, "Library/Preferences", -1);
  EXPECT_TRUE(KovantisUtils::getAppId().isNil());
  device().files().clear();
  EXPECT_TRUE(device().console().contains("could not be read"));
  const std::optional<std::string> aside = device().rawFiles().readFile(prefsPath + ".unreadable");
  ASSERT_TRUE(aside.has_value());
  EXPECT_NE(aside->find("kov-test-app"), std::string::npos);
}
