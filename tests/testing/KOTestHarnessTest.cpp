// The public test harness as a host's test uses it: straight, without our fixtures, so that what
// it answers is checked rather than turned into test failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "kovantis/Kovantis.h"
#include "kovantis/testing/KOTestHarness.h"

namespace {

KOEmulatorFault failingReports(int64_t count) {
  KOEmulatorFault fault;
  fault.path = "/v2/report/add";
  fault.status = 500;
  fault.count = count;
  return fault;
}

}  // namespace

TEST(KOTestHarness, PointsTheDeviceAtASeededEmulatorWithItsTimeout) {
  KOTestHarness::Options options;
  options.seed = R"({"config": {"e_b_c": 7}})";
  options.requestTimeoutSeconds = 3.5;
  KOTestHarness harness(options);
  ASSERT_TRUE(harness.hasEmulator());
  EXPECT_NE(harness.emulator().seedsJSON().find(R"("e_b_c":7)"), std::string::npos) << "seeded before the start";
  const KOServiceEndpoints& endpoints = KOPlatform::current().endpoints;
  EXPECT_EQ(endpoints.scheme, "http");
  EXPECT_EQ(endpoints.apiHost, "127.0.0.1");
  EXPECT_EQ(endpoints.inboxHost, "127.0.0.1");
  EXPECT_EQ(endpoints.port, harness.emulator().port());
  EXPECT_EQ(endpoints.timeoutSeconds, 3.5);
  EXPECT_EQ(harness.emulator().controlURL(), harness.emulator().baseURL() + "/__emulator/");
}

TEST(KOTestHarness, RefusesASeedTheEmulatorWouldNotTake) {
  KOTestHarness::Options options;
  options.seed = R"({"no such section": {}})";
  EXPECT_THROW(KOTestHarness{options}, std::invalid_argument);
  options.seed = "{";
  EXPECT_THROW(KOTestHarness{options}, std::invalid_argument);
}

TEST(KOTestHarness, WithoutAnEmulatorSaysSoInsteadOfReadingNothing) {
  KOTestHarness::Options options;
  options.emulator = false;
  KOTestHarness harness(options);
  EXPECT_FALSE(harness.hasEmulator());
  EXPECT_THROW(harness.emulator(), std::logic_error);
  EXPECT_THROW(harness.storedEventNames(), std::logic_error);
  EXPECT_THROW(harness.waitForRequests("/v2/report/add", 1, 0.1), std::logic_error);
  EXPECT_EQ(KOPlatform::current().endpoints.port, 443) << "the production hosts stay";
  EXPECT_TRUE(harness.waitFor([] { return true; }, 0.1));
  EXPECT_FALSE(harness.waitFor([] { return false; }, 0.05));
}

TEST(KOTestHarness, DeliverAllRetriesRefusedBatchesUntilTheServiceTakesThem) {
  KOTestHarness harness;
  harness.emulator().injectFault(failingReports(3));
  Kovantis& sdk = Kovantis::sharedInstance();
  sdk.initializeProdWithApiKey(KOValue("harness-app"));
  sdk.trackEvent(KOValue("FIRST"), KOValue(KODictionary{{"n", 1}}));
  sdk.trackEvent(KOValue("SECOND"), KOValue(KODictionary{{"n", 2.5}}));
  ASSERT_TRUE(harness.deliverAll());
  EXPECT_GE(harness.emulator().requestCount("/v2/report/add"), 4u) << "three refusals, then accepted";
  const std::vector<std::string> names = harness.storedEventNames();
  EXPECT_EQ(harness.storedEventNames("SEC"), std::vector<std::string>{"SECOND"});
  EXPECT_NE(std::find(names.begin(), names.end(), "FIRST"), names.end());
  const std::vector<KOValue> second = harness.storedEvents("SECOND");
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(second[0]["EVENT_ATTRS"], KOValue(KODictionary{{"n", 2.5}}));
  EXPECT_TRUE(harness.emulator().duplicates().empty());
}

TEST(KOTestHarness, DeliverAllGivesUpAtItsDeadlineWhileTheServiceRefuses) {
  KOTestHarness harness;
  harness.emulator().injectFault(failingReports(-1));
  Kovantis& sdk = Kovantis::sharedInstance();
  sdk.initializeProdWithApiKey(KOValue("harness-app"));
  sdk.trackEvent(KOValue("KEPT"));
  const auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(harness.deliverAll(1.0));
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5)) << "bounded by its timeout";
  EXPECT_TRUE(harness.storedEvents("KEPT").empty());
  ASSERT_TRUE(harness.waitForRequests("/v2/report/add", 1, 0.1)) << "it did try";
  EXPECT_FALSE(harness.waitForRequests("/v2/report/add", 1000, 0.1));

  harness.emulator().clearFaults();
  ASSERT_TRUE(harness.deliverAll()) << "the refused batch was kept";
  EXPECT_EQ(harness.storedEvents("KEPT").size(), 1u);
}
