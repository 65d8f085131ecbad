#include <gtest/gtest.h>

#include <cmath>

#include "KOTestDevice.h"
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

TEST_F(ADServiceRequestGeneratorTest, ServiceTableOfHostsPathsAndMethods) {
  struct Row {
    int service;
    const char* path;
    const char* method;
    const char* host;
  };
  const Row rows[] = {{0, "/v2/device/add", "POST", PROD_URL},
                      {1, "/v2/report/add", "POST", PROD_URL},
                      {2, "/campaigns/inappcampaigns/fetch", "POST", PROD_URL},
                      {3, "/campaigns/inappcampaign/fetch", "GET", PROD_URL},
                      {4, "/v2/autotriggerinapps", "POST", PROD_URL},
                      {5, "/v1/getInboxMessages", "GET", INBOX_HOST},
                      {6, "/v2/categories/add", "POST", PROD_URL},
                      {7, "/v1/geoFenceHit", "GET", PROD_URL},
                      {8, "/v1/geoFences", "GET", PROD_URL},
                      {9, "/v1/getConfig", "GET", PROD_URL}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.service);
    EXPECT_EQ(gen().getApiPathForService(r.service), std::optional<std::string>(r.path));
    EXPECT_EQ(gen().getRequestMethodForService(r.service), std::optional<std::string>(r.method));
    EXPECT_EQ(gen().hostForService(r.service), std::optional<std::string>(r.host));
  }
  device().preferences().standard().setObject(KOValue("tok-1"), kLogEntriesTokenKey);
  EXPECT_EQ(gen().getApiPathForService(10), std::optional<std::string>("/noformat/logs/tok-1"));
  EXPECT_EQ(gen().hostForService(10), std::optional<std::string>(LOGENTRIES_HOST));
  for (int bad : {-1, 11, 99}) {
    EXPECT_FALSE(gen().getApiPathForService(bad));
    EXPECT_FALSE(gen().getRequestMethodForService(bad));
    EXPECT_FALSE(gen().requestForService(bad, {}, KOValue(KODictionary{})));
  }
  EXPECT_EQ(gen().schema(), "https");
  EXPECT_EQ(gen().port(), 443);
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
