// Which in-app shows, against the emulator with the device's clock fixed: every rule case once,
// with the decision report and the screen agreeing; the fetch's stamp and ids; a show asked for
// during a fetch; smart triggers; auto-dismiss on the simulated clock.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "KODataHandler/KOEventsHandler.h"
#include "KOInAppV2/InAppHandlers/KOInAppV2Handler.h"
#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOSDKTestDevice.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KovantisUtils.h"
#include "Sim/KOSimRenderer.h"

namespace {

constexpr double kNow = 1800000000;

std::string campaignJSON(const std::string& cid, const std::string& extra = "") {
  return R"({"cid": ")" + cid + R"(", "status": "active", "type": "general", "ttl": )" + std::to_string(kNow + 86400) +
         R"(, "max_times": 3, "priority": 1, "last_updated": 1799990000000)" + extra +
         R"(, "widgets": [{"id": 1, "type": "text", "content": "Spring sale: 20% off everything"},
                          {"id": 2, "type": "button", "content": "Shop now", "primary": true,
                           "action": [{"tag": "m_dismiss"}]},
                          {"id": 3, "type": "closebutton"}]})";
}

KOViewController screenNamed(const std::string& name) {
  KOViewController vc;
  vc.name = name;
  return vc;
}

class InAppHandlerTest : public KOSDKTestDevice {
 protected:
  void SetUp() override {
    KOSDKTestDevice::SetUp();
    KOLogger::debug(1);
    device().clock().setNow(kNow);
    KovantisUtils::saveAppId(KOValue("kov-test-app"));
  }

  // Stores the campaign as a fetch would, with the statistics given (nothing when empty).
  void store(const std::string& campaign, KODictionary stats = {}) {
    KOValue answer = KOJSONSerialization::parse(R"({"campaign_info": [)" + campaign + "]}");
    KOInAppV2Manager::saveInAppCampaignsWithData(answer, [] {});
    if (stats.empty()) return;
    KODictionary file = KOInAppV2Manager::getCampaignsDictFromPlist();
    file.set(answer["campaign_info"].arrayValue()[0]["cid"].stringValue(), std::move(stats));
    ASSERT_TRUE(KOPropertyListFile::write(KOInAppV2Manager::getFilePath(), KOValue(std::move(file))));
    KOInAppV2Manager::sharedInstance().dropCache();
  }

  void lastInAppShownMinutesAgo(double minutes) {
    KovantisUtils::saveLastInAppShowedTime(KOValue(KODate{kNow - minutes * 60}));
  }

  // Asks for an in-app on the screen and pumps until it shows or nothing is left that could show
  // it: no fetch running, nothing queued on the main queue or the shared one, for a few rounds.
  bool showsOn(const KOViewController& screen) {
    waitFor([&] { return !KOInAppV2Handler::sharedInstance().currentlyFetchingInApps(); });
    sdk().handleInAppMessageForViewController(&screen);
    int quiet = 0;
    for (int round = 0; round < 10000 && quiet < 5; ++round) {
      if (device().userInterface().presentedScreen()) return true;
      const bool idle = device().dispatch().pumpMain() == 0 && device().dispatch().backgroundIdle() &&
                        !KOInAppV2Handler::sharedInstance().currentlyFetchingInApps();
      quiet = idle ? quiet + 1 : 0;
    }
    return device().userInterface().presentedScreen().has_value();
  }

  KOValue reportFor(const KOViewController& screen) {
    const KOArray report = sdk().inAppDecisionReport(&screen);
    return report.empty() ? KOValue() : report[0];
  }
};

struct RuleCase {
  std::string name;
  std::string campaignExtra;
  KODictionary stats;
  double lastInAppMinutesAgo;  // < 0: none
  std::string screen;
  bool keyboard;
  bool blockScreen;
  double advance;         // seconds the clock moves after storing
  std::string refusedBy;  // "" when it shows
  std::int64_t minutesLeft;
};

}  // namespace

// One table: each row sets up one rule's edge, and the report must say what the screen then does.
TEST_F(InAppHandlerTest, TheDecisionReportAgreesWithWhatShowsForEveryRule) {
  const std::vector<RuleCase> cases = {
      {"nothing in the way", "", {}, -1, "Home", false, false, 0, "", 0},
      {"global delay at 14 minutes", "", {}, 14, "Home", false, false, 0, "globalDelay", 1},
      {"global delay at 15 minutes", "", {}, 15, "Home", false, false, 0, "", 0},
      {"expired since it was stored", R"(, "ttl": 1800000060)", {}, -1, "Home", false, false, 60, "expired", 0},
      {"message delay 3599 s is 59 min, shown 58 min ago",
       R"(, "interval": 3599)",
       {{"lastShown", KODate{kNow - 58 * 60}}, {"timesShown", "1"}},
       -1,
       "Home",
       false,
       false,
       0,
       "messageDelay",
       1},
      {"message delay passed at 59 min",
       R"(, "interval": 3599)",
       {{"lastShown", KODate{kNow - 59 * 60}}, {"timesShown", "1"}},
       -1,
       "Home",
       false,
       false,
       0,
       "",
       0},
      {"clicked, even false", "", {{"isClicked", false}}, -1, "Home", false, false, 0, "clicked", 0},
      {"clicked but persistent", R"(, "persistent": true)", {{"isClicked", true}}, -1, "Home", false, false, 0, "", 0},
      {"shown max times as text", "", {{"timesShown", "3"}}, -1, "Home", false, false, 0, "shownMaxTimes", 0},
      {"screen matches ignoring case",
       R"(, "show_only_screen": "HomeViewController")",
       {},
       -1,
       "homeviewcontroller",
       false,
       false,
       0,
       "",
       0},
      {"other screen",
       R"(, "show_only_screen": "HomeViewController")",
       {},
       -1,
       "Cart",
       false,
       false,
       0,
       "otherScreen",
       0},
      {"blocked screen", "", {}, -1, "Checkout", false, true, 0, "blockedScreen", 0},
      {"keyboard", "", {}, -1, "Home", true, false, 0, "keyboard", 0},
      {"wrong type", R"(, "type": "smart")", {}, -1, "Home", false, false, 0, "wrongType", 0},
  };
  for (const RuleCase& c : cases) {
    SCOPED_TRACE(c.name);
    // Each case on a clean store, with nothing on screen and the keyboard as the case says.
    KOInAppV2Handler::sharedInstance().dismissInApp();
    device().clock().setNow(kNow);
    KOInAppV2Manager::removeV2InApps();
    KovantisUtils::saveLastInAppShowedTime(KOValue());
    device().application().setKeyboardShown(c.keyboard);
    store(campaignJSON("c1", c.campaignExtra), c.stats);
    if (c.lastInAppMinutesAgo >= 0) lastInAppShownMinutesAgo(c.lastInAppMinutesAgo);
    device().clock().advance(c.advance);
    const KOViewController screen = screenNamed(c.screen);
    if (c.blockScreen) sdk().dontShowInAppInViewController(&screen);

    const KOValue decision = reportFor(screen);
    ASSERT_TRUE(decision.isDictionary());
    EXPECT_EQ(decision["shows"], KOValue(c.refusedBy.empty()));
    EXPECT_EQ(decision["refusedBy"], c.refusedBy.empty() ? KOValue() : KOValue(c.refusedBy));
    EXPECT_EQ(decision["minutesLeft"], c.minutesLeft ? KOValue(c.minutesLeft) : KOValue());
    EXPECT_EQ(showsOn(screen), c.refusedBy.empty());
  }
}

TEST_F(InAppHandlerTest, AShowingIsCountedTrackedAndTappedAway) {
  startClean();
  store(campaignJSON("c1"));
  const KOViewController home = screenNamed("Home");
  ASSERT_TRUE(showsOn(home));
  const KOViewDescription shown = *device().userInterface().presentedScreen();
  ASSERT_NE(shown.findTag(2), nullptr);
  EXPECT_EQ(shown.findTag(2)->text, "Shop now");
  EXPECT_NE(KOSimRenderer::svg(shown).find(">Spring sale: 20% off"), std::string::npos);
  EXPECT_EQ(KOInAppV2Manager::getCampaignStatusDictWithCampaignId("c1")["timesShown"], KOValue("1"));

  // One in-app at a time; the global delay then holds the next one back.
  EXPECT_FALSE(device().userInterface().tapView(99));
  ASSERT_TRUE(device().userInterface().tapView(2));
  EXPECT_FALSE(device().userInterface().presentedScreen().has_value());
  EXPECT_TRUE(KOInAppV2Manager::getCampaignStatusDictWithCampaignId("c1").dictionaryValue().contains("isClicked"));
  EXPECT_FALSE(showsOn(home));
  EXPECT_EQ(reportFor(home)["refusedBy"], KOValue("globalDelay"));
  ASSERT_TRUE(flush());
  const auto shownRecords = storedRecords("iOS_IN_APP_SHOWN");
  ASSERT_EQ(shownRecords.size(), 1u);
  EXPECT_NE(KOJSONSerialization::write(shownRecords[0]).find("\"cid\":\"c1\""), std::string::npos);
}

TEST_F(InAppHandlerTest, AutoDismissRunsOnTheSimulatedClockAndASwipeOnlyTakesACancellableOne) {
  startClean();
  store(campaignJSON("c1", R"(, "auto_dismiss": 30)"));
  ASSERT_TRUE(showsOn(screenNamed("Home")));
  ASSERT_TRUE(device().userInterface().swipeAway());
  EXPECT_TRUE(device().userInterface().presentedScreen().has_value());  // not cancellable
  device().clock().advance(29);
  device().dispatch().pumpMain();
  EXPECT_TRUE(device().userInterface().presentedScreen().has_value());
  device().clock().advance(1);
  ASSERT_TRUE(waitFor([&] { return !device().userInterface().presentedScreen().has_value(); }));
  ASSERT_TRUE(flush());
  EXPECT_EQ(storedNames("iOS_IN_APP_AUTO_DISMISS").size(), 1u);
}

TEST_F(InAppHandlerTest, TheFetchSendsItsStampAndHeldIdsAndAnswersAShowAskedMeanwhile) {
  emulator().seed(R"({"inapps": {"campaign_info": [)" + campaignJSON("c1") + "]}}");
  KOInAppV2Handler& handler = KOInAppV2Handler::sharedInstance();
  handler.getInAppCampaigns();
  ASSERT_TRUE(handler.currentlyFetchingInApps());
  const KOViewController home = screenNamed("Home");
  sdk().handleInAppMessageForViewController(&home);  // answered when the fetch ends
  EXPECT_FALSE(device().userInterface().presentedScreen().has_value());
  ASSERT_TRUE(waitFor([&] { return device().userInterface().presentedScreen().has_value(); }));
  EXPECT_EQ(device().screen().entries("presentedScreen").size(), 1u);

  device().clock().advance(3600);
  handler.getInAppCampaigns();
  ASSERT_TRUE(waitFor([&] { return !handler.currentlyFetchingInApps(); }));
  const auto requests = emulator().requests("/campaigns/inappcampaigns/fetch");
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].query.at("last_updated"), "0");
  EXPECT_EQ(requests[1].query.at("last_updated"), std::to_string(static_cast<long long>(kNow)) + "000");
  EXPECT_NE(requests[1].body.find(R"("campaign_ids":["c1"])"), std::string::npos);
}

TEST_F(InAppHandlerTest, ATrackedEventOnTheTriggerListFetchesAndShowsItsCampaign) {
  startClean();
  store(R"({"cid": "seed", "status": "active", "type": "smart", "ttl": 1900000000})");
  KOInAppV2Manager::saveInAppCampaignsWithData(KOJSONSerialization::parse(R"({"event_list": ["ADD_TO_CART"]})"), [] {});
  emulator().seed(R"({"smart_triggers": {"ADD_TO_CART": )" + campaignJSON("smart-1", R"(, "type": "smart")") + "}}");
  sdk().trackEvent(KOValue("PRODUCT_VIEWED"));
  sdk().trackEvent(KOValue("ADD_TO_CART"), KOValue(KODictionary{{"sku", "A-1"}}));
  ASSERT_TRUE(waitFor([&] { return device().userInterface().presentedScreen().has_value(); }));
  EXPECT_EQ(emulator().requests("/v2/autotriggerinapps").size(), 1u);
  EXPECT_EQ(device().userInterface().presentedScreen()->findTag(2)->text, "Shop now");

  // The check listens below the facade: an event the SDK tracks itself reaches it too.
  KOInAppV2Handler::sharedInstance().dismissInApp();
  KOEventsHandler::sharedInstance().trackEvent(KOValue("ADD_TO_CART"), KOValue());
  ASSERT_TRUE(waitFor([&] { return emulator().requests("/v2/autotriggerinapps").size() == 2; }));

  // With in-apps off, a listed event asks nothing.
  sdk().setDisableInApps(true);
  sdk().trackEvent(KOValue("ADD_TO_CART"));
  device().dispatch().pumpMain();
  EXPECT_EQ(emulator().requests("/v2/autotriggerinapps").size(), 2u);
}

// Images are decoded before showing: the picture takes the image's own shape, and an image that
// does not decode shows nothing, which the report then names.
TEST_F(InAppHandlerTest, ImagesAreShownAtTheirDecodedShapeAndAnUndecodableOneShowsNothing) {
  emulator().seed(
      R"({"images": {"/images/wide.png": "iVBORw0KGgoAAAANSUhEUgAAAAQAAAABCAIAAAB2XpiaAAAADUlEQVR4nGP4z8AARwAd7wP95hFmHQAAAABJRU5ErkJggg==",
                                 "/images/anim.gif": "R0lGODlhAQABAIAAAAAAAP///yH5BAAKAAAALAAAAAABAAEAAAICRAEAIfkEABQAAAAsAAAAAAEAAQAAAgJEAQA7",
                                 "/images/broken.png": "bm90IGFuIGltYWdl"}})");
  const auto withImage = [&](const std::string& cid, const std::string& file) {
    return R"({"cid": ")" + cid + R"(", "status": "active", "type": "general", "ttl": 1900000000, "max_times": 3,
        "animate": {"entry": "fade_in"}, "widgets": [{"id": 4, "type": "image", "content": ")" +
           emulator().baseURL() + "/images/" + file + R"("}, {"id": 5, "type": "image", "content": ")" +
           emulator().baseURL() + R"(/images/anim.gif"}]})";
  };
  store(withImage("broken", "broken.png"));
  const KOViewController home = screenNamed("Home");
  sdk().handleInAppMessageForViewController(&home);
  ASSERT_TRUE(waitFor([&] { return device().console().contains("In App not shown because image download failed"); }));
  EXPECT_FALSE(device().userInterface().presentedScreen().has_value());
  EXPECT_EQ(reportFor(home)["refusedBy"], KOValue("imagesFailed"));

  KOInAppV2Manager::removeV2InApps();
  store(withImage("wide", "wide.png"));
  sdk().handleInAppMessageForViewController(&home);
  ASSERT_TRUE(waitFor([&] { return device().userInterface().presentedScreen().has_value(); }));
  const std::optional<KOViewDescription> shown = device().userInterface().presentedScreen();
  const KOViewDescription* image = shown->findTag(4);
  ASSERT_NE(image, nullptr);
  EXPECT_DOUBLE_EQ(image->frame.height, image->frame.width / 4);
  EXPECT_TRUE(device().files().fileExists(image->image));
  ASSERT_NE(shown->findTag(5), nullptr);
  EXPECT_EQ(shown->findTag(5)->imageFrameDelaysMs, (std::vector<int>{100, 200}));
  EXPECT_EQ(shown->children.at(0).entryAnimation, "fade_in");
  EXPECT_EQ(shown->children.at(0).exitAnimation, "");  // none given, none made up
}

// Widgets of the wrong kind cost only themselves: the rest of the campaign still shows.
TEST_F(InAppHandlerTest, AWronglyTypedWidgetCostsOnlyItself) {
  store(R"({"cid": "odd", "status": "active", "type": "general", "ttl": 1900000000, "max_times": 3,
      "align": 7, "animate": "sideways", "widgets": ["not a widget", {"id": "x", "type": 3},
        {"id": 2, "type": "text", "content": "Still here", "properties": "not a dictionary"},
        {"id": 3, "type": "button", "content": "Go", "action": {"tag": "m_dismiss"}}]})");
  ASSERT_TRUE(showsOn(screenNamed("Home")));
  const std::optional<KOViewDescription> shown = device().userInterface().presentedScreen();
  ASSERT_NE(shown->findTag(2), nullptr);
  EXPECT_EQ(shown->findTag(2)->text, "Still here");
  ASSERT_NE(shown->findTag(3), nullptr);
  EXPECT_TRUE(device().console().contains("Kovantis - exception in initialize KOInAppV2WidgetObject is"));
  // Its actions were no list: the tap does nothing, and nothing breaks.
  EXPECT_TRUE(device().userInterface().tapView(3));
  EXPECT_TRUE(device().userInterface().presentedScreen().has_value());
}

TEST_F(InAppHandlerTest, ACancellableMessageIsSwipedAwayWithoutAClick) {
  store(campaignJSON("c1", R"(, "cancellable": true)"));
  ASSERT_TRUE(showsOn(screenNamed("Home")));
  ASSERT_TRUE(device().userInterface().swipeAway());
  EXPECT_FALSE(device().userInterface().presentedScreen().has_value());
  EXPECT_FALSE(KOInAppV2Manager::getCampaignStatusDictWithCampaignId("c1").dictionaryValue().contains("isClicked"));
  EXPECT_FALSE(device().userInterface().swipeAway());
}
