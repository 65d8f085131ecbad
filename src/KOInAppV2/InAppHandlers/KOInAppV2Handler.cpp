#include "KOInAppV2Handler.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <map>
#include <utility>

#include "KODataHandler/KOEventsHandler.h"
#include "KOInAppV2/InAppHandlers/KODownloadManager.h"
#include "KOInAppV2/InAppHandlers/KOImageDecoder.h"
#include "KOInAppV2/InAppHandlers/KOInAppV2ActionHandler.h"
#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOInAppV2/InAppView/KOInAppV2ViewBuilder.h"
#include "KOInAppV2/Nudges/KONudgesHandler.h"
#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOSDKSettings.h"
#include "KOUtilities/KOStackTrace.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KOValueHelpers.h"
#include "KOUtilities/KovantisDateUtils.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KOViewDescription.h"

namespace {

constexpr std::int64_t kDefaultMinimumDelayMinutes = 15;

void refusal(const KOSourceLocation& where, const std::string& message) {
  KOLogger::logLocated(where, nullptr, KOLogSeverityDebug, message);
}

// A moment as stored: a date, or seconds since 1970 as a number.
std::optional<double> secondsOf(const KOValue& value) {
  if (value.isDate()) return value.dateValue().secondsSince1970;
  if (value.isNumber() && !value.isBool()) return value.doubleValue();
  return std::nullopt;
}

// Whole minutes from then to now, as hours and minutes counted.
std::int64_t minutesSince(double then) {
  const KODateComponents d =
      KovantisDateUtils::getTimeDifferenceBetweenDate(KODate{then}, KODate{KovantisDateUtils::now()});
  return d.hour >= 1 ? d.hour * 60 + d.minute : d.minute;
}

// An integer as the stores keep it: a number, or its decimal text.
std::int64_t integerOf(const KOValue& value) {
  if (value.isNumber()) {
    const double d = value.doubleValue();
    return std::isfinite(d) ? static_cast<std::int64_t>(std::clamp(d, -9e18, 9e18)) : 0;
  }
  if (value.isString()) return std::strtoll(value.stringValue().c_str(), nullptr, 10);
  return 0;
}

// The image URLs of a campaign's widgets, with the widget ids they belong to, in widget order.
void collectImages(const KOInAppV2WidgetList& list, std::vector<std::pair<std::int64_t, std::string>>& out);
void collectImages(const KOInAppV2WidgetObject& widget, std::vector<std::pair<std::int64_t, std::string>>& out) {
  if (widget.type() == KOInAppV2WidgetImage && !widget.content().empty()) {
    out.emplace_back(widget.widgetId(), widget.content());
  }
  if (widget.widgetsArray()) collectImages(*widget.widgetsArray(), out);
  if (widget.buttonsArray()) collectImages(*widget.buttonsArray(), out);
}
void collectImages(const KOInAppV2WidgetList& list, std::vector<std::pair<std::int64_t, std::string>>& out) {
  for (const auto& entry : list) {
    if (entry.isList()) {
      collectImages(entry.list, out);
    } else {
      collectImages(*entry.widget, out);
    }
  }
}

}  // namespace

KOInAppV2Handler& KOInAppV2Handler::sharedInstance() {
  static auto* instance = new KOInAppV2Handler();
  return *instance;
}

KOInAppV2Handler::KOInAppV2Handler() {
  // Every recorded event is offered to the trigger check, whoever tracked it: the host, an action,
  // the push handler or the SDK's own attributes.
  KOEventsHandler::sharedInstance().setEventObserver([this](const std::string& name, const KOValue& attributes) {
    if (!KOSDKSettings::shared().disableInApps()) checkTriggerWithEventName(name, attributes);
  });
}

// ------------------------------------------------------------------------------------- the rules

KOInAppDecision KOInAppV2Handler::globalDelayDecision() {
  std::int64_t delay = integerOf(KOPlatform::current().preferences->standard().objectForKey(KO_MINIMUMDELAY_BW_INAPPS));
  if (delay == 0) delay = kDefaultMinimumDelayMinutes;
  const std::optional<double> last = secondsOf(KovantisUtils::getLastInAppShowedTime());
  if (!last) return {};
  const std::int64_t elapsed = minutesSince(*last);
  if (elapsed >= delay) return {};
  return KOInAppDecision{kGlobalDelay, delay - elapsed};
}

bool KOInAppV2Handler::canShowInAppWithPreConditions() {
  const KOInAppDecision decision = globalDelayDecision();
  if (decision.shows()) return true;
  std::int64_t delay = decision.minutesLeft;
  const std::optional<double> last = secondsOf(KovantisUtils::getLastInAppShowedTime());
  const std::int64_t elapsed = last ? minutesSince(*last) : 0;
  delay += elapsed;
  refusal(KO_HERE,
          KOStringFormat::format("Kovantis - in app not shown bcoz last inapp was shown less than %ld mins ago - %ld",
                                 {KOValue(delay), KOValue(elapsed)}));
  return false;
}

KOInAppDecision KOInAppV2Handler::campaignDecision(const KOInAppV2CampaignPropertiesObject& campaign) {
  if (!(campaign.ttl() > KovantisDateUtils::now()) || campaign.status() == "expired") return {kExpired};
  const KOValue stats = KOInAppV2Manager::getCampaignStatusDictWithCampaignId(campaign.campaignId());
  if (!stats.isDictionary()) return {};
  const KODictionary& s = stats.dictionaryValue();
  if (const std::optional<double> shown = secondsOf(validObjectForKey(s, LAST_SHOWN))) {
    const std::int64_t elapsed = minutesSince(*shown);
    const std::int64_t delay = campaign.interval() / 60;
    if (elapsed < delay) return {kMessageDelay, delay - elapsed};
  }
  if (!campaign.persistence() && s.contains(KO_INAPP_IS_CLICKED_KEY)) return {kClicked};
  if (integerOf(validObjectForKey(s, KO_TIMES_SHOWN)) >= campaign.maxTimes()) return {kShownMaxTimes};
  return {};
}

bool KOInAppV2Handler::canShowInApp(const KOInAppV2CampaignPropertiesObject& campaign) {
  const KOInAppDecision decision = campaignDecision(campaign);
  const KOValue cid(campaign.campaignId());
  if (decision.refusedBy == kExpired) {
    refusal(KO_HERE,
            KOStringFormat::format("Kovantis - Campaign not shown because it is expired; Campaign ID : %@", {cid}));
  } else if (decision.refusedBy == kMessageDelay) {
    refusal(KO_HERE,
            KOStringFormat::format(
                "Kovantis - Campaign not shown because it was last shown before it's message delay: %@", {cid}));
  } else if (decision.refusedBy == kClicked) {
    refusal(KO_HERE,
            KOStringFormat::format("Kovantis - Campaign not shown because primary action was clicked : %@", {cid}));
  } else if (decision.refusedBy == kShownMaxTimes) {
    refusal(KO_HERE,
            KOStringFormat::format("Kovantis - Campaign not shown because it is shown max no. of times: %@", {cid}));
  }
  return decision.shows();
}

KOInAppDecision KOInAppV2Handler::screenDecision(const KOInAppV2CampaignPropertiesObject& campaign,
                                                 const std::string& screen) const {
  const bool keyboard = KOPlatform::current().application->isKeyboardShown();
  std::lock_guard<std::mutex> lock(mutex_);
  if (keyboardShown_ || keyboard) return {kKeyboard};
  if (!isForScreen(campaign.showOnlyInScreen(), screen)) return {kOtherScreen};
  if (std::find(dontShowInAppScreenList_.begin(), dontShowInAppScreenList_.end(), screen) !=
      dontShowInAppScreenList_.end()) {
    return {kBlockedScreen};
  }
  return {};
}

std::string KOInAppV2Handler::screenNameFor(const KOViewController* viewController) {
  if (viewController) return viewController->name;
  const auto top = KovantisUtils::getTopViewControllerForNudges();
  return top ? top->name : std::string();
}

bool KOInAppV2Handler::isForScreen(const std::string& campaignScreen, const std::string& screen) {
  return campaignScreen.empty() ||
         (campaignScreen.size() == screen.size() &&
          std::equal(campaignScreen.begin(), campaignScreen.end(), screen.begin(), [](char x, char y) {
            return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
          }));
}

KOArray KOInAppV2Handler::decisionReport(const KOViewController* viewController) {
  KOArray report;
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    const std::string screen = screenNameFor(viewController);
    const KOInAppDecision global = globalDelayDecision();
    for (const KOValue& stored : KOInAppV2Manager::getActiveInAppCampaigns()) {
      const KOInAppV2CampaignPropertiesObject campaign(stored);
      // The order a showing applies them: type, the global delay, the campaign's own rules, then
      // what the screen says.
      KOInAppDecision decision;
      if (campaign.inAppType() != KOInAppV2TypeGeneral) decision = {kWrongType};
      if (decision.shows()) decision = global;
      if (decision.shows()) decision = campaignDecision(campaign);
      if (decision.shows()) decision = screenDecision(campaign, screen);
      if (decision.shows()) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (imagesFailed_.count(campaign.campaignId())) decision = {kImagesFailed};
      }
      KODictionary entry{{"cid", campaign.campaignId()},
                         {"type", static_cast<std::int64_t>(campaign.inAppType())},
                         {"shows", decision.shows()}};
      if (!decision.shows()) entry.set("refusedBy", decision.refusedBy);
      if (decision.minutesLeft > 0) entry.set("minutesLeft", decision.minutesLeft);
      report.push_back(KOValue(std::move(entry)));
    }
  });
  return report;
}

// ------------------------------------------------------------------------------------- the fetch

bool KOInAppV2Handler::currentlyFetchingInApps() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return fetching_;
}

void KOInAppV2Handler::getInAppCampaigns() {
  try {
    if (!KOConsentGate::shared().mayCallService()) return;  // fetched once consent is granted
    const std::optional<double> last = secondsOf(KovantisUtils::getLastInUpdatedTimeForInApps());
    const KOValue stamp(last ? KOStringFormat::format("%.0f", {KOValue(std::floor(*last))}) + "000" : std::string("0"));
    KOArray ids;
    for (const KOValue& campaign : KOInAppV2Manager::getActiveInAppCampaigns()) {
      ids.push_back(validObjectForKey(campaign, CAMPAIGN_ID));
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      fetching_ = true;
    }
    const double asked = KovantisDateUtils::now();
    KOServerInterface::sharedInstance().getInAppCampaignsWithLastUpdatedTime(
        stamp, KODictionary{{"campaign_ids", std::move(ids)}}, [this, asked](const KOValue& response) {
          const auto finished = [this] {
            bool showNow = false;
            std::string screen;
            {
              std::lock_guard<std::mutex> lock(mutex_);
              fetching_ = false;
              showNow = std::exchange(handleInAppsCalledDuringFetch_, false);
              screen = std::move(screenAskedDuringFetch_);
            }
            refreshTriggerEvents();
            if (showNow) showInAppForScreen(std::move(screen));
          };
          if (!response.isDictionary()) return finished();
          KOInAppV2Manager::saveInAppCampaignsWithData(
              response, [asked] { KovantisUtils::saveLastUpdatedTimeForInApps(KOValue(KODate{asked})); });
          finished();
        });
  } catch (const std::exception& e) {
    KOLogger::logLocated(KO_HERE, this, KOLogSeverityException,
                         KOStringFormat::format("Kovantis - exception is %@", {KOValue(e.what())}));
    std::lock_guard<std::mutex> lock(mutex_);
    fetching_ = false;
  }
}

// ------------------------------------------------------------------------------------ the walk

void KOInAppV2Handler::dontShowInAppInViewController(const KOViewController* viewController) {
  if (!viewController) return;
  std::lock_guard<std::mutex> lock(mutex_);
  if (std::find(dontShowInAppScreenList_.begin(), dontShowInAppScreenList_.end(), viewController->name) ==
      dontShowInAppScreenList_.end()) {
    dontShowInAppScreenList_.push_back(viewController->name);
  }
}

void KOInAppV2Handler::showInAppForViewController(const KOViewController* viewController) {
  showInAppForScreen(screenNameFor(viewController));
}

void KOInAppV2Handler::showInAppForScreen(std::string screen) {
  try {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (fetching_) {
        // Answered when the fetch ends, for the screen that asked.
        handleInAppsCalledDuringFetch_ = true;
        screenAskedDuringFetch_ = std::move(screen);
        return;
      }
      if (onScreen_) return;  // one in-app on screen at a time
    }
    for (const KOValue& stored : KOInAppV2Manager::getActiveInAppCampaigns()) {
      const KOInAppV2CampaignPropertiesObject campaign(stored);
      if (campaign.inAppType() != KOInAppV2TypeGeneral) {
        refusal(KO_HERE, KOStringFormat::format("Kovantis - In App not shown because it is not of type general : %@",
                                                {KOValue(campaign.campaignId())}));
        continue;
      }
      if (!campaign.showOnlyInScreen().empty()) {
        if (!isForScreen(campaign.showOnlyInScreen(), screen) || !canShowInApp(campaign)) continue;
        refusal(KO_HERE,
                KOStringFormat::format("Kovantis - ShowOnlyInScreen %@ check passed; CampaignID : %@",
                                       {KOValue(campaign.showOnlyInScreen()), KOValue(campaign.campaignId())}));
      } else if (!canShowInApp(campaign)) {
        continue;
      }
      // The first campaign handed on is the one: a single in-app on screen at a time.
      showInAppV2WithObject(std::make_shared<const KOInAppV2Object>(stored, campaign), screen);
      return;
    }
  } catch (const std::exception& e) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      handleInAppsCalledDuringFetch_ = false;
    }
    KOLogger::logLocated(KO_HERE, this, KOLogSeverityException,
                         KOStringFormat::format("Kovantis - Exception : %@", {KOValue(e.what())}),
                         KOValue(KOStackTrace::current()));
  }
}

// -------------------------------------------------------------------------------- smart triggers

std::shared_ptr<const std::set<std::string>> KOInAppV2Handler::refreshTriggerEvents() {
  // The event list lives in the store's snapshot; the set is rebuilt only when that changes, so a
  // tracked event costs one lookup.
  auto snapshot = KOInAppV2Manager::sharedInstance().snapshot();
  std::lock_guard<std::mutex> lock(mutex_);
  if (snapshot == triggerSource_ && triggerEvents_) return triggerEvents_;
  auto events = std::make_shared<std::set<std::string>>();
  const KOValue& list = snapshot->eventsArray();
  if (list.isArray()) {
    for (const KOValue& entry : list.arrayValue()) {
      if (entry.isString()) events->insert(entry.stringValue());
    }
  }
  triggerEvents_ = std::move(events);
  triggerSource_ = std::move(snapshot);
  return triggerEvents_;
}

bool KOInAppV2Handler::isTriggerEvent(const std::string& name) {
  KOInAppV2Manager& store = KOInAppV2Manager::sharedInstance();
  const std::uint64_t version = store.snapshotVersion();
  const TriggerList* list = triggerList_.load(std::memory_order_acquire);
  if (!list || list->version != version) {
    auto events = refreshTriggerEvents();
    std::lock_guard<std::mutex> lock(mutex_);
    // Built from a snapshot at least as new as `version`: should the store change meanwhile, the
    // next event sees a newer version and builds again.
    triggerLists_.push_back(std::make_unique<const TriggerList>(TriggerList{version, std::move(events)}));
    list = triggerLists_.back().get();
    triggerList_.store(list, std::memory_order_release);
  }
  return list->events->count(name) > 0;
}

void KOInAppV2Handler::checkTriggerWithEventName(const std::string& name, const KOValue& payload) {
  try {
    if (isTriggerEvent(name)) smartTriggerInAppForEvent(name, payload);
  } catch (const std::exception& e) {
    KOLogger::logLocated(
        KO_HERE, this, KOLogSeverityException,
        KOStringFormat::format("Kovantis - exception while getting smart trigger in app for event %@ is %@",
                               {KOValue(name), KOValue(e.what())}));
  }
}

void KOInAppV2Handler::smartTriggerInAppForEvent(const std::string& name, const KOValue& payload) {
  if (!KOConsentGate::shared().mayCallService()) return;
  KOServerInterface::sharedInstance().triggerSmartInAppWithEvent(name, payload, [this, name](const KOValue& response) {
    KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
      const KOValue& list = validObjectForKey(response, KO_INAPP_CAMPAIGN_INFO_KEY);
      if (!list.isArray() || list.arrayValue().empty()) {
        refusal(KO_HERE, KOStringFormat::format("Kovantis - server sent empty campaign for the smart trigger event %@",
                                                {KOValue(name)}));
        return;
      }
      const KOValue& campaign = list.arrayValue()[0];
      refusal(KO_HERE, KOStringFormat::format("Kovantis - Payload : %@", {campaign}));
      const KOInAppV2CampaignPropertiesObject properties(campaign);
      auto inApp = std::make_shared<const KOInAppV2Object>(campaign, properties);
      if (isSelfHandled(*inApp)) {
        returnSelfHandledInAppData(*inApp);
      } else {
        showInAppV2WithObject(std::move(inApp));
      }
    });
  });
}

// ------------------------------------------------------------------------------------ showing

void KOInAppV2Handler::keyboardShowed() {
  std::lock_guard<std::mutex> lock(mutex_);
  keyboardShown_ = true;
}

void KOInAppV2Handler::keyboardHidden() {
  std::lock_guard<std::mutex> lock(mutex_);
  keyboardShown_ = false;
}

bool KOInAppV2Handler::isShowingInApp() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return onScreen_ != nullptr;
}

void KOInAppV2Handler::showInAppV2WithObject(std::shared_ptr<const KOInAppV2Object> inApp) {
  showInAppV2WithObject(std::move(inApp), screenNameFor(nullptr));
}

void KOInAppV2Handler::showInAppV2WithObject(std::shared_ptr<const KOInAppV2Object> inApp, std::string screen) {
  try {
    std::vector<std::pair<std::int64_t, std::string>> images;
    if (inApp->widgetsArray()) {
      for (const auto& widget : *inApp->widgetsArray()) collectImages(*widget, images);
    }
    if (images.empty()) {
      KOPlatform::current().dispatch->asyncMain([this, inApp, screen] { present(inApp, screen); });
      return;
    }
    KOArray urls;
    for (const auto& image : images) urls.push_back(image.second);
    auto manager = std::make_shared<KODownloadManager>();
    manager->download(urls,
                      [this, inApp, images, manager, screen](bool success, const KOValue&, const KOValue& results) {
                        // The user said no while the images came: nothing is kept, nothing shows.
                        if (!KOConsentGate::shared().mayShow()) return;
                        const std::string cid = inApp->campaignPropertiesObject().campaignId();
                        if (!success || !results.isArray()) {
                          {
                            std::lock_guard<std::mutex> lock(mutex_);
                            imagesFailed_.insert(cid);
                          }
                          refusal(KO_HERE, "Kovantis - In App not shown because image download failed");
                          return;
                        }
                        const KOArray& data = results.arrayValue();
                        std::map<std::int64_t, KOImageInfo> decodedImages;
                        for (std::size_t i = 0; i < data.size() && i < images.size(); ++i) {
                          const KOValue& bytes = validObjectForKey(data[i], "data");
                          const std::optional<KOImageInfo> decoded =
                              bytes.isData() ? KOImageDecoder::decode(bytes.dataValue()) : std::nullopt;
                          if (!decoded) {
                            // An image nobody can draw fails the showing like one that never arrived.
                            {
                              std::lock_guard<std::mutex> lock(mutex_);
                              imagesFailed_.insert(cid);
                            }
                            refusal(KO_HERE, "Kovantis - In App not shown because image download failed");
                            return;
                          }
                          decodedImages[images[i].first] = *decoded;
                          KOInAppV2Manager::writeInAppImageData(
                              bytes.dataValue(), "_" + std::to_string(images[i].first), *inApp, decoded->frames > 1);
                        }
                        {
                          std::lock_guard<std::mutex> lock(mutex_);
                          imagesFailed_.erase(cid);
                        }
                        present(inApp, screen, std::move(decodedImages));
                      });
  } catch (const std::exception& e) {
    KOLogger::logLocated(KO_HERE, this, KOLogSeverityException,
                         KOStringFormat::format("Kovantis - InApp Exception %@", {KOValue(e.what())}));
  }
}

void KOInAppV2Handler::present(const std::shared_ptr<const KOInAppV2Object>& inApp, const std::string& screen,
                               std::map<std::int64_t, KOImageInfo> images) {
  KOLogger::guard(KO_HERE, this, "Kovantis - InApp Exception %@", [&] {
    if (!KOConsentGate::shared().mayShow()) return;  // nothing new shows once the user said no
    const KOInAppV2CampaignPropertiesObject& campaign = inApp->campaignPropertiesObject();
    const KOInAppDecision decision = screenDecision(campaign, screen);
    if (decision.refusedBy == kKeyboard)
      return refusal(KO_HERE, "Kovantis - In App not shown because Keyboard present");
    if (decision.refusedBy == kOtherScreen) {
      return refusal(KO_HERE, KOStringFormat::format("Kovantis - In App not shown because show only in screen "
                                                     "validation failed. The screen name for which in-app was "
                                                     "created is %@",
                                                     {KOValue(campaign.showOnlyInScreen())}));
    }
    if (decision.refusedBy == kBlockedScreen) {
      return refusal(KO_HERE,
                     "Kovantis - In App not shown because the current view controller is subscribed to not show "
                     "in-apps on this screen");
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (onScreen_) return;
    }
    const KOSize size{KovantisUtils::screenWidthForInApp(), KovantisUtils::screenHeightForInApp()};
    const std::string cid = campaign.campaignId();
    KOViewDescription description = KOInAppV2ViewBuilder::describe(*inApp, size, images);
    // Taps run the widgets' actions; a swipe takes a cancellable message away, nothing recorded.
    KOViewEventHandler onTap = KOInAppV2ActionHandler::tapHandlerFor(description, false);
    const bool cancellable = inApp->cancellable();
    auto shown = KOPlatform::current().userInterface->presentScreen(
        std::move(description), [this, onTap, cancellable](std::int64_t tag, KOViewEvent event) {
          if (event == KOViewEvent::SwipeAway) {
            if (cancellable) dismissInApp();
            return;
          }
          onTap(tag, event);
        });
    if (!shown) return;
    KOInAppV2ActionHandler::sharedInstance().setInAppObject(inApp, shown, [this] { dismissInApp(); });
    {
      std::lock_guard<std::mutex> lock(mutex_);
      onScreen_ = std::move(shown);
      onScreenCampaign_ = cid;
    }
    KOInAppV2Manager::writeToPlistToUpdateInAppNumberOfTimesShownWithInAppObject(*inApp);
    saveLastShownTimeAndTrackEventForInApp(*inApp, campaign.inAppType() == KOInAppV2TypeTest);
    if (inApp->autoDismissInterval() > 0) {
      const KODispatchToken token =
          KOPlatform::current().dispatch->afterMain(static_cast<double>(inApp->autoDismissInterval()), [this, cid] {
            {
              std::lock_guard<std::mutex> lock(mutex_);
              if (onScreenCampaign_ != cid || !onScreen_) return;
              autoDismiss_ = 0;
            }
            dismissInApp();
            trackInAppAutoDismissForCampaignID(cid);
          });
      std::lock_guard<std::mutex> lock(mutex_);
      autoDismiss_ = token;
    }
  });
}

void KOInAppV2Handler::dismissInApp() {
  std::shared_ptr<KOPresentedScreen> shown;
  KODispatchToken timer = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    shown = std::move(onScreen_);
    onScreen_.reset();
    onScreenCampaign_.clear();
    timer = std::exchange(autoDismiss_, 0);
  }
  if (timer) KOPlatform::current().dispatch->cancel(timer);
  if (shown) shown->remove();
}

void KOInAppV2Handler::saveLastShownTimeAndTrackEventForInApp(const KOInAppV2Object& inApp, bool) {
  KovantisUtils::saveLastInAppShowedTime(KOValue(KODate{KovantisDateUtils::now()}));
  trackInAppShownForCampaignID(inApp.campaignPropertiesObject().campaignId());
}

void KOInAppV2Handler::trackInAppShownForCampaignID(const std::string& campaignID) {
  KOEventsHandler::sharedInstance().trackEvent(KOValue(INAPP_SHOWN), KOValue(KODictionary{{"cid", campaignID}}));
}

void KOInAppV2Handler::trackInAppAutoDismissForCampaignID(const std::string& campaignID) {
  KOEventsHandler::sharedInstance().trackEvent(KOValue(INAPP_AUTO_DISMISS), KOValue(KODictionary{{"cid", campaignID}}));
}

// ------------------------------------------------------------------- single and self-handled

bool KOInAppV2Handler::isSelfHandled(const KOInAppV2Object& inApp) {
  return inApp.campaignPropertiesObject().inAppType() == KOInAppV2TypeSelfHandled ||
         inApp.alignmentType() == KOInAppV2AlignmentSelfHandled;
}

void KOInAppV2Handler::returnSelfHandledInAppData(const KOInAppV2Object& inApp) {
  if (!KOConsentGate::shared().mayShow()) return;
  const auto delegate = KOSDKSettings::shared().inAppDelegate();
  if (!delegate) return;
  delegate->selfHandledInAppWithData(KODictionary{{"campaign_id", inApp.campaignPropertiesObject().campaignId()},
                                                  {"content", inApp.selfHandledcontent()}});
}

void KOInAppV2Handler::fetchAndShowInAppForCampaignID(const std::string& campaignID, bool forTestInApp) {
  if (!KOConsentGate::shared().mayCallService()) return;
  KOServerInterface::sharedInstance().getInAppForCampaignID(
      campaignID, [campaignID, forTestInApp](const KOValue& response) {
        KOLogger::guard(KO_HERE, nullptr, "Kovantis - InApp Exception %@", [&] {
          const KOValue cid(campaignID);
          if (!response.isDictionary()) {
            refusal(KO_HERE, KOStringFormat::format(
                                 "Kovantis - error while getting specific campaign from server. cid is %@", {cid}));
            if (forTestInApp) {
              KovantisUtils::showAlertViewWithMessage(
                  KOStringFormat::format("Network Error: Could not show test In-App.\n CampaignId : %@.\n Please try "
                                         "again or contact Kovantis Support with the screenshot.",
                                         {cid}),
                  "ERROR");
            }
            return;
          }
          const KOValue& reason = validObjectForKey(response, "reason");
          const KOValue& list = validObjectForKey(response, KO_INAPP_CAMPAIGN_INFO_KEY);
          if (!reason.isAbsent() || !list.isArray() || list.arrayValue().empty()) {
            if (forTestInApp) {
              std::string message =
                  KOStringFormat::format("Error while trying to show In-App campaign.\n CampaignId: %@.\n", {cid});
              if (reason.isString() && !reason.stringValue().empty()) {
                message += KOStringFormat::format("Reason: %@\n", {reason});
              }
              message += "Please try again or contact Kovantis Support with the screenshot";
              KovantisUtils::showAlertViewWithMessage(message, "ERROR");
            }
            return;
          }
          const KOValue& campaign = list.arrayValue()[0];
          const KOInAppV2CampaignPropertiesObject properties(campaign);
          auto inApp = std::make_shared<const KOInAppV2Object>(campaign, properties);
          if (isSelfHandled(*inApp)) {
            returnSelfHandledInAppData(*inApp);
          } else if (inApp->alignmentType() == KOInAppV2AlignmentEmbedded) {
            KONudgesHandler::sharedInstance().showNudgeWithNudgeObject(std::move(inApp));
          } else {
            sharedInstance().showInAppV2WithObject(std::move(inApp));
          }
        });
      });
}

std::shared_ptr<const KOInAppV2Object> KOInAppV2Handler::storedCampaign(const std::string& campaignID) {
  for (const KOValue& stored : KOInAppV2Manager::getActiveInAppCampaigns()) {
    if (validObjectForKey(stored, CAMPAIGN_ID) == KOValue(campaignID))
      return std::make_shared<const KOInAppV2Object>(stored);
  }
  return nullptr;
}

void KOInAppV2Handler::getSelfHandledInAppForViewController(const KOViewController* viewController) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    const std::string screen = screenNameFor(viewController);
    for (const KOValue& stored : KOInAppV2Manager::getActiveInAppCampaigns()) {
      const KOInAppV2CampaignPropertiesObject campaign(stored);
      if (campaign.inAppType() != KOInAppV2TypeSelfHandled) {
        KOLogger::logWithVerbosity(1, KOLogSeverityNone,
                                   KOArray{KOValue(KOStringFormat::format(
                                       "Kovantis - In app campaign not of type Self Handled; CampaignID : %@",
                                       {KOValue(campaign.campaignId())}))});
        continue;
      }
      if (!isForScreen(campaign.showOnlyInScreen(), screen)) continue;
      if (!canShowInApp(campaign)) continue;
      returnSelfHandledInAppData(KOInAppV2Object(stored, campaign));
      return;
    }
  });
}

void KOInAppV2Handler::selfHandledInAppShownWithCampaignID(const std::string& campaignID) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    const auto inApp = storedCampaign(campaignID);
    if (!inApp) return;
    KOInAppV2Manager::writeToPlistToUpdateInAppNumberOfTimesShownWithInAppObject(*inApp);
    saveLastShownTimeAndTrackEventForInApp(*inApp, false);
  });
}

void KOInAppV2Handler::selfHandledInAppClickedWithPrimaryActionAndCampaignID(const std::string& campaignID) {
  selfHandledInAppClickedWithAction(1, campaignID);
}

void KOInAppV2Handler::selfHandledInAppClickedWithSecondaryActionAndCampaignID(const std::string& campaignID) {
  selfHandledInAppClickedWithAction(2, campaignID);
}

void KOInAppV2Handler::selfHandledInAppClickedWithDismissActionAndCampaignID(const std::string& campaignID) {
  selfHandledInAppClickedWithAction(0, campaignID);
}

void KOInAppV2Handler::selfHandledInAppClickedWithAction(int action, const std::string& andCampaignID) {
  KOLogger::guard(KO_HERE, this, "Kovantis - Exception : %@", [&] {
    const auto inApp = storedCampaign(andCampaignID);
    if (!inApp) return;
    // Only the primary action counts as the click that ends a campaign; the others are the
    // host's to track as it likes.
    if (action == 1) KOInAppV2Manager::writeToPlistForInAppClickedWithButtonType(1, *inApp);
  });
}
