#include <gtest/gtest.h>

#include <cmath>

#include "KOTestDevice.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "Network/ADServiceRequestGenerator.h"
#include "kovantis/KOConstants.h"

class ADServiceRequestGeneratorTest : public KOTestDevice {
 protected:
  void SetUp() override {
    KOTestDevice::SetUp();
    KOServiceEndpoints e;  // production hosts, distinct per role
    e.timeoutSeconds = 60;
    device().setServiceEndpoints(e);
    KOLogger::debug(1);
  }
  ADServiceRequestGenerator& gen() { return ADServiceRequestGenerator::sharedInstance(); }
  void redirect(bool on) { device().preferences().standard().setObject(KOValue(on), KO_SHOULD_REDIRECT_DATA); }
};

// The table itself is checked against the emulator's routes (ServiceTableTest); here, what the
// generator derives from it.
TEST_F(ADServiceRequestGeneratorTest, HostsByRoleLogPathCarriesTheTokenUnknownServicesFail) {
  EXPECT_EQ(gen().hostForService(KOServiceNumberSendReportsV2), std::optional<std::string>(PROD_URL));
  EXPECT_EQ(gen().hostForService(KOServiceNumberInbox), std::optional<std::string>(INBOX_HOST));
  EXPECT_EQ(gen().hostForService(KOServiceNumberSendLogs), std::optional<std::string>(LOGENTRIES_HOST));
  device().preferences().standard().setObject(KOValue("tok-1"), kLogEntriesTokenKey);
  EXPECT_EQ(gen().getApiPathForService(KOServiceNumberSendLogs), std::optional<std::string>("/noformat/logs/tok-1"));
  for (int bad : {-1, 11, 99}) {
    EXPECT_FALSE(gen().hostForService(bad));
    EXPECT_FALSE(gen().getApiPathForService(bad));
    EXPECT_FALSE(gen().getRequestMethodForService(bad));
    EXPECT_FALSE(gen().requestForService(bad, {}, KOValue(KODictionary{})));
  }
}

TEST_F(ADServiceRequestGeneratorTest, RedirectionMovesEverythingButLogsToTheIndiaHost) {
  redirect(true);
  EXPECT_EQ(gen().hostForService(1), std::optional<std::string>(PROD_URL_INDIA));
  EXPECT_EQ(gen().hostForService(5), std::optional<std::string>(PROD_URL_INDIA));
  EXPECT_EQ(gen().hostForService(10), std::optional<std::string>(LOGENTRIES_HOST));
  redirect(false);
  EXPECT_EQ(gen().hostForService(5), std::optional<std::string>(INBOX_HOST));
}

TEST_F(ADServiceRequestGeneratorTest, QueryKeepsOrderDropsNullKeepsEmptyAndEncodes) {
  const KODictionary params{{"z", "1"}, {"gone", KONull{}}, {"empty", ""}, {"a", "x y&z=é/+"}, {"n", 7}};
  const auto url = gen().createURLForService(3, params);
  ASSERT_TRUE(url);
  EXPECT_EQ(*url, std::string("https://") + PROD_URL +
                      ":443/campaigns/inappcampaign/fetch?z=1&empty=&a=x%20y%26z%3D%C3%A9%2F%2B&n=7");
  EXPECT_EQ(*gen().createURLForService(9, {}), std::string("https://") + PROD_URL + ":443/v1/getConfig");
}

TEST_F(ADServiceRequestGeneratorTest, GetNeverCarriesABodyAndPostAlwaysCarriesJSON) {
  const auto get = gen().requestForService(3, {{"campaign_id", "c1"}}, KOValue(KODictionary{{"ignored", 1}}));
  ASSERT_TRUE(get);
  EXPECT_EQ(get->method, "GET");
  EXPECT_FALSE(get->hasBody);
  EXPECT_EQ(get->header("Content-Type"), "");
  EXPECT_EQ(get->timeoutSeconds, 60);

  const auto post = gen().requestForService(1, {{"batch_id", "1"}}, KOValue(KODictionary{{"viewsCount", 0}}));
  ASSERT_TRUE(post);
  EXPECT_EQ(post->method, "POST");
  EXPECT_EQ(post->header("Content-Type"), "application/json");
  EXPECT_EQ(post->body, R"({"viewsCount":0})");
}

TEST_F(ADServiceRequestGeneratorTest, BodiesJSONCannotHoldGiveNoRequest) {
  // No body at all stands for "", which is no JSON document.
  EXPECT_FALSE(gen().requestForService(0, {}, KOValue()));
  EXPECT_FALSE(gen().requestForService(1, {}, KOValue(KODictionary{{"when", KODate{1}}})));
  EXPECT_FALSE(gen().requestForService(1, {}, KOValue(KODictionary{{"x", std::nan("")}})));
  EXPECT_EQ(device().console().count("Kovantis - Exception in Request Generator"), 3u);
  EXPECT_TRUE(gen().requestForService(4, {}, KOValue(KOArray{1, 2})));
}
