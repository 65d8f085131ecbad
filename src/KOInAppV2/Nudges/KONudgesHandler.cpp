#include "KONudgesHandler.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <utility>

#include "KOInAppV2/InAppHandlers/KOInAppV2ActionHandler.h"
#include "KOInAppV2/InAppHandlers/KOInAppV2Handler.h"
#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOInAppV2/InAppView/KOInAppV2ViewBuilder.h"
#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOSDKSettings.h"
#include "KOUtilities/KOValueHelpers.h"
#include "KOUtilities/KovantisDateUtils.h"
#include "KOUtilities/KovantisUtils.h"
#include "kovantis/KOConstants.h"

KONudgesHandler& KONudgesHandler::sharedInstance() {
  static auto* instance = new KONudgesHandler();
  return *instance;
}

std::shared_ptr<const KOInAppV2Object> KONudgesHandler::chooseFor(const std::string& screen) const {
  for (const KOValue& stored : KOInAppV2Manager::getActiveInAppCampaigns()) {
    const KOInAppV2CampaignPropertiesObject campaign(stored);
    auto nudge = std::make_shared<const KOInAppV2Object>(stored, campaign);
    const bool embedded =
        campaign.inAppType() == KOInAppV2TypeEmbedded || nudge->alignmentType() == KOInAppV2AlignmentEmbedded;
    if (!embedded) continue;
    if (!KOInAppV2Handler::isForScreen(campaign.showOnlyInScreen(), screen)) continue;
    if (!KOInAppV2Handler::canShowInApp(campaign)) continue;
    return nudge;
  }
  return nullptr;
}

KOViewDescription KONudgesHandler::describe(const KOInAppV2Object& nudge, const KOSize& screen) {
  // The in-app layout at the bottom of a screen as tall as the screen gives the card its height;
  // the strip then takes just the card.
  KOViewDescription laidOut = KOInAppV2ViewBuilder::describe(nudge, screen);
  KOViewDescription card = laidOut.children.empty() ? KOViewDescription{} : std::move(laidOut.children.front());
  KOViewDescription strip;
  strip.kind = KOViewKind::Container;
  strip.frame = KORect{0, 0, screen.width, card.frame.height + 2 * KOInAppV2ViewBuilder::kSpacing};
  card.frame.y = KOInAppV2ViewBuilder::kSpacing;
  strip.children.push_back(std::move(card));
  return strip;
}

void KONudgesHandler::getNudgeViewForViewController(const KOViewController* viewController,
                                                    const Completion& completion) {
  if (KOSDKSettings::shared().disableInApps()) return;
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    const auto nudge =
        KOConsentGate::shared().mayShow() ? chooseFor(KOInAppV2Handler::screenNameFor(viewController)) : nullptr;
    const KOSize size{KovantisUtils::screenWidthForInApp(), KovantisUtils::screenHeightForInApp()};
    if (!completion) return;
    if (!nudge) return completion(KOViewDescription{}, "");
    completion(describe(*nudge, size), nudge->campaignPropertiesObject().campaignId());
  });
}

void KONudgesHandler::nudgeShownWithCampaignID(const std::string& campaignID) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    for (const KOValue& stored : KOInAppV2Manager::getActiveInAppCampaigns()) {
      if (validObjectForKey(stored, CAMPAIGN_ID) != KOValue(campaignID)) continue;
      countShowing(KOInAppV2Object(stored));
      return;
    }
  });
}

void KONudgesHandler::showNudgeInViewController(const KOViewController* viewController, int atNudgePosition) {
  if (KOSDKSettings::shared().disableInApps()) return;
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    if (!viewController) throw std::invalid_argument("no screen to show the nudge in");
    if (isShowingNudge()) return;
    if (auto nudge = chooseFor(viewController->name)) present(*viewController, std::move(nudge), atNudgePosition);
  });
}

void KONudgesHandler::showNudgeWithNudgeObject(std::shared_ptr<const KOInAppV2Object> nudge) {
  if (KOSDKSettings::shared().disableInApps()) return;
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    const auto top = KovantisUtils::getTopViewControllerForNudges();
    if (!nudge || !top || isShowingNudge()) return;
    present(*top, std::move(nudge), KONudgePositionTop);
  });
}

void KONudgesHandler::present(const KOViewController& viewController, std::shared_ptr<const KOInAppV2Object> nudge,
                              int position) {
  if (!KOConsentGate::shared().mayShow()) return;
  const KOSize size{KovantisUtils::screenWidthForInApp(), KovantisUtils::screenHeightForInApp()};
  KOViewDescription strip = describe(*nudge, size);
  if (position == KONudgePositionBottom) strip.frame.y = size.height - strip.frame.height;
  // The screen the nudge sits in is the host's: only the strip is drawn over it.
  KOViewDescription host;
  host.kind = KOViewKind::Container;
  host.frame = KORect{0, 0, size.width, size.height};
  host.children.push_back(std::move(strip));
  KOViewEventHandler onTap = KOInAppV2ActionHandler::tapHandlerFor(host, true);
  auto shown = KOPlatform::current().userInterface->embedScreen(&viewController, std::move(host), std::move(onTap));
  if (!shown) return;
  KOInAppV2ActionHandler::sharedInstance().setNudgeObject(nudge, shown, [this] { removeNudgeView(); });
  {
    std::lock_guard<std::mutex> lock(mutex_);
    onScreen_ = std::move(shown);
  }
  countShowing(*nudge);
}

void KONudgesHandler::countShowing(const KOInAppV2Object& nudge) {
  KOInAppV2Manager::writeToPlistToUpdateInAppNumberOfTimesShownWithInAppObject(nudge);
  KovantisUtils::saveLastNudgeShowedTime(KOValue(KODate{KovantisDateUtils::now()}));
  KOInAppV2Handler::trackInAppShownForCampaignID(nudge.campaignPropertiesObject().campaignId());
}

void KONudgesHandler::removeNudgeView() {
  std::shared_ptr<KOPresentedScreen> shown;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    shown = std::move(onScreen_);
    onScreen_.reset();
  }
  if (shown) shown->remove();
}

bool KONudgesHandler::isShowingNudge() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return onScreen_ != nullptr;
}
