// The GoogleTest fixture as a host app's tests use it: what its failures say, its strict console,
// and its builders and views, each driven through the SDK to the emulator.
#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "kovantis/KOConstants.h"
#include "kovantis/testing/KOHarnessTest.h"

using ::testing::HasSubstr;

namespace {

// The failures a call adds to the running test, caught as GoogleTest's own tests catch them.
std::string failuresOf(const std::function<void()>& call) {
  ::testing::TestPartResultArray results;
  {
    ::testing::ScopedFakeTestPartResultReporter reporter(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
    call();
  }
  std::string text;
  for (int i = 0; i < results.size(); ++i) text += std::string(results.GetTestPartResult(i).message()) + "\n";
  return text;
}

// What the app's own code hears of in-app messages.
class AppDelegate : public KOInAppDelegate {
 public:
  void inAppClickedForWidget(int, const std::string& screenName, const KODictionary& extras) override {
    opened = screenName;
    openedWith = extras;
  }
  void selfHandledInAppWithData(const KODictionary& data) override { drawn = data["content"]; }
  std::string opened;
  KODictionary openedWith;
  KOValue drawn;
};

}  // namespace

class KOHarnessFixture : public KOHarnessTest {};

TEST_F(KOHarnessFixture, AStartWithAnEmptyAppIdFailsTheDeliveryWithAMessageNamingIt) {
  expectLogLine("You have missed the APP ID");
  sdk().initializeProdWithApiKey("");
  sdk().trackEvent("CHECKOUT");
  EXPECT_NONFATAL_FAILURE(deliverAll(0.5), "the SDK was started with an empty app id");
}

TEST_F(KOHarnessFixture, StrictModeFailsOnAnExceptionLineUnlessTheTestExpectsIt) {
  sdk().initializeProdWithApiKey("");  // the start logs its exception
  EXPECT_NONFATAL_FAILURE(checkConsole(), "[EXCEPTION]");

  expectLogLine("exception in initialize is");
  sdk().initializeProdWithApiKey("");
  EXPECT_EQ(failuresOf([&] { checkConsole(); }), "");

  expectLogLine("a line the SDK never logs");
  EXPECT_NONFATAL_FAILURE(checkConsole(), "never logged the expected line \"a line the SDK never logs\"");

  setStrictLog(false);
  sdk().initializeProdWithApiKey("");
  EXPECT_EQ(failuresOf([&] { checkConsole(); }), "");
}

TEST_F(KOHarnessFixture, TimeoutsSayWhatStandsBetweenTheDeviceAndTheService) {
  EXPECT_THAT(failuresOf([&] { waitForRequests("/v2/report/add", 1, 0.1); }),
              HasSubstr("0 were:\nno request reached the emulator since it started or was last reset: was the SDK "
                        "started"));

  sdk().initializeProdWithApiKey("shop");
  ASSERT_TRUE(deliverAll());
  KOEmulatorFault fault;
  fault.path = "/v2/report/add";
  fault.status = 503;
  emulator().injectFault(fault);
  sdk().trackEvent("CHECKOUT");
  const std::string why = failuresOf([&] { deliverAll(0.5); });
  EXPECT_THAT(why, HasSubstr("a fault is still injected: /v2/report/add answers 503, until cleared"));
  EXPECT_THAT(why, HasSubstr("1 batch the service received and has not accepted:\n  batch "));
  EXPECT_THAT(why, HasSubstr(", the last answered 503"));

  KOSimDevice other;
  other.install();
  const auto started = std::chrono::steady_clock::now();
  EXPECT_THAT(failuresOf([&] { deliverAll(); }), HasSubstr("the SDK runs on another platform than this harness's"));
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2)) << "nothing to wait for";
}

TEST_F(KOHarnessFixture, EachWayAPushReachesTheAppEndsWithTheSDK) {
  seedCampaign(KOTestCampaign("welcome").text("Welcome in").closeButton());
  KOTestPush push("spring");
  push.alert("Spring", "20% off").category("SHOP").extra("screen", "offers");

  sdk().initializeProdWithApiKey("shop", nullptr,
                                 launchWithPush(KOTestPush(push).landingPage("https://example.com/s")));
  ASSERT_TRUE(waitFor([&] { return !device().userInterface().browserURL().empty(); }));
  EXPECT_EQ(device().userInterface().browserURL(), "https://example.com/s");
  device().userInterface().finishBrowser();

  ASSERT_TRUE(receivePushInForeground(KOTestPush(push).inAppCampaign("welcome")));
  ASSERT_TRUE(waitFor([&] { return device().userInterface().presentedScreen().has_value(); }));
  EXPECT_EQ(device().userInterface().presentedScreen()->findTag(1)->text, "Welcome in");
  EXPECT_TRUE(tapPushAction(push, "BUY"));
  EXPECT_TRUE(dismissPush(push));
  EXPECT_TRUE(openPush(KOTestPush("quiet").silent()));  // the app hears it, the SDK leaves it alone
  ASSERT_TRUE(deliverAll());

  std::map<std::string, KOEmulatorCampaignEvents> counted;
  for (const KOEmulatorCampaignEvents& c : emulator().campaignEvents()) counted[c.campaignId] = c;
  EXPECT_EQ(counted.count("quiet"), 0u) << "the SDK left the silent push alone";
  EXPECT_EQ(counted["spring"].pushClicked, 2) << "the launch and the button";
  EXPECT_EQ(counted["spring"].pushReceived, 1);
  EXPECT_EQ(counted["spring"].pushDismissed, 1);
  EXPECT_EQ(counted["welcome"].inAppShown, 1);
  const std::vector<KOValue> clicks = storedEvents(KO_PUSH_CLICKED_EVENT);
  ASSERT_EQ(clicks.size(), 2u);
  EXPECT_EQ(clicks[1]["EVENT_ATTRS"][KOV_APNS_ACTION_IDENTIFIER], KOValue("BUY"));
}

TEST_F(KOHarnessFixture, SeededCampaignsReachTheDeviceTheWayTheirBuilderSays) {
  seedCampaign(KOTestCampaign("sale")
                   .text("Spring sale")
                   .button("Shop",
                           {KOTestCampaign::navigate("Offers", {{"sale", "spring"}}),
                            KOTestCampaign::setUserAttribute("likes_sales", true), KOTestCampaign::trackClick(),
                            KOTestCampaign::dismiss()},
                           true));
  seedCampaign(KOTestCampaign("note").selfHandled(R"({"headline": "Saved for later"})"));
  seedCampaign(KOTestCampaign("strip").nudge().text("Free delivery today"));
  auto app = std::make_shared<AppDelegate>();
  sdk().setDelegate(app);
  auto home = std::make_shared<KOViewController>();
  home->name = "Home";
  device().application().setKeyWindowRootViewController(home);
  sdk().initializeProdWithApiKey("shop");
  ASSERT_TRUE(waitFor([&] { return sdk().inAppDecisionReport(home.get()).size() == 3; })) << "fetched at the start";

  sdk().handleInAppMessage();  // the general one: drawn over the screen
  ASSERT_TRUE(waitFor([&] { return device().userInterface().presentedScreen().has_value(); }));
  EXPECT_EQ(device().userInterface().presentedScreen()->findTag(2)->text, "Shop");
  ASSERT_TRUE(device().userInterface().tapView(2));
  EXPECT_EQ(app->opened, "Offers");
  EXPECT_EQ(app->openedWith, (KODictionary{{"sale", "spring"}}));

  device().clock().advance(15 * 60);  // the default pause between two in-apps
  sdk().getSelfHandledInApp();        // the app draws this one itself
  ASSERT_TRUE(waitFor([&] { return !app->drawn.isNil(); }));
  EXPECT_EQ(app->drawn, KOValue(R"({"headline": "Saved for later"})"));

  sdk().showNudgeViewAtNudgePosition(KONudgePositionBottom);  // the nudge, inside the screen
  ASSERT_TRUE(waitFor([&] { return device().userInterface().embeddedScreen().has_value(); }));
  EXPECT_EQ(device().screen().last("embeddedScreen")["host"], KOValue("Home"));

  ASSERT_TRUE(deliverAll());
  EXPECT_EQ(storedUserAttributes()["likes_sales"], KOValue(true));
  ASSERT_EQ(storedEvents("iOS_IN_APP_CLICKED").size(), 1u);
  EXPECT_EQ(storedEvents("iOS_IN_APP_CLICKED")[0]["EVENT_ATTRS"],
            KOValue(KODictionary{{"cid", "sale"}, {"widget_id", "2"}}));
}

TEST_F(KOHarnessFixture, StoredUserAttributesHoldTheLatestValueOfEachKey) {
  sdk().initializeProdWithApiKey("shop");
  sdk().setUserEmailID("ada@example.com");
  sdk().setUserAttribute(3, "shoe_size");
  sdk().setUserAttribute(4, "shoe_size");
  sdk().setUserDateOfBirth(KOValue(KODate{86400}));
  ASSERT_TRUE(deliverAll());
  const KODictionary stored = storedUserAttributes();
  EXPECT_EQ(stored[USER_ATTRIBUTE_USER_EMAIL], KOValue("ada@example.com"));
  EXPECT_EQ(stored["shoe_size"], KOValue(4));
  EXPECT_EQ(stored[USER_ATTRIBUTE_USER_BDAY], KOValue(86400000)) << "time stamps in milliseconds, as reported";
}

// Before any platform is installed the SDK is there, does nothing, and says so.
TEST(KovantisWithoutAPlatform, FlushAnswersAtOnceThatNothingWasDelivered) {
  std::optional<bool> delivered;
  Kovantis::sharedInstance().flush([&](bool all) { delivered = all; });
  EXPECT_EQ(delivered, std::optional<bool>(false));
}
