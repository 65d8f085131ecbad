// The inbox store on a simulated device: opened pushes, the server merge, pending messages,
// deletion, the record limit on every write path, and files it must survive. Fetching, bad
// answers, the merge of read and unread copies and a user reset are checked against the emulator
// in KOInboxIntegrationTest.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KOInbox/KOInboxHandler.h"
#include "KOInbox/KOInboxPushDataModel.h"
#include "KOTestDevice.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "kovantis/KOInbox.h"

namespace {

KOValue push(const std::string& cid, const std::string& alert = "hello") {
  return KOValue(KODictionary{{"aps", KODictionary{{"alert", alert}}}, {"kovantis", KODictionary{{"cid", cid}}}});
}

// A record as the service sends it.
KOValue message(const std::string& cid) {
  return KOValue(KODictionary{{"cid", cid}, {"c_cr_t", 1800000000}, {"data", push(cid, "server " + cid)}});
}

KOArray messages(int from, int to) {
  KOArray out;
  for (int i = from; i < to; ++i) out.push_back(message("m" + std::to_string(i)));
  return out;
}

KOValue answer(KOArray list) { return KOValue(KODictionary{{"messagesInfo", std::move(list)}}); }

std::vector<std::string> cids(const KOArray& records) {
  std::vector<std::string> out;
  for (const auto& r : records) out.push_back(KOInboxPushDataModel(r).campaignID());
  return out;
}

std::vector<std::string> range(int from, int to) {
  std::vector<std::string> out;
  for (int i = from; i < to; ++i) out.push_back("m" + std::to_string(i));
  return out;
}

class KOInboxHandlerTest : public KOTestDevice {
 protected:
  void SetUp() override {
    KOTestDevice::SetUp();
    KOLogger::debug(1);
    device().clock().setNow(1800000000);
  }
  std::string path() { return KOInboxHandler::getFilePathForInboxMessages(); }
  // The file's list in stored order (oldest first).
  KOArray stored() {
    KOValue file = KOPropertyListFile::read(path());
    return file.isDictionary() && file["messagesInfo"].isArray() ? file["messagesInfo"].arrayValue() : KOArray();
  }
  void store(KOArray list) { ASSERT_TRUE(KOPropertyListFile::write(path(), answer(std::move(list)))); }
  bool logged(const std::string& text) { return device().console().contains(text); }
};

}  // namespace

TEST_F(KOInboxHandlerTest, ReopeningAPushLeavesOneReadRecordAtTheEnd) {
  KOInboxHandler::saveClickedPushToLocalStorageWithData(push("a"));
  KOInboxHandler::saveClickedPushToLocalStorageWithData(push("b"));
  device().clock().advance(5);
  KOInboxHandler::saveClickedPushToLocalStorageWithData(push("a"));
  KOInboxHandler::saveClickedPushToLocalStorageWithData(KOValue(KODictionary{{"aps", KODictionary{}}}));

  const KOArray records = stored();
  ASSERT_EQ(cids(records), (std::vector<std::string>{"b", "a"}));
  EXPECT_EQ(records[1]["c_cr_t"], KOValue("1800000005.000000"));
  EXPECT_EQ(records[1]["isRead"], KOValue(true));
  EXPECT_EQ(records[1]["data"], push("a"));
}

TEST_F(KOInboxHandlerTest, PendingIsDecidedByKeyPresenceNotValue) {
  store({KOValue(KODictionary{{"cid", "given-no"}, {"isGiven", false}, {"data", push("given-no")}}),
         KOValue(KODictionary{{"cid", "read-no"}, {"isRead", false}, {"data", push("read-no")}}),
         KOValue(KODictionary{{"cid", "no-data"}}), KOValue("not a record"), message("fresh")});
  EXPECT_EQ(KOInboxHandler::getPendingNotifications(), (KOArray{push("fresh", "server fresh")}));
  const KOArray records = stored();
  ASSERT_EQ(records.size(), 5u);
  EXPECT_EQ(records[0]["isGiven"], KOValue(false));
  for (std::size_t i : {1u, 2u, 4u}) EXPECT_EQ(records[i]["isGiven"], KOValue(true)) << i;
  EXPECT_EQ(records[3], KOValue("not a record"));
}

// The merge asks whether a stored copy has "isRead" at all, as pending does: a record another
// writer left with "isRead" = NO counts as read and stays, handed out, instead of the server's.
TEST_F(KOInboxHandlerTest, TheMergeDecidesReadByKeyPresence) {
  store({KOValue(KODictionary{{"cid", "m0"}, {"isRead", false}, {"data", push("m0", "mine")}}),
         KOValue(KODictionary{{"cid", "m1"}, {"data", push("m1", "unread")}})});
  KOInboxHandler::saveServerPushDataToPlist(answer(messages(0, 2)));
  const KOArray records = stored();
  ASSERT_EQ(cids(records), (std::vector<std::string>{"m0", "m1"}));
  EXPECT_EQ(records[0]["data"], push("m0", "mine"));
  EXPECT_EQ(records[0]["isGiven"], KOValue(true));
  EXPECT_EQ(records[1]["data"], push("m1", "server m1"));  // the unread copy gave way
}

TEST_F(KOInboxHandlerTest, DeletingReversesTheStoredOrderEvenForAnUnknownId) {
  store(messages(0, 4));
  KOInboxHandler::removeMessageWithCampaignID(KOValue("unknown"));
  EXPECT_EQ(cids(stored()), (std::vector<std::string>{"m3", "m2", "m1", "m0"}));
  KOInboxHandler::removeMessageWithCampaignID(KOValue("m2"));
  EXPECT_EQ(cids(stored()), (std::vector<std::string>{"m0", "m1", "m3"}));
  EXPECT_EQ(cids(KOInbox::getInboxMessages()), (std::vector<std::string>{"m3", "m1", "m0"}));
  KOInbox::removeMessageWithCampaignID(KOValue(""));  // an empty id writes nothing
  EXPECT_EQ(cids(stored()), (std::vector<std::string>{"m0", "m1", "m3"}));
}

TEST_F(KOInboxHandlerTest, TheLimitIsAppliedOnlyWhereTheStoreTrims) {
  struct Case {
    int before;
    std::size_t opened, merged, deleted, pending;
  };
  // Opened pushes and pending marks never trim; a merge keeps the newest, a delete (written
  // newest first) drops the newest.
  for (const Case& c : {Case{99, 100, 100, 99, 99}, Case{100, 101, 100, 100, 100}, Case{101, 102, 100, 100, 101}}) {
    SCOPED_TRACE(c.before);
    auto after = [&](auto write) {
      store(messages(0, c.before));
      write();
      return cids(stored());
    };
    const auto opened = after([] { KOInboxHandler::saveClickedPushToLocalStorageWithData(push("opened")); });
    EXPECT_EQ(opened.size(), c.opened);
    EXPECT_EQ(opened.back(), "opened");
    const auto merged = after([] { KOInboxHandler::saveServerPushDataToPlist(answer({message("new")})); });
    EXPECT_EQ(merged.size(), c.merged);
    EXPECT_EQ(merged.back(), "new");
    const auto deleted = after([] { KOInboxHandler::removeMessageWithCampaignID(KOValue("unknown")); });
    EXPECT_EQ(deleted.size(), c.deleted);
    EXPECT_EQ(deleted.back(), "m0");
    EXPECT_EQ(after([] { KOInboxHandler::getPendingNotifications(); }).size(), c.pending);
  }
}

TEST_F(KOInboxHandlerTest, ALargeFileFromElsewhereIsReadMergedAndTrimmed) {
  store(messages(0, 10000));
  const KOArray all = KOInboxHandler::getAllNotifications();
  ASSERT_EQ(all.size(), 10000u);
  EXPECT_EQ(KOInboxPushDataModel(all[0]).campaignID(), "m9999");
  KOInboxHandler::saveServerPushDataToPlist(answer({message("m5"), message("new")}));
  std::vector<std::string> expected = range(9902, 10000);
  expected.push_back("m5");
  expected.push_back("new");
  EXPECT_EQ(cids(stored()), expected);
}

TEST_F(KOInboxHandlerTest, BadFilesReadAsEmptyWithALogLineAndAreReplacedOnWrite) {
  const std::vector<std::string> files = {
      std::string("\x00\x01garbage", 9),
      R"(<?xml version="1.0"?><plist version="1.0"><array><string>x</string></array></plist>)",
      R"(<?xml version="1.0"?><plist version="1.0"><dict><key>messagesInfo</key><string>x</string></dict></plist>)"};
  for (const std::string& bytes : files) {
    device().console().clear();
    ASSERT_TRUE(device().rawFiles().writeFile(path(), bytes));
    EXPECT_TRUE(KOInboxHandler::getAllNotifications().empty());
    EXPECT_EQ(device().console().lines().empty(), false) << bytes;
    KOInboxHandler::saveClickedPushToLocalStorageWithData(push("a"));
    EXPECT_EQ(cids(stored()), (std::vector<std::string>{"a"}));
  }
}

// A message the file cannot hold (a NUL byte in its text) goes alone; before, it kept every later
// write of the inbox from reaching the file.
TEST_F(KOInboxHandlerTest, AMessageTheFileCannotHoldIsDroppedAndTheRestSaved) {
  KOInboxHandler::saveServerPushDataToPlist(
      answer({message("m1"), message(std::string("bad\0cid", 7)), message("m2")}));
  EXPECT_EQ(cids(stored()), (std::vector<std::string>{"m1", "m2"}));
  EXPECT_TRUE(logged("cannot be stored and is dropped"));
  KOInboxHandler::saveClickedPushToLocalStorageWithData(push("a"));
  EXPECT_EQ(cids(stored()), (std::vector<std::string>{"m1", "m2", "a"}));
}

TEST_F(KOInboxHandlerTest, OddlyTypedFieldsAreLoggedAndLeaveTheRestIntact) {
  const std::string timeLine = "Created time for push notification is neither of type NSString";
  const std::string modelLine = "Kovantis - exception while creating push data model is";
  struct Case {
    KOValue created, alert;
    std::string pushTime, alertMessage, line;
  };
  const std::vector<Case> cases = {
      {KOValue("1800000000.500000"), KOValue("plain"), "1800000000.500000", "plain", ""},
      {KOValue(1.5), KOValue(KODictionary{{"title", "t"}}), "1.5", "", ""},
      {KOValue(1800000000), KOValue(KODictionary{{"body", "Body"}}), "1800000000", "Body", ""},
      {KOValue(KOArray{}), KOValue(KODictionary{{"body", 3}}), "", "", timeLine},
      {KOValue(KODictionary{}), KOValue(12), "", "", timeLine},
      {KOValue(KODate{5}), KOValue(KOArray{KOValue("x")}), "", "", timeLine},
      {KOValue::null(), KOValue(KOData{{1, 2}}), "", "", modelLine},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.created.description());
    device().console().clear();
    const KOInboxPushDataModel model(KOValue(KODictionary{
        {"c_cr_t", c.created},
        {"data", KODictionary{{"aps", KODictionary{{"alert", c.alert}}}, {"kovantis", KODictionary{{"cid", "c"}}}}}}));
    EXPECT_EQ(model.pushTime(), c.pushTime);
    EXPECT_EQ(model.alertMessage(), c.alertMessage);
    EXPECT_EQ(model.campaignID(), "c");
    if (!c.line.empty()) {
      EXPECT_TRUE(logged(c.line));
    }
  }
  for (const KOValue& junk : {KOValue("x"), KOValue(3), KOValue(KOArray{}), KOValue(KODictionary{{"data", 1}})}) {
    device().console().clear();
    const KOInboxPushDataModel model(junk);
    EXPECT_EQ(model.campaignID(), "");
    EXPECT_TRUE(logged(modelLine)) << junk.description();
  }
}
