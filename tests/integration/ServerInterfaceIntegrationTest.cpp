#include <gtest/gtest.h>

#include "KOEmulatorTestDevice.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "Network/KOServerInterface.h"
#include "kovantis/KOConstants.h"

namespace {

KOValue json(const std::string& text) { return text.empty() ? KOValue() : KOJSONSerialization::parse(text); }

// Waits for a fetch completion, which must arrive on the main queue.
struct FetchResult {
  bool done = false;
  bool onMain = false;
  KOValue answer;
};

}  // namespace

class ServerInterfaceIntegrationTest : public KOEmulatorTestDevice {
 protected:
  KOServerInterface& server() { return KOServerInterface::sharedInstance(); }

  KOServerInterface::FetchCompletion collect(FetchResult& r) {
    return [this, &r](const KOValue& answer) {
      r.onMain = device().dispatch().isMainThread();
      r.answer = answer;
      r.done = true;
    };
  }

  bool sendAndWait(const std::function<void(KOServerInterface::SuccessCompletion)>& call) {
    std::atomic<int> result{-1};
    call([&](bool ok) { result = ok ? 1 : 0; });
    EXPECT_TRUE(waitFor([&] { return result.load() >= 0; }));
    return result.load() == 1;
  }

  KOEmulatorRequest lastRequest(const std::string& path) {
    const auto all = emulator().requests(path);
    EXPECT_FALSE(all.empty()) << path;
    return all.empty() ? KOEmulatorRequest{} : all.back();
  }
};

TEST_F(ServerInterfaceIntegrationTest, DeviceAddSendsUniversalParametersAndIdentifiers) {
  ASSERT_TRUE(sendAndWait([&](auto done) { server().initializeWith(KODictionary{{"ignored", 1}}, done); }));
  const KOEmulatorRequest r = lastRequest("/v2/device/add");
  EXPECT_EQ(r.query.at("app_id"), "kov-test-app");
  EXPECT_EQ(r.query.at("unique_id"), KovantisUtils::getIdentifierForVendor());
  EXPECT_EQ(r.query.at("device_unique_id"), "P-" + KovantisUtils::getIdentifierForVendor());
  const KOValue body = json(r.body);
  EXPECT_EQ(body["IDFV"], KOValue(device().profile().identifierForVendor()));
  EXPECT_EQ(body["ADVERTISING_IDENTIFIER"], KOValue("6D92078A-8246-4BA4-AE5B-76104861E7DC"));
  EXPECT_FALSE(body.dictionaryValue().contains("ignored"));
  ASSERT_EQ(emulator().devices().size(), 1u);

  // Limited ad tracking: the key is left out, not sent empty.
  device().profile().update([](KOSimProfileSettings& s) { s.advertisingTrackingEnabled = false; });
  ASSERT_TRUE(sendAndWait([&](auto done) { server().initializeWith({}, done); }));
  EXPECT_FALSE(json(lastRequest("/v2/device/add").body).dictionaryValue().contains("ADVERTISING_IDENTIFIER"));
}

TEST_F(ServerInterfaceIntegrationTest, ReportBatchIsStoredUnderItsBatchId) {
  const KODictionary event{{"EVENT_ACTION", "VIEW"}, {"EVENT_ATTRS", KODictionary{{"sku", "A1"}}}};
  const KODictionary batch{{"viewsInfo", KOArray{event, event}}, {"viewsCount", 2}};
  bool offMain = false;
  std::atomic<int> result{-1};
  server().sendData(KOValue(batch), KOValue("1700000000123"), [&](bool ok) {
    offMain = !device().dispatch().isMainThread();
    result = ok;
  });
  ASSERT_TRUE(waitFor([&] { return result.load() >= 0; }));
  EXPECT_EQ(result.load(), 1);
  EXPECT_TRUE(offMain);  // send completions run on the network thread
  const auto stored = emulator().batches();
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_EQ(stored[0].batchId, "1700000000123");
  EXPECT_EQ(json(lastRequest("/v2/report/add").body), KOValue(batch));
}

TEST_F(ServerInterfaceIntegrationTest, FetchCallsCarryTheirKeysAndAnswerOnTheMainQueue) {
  emulator().seed(R"({"campaigns": {"c-1": {"cid": "c-1"}}, "smart_triggers": {"BUY": {"campaign_info": []}}})");
  FetchResult list, single, trigger, inbox, hit, fences;
  server().getInAppCampaignsWithLastUpdatedTime(KOValue(), KODictionary{{"c-9", KODictionary{{"s", 1}}}},
                                                collect(list));
  server().getInAppForCampaignID("c-1", collect(single));
  server().triggerSmartInAppWithEvent("BUY", KOValue(), collect(trigger));
  server().getPushNotificationsFromServerWithLastUpdatedTime(KOValue("1700000000"), collect(inbox));
  const KOLocationCoordinate here{12.9716, 77.5946};
  server().geofenceHitWithLocation(&here, "enter", "g-7", collect(hit));
  server().getGeofencesForLocation(&here, collect(fences));
  ASSERT_TRUE(
      waitFor([&] { return list.done && single.done && trigger.done && inbox.done && hit.done && fences.done; }));
  for (const FetchResult* r : {&list, &single, &trigger, &inbox, &hit, &fences}) {
    EXPECT_TRUE(r->onMain);
    EXPECT_TRUE(r->answer.isDictionary());
  }
  EXPECT_EQ(single.answer["campaign_info"], KOValue(KOArray{KODictionary{{"cid", "c-1"}}}));

  const auto listReq = lastRequest("/campaigns/inappcampaigns/fetch");
  EXPECT_EQ(listReq.query.at("last_updated"), "");
  EXPECT_EQ(json(listReq.body), KOValue(KODictionary{{"c-9", KODictionary{{"s", 1}}}}));
  const auto singleReq = lastRequest("/campaigns/inappcampaign/fetch");
  EXPECT_EQ(singleReq.method, "GET");
  EXPECT_TRUE(singleReq.body.empty());
  EXPECT_EQ(singleReq.query.at("campaign_id"), "c-1");
  const auto triggerReq = lastRequest("/v2/autotriggerinapps");
  EXPECT_EQ(triggerReq.query.at("event"), "BUY");
  EXPECT_EQ(json(triggerReq.body), KOValue(KODictionary{{"EVENT_ATTRS", KODictionary{}}}));
  EXPECT_EQ(lastRequest("/v1/getInboxMessages").query.at("last_updated"), "1700000000");
  const auto hitReq = lastRequest("/v1/geoFenceHit");
  EXPECT_EQ(hitReq.query.at("lat"), "12.971600");
  EXPECT_EQ(hitReq.query.at("lng"), "77.594600");
  EXPECT_EQ(hitReq.query.at("transitionType"), "enter");
  EXPECT_EQ(hitReq.query.at("geoId"), "g-7");
  const auto fencesReq = lastRequest("/v1/geoFences");
  EXPECT_EQ(fencesReq.target.rfind("/v1/geoFences?lat=12.971600&lng=77.594600&os=iOS", 0), 0u) << fencesReq.target;
  for (const auto& r : emulator().requests()) EXPECT_EQ(r.status, 200) << r.path << ": " << r.error;

  // No location: nothing is sent and the answer is nil at once.
  bool nilAtOnce = false;
  server().getGeofencesForLocation(nullptr, [&](const KOValue& v) { nilAtOnce = v.isNil(); });
  EXPECT_TRUE(nilAtOnce);
  EXPECT_EQ(emulator().requests("/v1/geoFences").size(), 1u);
}

TEST_F(ServerInterfaceIntegrationTest, CategoriesAreSentOnceAcceptedAndFlagged) {
  KOLogger::debug(1);
  emulator().injectFault(KOEmulatorFault{"/v2/categories/add", 500, 0, false, 1, 1.0});
  server().setNotificationCategoriesWithCategories(KOArray{KODictionary{{"identifier", "reply"}}});
  ASSERT_TRUE(waitFor(
      [&] { return device().console().contains("Kovantis - Unable to send Notification Categories, Server Error"); }));
  EXPECT_TRUE(device().preferences().standard().objectForKey(KOV_NOTIFICATION_CATEGORIES_SENT).isNil());

  server().setNotificationCategoriesWithCategories(KOArray{KODictionary{{"identifier", "reply"}}});
  ASSERT_TRUE(waitFor([&] { return device().console().contains("Kovantis - Notification Categories  Sent"); }));
  EXPECT_EQ(device().preferences().standard().objectForKey(KOV_NOTIFICATION_CATEGORIES_SENT), KOValue(true));
  ASSERT_EQ(emulator().categories().size(), 1u);
  EXPECT_EQ(json(emulator().categories()[0].dataJSON), KOValue(KOArray{KODictionary{{"identifier", "reply"}}}));
}

TEST_F(ServerInterfaceIntegrationTest, ConfigurationTunesTheSdkAtMostOnceAnHour) {
  KOPreferenceStore& prefs = device().preferences().standard();
  device().clock().setNow(1700000000);
  emulator().seed(R"({"config": {"l_e": 1, "tkn": "tok-2", "e_b_c": 50}})");
  server().getConfigForKovantis();
  ASSERT_TRUE(waitFor([&] { return !prefs.objectForKey(kConfigLastUpdatedKey).isNil(); }));
  const auto req = lastRequest("/v1/getConfig");
  EXPECT_EQ(req.query.size(), 3u);
  EXPECT_EQ(req.query.at("os"), "iOS");
  EXPECT_EQ(prefs.objectForKey(kShouldSendToLogEntries), KOValue(true));
  EXPECT_EQ(prefs.objectForKey(kLogEntriesTokenKey), KOValue("tok-2"));
  EXPECT_EQ(prefs.objectForKey(kEventsBatchCount), KOValue(50));

  // Within the hour nothing is sent.
  device().clock().advance(3599);
  server().getConfigForKovantis();
  EXPECT_EQ(emulator().requests("/v1/getConfig").size(), 1u);

  // A failed answer changes nothing, so the next start tries again.
  device().clock().advance(2);
  emulator().seed(R"({"config": {"tkn": "tok-2"}})");
  emulator().injectFault(KOEmulatorFault{"/v1/getConfig", 503, 0, false, 1, 1.0});
  server().getConfigForKovantis();
  ASSERT_TRUE(waitForRequests("/v1/getConfig", 2));
  device().pumpMain();
  EXPECT_EQ(prefs.objectForKey(kShouldSendToLogEntries), KOValue(true));

  // Missing keys: logging goes off, the batch size stays.
  const KOValue before = prefs.objectForKey(kConfigLastUpdatedKey);
  server().getConfigForKovantis();
  ASSERT_TRUE(waitFor([&] { return !(prefs.objectForKey(kConfigLastUpdatedKey) == before); }));
  EXPECT_EQ(prefs.objectForKey(kShouldSendToLogEntries), KOValue(false));
  EXPECT_EQ(prefs.objectForKey(kEventsBatchCount), KOValue(50));
}

TEST_F(ServerInterfaceIntegrationTest, FailedCallsShipARemoteLogRecord) {
  device().preferences().standard().setObject(KOValue(true), kShouldSendToLogEntries);
  emulator().injectFault(KOEmulatorFault{"/v2/report/add", 500, 0, false, -1, 1.0});
  EXPECT_FALSE(sendAndWait([&](auto done) { server().sendData(KOValue(KODictionary{}), KOValue("1"), done); }));
  ASSERT_TRUE(waitFor([&] { return !emulator().logs().empty(); }));
  const KOEmulatorLog log = emulator().logs()[0];
  EXPECT_EQ(log.token, KO_DEFAULT_LOG_TOKEN);
  EXPECT_EQ(log.appid, "kov-test-app");
  EXPECT_EQ(log.uid, KovantisUtils::getIdentifierForVendor());
  EXPECT_EQ(log.lvl, "DEBUG");
  EXPECT_EQ(log.tb, "");
  EXPECT_NE(log.msg.find("Kovantis - Api failed with response 500 and error (null)"), std::string::npos) << log.msg;
  EXPECT_NE(log.msg.find("ADHttpClient.cpp"), std::string::npos);

  // A failing upload is logged to the console only and never uploads again.
  KOLogger::debug(1);
  emulator().injectFault(KOEmulatorFault{"/noformat/logs/", 500, 0, false, -1, 1.0});
  EXPECT_FALSE(sendAndWait([&](auto done) { server().sendData(KOValue(KODictionary{}), KOValue("2"), done); }));
  ASSERT_TRUE(
      waitFor([&] { return device().console().contains("Kovantis - the connection failed with response 500"); }));
  EXPECT_TRUE(waitFor([&] { return device().console().contains("Kovantis - Error while trying to send logs"); }));
  EXPECT_EQ(emulator().requests("/noformat/logs/").size(), 2u);
}

// Remote logging on from the last run: a line logged before anything created the server interface
// (here, before any SDK call at all) still reaches the log service.
TEST_F(ServerInterfaceIntegrationTest, ALineLoggedBeforeAnyServiceCallIsShipped) {
  device().preferences().standard().setObject(KOValue(true), kShouldSendToLogEntries);
  KOLogger::logLocated(KO_HERE, nullptr, KOLogSeverityException, "Kovantis - probe before the first call",
                       KOValue("trace"));
  ASSERT_TRUE(waitFor([&] { return !emulator().logs().empty(); }));
  EXPECT_NE(emulator().logs()[0].msg.find("Kovantis - probe before the first call"), std::string::npos);
  EXPECT_EQ(emulator().logs()[0].tb, "trace");
}
