// What a tap on an in-app message does, against the emulator: the actions in order, input read
// back from the message, the coupon, the call, push permission, the delegate, and taps and actions
// that make no sense.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "KOInAppV2/InAppHandlers/KOInAppV2Handler.h"
#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOSDKTestDevice.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "kovantis/KOConstants.h"

namespace {

constexpr double kNow = 1800000000;

struct Click {
  int widget;
  std::string screen;
  KODictionary extras;
};

class Recorder : public KOInAppDelegate {
 public:
  void inAppClickedForWidget(int widget, const std::string& screenName, const KODictionary& dataDict) override {
    clicks.push_back({widget, screenName, dataDict});
  }
  void selfHandledInAppWithData(const KODictionary& data) override { selfHandled.push_back(data); }
  std::vector<Click> clicks;
  std::vector<KODictionary> selfHandled;
};

class InAppActionsTest : public KOSDKTestDevice {
 protected:
  void SetUp() override {
    KOSDKTestDevice::SetUp();
    KOLogger::debug(1);
    device().clock().setNow(kNow);
    startClean();
    sdk().setDelegate(recorder_);
  }

  // Shows a campaign whose widgets are given as JSON (after a text widget with id 1).
  void show(const std::string& widgets) {
    const std::string campaign = R"({"cid": "c1", "status": "active", "type": "general", "ttl": 1900000000,
        "max_times": 5, "widgets": [{"id": 1, "type": "text", "content": "Rate us"}, )" +
                                 widgets + "]}";
    KOInAppV2Manager::saveInAppCampaignsWithData(KOJSONSerialization::parse(R"({"campaign_info": [)" + campaign + "]}"),
                                                 [] {});
    KovantisUtils::saveLastInAppShowedTime(KOValue());
    KOViewController home;
    home.name = "Home";
    waitFor([&] { return !KOInAppV2Handler::sharedInstance().currentlyFetchingInApps(); });
    sdk().handleInAppMessageForViewController(&home);
    ASSERT_TRUE(waitFor([&] { return device().userInterface().presentedScreen().has_value(); }));
  }

  bool onScreen() { return device().userInterface().presentedScreen().has_value(); }

  std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>();
};

}  // namespace

TEST_F(InAppActionsTest, ActionsRunInOrderAndTheDelegateGetsTheFirstNavigation) {
  show(R"({"id": 2, "type": "button", "content": "Go", "primary": true, "action": [
      {"tag": "m_dismiss"},
      {"tag": "m_track", "track": "iOS_IN_APP_CLICKED"},
      {"tag": "m_track", "track": "OFFER_SEEN"},
      {"tag": "m_nav", "screen": "Cart", "extras": {"from": "inapp"}},
      {"tag": "m_nav", "screen": "Second", "uri": "https://example.com/offer"}]})");
  ASSERT_TRUE(device().userInterface().tapView(2));
  // Dismissed first, and the actions after it still ran.
  EXPECT_FALSE(onScreen());
  EXPECT_EQ(device().application().openedURLs(), (std::vector<std::string>{"https://example.com/offer"}));
  ASSERT_EQ(recorder_->clicks.size(), 1u);
  EXPECT_EQ(recorder_->clicks[0].widget, KOInAppWidgetButton);
  EXPECT_EQ(recorder_->clicks[0].screen, "Cart");
  EXPECT_EQ(recorder_->clicks[0].extras, (KODictionary{{"from", "inapp"}}));
  EXPECT_TRUE(KOInAppV2Manager::getCampaignStatusDictWithCampaignId("c1").dictionaryValue().contains("isClicked"));

  ASSERT_TRUE(flush());
  const auto clicked = storedRecords("iOS_IN_APP_CLICKED");
  ASSERT_EQ(clicked.size(), 1u);
  EXPECT_EQ(clicked[0]["EVENT_ATTRS"], KOValue(KODictionary{{"cid", "c1"}, {"widget_id", "2"}}));
  const auto seen = storedRecords("OFFER_SEEN");
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0]["EVENT_ATTRS"], KOValue(KODictionary{{"cid", "c1"}}));
}

TEST_F(InAppActionsTest, AnAttributeIsReadFromTheRatingTheUserSet) {
  show(R"({"id": 5, "type": "rating", "properties": {"maxRating": 5}},
          {"id": 6, "type": "button", "content": "Send", "action": [
             {"tag": "m_set", "set": "satisfaction", "valueOf": 5},
             {"tag": "m_set", "set": "plan", "value": "gold"},
             {"tag": "m_set", "set": "nothing_here", "valueOf": 1},
             {"tag": "m_dismiss"}]})");
  ASSERT_TRUE(device().userInterface().setRating(5, 4));
  EXPECT_FALSE(device().userInterface().setRating(6, 4));  // a button takes no stars
  ASSERT_TRUE(device().userInterface().tapView(6));
  EXPECT_FALSE(onScreen());
  // Not primary: the actions ran, no click was recorded.
  EXPECT_FALSE(KOInAppV2Manager::getCampaignStatusDictWithCampaignId("c1").dictionaryValue().contains("isClicked"));
  ASSERT_TRUE(flush());
  std::vector<KOValue> attributes;
  for (const KOValue& r : storedRecords(EVENT_ACTION_USER_ATTRIBUTE)) attributes.push_back(r["EVENT_ATTRS"]);
  EXPECT_EQ(attributes, (std::vector<KOValue>{KOValue(KODictionary{{"satisfaction", 4.0}}),
                                              KOValue(KODictionary{{"plan", "gold"}})}));
}

TEST_F(InAppActionsTest, CouponsCallsAndPushPermission) {
  show(R"({"id": 2, "type": "button", "content": "Copy", "action": [{"tag": "m_copy", "value": "SPRING20"}]},
          {"id": 3, "type": "button", "content": "Copy and say", "action": [
             {"tag": "m_copy", "value": "SUMMER", "msg": "Code copied"}]},
          {"id": 4, "type": "button", "content": "Call", "action": [{"tag": "m_call", "value": "+18005550100"}]},
          {"id": 7, "type": "button", "content": "Notify me", "action": [{"tag": "m_permission_notification"}]})");
  // A copy without a message says nothing.
  ASSERT_TRUE(device().userInterface().tapView(2));
  EXPECT_EQ(device().userInterface().pasteboardString(), "SPRING20");
  EXPECT_TRUE(device().userInterface().alerts().empty());
  ASSERT_TRUE(device().userInterface().tapView(3));
  EXPECT_EQ(device().userInterface().pasteboardString(), "SUMMER");
  ASSERT_EQ(device().userInterface().alerts().size(), 1u);
  EXPECT_EQ(device().userInterface().alerts()[0].title, "COUPON");
  EXPECT_EQ(device().userInterface().alerts()[0].message, "Code copied");

  // The call asks first; only "Call" dials.
  ASSERT_TRUE(device().userInterface().tapView(4));
  ASSERT_EQ(device().userInterface().alerts().size(), 2u);
  EXPECT_EQ(device().userInterface().alerts()[1].title, "+18005550100");
  EXPECT_EQ(device().userInterface().alerts()[1].actionTitles, (std::vector<std::string>{"Call", "Cancel"}));
  ASSERT_TRUE(device().userInterface().tapAlertAction(1, 0));
  EXPECT_EQ(device().application().openedURLs(), (std::vector<std::string>{"tel:+18005550100"}));

  // Never asked before: the system prompt. Asked before: the settings page.
  const int before = device().notificationCenter().authorizationRequests();
  ASSERT_TRUE(device().userInterface().tapView(7));
  EXPECT_EQ(device().notificationCenter().authorizationRequests(), before + 1);
  device().preferences().standard().setObject(KOValue(true), KO_PUSH_PREFERENCE_KEY);
  ASSERT_TRUE(device().userInterface().tapView(7));
  EXPECT_EQ(device().application().settingsOpenedCount(), 1);
  EXPECT_EQ(device().notificationCenter().authorizationRequests(), before + 1);
}

TEST_F(InAppActionsTest, NonsenseTapsAndActionsChangeNothing) {
  show(R"({"id": 2, "type": "button", "content": "Odd", "action": [
             {"tag": "m_nav"}, {"tag": "m_share"}, {"tag": "m_set", "value": 1}, {"tag": "m_inapp"},
             {"tag": "m_track"}, {"tag": "m_copy"}, {"tag": "m_call"}, {"tag": "m_unknown"}, "not an action",
             {"tag": "m_inapp", "campaign_id": "no-such-campaign"},
             {"tag": "m_set", "set": "x", "valueOf": {"a": 1}}, {"tag": "m_track", "track": "NEVER"}]})");
  EXPECT_FALSE(device().userInterface().tapView(99));
  ASSERT_TRUE(device().userInterface().tapView(2));
  ASSERT_TRUE(waitForRequests("/campaigns/inappcampaign/fetch", 1));
  settle();
  device().dispatch().pumpMain();
  // Still on screen; nothing opened, shared, copied or set; the widget id that is no number
  // ends the pass with a line, so the last track never runs.
  EXPECT_TRUE(onScreen());
  EXPECT_TRUE(device().application().openedURLs().empty());
  EXPECT_TRUE(device().userInterface().shareSheets().empty());
  EXPECT_EQ(device().userInterface().pasteboardString(), "");
  EXPECT_TRUE(device().console().contains("Kovantis - exception in action handler for in-app is"));
  ASSERT_TRUE(flush());
  EXPECT_TRUE(storedNames("NEVER").empty());
  EXPECT_TRUE(storedRecords(EVENT_ACTION_USER_ATTRIBUTE).empty());
}

// A self-handled campaign goes to the host, which reports showing and clicks; the rules then hold
// it back like any other.
TEST_F(InAppActionsTest, SelfHandledCampaignsReachTheHostAndFollowTheRules) {
  KOInAppV2Manager::saveInAppCampaignsWithData(KOJSONSerialization::parse(R"({"campaign_info": [
      {"cid": "g1", "status": "active", "type": "general", "ttl": 1900000000, "max_times": 5, "priority": 1},
      {"cid": "s1", "status": "active", "type": "self_handled", "ttl": 1900000000, "max_times": 5, "priority": 2,
       "content": "{\"title\": \"Welcome back\"}"}]})"),
                                               [] {});
  sdk().getSelfHandledInApp();
  ASSERT_EQ(recorder_->selfHandled.size(), 1u);
  EXPECT_EQ(recorder_->selfHandled[0],
            (KODictionary{{"campaign_id", "s1"}, {"content", R"({"title": "Welcome back"})"}}));
  EXPECT_TRUE(device().console().contains("In app campaign not of type Self Handled; CampaignID : g1"));
  EXPECT_FALSE(onScreen());  // the SDK shows nothing itself

  sdk().selfHandledInAppViewShownWithCampaignID("s1");
  sdk().selfHandledInAppClickedWithPrimaryActionAndCampaignID("s1");
  sdk().selfHandledInAppClickedWithPrimaryActionAndCampaignID("unknown");
  EXPECT_EQ(KOInAppV2Manager::getCampaignStatusDictWithCampaignId("s1")["timesShown"], KOValue("1"));
  KovantisUtils::saveLastInAppShowedTime(KOValue());
  sdk().getSelfHandledInApp();
  EXPECT_EQ(recorder_->selfHandled.size(), 1u);  // clicked: not handed out again
  ASSERT_TRUE(flush());
  EXPECT_EQ(storedNames("iOS_IN_APP_SHOWN").size(), 1u);
}

// A nudge sits inside the host's screen; the minimum delay between in-apps does not hold it back,
// and its taps run its own actions, the dismiss taking the nudge away.
TEST_F(InAppActionsTest, NudgesSitInTheScreenAndTheirTapsRunTheNudgesActions) {
  KOInAppV2Manager::saveInAppCampaignsWithData(KOJSONSerialization::parse(R"({"campaign_info": [
      {"cid": "n1", "status": "active", "type": "embedded", "ttl": 1900000000, "max_times": 5,
       "show_only_screen": "Home", "widgets": [{"id": 1, "type": "text", "content": "Free delivery today"},
         {"id": 2, "type": "button", "content": "Shop", "action": [{"tag": "m_track", "track": "NUDGE_TAP"},
                                                                   {"tag": "m_dismiss"}]}]}]})"),
                                               [] {});
  KovantisUtils::saveLastInAppShowedTime(KOValue(KODate{kNow}));  // an in-app just now
  KOViewController home;
  home.name = "Home";
  std::string taken;
  KOViewDescription nudge;
  sdk().getNudgeViewForViewController(&home, [&](const KOViewDescription& view, const std::string& cid) {
    nudge = view;
    taken = cid;
  });
  EXPECT_EQ(taken, "n1");
  ASSERT_NE(nudge.findTag(2), nullptr);
  KOViewController cart;
  cart.name = "Cart";
  sdk().getNudgeViewForViewController(&cart, [&](const KOViewDescription&, const std::string& cid) { taken = cid; });
  EXPECT_EQ(taken, "");  // another screen's

  sdk().showNudgeViewInViewController(&home, KONudgePositionBottom);
  const std::optional<KOViewDescription> shown = device().userInterface().embeddedScreen();
  ASSERT_TRUE(shown.has_value());
  const KOViewDescription& strip = shown->children.at(0);
  EXPECT_DOUBLE_EQ(strip.frame.y + strip.frame.height, shown->frame.height);
  EXPECT_EQ(device().screen().last("embeddedScreen")["host"], KOValue("Home"));
  EXPECT_EQ(KOInAppV2Manager::getCampaignStatusDictWithCampaignId("n1")["timesShown"], KOValue("1"));

  ASSERT_TRUE(device().userInterface().tapView(2));
  EXPECT_FALSE(device().userInterface().embeddedScreen().has_value());
  ASSERT_EQ(recorder_->clicks.size(), 1u);
  ASSERT_TRUE(flush());
  const auto taps = storedRecords("NUDGE_TAP");
  ASSERT_EQ(taps.size(), 1u);
  EXPECT_EQ(taps[0]["EVENT_ATTRS"], KOValue(KODictionary{{"cid", "n1"}}));
}

// A test campaign is shown when it comes; when it cannot be, the alert says why.
TEST_F(InAppActionsTest, TestCampaignsShowOrSayWhyNot) {
  emulator().seed(R"({"campaigns": {"t1": {"cid": "t1", "status": "active", "type": "test", "ttl": 1900000000,
      "max_times": 1, "widgets": [{"id": 1, "type": "text", "content": "Test message"}]},
      "t2": {"reason": "Campaign expired"}}})");
  KOInAppV2Handler::fetchAndShowInAppForCampaignID("t1", true);
  ASSERT_TRUE(waitFor([&] { return onScreen(); }));
  KOInAppV2Handler::sharedInstance().dismissInApp();

  KOInAppV2Handler::fetchAndShowInAppForCampaignID("t2", true);
  ASSERT_TRUE(waitFor([&] { return device().userInterface().alerts().size() == 1; }));
  EXPECT_EQ(device().userInterface().alerts()[0].title, "ERROR");
  EXPECT_EQ(device().userInterface().alerts()[0].message,
            "Error while trying to show In-App campaign.\n CampaignId: t2.\nReason: Campaign expired\nPlease try "
            "again or contact Kovantis Support with the screenshot");

  emulator().injectFault(KOEmulatorFault{"/campaigns/inappcampaign/fetch", 0, 0, true, -1, 1.0});
  KOInAppV2Handler::fetchAndShowInAppForCampaignID("t3", true);
  ASSERT_TRUE(waitFor([&] { return device().userInterface().alerts().size() == 2; }));
  EXPECT_EQ(device().userInterface().alerts()[1].message,
            "Network Error: Could not show test In-App.\n CampaignId : t3.\n Please try again or contact Kovantis "
            "Support with the screenshot.");
  // A linked campaign that fails says nothing.
  KOInAppV2Handler::fetchAndShowInAppForCampaignID("t3", false);
  ASSERT_TRUE(waitForRequests("/campaigns/inappcampaign/fetch", 4));
  settle();
  EXPECT_EQ(device().userInterface().alerts().size(), 2u);
}

// A campaign fetched by id or by a trigger goes where its kind says: an embedded one into the top
// screen as a nudge, a self-handled one to the host's delegate; neither is drawn as a message.
TEST_F(InAppActionsTest, FetchedAndTriggeredCampaignsGoWhereTheirKindSays) {
  auto home = std::make_shared<KOViewController>();
  home->name = "Home";
  device().application().setKeyWindowRootViewController(home);
  emulator().seed(R"({"campaigns": {"e1": {"cid": "e1", "status": "active", "type": "general", "align": "embedded",
      "ttl": 1900000000, "max_times": 5, "widgets": [{"id": 1, "type": "text", "content": "Free delivery"}]}},
      "smart_triggers": {"CHECKOUT": {"cid": "s2", "status": "active", "type": "self_handled", "ttl": 1900000000,
                                      "max_times": 5, "content": "{\"title\": \"Hi\"}"}}})");
  KOInAppV2Handler::fetchAndShowInAppForCampaignID("e1", false);
  ASSERT_TRUE(waitFor([&] { return device().userInterface().embeddedScreen().has_value(); }));
  EXPECT_EQ(device().screen().last("embeddedScreen")["host"], KOValue("Home"));
  EXPECT_FALSE(onScreen());

  KOInAppV2Manager::saveInAppCampaignsWithData(KOJSONSerialization::parse(R"({"event_list": ["CHECKOUT"]})"), [] {});
  sdk().trackEvent(KOValue("CHECKOUT"));
  ASSERT_TRUE(waitFor([&] { return recorder_->selfHandled.size() == 1; }));
  EXPECT_EQ(recorder_->selfHandled[0], (KODictionary{{"campaign_id", "s2"}, {"content", R"({"title": "Hi"})"}}));
  EXPECT_FALSE(onScreen());
  ASSERT_TRUE(flush());
  EXPECT_EQ(storedRecords("iOS_IN_APP_SHOWN").size(), 1u);  // the nudge's showing
}
