#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <stdexcept>

#include "KOSDKTestDevice.h"
#include "KOUtilities/KOLogger.h"
#include "kovantis/KOConstants.h"

class EventPipelineTest : public KOSDKTestDevice {};

TEST_F(EventPipelineTest, EveryTrackedEventReachesTheServiceExactlyOnceInOrder) {
  startClean();
  auto track = [&](int i) {
    sdk().trackEvent(KOValue("VIEW"), KOValue(KODictionary{{"seq", i},
                                                           {"sku", "A" + std::to_string(i)},
                                                           {"price", 9.5},
                                                           {"when", KODate{1700000000.5}},
                                                           {"link", KOURL{"https://k.example/x"}}}));
  };
  for (int i = 0; i < 29; ++i) track(i);
  EXPECT_EQ(events().eventsInMemory(), 29u);  // below the threshold nothing is cut
  EXPECT_EQ(events().storedBatchCount(), 0u);
  track(29);  // the 30th cuts a batch and starts a sync
  EXPECT_EQ(events().eventsInMemory(), 0u);
  for (int i = 30; i < 65; ++i) track(i);
  ASSERT_TRUE(deliverAll());
  // Batches travel concurrently, so only the order within one batch is kept; each event arrives once.
  const auto records = storedEvents("VIEW");
  ASSERT_EQ(records.size(), 65u);
  std::vector<std::int64_t> seqs;
  for (const KOValue& record : records) {
    const KOValue& attrs = record["EVENT_ATTRS"];
    seqs.push_back(attrs["seq"].intValue());
    EXPECT_EQ(attrs["sku"], KOValue("A" + std::to_string(attrs["seq"].intValue())));
    EXPECT_EQ(attrs["when"], KOValue(1700000000.5));  // dates travel as seconds
    EXPECT_EQ(attrs["link"], KOValue("https://k.example/x"));
    EXPECT_TRUE(record["EVENT_G_TIME"].isString());
    EXPECT_TRUE(record["EVENT_L_TIME"].isString());
  }
  std::sort(seqs.begin(), seqs.end());
  for (std::int64_t i = 0; i < 65; ++i) EXPECT_EQ(seqs[static_cast<std::size_t>(i)], i);
  EXPECT_TRUE(emulator().duplicates().empty());
  EXPECT_FALSE(device().files().fileExists(events().eventsPlistFilePath()));
}

TEST_F(EventPipelineTest, BadNamesAndPayloadsLoseOnlyThatEvent) {
  KOLogger::debug(1);
  startClean();
  sdk().trackEvent(KOValue(42), KOValue());
  sdk().trackEvent(KOValue("LIST"), KOValue(KOArray{1, 2}));
  sdk().trackEvent(KOValue("NAN"), KOValue(KODictionary{{"x", std::numeric_limits<double>::quiet_NaN()}}));
  sdk().trackEvent(KOValue(""), KOValue());  // an empty name is a name
  EXPECT_TRUE(
      device().console().contains("Kovantis - While tracking events, the name of the event has to be a NSString type"));
  EXPECT_TRUE(
      device().console().contains("Kovantis - While tracking events, the payload with the event has to be a "
                                  "NSDictionary of NSMutable Dictionary type"));
  EXPECT_TRUE(device().console().contains("Kovantis - exception is"));
  ASSERT_TRUE(deliverAll());
  EXPECT_EQ(storedEventNames("").back(), "");
  EXPECT_TRUE(storedEvents("LIST").empty());
}

TEST_F(EventPipelineTest, BuilderEventsCarryTimestampsAndLocations) {
  startClean();
  KOPayloadBuilder builder;
  builder.setLocationLat(12.5, 77.6, "p");
  sdk().trackEvent(KOValue("PLACE"), builder);
  KOPayloadBuilder withAttrs(std::make_shared<KODictionary>(KODictionary{{"k", "v"}}));
  withAttrs.setTimeStamp(2, "t");
  sdk().trackEvent(KOValue("TIMED"), withAttrs);
  ASSERT_TRUE(deliverAll());
  const KOValue place = storedEvents("PLACE").at(0);
  EXPECT_FALSE(place.dictionaryValue().contains("EVENT_ATTRS"));
  EXPECT_EQ(place["EVENT_ATTRS_CUST"],
            KOValue(KODictionary{{"location", KOArray{KODictionary{{"p", "12.500000,77.600000"}}}}}));
  const KOValue timed = storedEvents("TIMED").at(0);
  EXPECT_EQ(timed["EVENT_ATTRS"], KOValue(KODictionary{{"k", "v"}}));
  EXPECT_EQ(timed["EVENT_ATTRS_CUST"], KOValue(KODictionary{{"timestamp", KOArray{KODictionary{{"t", 2000.0}}}}}));
}

TEST_F(EventPipelineTest, AFailedBatchKeepsItsIdAndIsSentAgainLater) {
  startClean();
  emulator().injectFault(KOEmulatorFault{"/v2/report/add", 503, 0, false, -1, 1.0});
  for (int i = 0; i < 30; ++i) sdk().trackEvent(KOValue("E"), KOValue(KODictionary{{"i", i}}));
  ASSERT_TRUE(waitForRequests("/v2/report/add", 1));
  ASSERT_TRUE(settle());
  ASSERT_EQ(storedBatchIds().size(), 1u);
  const std::string id = storedBatchIds()[0];
  EXPECT_EQ(emulator().requests("/v2/report/add")[0].query.at("batch_id"), id);

  emulator().clearFaults();
  ASSERT_TRUE(deliverAll());
  const auto batches = emulator().batches();
  ASSERT_EQ(batches.size(), 1u);
  EXPECT_EQ(batches[0].batchId, id);
  EXPECT_EQ(batches[0].eventCount, 30);
}

TEST_F(EventPipelineTest, OfThreeBatchesOnlyTheFailedOneIsKept) {
  startClean();
  for (int b = 0; b < 3; ++b) {
    KOArray records;
    for (int i = 0; i < 3; ++i) records.push_back(KODictionary{{"EVENT_ACTION", "B" + std::to_string(b)}});
    events().writeEvents(records, 1700000000000 + b);
  }
  emulator().injectFault(KOEmulatorFault{"/v2/report/add", 500, 0, false, 1, 1.0});
  sdk().syncNow();
  ASSERT_TRUE(waitForRequests("/v2/report/add", 3));
  ASSERT_TRUE(settle());
  std::string failedId;
  for (const auto& r : emulator().requests("/v2/report/add")) {
    if (r.status == 500) failedId = r.query.at("batch_id");
  }
  ASSERT_FALSE(failedId.empty());
  EXPECT_EQ(storedBatchIds(), std::vector<std::string>{failedId});
  EXPECT_EQ(emulator().batches().size(), 2u);
}

TEST_F(EventPipelineTest, ASyncAskedForDuringAnotherRunsWhenItEnds) {
  startClean();
  // The first sync stalls at the service while the threshold cuts a second batch and asks for a
  // sync of its own, and the session ends (a background task waits for its sync).
  emulator().injectFault(KOEmulatorFault{"/v2/report/add", 0, 400, false, 1, 1.0});
  for (int i = 0; i < 30; ++i) sdk().trackEvent(KOValue("FIRST"), KOValue());
  ASSERT_TRUE(waitFor([&] { return events().syncInProgress(); }));
  for (int i = 0; i < 30; ++i) sdk().trackEvent(KOValue("SECOND"), KOValue());
  device().resignActive();
  EXPECT_EQ(device().application().activeBackgroundTasks(), std::vector<std::string>{"KOVTask"});
  // Nothing else asks: the follow-up sends what came meanwhile and ends the background task.
  ASSERT_TRUE(waitFor([&] { return device().application().activeBackgroundTasks().empty(); }));
  ASSERT_TRUE(settle());
  EXPECT_EQ(storedEventNames("FIRST").size(), 30u);
  EXPECT_EQ(storedEventNames("SECOND").size(), 30u);
  EXPECT_EQ(storedEventNames("EVENT_ACTION_IOS_SESSION_END").size(), 1u);
  EXPECT_EQ(events().storedBatchCount(), 0u);
  EXPECT_FALSE(device().files().fileExists(events().eventsPlistFilePath()));
  EXPECT_TRUE(emulator().duplicates().empty());
}

TEST_F(EventPipelineTest, ResetWithNothingStoredStillSendsTheLogoutThenRegistersAgain) {
  start();
  sdk().setUserEmailID(KOValue("a@example.com"));
  ASSERT_TRUE(deliverAll());
  const std::size_t devicesBefore = emulator().requests("/v2/device/add").size();
  // The in-app store and its images belong to the user too.
  const std::string store = device().documentsDirectory() + "/InAppCampaignsV2.plist";
  const std::string images = device().documentsDirectory() + "/Kovantis/InAppImages/c1";
  device().rawFiles().createDirectories(images);
  device().rawFiles().writeFile(store,
                                "<plist version=\"1.0\"><dict><key>campaign_info</key><array><dict><key>cid</key>"
                                "<string>c1</string></dict></array><key>c1</key><dict><key>timesShown</key>"
                                "<string>1</string></dict></dict></plist>");
  sdk().resetUser();
  ASSERT_TRUE(waitFor([&] { return storedEventNames("KOV_LOGOUT").size() == 1; }));
  // The reset's clean-up posts the new-user notification: the device is added again.
  ASSERT_TRUE(waitForRequests("/v2/device/add", devicesBefore + 1));
  // The new user's own in-app fetch may write the store again, but nothing of the old user's.
  EXPECT_EQ(device().files().readFile(store).value_or("").find("c1"), std::string::npos);
  EXPECT_FALSE(device().files().fileExists(images));
  ASSERT_TRUE(settle());
  // After a reset every attribute is sent again.
  sdk().setUserEmailID(KOValue("a@example.com"));
  ASSERT_TRUE(deliverAll());
  size_t emails = 0;
  for (const KOValue& r : storedEvents(EVENT_ACTION_USER_ATTRIBUTE)) {
    emails +=
        r["EVENT_ATTRS"].isDictionary() && r["EVENT_ATTRS"].dictionaryValue().contains("USER_ATTRIBUTE_USER_EMAIL");
  }
  EXPECT_EQ(emails, 2u);
}

TEST_F(EventPipelineTest, AResetDuringARunningSyncRunsAfterIt) {
  startClean();
  emulator().injectFault(KOEmulatorFault{"/v2/report/add", 0, 300, false, 1, 1.0});
  sdk().trackEvent(KOValue("BEFORE"), KOValue());
  sdk().syncNow();
  // That sync has cut BEFORE into its own batch and is waiting for the stalled service.
  ASSERT_TRUE(waitFor(
      [&] { return events().syncInProgress() && events().eventsInMemory() == 0 && events().storedBatchCount() == 1; }));
  sdk().resetUser();
  ASSERT_TRUE(waitFor([&] { return storedEventNames("KOV_LOGOUT").size() == 1; }));
  const auto names = storedEventNames("");
  ASSERT_EQ(names.size(), 2u);
  EXPECT_EQ(names[0], "BEFORE");
  EXPECT_EQ(names[1], "KOV_LOGOUT");
  // The emulator records a request once it answered, a moment after storing its events.
  ASSERT_TRUE(waitForRequests("/v2/report/add", 2));
  const auto reports = emulator().requests("/v2/report/add");
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_LT(reports[0].time, reports[1].time);
}

TEST_F(EventPipelineTest, TheOldGenerationsEventFileIsMigrated) {
  device().rawFiles().writeFile(device().documentsDirectory() + "/kovantisEvents.dat",
                                "{\"EVENT_ACTION\":\"OLD_1\"}\nnot json\n\n{\"EVENT_ACTION\":\"OLD_2\"}\n");
  // A file that cannot be read now is kept for a later start, not taken for empty.
  device().files().inject(KOFileFault::ReadError, "kovantisEvents.dat", 1);
  events().syncToServerFromDumpFile();
  EXPECT_TRUE(device().files().fileExists(device().documentsDirectory() + "/kovantisEvents.dat"));
  start();
  ASSERT_TRUE(deliverAll());
  EXPECT_EQ(storedEventNames("OLD_"), (std::vector<std::string>{"OLD_1", "OLD_2"}));
  EXPECT_FALSE(device().files().fileExists(device().documentsDirectory() + "/kovantisEvents.dat"));
}

TEST_F(EventPipelineTest, TheObserverSeesEveryRecordedEventAndCannotLoseOne) {
  startClean();
  std::vector<std::pair<std::string, KOValue>> seen;
  events().setEventObserver([&](const std::string& name, const KOValue& attributes) {
    seen.emplace_back(name, attributes);
    if (name == "THROWS") throw std::runtime_error("observer failed");
  });
  sdk().trackEvent(KOValue("PLAIN"), KOValue(KODictionary{{"a", 1}}));
  KOPayloadBuilder builder;
  builder.setLocationLat(1, 2, "here");
  sdk().trackEvent(KOValue("BUILT"), builder);
  sdk().setUserEmailID(KOValue("o@example.com"));  // tracked by the attributes handler, not the facade
  sdk().trackEvent(KOValue(7), KOValue());         // refused, so never offered
  sdk().trackEvent(KOValue("THROWS"), KOValue());
  events().setEventObserver(nullptr);
  sdk().trackEvent(KOValue("UNSEEN"), KOValue());

  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen[0], std::make_pair(std::string("PLAIN"), KOValue(KODictionary{{"a", 1}})));
  EXPECT_EQ(seen[1].first, "BUILT");
  EXPECT_TRUE(seen[1].second.isNil());
  EXPECT_EQ(seen[2].first, EVENT_ACTION_USER_ATTRIBUTE);
  EXPECT_EQ(seen[2].second["USER_ATTRIBUTE_USER_EMAIL"], KOValue("o@example.com"));
  EXPECT_EQ(seen[3].first, "THROWS");
  ASSERT_TRUE(deliverAll());
  for (const char* name : {"PLAIN", "BUILT", "THROWS", "UNSEEN"}) EXPECT_EQ(storedEventNames(name).size(), 1u) << name;
}

TEST_F(EventPipelineTest, FlushAnswersAfterASyncThatIncludedItsEvents) {
  startClean();
  auto flushed = [&] {
    std::optional<bool> answer;
    sdk().flush([&](bool allDelivered) { answer = allDelivered; });
    EXPECT_TRUE(waitFor([&] { return answer.has_value(); }));
    return answer.value_or(false);
  };
  emulator().injectFault(KOEmulatorFault{"/v2/report/add", 503, 0, false, -1, 1.0});
  sdk().trackEvent(KOValue("KEPT"), KOValue());
  EXPECT_FALSE(flushed());
  // The answer speaks of the file too: the refused batch is on disk.
  ASSERT_TRUE(batchFile().isDictionary());
  EXPECT_EQ(batchFile().dictionaryValue().size(), 1u);

  // A flush asked for while a sync runs waits for a sync that includes what came since.
  emulator().clearFaults();
  emulator().injectFault(KOEmulatorFault{"/v2/report/add", 0, 300, false, 1, 1.0});
  sdk().syncNow();
  ASSERT_TRUE(waitFor([&] { return events().syncInProgress(); }));
  sdk().trackEvent(KOValue("LATE"), KOValue());
  EXPECT_TRUE(flushed());
  EXPECT_EQ(storedEventNames("KEPT").size(), 1u);
  EXPECT_EQ(storedEventNames("LATE").size(), 1u);
  EXPECT_FALSE(device().files().fileExists(events().eventsPlistFilePath()));
}

// While the service refuses every report, cuts do not each start a round that sends every stored
// batch again: rounds wait from one second doubling, the first after a wait sends the oldest batch
// alone, and the rest follow once it is accepted. The host's own sync still goes at once.
TEST_F(EventPipelineTest, ARefusingServiceIsRetriedWithBackOffAndProbedWithOneBatch) {
  startClean();
  device().clock().setNow(1800000000);
  const std::string kReport = "/v2/report/add";
  emulator().injectFault(KOEmulatorFault{kReport, 503, 0, false, -1, 1.0});
  auto trackBatches = [&](int batches) {
    for (int i = 0; i < 30 * batches; ++i) sdk().trackEvent(KOValue("HELD"), KOValue(KODictionary{{"i", i}}));
    return settle();
  };
  ASSERT_TRUE(trackBatches(1));
  EXPECT_EQ(emulator().requestCount(kReport), 1u);  // refused: the wait begins
  ASSERT_TRUE(trackBatches(10));
  EXPECT_EQ(emulator().requestCount(kReport), 1u);  // cut and kept, not sent
  EXPECT_EQ(storedBatchIds().size(), 11u);

  struct Step {
    bool track;       // a cut asks for a round first
    double advance;   // seconds the clock moves
    size_t requests;  // reports received in all, after it
  };
  // Waits of 1 s, then 2 s, then 4 s: a retry only once each wait is over, one batch each time,
  // and only when a cut asked for it meanwhile.
  for (const Step& step : {Step{false, 0.5, 1}, Step{false, 0.6, 2}, Step{true, 1.5, 2}, Step{false, 0.6, 3},
                           Step{true, 3.9, 3}, Step{false, 0.2, 4}, Step{false, 20, 4}}) {
    if (step.track) {
      ASSERT_TRUE(trackBatches(1));
    }
    device().clock().advance(step.advance);
    ASSERT_TRUE(settle());
    EXPECT_EQ(emulator().requestCount(kReport), step.requests) << "after " << step.advance << " s";
  }
  EXPECT_EQ(storedBatchIds().size(), 13u);  // nothing stored is dropped

  // The host's sync goes at once, whatever the wait, with every batch.
  sdk().syncNow();
  ASSERT_TRUE(settle());
  EXPECT_EQ(emulator().requestCount(kReport), 4u + 13u);

  // Back: the refused sync made the wait 16 s. The next cut's round waits it out, is a probe, is
  // accepted, and the rest follow.
  emulator().clearFaults();
  ASSERT_TRUE(trackBatches(1));
  EXPECT_EQ(emulator().requestCount(kReport), 17u);
  device().clock().advance(16);
  ASSERT_TRUE(waitFor([&] { return storedBatchIds().empty(); }));
  EXPECT_EQ(emulator().batches().size(), 14u);
  EXPECT_EQ(emulator().requestCount(kReport), 17u + 14u);
  // Accepted once: cuts sync at once again.
  ASSERT_TRUE(trackBatches(1));
  ASSERT_TRUE(waitFor([&] { return emulator().batches().size() == 15u; }));
}

// A batch refused for its content is split until the refused record stands alone: the good ones
// arrive at once, the refused one is kept, logged once, and offered again only at a slow pace.
// Any other failure (a 503 here) keeps the batch whole, as before.
TEST_F(EventPipelineTest, ARefusedRecordIsSplitOffAndHoldsBackNoGoodEvent) {
  KOLogger::debug(1);
  device().clock().setNow(1800000000);
  startClean();
  KOEmulatorFault poison{"/v2/report/add", 400};
  poison.bodyContains = "POISON";
  emulator().injectFault(poison);
  for (int i = 0; i < 29; ++i) sdk().trackEvent(KOValue(i == 14 ? "POISON" : "GOOD"));
  sdk().trackEvent(KOValue("GOOD"));  // the thirtieth: the cut
  ASSERT_TRUE(waitFor([&] { return storedEventNames("GOOD").size() == 29; }));
  ASSERT_TRUE(settle());
  EXPECT_EQ(storedBatchIds().size(), 1u);
  EXPECT_EQ(device().console().count("Kovantis - the service refused the event of batch"), 1u);

  const std::size_t sent = emulator().requests("/v2/report/add").size();
  sdk().trackEvent(KOValue("LATER"));
  std::optional<bool> answer;
  sdk().flush([&](bool allDelivered) { answer = allDelivered; });
  ASSERT_TRUE(waitFor([&] { return answer.has_value(); }));
  EXPECT_FALSE(*answer);  // the refused record is still waiting
  EXPECT_EQ(storedEventNames("LATER").size(), 1u);
  EXPECT_EQ(emulator().requests("/v2/report/add").size(), sent + 1);  // LATER's batch only

  emulator().clearFaults();
  device().clock().advance(301);
  ASSERT_TRUE(flush());
  EXPECT_EQ(storedEventNames("POISON").size(), 1u);
  EXPECT_EQ(storedEventNames("GOOD").size(), 29u);
  EXPECT_EQ(device().console().count("Kovantis - the service refused the event of batch"), 1u);
}
