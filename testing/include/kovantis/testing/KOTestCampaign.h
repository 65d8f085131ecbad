// An in-app campaign as the service sends it, built for a test: its widgets and what a tap on each
// does, its rules, and how it reaches the device (the campaign list, a trigger event, a nudge, or
// the app's own drawing). KOTestHarness::seedCampaign serves it from the emulator in one call.
//
//   KOTestCampaign offer("cart-offer");
//   offer.triggeredBy("ADD_TO_CART")
//       .text("Add a second pair and save 10%")
//       .button("Add", {KOTestCampaign::trackClick(), KOTestCampaign::dismiss()});
//   harness.seedCampaign(offer);  // before the SDK's start, which fetches the trigger events
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kovantis/KOValue.h"

class KOTestCampaign {
 public:
  /// One entry of a widget's action list: what a tap on the widget does, in list order.
  struct Action {
    KODictionary json;
  };
  /// Tells the app's KOInAppDelegate to open the screen, with the extras.
  static Action navigate(std::string screen, KODictionary extras = {});
  /// Opens the URL: a deep link reaches the app's URL router, a web address the browser.
  static Action openURL(std::string url);
  static Action dismiss();
  static Action track(std::string event);
  /// Records a click on the widget with the service ("iOS_IN_APP_CLICKED" with the campaign and
  /// the widget): a tap records none without it.
  static Action trackClick();
  static Action setUserAttribute(std::string name, KOValue value);
  /// Fetches and shows another campaign.
  static Action openCampaign(std::string campaignId);
  /// Copies the code, then shows the message when there is one.
  static Action copy(std::string code, std::string message = {});
  static Action share(std::string content);
  static Action call(std::string number);
  static Action askPushPermission();
  static Action openSettings();

  /// Where the message sits on the screen.
  enum class Alignment { Center, Top, Bottom, Full };

  /// An active campaign that may show once, until 2100.
  explicit KOTestCampaign(std::string campaignId);

  // Widgets, numbered 1, 2, 3... in the order added: the tag a test taps
  // (KOSimUserInterface::tapView) and the widget a click is recorded for.
  KOTestCampaign& text(std::string content);
  KOTestCampaign& image(std::string url);
  /// A button; the primary one's tap counts as the campaign's click on the device (a persistent
  /// campaign aside, it shows no more).
  KOTestCampaign& button(std::string title, std::vector<Action> actions, bool primary = false);
  KOTestCampaign& closeButton();
  KOTestCampaign& rating(double maxRating = 5, double defaultRating = 0);
  /// Any other widget, as the service sends it; it gets the next number unless it has an "id".
  KOTestCampaign& widget(KODictionary widget);

  // Rules.
  KOTestCampaign& maxTimes(int times);
  KOTestCampaign& secondsBetweenShowings(int seconds);
  KOTestCampaign& priority(int priority);
  KOTestCampaign& expiresAt(double secondsSince1970);
  /// Shows only on the screen of that name.
  KOTestCampaign& onlyOnScreen(std::string screenName);
  /// Keeps showing after its primary button was tapped.
  KOTestCampaign& persistent(bool persistent = true);
  /// "active" unless set ("expired" and the like).
  KOTestCampaign& status(std::string status);
  KOTestCampaign& cancellable(bool cancellable = true);
  KOTestCampaign& autoDismissAfter(int seconds);
  KOTestCampaign& align(Alignment alignment);

  // How it reaches the device.
  /// A smart trigger: what the service answers when the app tracks the event (one or more events).
  KOTestCampaign& triggeredBy(std::string event);
  /// A nudge: shown inside a screen, at the position the app asks for
  /// (Kovantis::showNudgeViewAtNudgePosition) or placed by the app itself.
  KOTestCampaign& nudge();
  /// Self-handled: the content goes to the app's KOInAppDelegate, which draws it itself.
  KOTestCampaign& selfHandled(std::string content);
  /// Any other key of the campaign.
  KOTestCampaign& set(std::string key, KOValue value);

  const std::string& campaignId() const { return campaignId_; }
  const std::vector<std::string>& triggerEvents() const { return triggers_; }
  /// The campaign, as the service sends it.
  KODictionary json() const;

 private:
  std::string campaignId_;
  std::vector<std::string> triggers_;
  KODictionary campaign_;
  KOArray widgets_;
  std::int64_t nextWidget_ = 1;
};
