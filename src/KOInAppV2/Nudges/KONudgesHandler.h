// Nudges: campaigns that sit inside a screen instead of over it ("embedded" campaigns). The host
// either takes the nudge's view description and places it itself, or has the SDK show it at the
// top or bottom of a screen. The rules are the in-app ones for the campaign itself (expiry, message
// delay, clicked, times shown) and the screen it is for; the minimum delay between in-apps does
// not hold back a nudge, which interrupts nothing.
//
// Layout: a nudge is the in-app card laid out at the screen's width (KOInAppV2ViewBuilder) with no
// backdrop, placed in a strip as tall as its content at the top or the bottom of the host screen.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "KOInAppV2/Models/KOInAppV2Object.h"
#include "kovantis/KOInAppDelegate.h"
#include "kovantis/KOViewDescription.h"

class KONudgesHandler {
 public:
  /// The description (empty without a nudge) and the campaign id, on the calling thread.
  using Completion = std::function<void(const KOViewDescription& nudge, const std::string& campaignID)>;

  static KONudgesHandler& sharedInstance();

  /// The first stored nudge the rules allow on the screen (the top one when none is given).
  void getNudgeViewForViewController(const KOViewController* viewController, const Completion& completion);
  /// The host placed a nudge it took: counted and tracked like one the SDK shows.
  void nudgeShownWithCampaignID(const std::string& campaignID);
  /// Shows the first allowed nudge at the position of the screen; taps run its actions.
  void showNudgeInViewController(const KOViewController* viewController, int atNudgePosition);
  /// Shows this nudge (a pushed or test campaign) at the top of the top screen, unless a nudge is
  /// already there: the host asked for no screen, so the rules of a stored nudge do not apply.
  void showNudgeWithNudgeObject(std::shared_ptr<const KOInAppV2Object> nudge);
  void removeNudgeView();
  bool isShowingNudge() const;

  /// The nudge laid out for a screen of the size: the strip at the top (y 0), as tall as its card.
  static KOViewDescription describe(const KOInAppV2Object& nudge, const KOSize& screen);

 private:
  KONudgesHandler() = default;
  std::shared_ptr<const KOInAppV2Object> chooseFor(const std::string& screen) const;
  /// A showing counts for the campaign's statistics and the last nudge time, and is tracked.
  void countShowing(const KOInAppV2Object& nudge);
  /// Draws the nudge in the screen at the position and counts the showing.
  void present(const KOViewController& viewController, std::shared_ptr<const KOInAppV2Object> nudge, int position);

  mutable std::mutex mutex_;
  std::shared_ptr<KOPresentedScreen> onScreen_;
};
