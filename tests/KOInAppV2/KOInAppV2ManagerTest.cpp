#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOTestDevice.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "kovantis/KOConstants.h"

namespace {

constexpr double kNow = 1800000000;

KOValue json(const std::string& text) { return KOJSONSerialization::parse(text); }

KODictionary campaign(const std::string& cid, const char* status = "active", std::int64_t priority = 1,
                      std::int64_t lastUpdated = 1, double ttl = kNow + 86400) {
  return KODictionary{{"cid", cid}, {"status", status}, {"priority", priority}, {"last_updated", lastUpdated},
                      {"ttl", ttl}, {"type", "general"}};
}

KOValue answer(std::initializer_list<KOValue> campaigns) { return KODictionary{{"campaign_info", KOArray(campaigns)}}; }

void save(const KOValue& data) {
  bool done = false;
  KOInAppV2Manager::saveInAppCampaignsWithData(data, [&] { done = true; });
  ASSERT_TRUE(done);
}

class KOInAppV2ManagerTest : public KOTestDevice {
 protected:
  void SetUp() override {
    KOTestDevice::SetUp();
    device().clock().setNow(kNow);
    KOLogger::debug(1);
  }

  /// The store as it is on disk.
  KOValue file() { return KOPropertyListFile::read(KOInAppV2Manager::getFilePath()); }
  std::vector<std::string> storedIds() {
    std::vector<std::string> ids;
    const KOValue stored = file();
    for (const KOValue& c : stored["campaign_info"].arrayValue()) ids.push_back(c["cid"].stringValue());
    return ids;
  }
  std::vector<std::string> activeIds() {
    std::vector<std::string> ids;
    for (const KOValue& c : KOInAppV2Manager::getActiveInAppCampaigns()) ids.push_back(c["cid"].stringValue());
    return ids;
  }
  /// Every path in the device's directory, with the contents of files.
  std::set<std::string> deviceTree() {
    std::set<std::string> out;
    for (const auto& e : std::filesystem::recursive_directory_iterator(device().rootDirectory())) {
      out.insert(e.path().string());
    }
    return out;
  }
  std::size_t lines(const std::string& text) { return device().console().count(text); }
  void show(const KODictionary& c) {
    KOInAppV2Manager::writeToPlistToUpdateInAppNumberOfTimesShownWithInAppObject(KOInAppV2Object(KOValue(c)));
  }
};

TEST_F(KOInAppV2ManagerTest, AnAnswerReplacesCampaignsByIdAndKeepsOnlyActiveOnes) {
  save(answer({campaign("1"), campaign("2"), campaign("3")}));
  EXPECT_EQ(storedIds(), (std::vector<std::string>{"1", "2", "3"}));

  // "1" comes back paused (so it goes), "3" twice: the last one decides, and it is expired.
  KODictionary changed = campaign("2", "active", 1, 7);
  changed.set("content", "new");
  save(answer({campaign("1", "paused"), changed, campaign("3", "active"), campaign("3", "inactive"), campaign("4")}));
  EXPECT_EQ(storedIds(), (std::vector<std::string>{"2", "4"}));
  EXPECT_EQ(file()["campaign_info"].arrayValue()[0]["content"], KOValue("new"));
  EXPECT_EQ(activeIds(), storedIds());

  // An answer without campaigns changes none of them.
  save(KODictionary{{"event_list", KOArray{"E1"}}});
  EXPECT_EQ(storedIds(), (std::vector<std::string>{"2", "4"}));
  EXPECT_EQ(KOInAppV2Manager::sharedInstance().eventsArray(), KOValue(KOArray{"E1"}));
}

TEST_F(KOInAppV2ManagerTest, CampaignsAreOrderedByPriorityThenNewestFirst) {
  save(answer({campaign("old", "active", 1, 5), campaign("first", "active", 0, 1), campaign("new", "active", 1, 9),
               campaign("tie-a", "active", 2, 3), campaign("tie-b", "active", 2, 3)}));
  EXPECT_EQ(storedIds(), (std::vector<std::string>{"first", "new", "old", "tie-a", "tie-b"}));

  // Update stamps in text and in mixed forms order the same way; an unreadable one goes last.
  KODictionary textual = campaign("text-stamp", "active", 5, 0);
  textual.set("last_updated", "20");
  KODictionary none = campaign("no-stamp", "active", 5, 0);
  none.set("last_updated", KOArray{});
  save(answer({none, campaign("num-stamp", "active", 5, 10), textual}));
  const std::vector<std::string> ids = storedIds();
  EXPECT_EQ(std::vector<std::string>(ids.end() - 3, ids.end()),
            (std::vector<std::string>{"text-stamp", "num-stamp", "no-stamp"}));
}

TEST_F(KOInAppV2ManagerTest, ExpiredCampaignsLeaveWithTheirStatistics) {
  save(answer({campaign("soon", "active", 1, 1, kNow + 60), campaign("later", "active", 1, 1, kNow + 3600)}));
  show(campaign("soon", "active", 1, 1, kNow + 60));
  show(campaign("later", "active", 1, 1, kNow + 3600));
  // Statistics of a campaign gone from the list expire by their own date.
  device().clock().setNow(kNow + 60);  // "soon" is now not later than now
  save(answer({}));
  EXPECT_EQ(storedIds(), std::vector<std::string>{"later"});
  EXPECT_TRUE(file()["soon"].isNil());
  EXPECT_TRUE(KOInAppV2Manager::getCampaignStatusDictWithCampaignId("soon").isNil());
  EXPECT_EQ(file()["later"]["timesShown"], KOValue("1"));

  device().clock().setNow(kNow + 7200);
  KODictionary cleaned = KOInAppV2Manager::getCampaignsDictFromPlist();
  KOInAppV2Manager::cleanUpExpiredInAppsWithDict(cleaned);
  EXPECT_EQ(cleaned, (KODictionary{{"campaign_info", KOArray{}}}));
}

TEST_F(KOInAppV2ManagerTest, StatisticsCountShowingsAsTextAndMarkClicks) {
  save(answer({campaign("c"), campaign("t")}));
  KOInAppV2Object shown(KOValue(campaign("c")));
  for (int i = 0; i < 3; ++i) {
    device().clock().setNow(kNow + 60 * i);
    show(campaign("c"));
  }
  KOValue stats = KOInAppV2Manager::getCampaignStatusDictWithCampaignId("c");
  EXPECT_EQ(stats["timesShown"], KOValue("3"));
  EXPECT_EQ(stats["expiryDate"], KOValue(kNow + 86400));
  EXPECT_EQ(stats["lastShown"], KOValue(KODate{kNow + 120}));
  EXPECT_TRUE(stats["isClicked"].isNil());
  KOInAppV2Manager::writeToPlistForInAppClickedWithButtonType(1, shown);
  EXPECT_EQ(file()["c"]["isClicked"], KOValue(1));
  EXPECT_EQ(file()["c"]["timesShown"], KOValue("3"));

  // A count someone stored as a number, or as nonsense, goes on from what it says.
  KODictionary edited = file().dictionaryValue();
  edited.set("c", KODictionary{{"timesShown", 41}, {"expiryDate", kNow + 86400}});
  ASSERT_TRUE(KOPropertyListFile::write(KOInAppV2Manager::getFilePath(), edited));
  KOInAppV2Manager::sharedInstance().dropCache();
  show(campaign("c"));
  EXPECT_EQ(file()["c"]["timesShown"], KOValue("42"));

  // Test campaigns are shown on demand and leave no statistics.
  KODictionary test = campaign("t");
  test.set("type", "test");
  show(test);
  KOInAppV2Manager::writeToPlistForInAppClickedWithButtonType(1, KOInAppV2Object(KOValue(test)));
  EXPECT_TRUE(file()["t"].isNil());
}

TEST_F(KOInAppV2ManagerTest, DelayAndEventListAreTakenOverAndDroppedTriggersLoseTheirImages) {
  for (const char* cid : {"s1", "s2"}) {
    ASSERT_TRUE(
        KOInAppV2Manager::writeInAppImageData(KOData{{1, 2, 3}}, "_0", KOInAppV2Object(KOValue(campaign(cid))), false));
  }
  const std::string images = KOInAppV2Manager::getImagesPath();
  EXPECT_EQ(device().files().readFile(images + "s1/s1_0.png"), std::optional<std::string>("\x01\x02\x03"));

  save(json(R"({"campaign_info": [], "minimum_delay_bw_inapps": "20",
                "event_list": [{"event": "BUY", "cid": "s1"}, {"event": "VIEW", "cid": "s2"}, "OPEN"]})"));
  EXPECT_EQ(device().preferences().standard().objectForKey(KO_MINIMUMDELAY_BW_INAPPS), KOValue(20));
  save(json(R"({"event_list": [{"event": "VIEW", "cid": "s2"}]})"));
  EXPECT_FALSE(device().files().fileExists(images + "s1"));
  EXPECT_TRUE(device().files().fileExists(images + "s2/s2_0.png"));
  EXPECT_EQ(file()["event_list"], json(R"([{"event": "VIEW", "cid": "s2"}])"));
  EXPECT_EQ(device().preferences().standard().objectForKey(KO_MINIMUMDELAY_BW_INAPPS), KOValue(20));
}

// Bad input: a line in the log, no crash, and nothing else lost.
TEST_F(KOInAppV2ManagerTest, MalformedAnswersChangeOnlyWhatTheyCanSay) {
  save(answer({campaign("keep")}));
  const std::vector<KOValue> bad{
      json(R"({"campaign_info": {"cid": "x"}, "minimum_delay_bw_inapps": 7})"),
      json(R"({"campaign_info": ["text", 5, null, {"status": "active"}, {"cid": 12, "status": "active"}]})"),
      json(R"({"event_list": "BUY", "minimum_delay_bw_inapps": {"m": 1}})"),
      json(R"([1, 2])"),
      json(R"("campaign_info")"),
  };
  for (const KOValue& data : bad) save(data);
  EXPECT_EQ(storedIds(), std::vector<std::string>{"keep"});
  EXPECT_TRUE(file()["event_list"].isNil());
  EXPECT_EQ(device().preferences().standard().objectForKey(KO_MINIMUMDELAY_BW_INAPPS), KOValue(7));
  EXPECT_GE(lines("Kovantis - exception while saving in apps is "), 7u);
  EXPECT_EQ(lines("Kovantis - Refused campaign with id"), 2u);  // no id, and a number for one

  // A text the file cannot hold costs its own campaign only.
  save(answer(
      {campaign("ok"), json(R"({"cid": "nul", "status": "active", "ttl": 1900000000, "content": "a\u0000b"})")}));
  EXPECT_EQ(storedIds(), (std::vector<std::string>{"keep", "ok"}));
  EXPECT_EQ(activeIds(), storedIds());
}

TEST_F(KOInAppV2ManagerTest, AnUnreadableStoreIsMovedAsideAndTheNextAnswerStartsAfresh) {
  const std::string path = KOInAppV2Manager::getFilePath();
  for (const std::string& contents : std::vector<std::string>{"<plist><dict><key>campaign_info</key><array>",
                                                              R"(<?xml version="1.0"?><plist><array/></plist>)"}) {
    KOInAppV2Manager::sharedInstance().dropCache();
    ASSERT_TRUE(device().rawFiles().writeFile(path, contents));
    EXPECT_TRUE(KOInAppV2Manager::getActiveInAppCampaigns().empty());
    EXPECT_EQ(device().files().readFile(path + ".unreadable"), std::optional<std::string>(contents));
    save(answer({campaign("fresh")}));
    EXPECT_EQ(storedIds(), std::vector<std::string>{"fresh"});
  }
  EXPECT_EQ(lines("unreadable in-app store"), 2u);
}

TEST_F(KOInAppV2ManagerTest, AStorePathThatIsADirectoryIsSetAsideWithWhatItHolds) {
  const std::string path = KOInAppV2Manager::getFilePath();
  ASSERT_TRUE(device().files().createDirectories(path + "/inside"));
  ASSERT_TRUE(device().files().writeFile(path + "/inside/note", "mine"));
  save(answer({campaign("a")}));
  EXPECT_EQ(storedIds(), std::vector<std::string>{"a"});
  EXPECT_EQ(device().files().readFile(path + ".unreadable/inside/note"), std::optional<std::string>("mine"));
}

TEST_F(KOInAppV2ManagerTest, AStoreThatCannotBeWrittenKeepsTheSessionGoingFromMemory) {
  save(answer({campaign("a")}));
  device().files().inject(KOFileFault::IOError, "InAppCampaignsV2", -1);
  save(answer({campaign("b")}));
  EXPECT_EQ(activeIds(), (std::vector<std::string>{"a", "b"}));
  EXPECT_GE(lines("the in-app store could not be written"), 1u);
  device().files().clear();
  show(campaign("b"));
  EXPECT_EQ(storedIds(), (std::vector<std::string>{"a", "b"}));  // the next write brings the file up to date
}

TEST_F(KOInAppV2ManagerTest, ReadsComeFromTheCacheNotTheFile) {
  save(answer({campaign("a")}));
  ASSERT_TRUE(device().files().writeFile(KOInAppV2Manager::getFilePath(), "garbage"));
  EXPECT_EQ(activeIds(), std::vector<std::string>{"a"});
  const auto snapshot = KOInAppV2Manager::sharedInstance().snapshot();
  save(answer({campaign("b")}));
  // A snapshot taken earlier stays as it was; a new one sees the save.
  EXPECT_EQ(snapshot->activeCampaigns().size(), 1u);
  EXPECT_EQ(KOInAppV2Manager::sharedInstance().snapshot()->activeCampaigns().size(), 2u);
}

TEST_F(KOInAppV2ManagerTest, HostileCampaignIdsTouchNothingOutsideTheImagesDirectory) {
  const std::string images = KOInAppV2Manager::getImagesPath();
  ASSERT_TRUE(
      KOInAppV2Manager::writeInAppImageData(KOData{{9}}, "_0", KOInAppV2Object(KOValue(campaign("good"))), true));
  ASSERT_TRUE(device().files().writeFile(device().documentsDirectory() + "/victim", "v"));
  ASSERT_TRUE(device().files().writeFile(images + "victim", "v"));
  save(answer({campaign("good")}));
  const std::set<std::string> before = deviceTree();

  using namespace std::string_literals;
  const std::vector<std::string> hostile{"",          ".",    "..",    "../victim",           "../../Documents",
                                         "a/b",       "/etc", "x\0y"s, std::string(256, 'a'), "campaign_info",
                                         "event_list"};
  for (const std::string& cid : hostile) {
    SCOPED_TRACE(cid);
    const bool plainName = cid == "campaign_info" || cid == "event_list";  // safe as a directory name
    KODictionary evil = campaign(cid);
    save(answer({evil}));
    save(KODictionary{{"event_list", KOArray{KODictionary{{"cid", cid}}}}});
    save(KODictionary{{"event_list", KOArray{}}});
    show(evil);
    KOInAppV2Manager::writeToPlistForInAppClickedWithButtonType(1, KOInAppV2Object(KOValue(evil)));
    if (!plainName) {
      EXPECT_FALSE(KOInAppV2Manager::writeInAppImageData(KOData{{6, 6}}, "", KOInAppV2Object(KOValue(evil)), false));
      KOInAppV2Manager::removeInAppImageForCampaign(cid);
    }
    EXPECT_FALSE(KOInAppV2Manager::getCampaignStatusDictWithCampaignId(cid).isDictionary());
  }
  // A suffix cannot lead out either.
  EXPECT_FALSE(KOInAppV2Manager::writeInAppImageData(KOData{{6}}, "/../../x",
                                                     KOInAppV2Object(KOValue(campaign("good"))), false));

  EXPECT_EQ(deviceTree(), before);
  EXPECT_EQ(storedIds(), std::vector<std::string>{"good"});
  EXPECT_EQ(KOInAppV2Manager::getCampaignsDictFromPlist().size(), 2u);  // the list and the event list
  EXPECT_EQ(device().files().readFile(images + "victim"), std::optional<std::string>("v"));
  EXPECT_GE(lines("Kovantis - Refused campaign"), hostile.size());
}

// The hostile ids are refused above; ordinary names that only look odd are not.
TEST_F(KOInAppV2ManagerTest, OddButHarmlessCampaignIdsAreAccepted) {
  for (const std::string& good :
       std::vector<std::string>{"c-1", "...", ".hidden", "a b", "a\\b", std::string(255, 'x'), "ünï"}) {
    EXPECT_TRUE(KOInAppV2Manager::isSafeCampaignDirectoryName(good)) << good;
  }
}

// The current store goes with a user reset: see EventPipelineTest.
TEST_F(KOInAppV2ManagerTest, OlderStorageIsRemovedOnce) {
  const std::string docs = device().documentsDirectory();
  ASSERT_TRUE(device().files().writeFile(docs + "/InAppCampaigns.plist", "v1"));
  ASSERT_TRUE(device().files().createDirectories(docs + "/KovantisImages/x"));
  KOInAppV2Manager::removeV1InApps();
  EXPECT_FALSE(device().files().fileExists(docs + "/InAppCampaigns.plist"));
  EXPECT_FALSE(device().files().fileExists(docs + "/KovantisImages"));
  ASSERT_TRUE(device().files().writeFile(docs + "/InAppCampaigns.plist", "v1 again"));
  KOInAppV2Manager::removeV1InApps();  // once per install
  EXPECT_TRUE(device().files().fileExists(docs + "/InAppCampaigns.plist"));
}

}  // namespace
