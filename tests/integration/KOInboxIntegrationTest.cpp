// The inbox fetch against the emulator: the time parameter, the device-token guard, what the
// service answers for this device, the pending-notification post, and the facade's hooks.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "KOInbox/KOInboxHandler.h"
#include "KOInbox/KOInboxPushDataModel.h"
#include "KOSDKTestDevice.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KovantisUtils.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KOInbox.h"
#include "kovantis/KONotificationCenter.h"

namespace {

const std::string kInboxPath = "/v1/getInboxMessages";

std::string seedMessage(const std::string& cid, double created, const std::string& target = "") {
  std::string json = R"({"cid": ")" + cid + R"(", "c_cr_t": )" + std::to_string(created) +
                     R"(, "data": {"aps": {"alert": "hi )" + cid + R"("}, "kovantis": {"cid": ")" + cid + R"("}})";
  if (!target.empty()) json += R"(, "push_id": ")" + target + R"(")";
  return json + "}";
}

class KOInboxIntegrationTest : public KOSDKTestDevice {
 protected:
  void SetUp() override {
    KOSDKTestDevice::SetUp();
    KOLogger::debug(1);
    KovantisUtils::saveAppId(KOValue("kov-test-app"));
    device().clock().setNow(1800000000.4);
  }

  // Fetches and pumps the main queue until the completion ran; the completion's answer.
  bool fetch() {
    std::optional<bool> result;
    KOInbox::fetchInboxMessagesWithCompletion([&](bool fetched) { result = fetched; });
    EXPECT_TRUE(waitFor([&] { return result.has_value(); }));
    return result.value_or(false);
  }

  std::vector<std::string> storedCids() {
    std::vector<std::string> out;
    for (const auto& model : KOInboxPushDataModel::modelsWithArray(KOInbox::getInboxMessages())) {
      out.push_back(model.campaignID());
    }
    return out;
  }
};

}  // namespace

TEST_F(KOInboxIntegrationTest, WithoutATokenNothingIsSentAndTheAnswerIsNoAtOnce) {
  std::optional<bool> result;
  KOInbox::fetchInboxMessagesWithCompletion([&](bool fetched) { result = fetched; });
  EXPECT_EQ(result, std::optional<bool>(false));  // before any pumping
  sdk().getInboxMessages();
  device().pumpMain();
  EXPECT_EQ(emulator().requestCount(kInboxPath), 0u);
}

// A message already handed out is not handed out again; one the user opened keeps the opened copy.
TEST_F(KOInboxIntegrationTest, TheFirstFetchAsksForEverythingAndLaterOnesSinceTheLast) {
  KovantisUtils::saveDeviceToken(KOValue("tok-1"));
  emulator().seed(R"({"inbox": [)" + seedMessage("old", 1799999000) + "," + seedMessage("mine", 1799999500, "tok-1") +
                  "," + seedMessage("other", 1800000050, "tok-2") + "," + seedMessage("later", 1800000500) + "," +
                  seedMessage("opened", 1800000600) + "]}");
  std::vector<KOValue> posted;
  const auto token = KONotificationCenter::defaultCenter().addObserver(
      KOInboxPendingNotificationsNotification,
      [&](const KONotification& n) { posted.push_back(n.userInfo[KOInboxPendingNotificationsKey]); });

  ASSERT_TRUE(fetch());
  KOInboxHandler::saveClickedPushToLocalStorageWithData(
      KOValue(KODictionary{{"aps", KODictionary{{"alert", "seen"}}}, {"kovantis", KODictionary{{"cid", "opened"}}}}));
  device().clock().setNow(1800000100.4);
  ASSERT_TRUE(fetch());
  KONotificationCenter::defaultCenter().removeObserver(token);

  const auto requests = emulator().requests(kInboxPath);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].query.at("last_updated"), "0");
  EXPECT_EQ(requests[1].query.at("last_updated"), "1800000000000");
  // The second answer repeats "later" (unread: replaced, handed out again) and "opened" (read: kept).
  EXPECT_EQ(storedCids(), (std::vector<std::string>{"opened", "later", "mine", "old"}));
  const KOInboxPushDataModel opened(KOInbox::getInboxMessages()[0]);
  EXPECT_TRUE(opened.isRead());
  EXPECT_EQ(opened.alertMessage(), "seen");
  ASSERT_EQ(posted.size(), 2u);
  ASSERT_TRUE(posted[0].isArray());
  EXPECT_EQ(posted[0].arrayValue().size(), 4u);
  ASSERT_EQ(posted[1].arrayValue().size(), 1u);
  EXPECT_EQ(posted[1].arrayValue()[0]["kovantis"]["cid"], KOValue("later"));
  for (const auto& record : KOInbox::getInboxMessages()) EXPECT_FALSE(record.dictionaryValue().contains("push_id"));
}

TEST_F(KOInboxIntegrationTest, AFailedFetchAnswersNoAndKeepsTheTime) {
  KovantisUtils::saveDeviceToken(KOValue("tok-1"));
  emulator().injectFault({.path = kInboxPath, .status = 500, .count = 1});
  EXPECT_FALSE(fetch());
  EXPECT_TRUE(KovantisUtils::getlastUpdatedTimeForInbox().isNil());
  EXPECT_TRUE(fetch());
  EXPECT_FALSE(KovantisUtils::getlastUpdatedTimeForInbox().isNil());
}

TEST_F(KOInboxIntegrationTest, ABadAnswerIsSurvivedAndLosesNothing) {
  KovantisUtils::saveDeviceToken(KOValue("tok-1"));
  KOInboxHandler::saveClickedPushToLocalStorageWithData(
      KOValue(KODictionary{{"kovantis", KODictionary{{"cid", "opened"}}}}));
  emulator().seedUnchecked(R"({"inbox": {"messagesInfo": "not a list"}})");
  EXPECT_TRUE(fetch());
  emulator().seedUnchecked(R"({"inbox": [1, "x", {"cid": 5, "c_cr_t": [], "data": {"aps": {"alert": 7}}}]})");
  EXPECT_TRUE(fetch());
  EXPECT_EQ(storedCids(), (std::vector<std::string>{"", "opened"}));
  EXPECT_TRUE(device().console().contains("Kovantis - exception while saving push data from server is"));
}

TEST_F(KOInboxIntegrationTest, ModulesFetchTheInboxUnlessDisabled) {
  KovantisUtils::saveDeviceToken(KOValue("tok-1"));
  sdk().setDisableInbox(true);
  sdk().updateModules();
  EXPECT_TRUE(fetch());  // the only inbox call
  settle();
  EXPECT_EQ(emulator().requestCount(kInboxPath), 1u);
  sdk().setDisableInbox(false);
  sdk().updateModules();
  EXPECT_TRUE(waitForRequests(kInboxPath, 2));
}

TEST_F(KOInboxIntegrationTest, AUserResetEmptiesTheInbox) {
  start();
  KOInboxHandler::saveClickedPushToLocalStorageWithData(
      KOValue(KODictionary{{"kovantis", KODictionary{{"cid", "a"}}}}));
  ASSERT_EQ(storedCids().size(), 1u);
  sdk().resetUser();
  EXPECT_TRUE(waitFor([&] { return !device().rawFiles().fileExists(KOInboxHandler::getFilePathForInboxMessages()); }));
}
