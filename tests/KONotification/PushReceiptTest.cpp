#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KONotification/KONotificationHandler.h"
#include "KORichPush/KOWebViewController.h"
#include "KOSDKTestDevice.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KovantisUtils.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KOInbox.h"

namespace {

// What a host's notification-centre delegate does: hand every response to the SDK.
class ForwardingResponder : public KOUserNotificationCenterDelegate {
 public:
  bool handlesNotificationResponses() const override { return true; }
  void userNotificationCenter(KOUserNotificationCenter& center, const KONotificationResponse& response,
                              std::function<void()> completion) override {
    Kovantis::sharedInstance().userNotificationCenter(&center, response);
    completion();
  }
};

// A push of the service's: the block's fields as JSON members (after "cid"), and "app_extra".
KODictionary push(const std::string& blockFields = "", const std::string& appExtra = "") {
  const std::string json = R"({"aps": {"alert": "Spring sale", "badge": 3}, "kovantis": {"cid": "c-1")" +
                           (blockFields.empty() ? "" : ", " + blockFields) + "}" +
                           (appExtra.empty() ? "" : R"(, "app_extra": {)" + appExtra + "}") + "}";
  return KOJSONSerialization::parse(json).dictionaryValue();
}

}  // namespace

class PushReceiptTest : public KOSDKTestDevice {
 protected:
  void SetUp() override {
    KOSDKTestDevice::SetUp();
    KOLogger::debug(1);
    // The host's app delegate forwards pushes and (older systems) action buttons.
    device().application().setRemoteNotificationHandler([this](const KODictionary& userInfo) {
      sdk().didReceieveNotificationinApplication(&device().application(), KOValue(userInfo), deepLinks_);
    });
    device().application().setNotificationActionHandler([this](const std::string& id, const KODictionary& userInfo) {
      sdk().handleActionWithIdentifier(KOValue(id), KOValue(userInfo));
    });
  }

  void olderSystem(const std::string& version) {
    device().profile().update([&](KOSimProfileSettings& s) { s.systemVersion = version; });
  }
  void withResponder() { device().notificationCenter().setDelegate(std::make_shared<ForwardingResponder>()); }

  /// Starts clean, the app in the foreground.
  void startActive() {
    startClean();
    device().becomeActive();
  }

  std::vector<KOValue> clicks() { return storedRecords(KO_PUSH_CLICKED_EVENT); }
  std::size_t count(const char* kind) { return device().screen().entries(kind).size(); }

  bool deepLinks_ = true;
};

// ------------------------------------------------------------------------------- which pushes count

TEST_F(PushReceiptTest, ForeignSilentAndCampaignlessPushesChangeNothing) {
  startActive();
  withResponder();
  device().application().setApplicationIconBadgeNumber(5);
  const std::vector<KODictionary> ignored = {
      KODictionary{{"aps", KODictionary{{"alert", "from another service"}}}},
      push(R"("silentPush": 1)"),
      push(R"("silentPush": null)"),
      KOJSONSerialization::parse(R"({"kovantis": {"couponCode": "NOCID"}})").dictionaryValue(),
      KOJSONSerialization::parse(R"({"kovantis": {"cid": null}})").dictionaryValue(),
  };
  for (const KODictionary& payload : ignored) {
    device().receivePush(payload);
    device().openPush(payload);
    device().respondToPush(payload, KOV_DISMISS_ACTION);
  }
  device().dispatch().pumpMain();
  EXPECT_EQ(device().application().applicationIconBadgeNumber(), 5);
  EXPECT_EQ(count(KOSimScreen::Alert), 0u);
  ASSERT_TRUE(flush());
  EXPECT_TRUE(storedNames("NOTIFICATION_").empty());
  EXPECT_FALSE(KONotificationHandler::sharedInstance().didReceivePush());

  // A block that is no dictionary, or no payload at all, is logged and survived.
  sdk().didReceieveNotificationinApplication(nullptr, KOValue(KODictionary{{"kovantis", "c-1"}}));
  EXPECT_TRUE(device().console().contains("Kovantis - Exception in did receive notification : "));
  sdk().didReceieveNotificationinApplication(nullptr, KOValue("not a payload"));
  sdk().userNotificationCenter(nullptr, KONotificationResponse{});
  sdk().userNotificationCenter(nullptr, KONotificationResponse{KOValue(7), KOValue(push()), {}});
  EXPECT_TRUE(device().console().contains("Kovantis - Exception : "));
}

// ------------------------------------------------------------------------------ application states

TEST_F(PushReceiptTest, AnActiveAppShowsThePushsInAppAndRecordsTheReceiptWhileABackgroundOneDoesNothing) {
  emulator().seed(R"({"campaigns": {"ia-7": {"cid": "ia-7", "status": "active", "type": "test", "ttl": 1900000000,
      "max_times": 1, "widgets": [{"id": 1, "type": "text", "content": "Opened from a push"}]}}})");
  startActive();
  device().application().setApplicationIconBadgeNumber(4);
  const KODictionary payload =
      push(R"("kov_inapp_cid": "ia-7", "couponCode": "SAVE5")", R"("kov_deeplink": "https://shop.example/sale")");
  device().enterBackground();
  device().receivePush(payload);
  device().dispatch().pumpMain();
  EXPECT_EQ(device().application().applicationIconBadgeNumber(), 4);

  device().enterForeground();
  device().becomeActive();
  device().receivePush(payload);
  EXPECT_EQ(device().application().applicationIconBadgeNumber(), 0);
  ASSERT_TRUE(waitFor([&] { return device().userInterface().presentedScreen().has_value(); }));
  // Received, not opened: no click, and neither the coupon nor the deep link is acted on.
  EXPECT_EQ(count(KOSimScreen::Alert), 0u);
  EXPECT_TRUE(device().application().openedURLs().empty());
  ASSERT_TRUE(flush());
  const auto received = storedRecords(KO_PUSH_RECEIVED_ACTIVE_EVENT);
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0]["EVENT_ATTRS"], payload.find(kKovantis)->dictionaryValue());
  EXPECT_TRUE(clicks().empty());
  ASSERT_EQ(emulator().campaignEvents().size(), 2u);  // the push, and the in-app shown

  sdk().setDisableBadgeReset(true);
  device().application().setApplicationIconBadgeNumber(4);
  device().receivePush(payload);
  EXPECT_EQ(device().application().applicationIconBadgeNumber(), 4);
}

TEST_F(PushReceiptTest, AnOpenedPushIsClickedOnceLandsInTheInboxAndMarksPlainTracksUntilTheBackground) {
  startActive();
  withResponder();
  device().application().setApplicationIconBadgeNumber(2);
  device().resignActive();
  device().enterBackground();
  // Shown without the attachment it names: its download failed, and the click says so.
  const KODictionary payload = push(R"("title": "Spring sale", "media-attachment": "https://cdn.example/a.png")");
  ASSERT_TRUE(device().openPush(payload));  // foreground, the tap, then active
  EXPECT_EQ(device().application().applicationIconBadgeNumber(), 0);
  EXPECT_FALSE(KovantisUtils::getLastPushClickedTime().isNil());
  ASSERT_EQ(KOInbox::getInboxMessages().size(), 1u);

  sdk().trackEvent(KOValue("ADDED_TO_CART"), KOValue(KODictionary{{"sku", "A-1"}}));
  KOPayloadBuilder builder;
  builder.eventDict().set("k", KOValue("x"));
  sdk().trackEvent(KOValue("BUILT"), builder);
  device().resignActive();
  device().enterBackground();
  sdk().trackEvent(KOValue("LATER"));
  ASSERT_TRUE(flush());

  const auto click = clicks();
  ASSERT_EQ(click.size(), 1u);
  EXPECT_EQ(click[0]["EVENT_ATTRS"]["cid"], KOValue("c-1"));
  EXPECT_EQ(click[0]["EVENT_ATTRS"]["kovAttachmentDownloadFailure"], KOValue(true));
  EXPECT_EQ(click[0]["EVENT_ATTRS"][KO_EVENT_AFTER_PUSH], KOValue(true));  // tracked after the mark was set
  EXPECT_EQ(storedRecords("ADDED_TO_CART")[0]["EVENT_ATTRS"],
            KOValue(KODictionary{{"sku", "A-1"}, {KO_EVENT_AFTER_PUSH, true}}));
  EXPECT_EQ(storedRecords(EVENT_ACTION_IOS_SESSION_START).back()["EVENT_ATTRS"][KO_EVENT_AFTER_PUSH], KOValue(true));
  EXPECT_TRUE(storedRecords("BUILT")[0]["EVENT_ATTRS"][KO_EVENT_AFTER_PUSH].isNil());  // the builder call is not marked
  EXPECT_TRUE(storedRecords("LATER")[0]["EVENT_ATTRS"].isNil());

  // With the inbox off, an opened push is not kept; the older interface opens it through the app
  // delegate while the app is inactive.
  sdk().setDisableInbox(true);
  olderSystem("9.3");
  device().openPush(push(R"("title": "Second")"));
  EXPECT_TRUE(KONotificationHandler::sharedInstance().didReceivePush());
  device().terminate();  // clears the mark as the background does
  sdk().trackEvent(KOValue("AFTER_TERMINATE"));
  ASSERT_TRUE(flush());
  EXPECT_EQ(clicks().size(), 2u);
  EXPECT_EQ(KOInbox::getInboxMessages().size(), 1u);
  EXPECT_TRUE(storedRecords("AFTER_TERMINATE")[0]["EVENT_ATTRS"].isNil());
}

// ---------------------------------------------------------------------------------- the follow-up

TEST_F(PushReceiptTest, TheCouponDialogComesFirstAndItsButtonsRunTheRest) {
  startActive();
  withResponder();
  device().openPush(push(R"("couponCode": "SAVE20", "webUrl": "https://shop.example/landing")",
                         R"("kov_deeplink": "shop://sale/20")"));
  device().application().addOpenableScheme("shop");
  ASSERT_TRUE(waitFor([&] { return count(KOSimScreen::Alert) == 1; }));
  const KOSimAlert alert = device().userInterface().alerts()[0];
  EXPECT_EQ(alert.title, "Coupon");
  EXPECT_EQ(alert.message, "Coupon code : SAVE20 \n Copy coupon code?");
  EXPECT_EQ(alert.actionTitles, (std::vector<std::string>{"COPY", "Cancel"}));
  device().dispatch().pumpMain();
  EXPECT_TRUE(device().application().openedURLs().empty());  // nothing before a button

  ASSERT_TRUE(device().userInterface().tapAlertAction(0, 0));
  EXPECT_EQ(device().userInterface().pasteboardString(), "SAVE20");
  ASSERT_TRUE(waitFor([&] { return device().console().contains("DeepLink Opened"); }));
  EXPECT_EQ(device().application().openedURLs(), std::vector<std::string>{"shop://sale/20"});
  // After a coupon the landing page is not ruled out by the deep link: both run.
  ASSERT_TRUE(waitFor([&] { return !device().userInterface().browserURL().empty(); }));

  // Cancel copies nothing; with deep links left to the host, none is opened.
  sdk().initializeWithApiKey(KOValue("kov-test-app"), nullptr, {}, false);
  device().userInterface().setPasteboardString("");
  device().openPush(
      push(R"("couponCode": "SAVE30", "webUrl": "https://shop.example/after")", R"("kov_deeplink": "shop://sale/30")"));
  ASSERT_TRUE(waitFor([&] { return count(KOSimScreen::Alert) == 2; }));
  ASSERT_TRUE(device().userInterface().tapAlertAction(1, 1));
  // Cancel still runs the rest: the landing page opens.
  ASSERT_TRUE(waitFor([&] { return device().userInterface().browserURL() == "https://shop.example/after"; }));
  EXPECT_EQ(device().userInterface().pasteboardString(), "");
  EXPECT_EQ(device().application().openedURLs().size(), 1u);
}

TEST_F(PushReceiptTest, TheDeepLinkBeatsTheLandingPageAndTheInAppLookupRunsWithoutTheFlag) {
  emulator().seed(R"({"campaigns": {"ia-1": {"cid": "ia-1", "status": "active", "type": "test", "ttl": 1900000000,
      "max_times": 1, "widgets": [{"id": 1, "type": "text", "content": "From the push"}]}}})");
  startActive();
  withResponder();
  device().openPush(
      push(R"("webUrl": "https://shop.example/landing")", R"("kov_deeplink": "https://shop.example/p/1")"));
  ASSERT_TRUE(waitFor([&] { return device().application().openedURLs().size() == 1; }));
  device().dispatch().pumpMain();
  EXPECT_EQ(count(KOSimScreen::Browser), 0u);

  // A link the device cannot open, or no URL at all, is dropped silently.
  device().openPush(push("", R"("kov_deeplink": "unknown-app://x")"));
  device().openPush(push("", R"("kov_deeplink": "not a url")"));
  device().openPush(push("", R"("kov_deeplink": 42)"));
  EXPECT_TRUE(device().console().contains("Kovantis - Exception while handling deeplinking : "));

  // Deep links left to the host: the link stays shut, the push's in-app campaign still comes.
  sdk().initializeWithApiKey(KOValue("kov-test-app"), nullptr, {}, false);
  device().openPush(push(R"("kov_inapp_cid": "ia-1")", R"("kov_deeplink": "https://shop.example/p/2")"));
  ASSERT_TRUE(waitForRequests("/campaigns/inappcampaign/fetch", 1));
  ASSERT_TRUE(waitFor([&] { return device().userInterface().presentedScreen().has_value(); }));
  EXPECT_EQ(device().application().openedURLs().size(), 1u);

  // A landing page alone opens in the platform browser, which its Done hands back to the facade.
  device().openPush(push(R"("webUrl": "https://shop.example/landing")"));
  ASSERT_TRUE(waitFor([&] { return device().userInterface().browserURL() == "https://shop.example/landing"; }));
  ASSERT_TRUE(device().userInterface().finishBrowser());
  EXPECT_EQ(device().userInterface().browserURL(), "");
  EXPECT_EQ(device().screen().last(KOSimScreen::Dismiss)["dismissed"], KOValue(KOSimScreen::Browser));
}

TEST_F(PushReceiptTest, OlderSystemsUseTheOlderDialogAndTheSDKsOwnWebView) {
  startActive();
  olderSystem("8.4");
  device().userInterface().setSupportsAlertController(false);
  deepLinks_ = false;
  const auto leave = [&] {
    device().resignActive();
    device().enterBackground();
  };
  leave();
  // The older dialog claims a copy it does not make and opens the deep link whatever the flag.
  device().openPush(push(R"("couponCode": "OLD10", "webUrl": "https://shop.example/old")",
                         R"("kov_deeplink": "https://shop.example/p/old")"));
  ASSERT_TRUE(waitFor([&] { return device().application().openedURLs().size() == 1; }));
  EXPECT_EQ(device().userInterface().alerts()[0].message, "Coupon code OLD10 is copied to your clipboard");
  EXPECT_EQ(device().userInterface().alerts()[0].actionTitles, std::vector<std::string>{"OK"});
  EXPECT_EQ(device().userInterface().pasteboardString(), "");
  EXPECT_FALSE(device().console().contains("DeepLink Opened"));  // the older opener reports nothing

  // Before 9 the landing page is the SDK's own screen: Done, the page, and a spinner while it loads.
  ASSERT_TRUE(waitFor([&] { return device().userInterface().presentedScreen().has_value(); }));
  const auto shown = [&] { return *device().userInterface().presentedScreen(); };
  EXPECT_EQ(shown().findTag(KOWebViewController::kWebViewTag)->text, "https://shop.example/old");
  EXPECT_EQ(shown().findTag(KOWebViewController::kWebViewTag)->frame.y, 64);
  EXPECT_EQ(shown().findTag(KOWebViewController::kDoneButtonTag)->frame, (KORect{10, 20, 60, 40}));
  ASSERT_TRUE(waitFor([&] { return shown().findTag(KOWebViewController::kIndicatorTag)->value == 1; }));
  EXPECT_TRUE(device().console().contains("Kovantis - webView did start load with url https://shop.example/old"));
  ASSERT_TRUE(device().userInterface().failLoading("offline"));
  EXPECT_TRUE(device().console().contains("Kovantis - webView, error loading is offline"));
  ASSERT_TRUE(device().userInterface().finishLoading());
  EXPECT_EQ(shown().findTag(KOWebViewController::kIndicatorTag)->value, 0);
  ASSERT_TRUE(device().userInterface().tapView(KOWebViewController::kDoneButtonTag));
  EXPECT_FALSE(device().userInterface().presentedScreen().has_value());
  EXPECT_FALSE(device().userInterface().finishLoading());  // gone, and nobody listens any more

  // A landing page that is no URL shows an empty page, and says so.
  leave();
  device().openPush(push(R"("webUrl": "not a url")"));
  EXPECT_TRUE(
      waitFor([&] { return device().console().contains("Kovantis - attempting to start web view without a url"); }));
}

// ------------------------------------------------------------------------- dismissals and buttons

TEST_F(PushReceiptTest, BothDismissalsRecordOneEventEachAndSendItAtOnce) {
  startActive();
  withResponder();
  const KODictionary payload = push(R"("media-attachment": "https://cdn.example/a.png")");
  device().respondToPush(payload, KOV_DISMISS_ACTION, {"a.png"});
  ASSERT_TRUE(waitForRequests("/v2/report/add", 1));  // no threshold reached: sent because dismissed
  device().respondToPush(payload, KONotificationDismissActionIdentifier);
  ASSERT_TRUE(waitForRequests("/v2/report/add", 2));
  ASSERT_TRUE(flush());
  const auto dismissed = storedRecords(KO_PUSH_DISMISSED_EVENT);
  ASSERT_EQ(dismissed.size(), 2u);
  // Shown without its attachment, the push says the download failed.
  EXPECT_TRUE(dismissed[0]["EVENT_ATTRS"]["kovAttachmentDownloadFailure"].isNil());
  EXPECT_EQ(dismissed[1]["EVENT_ATTRS"]["kovAttachmentDownloadFailure"], KOValue(true));
  EXPECT_TRUE(clicks().empty());
  ASSERT_EQ(emulator().campaignEvents().size(), 1u);
  EXPECT_EQ(emulator().campaignEvents()[0].pushDismissed, 2);

  // Older systems never report a swipe-away.
  olderSystem("9.3");
  EXPECT_FALSE(device().respondToPush(payload, KONotificationDismissActionIdentifier));
}

TEST_F(PushReceiptTest, AButtonIsNamedByTheLastCategoryHoldingItAndDoesNothingElse) {
  startActive();
  withResponder();
  device().preferences().standard().setObject(
      KOJSONSerialization::parse(R"([{"name": "order", "actions": ["Track"], "actionsIdentifier": ["open"]},
          {"name": "broken", "actions": [], "actionsIdentifier": ["open"]}, "not a category",
          {"name": "promo", "actions": ["Open offer", "Later"], "actionsIdentifier": ["open", "later"]}])"),
      KOV_NOTIFICATION_CATEGORIES);
  device().application().setApplicationIconBadgeNumber(3);
  const KODictionary payload = push(R"("couponCode": "NOPE")", R"("kov_deeplink": "https://shop.example")");
  device().respondToPush(payload, "open");
  ASSERT_TRUE(waitForRequests("/v2/report/add", 1));  // sent at once
  device().respondToPush(payload, "unknown");
  olderSystem("9.3");
  device().respondToPush(payload, "later");  // through the app delegate
  ASSERT_TRUE(flush());

  const auto click = clicks();
  ASSERT_EQ(click.size(), 3u);
  EXPECT_EQ(click[0]["EVENT_ATTRS"][KOV_APNS_ACTION], KOValue("Open offer"));
  EXPECT_EQ(click[0]["EVENT_ATTRS"][KOV_APNS_ACTION_IDENTIFIER], KOValue("open"));
  EXPECT_TRUE(click[1]["EVENT_ATTRS"][KOV_APNS_ACTION].isNil());
  EXPECT_EQ(click[1]["EVENT_ATTRS"][KOV_APNS_ACTION_IDENTIFIER], KOValue("unknown"));
  EXPECT_EQ(click[2]["EVENT_ATTRS"][KOV_APNS_ACTION], KOValue("Later"));
  // No coupon, deep link, inbox entry or badge reset for a button.
  device().dispatch().pumpMain();
  EXPECT_EQ(count(KOSimScreen::Alert), 0u);
  EXPECT_TRUE(device().application().openedURLs().empty());
  EXPECT_TRUE(KOInbox::getInboxMessages().empty());
  EXPECT_EQ(device().application().applicationIconBadgeNumber(), 3);

  sdk().handleActionWithIdentifier(KOValue(12), KOValue(payload));
  EXPECT_TRUE(device().console().contains("Kovantis - Exception while notification action : "));
  sdk().handleActionWithIdentifier(KOValue(), KOValue(payload));  // nothing: no identifier
  ASSERT_TRUE(flush());
  EXPECT_EQ(clicks().size(), 3u);
}

// --------------------------------------------------------------------------------- the cold launch

TEST_F(PushReceiptTest, APushThatLaunchedTheAppIsHandledFromTheLaunchOptionsWhenNoDelegateWillDeliverIt) {
  olderSystem("9.3");
  const KODictionary options = device().launchFromPush(push(R"("title": "Cold")"));
  sdk().initializeWithApiKey(KOValue("kov-test-app"), &device().application(), options);
  device().becomeActive();
  ASSERT_TRUE(flush());
  ASSERT_EQ(clicks().size(), 1u);
  EXPECT_EQ(storedRecords(EVENT_ACTION_IOS_SESSION_START)[0]["EVENT_ATTRS"][KO_EVENT_AFTER_PUSH], KOValue(true));
}

TEST_F(PushReceiptTest, APushThatLaunchedTheAppIsLeftToTheDelegateThatWillDeliverIt) {
  withResponder();
  const KODictionary options = device().launchFromPush(push(R"("title": "Cold")"));
  sdk().initializeWithApiKey(KOValue("kov-test-app"), &device().application(), options);
  device().becomeActive();
  // The delegate hears the tap on the main queue, after the launch.
  ASSERT_TRUE(waitFor([] { return KONotificationHandler::sharedInstance().didReceivePush(); }));
  ASSERT_TRUE(flush());
  EXPECT_EQ(clicks().size(), 1u);
}

TEST_F(PushReceiptTest, ALaunchPushWhoseBlockIsNoDictionaryEndsTheStartWithItsLine) {
  olderSystem("9.3");
  sdk().initializeWithApiKey(
      KOValue("kov-test-app"), nullptr,
      KODictionary{{KOApplicationLaunchOptionsRemoteNotificationKey, KODictionary{{"kovantis", "c-1"}}}});
  EXPECT_TRUE(device().console().contains("Kovantis - exception in initialize is "));
  device().becomeActive();  // no lifecycle observers on this launch
  ASSERT_TRUE(flush());
  EXPECT_TRUE(storedNames(EVENT_ACTION_IOS_SESSION_START).empty());
  EXPECT_TRUE(clicks().empty());
}

// ---------------------------------------------------------------------------------------- bad input

TEST_F(PushReceiptTest, OddPayloadsAreSurvived) {
  startActive();
  withResponder();
  // A campaign id that is no string still counts, and a megabyte of payload is handled like any
  // other; a landing page that is no text, or no web address, is refused by the presenter.
  device().openPush(KOJSONSerialization::parse(R"({"kovantis": {"cid": 99, "webUrl": ["x"]}})").dictionaryValue());
  KODictionary big = push();
  big.set("app_extra", KODictionary{{"blob", std::string(1 << 20, 'x')}});
  device().openPush(big);
  device().openPush(push(R"x("webUrl": "javascript:alert(1)")x"));
  EXPECT_TRUE(waitFor([&] { return device().console().contains("Kovantis - WebView Handler exception "); }));
  ASSERT_TRUE(flush(30));
  EXPECT_EQ(clicks().size(), 3u);
  EXPECT_EQ(count(KOSimScreen::Browser), 0u);
}
