#include "KOInAppV2ActionHandler.h"

#include <cstdlib>
#include <exception>
#include <map>
#include <utility>
#include <vector>

#include "KODataHandler/KOEventsHandler.h"
#include "KODataHandler/KOUserAttributesHandler.h"
#include "KOInAppV2/InAppHandlers/KOInAppV2Handler.h"
#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOSDKNotifications.h"
#include "KOUtilities/KOSDKSettings.h"
#include "KOUtilities/KOStackTrace.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KovantisUtils.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"
#include "kovantis/KOPlatform.h"

namespace {
constexpr const char* kInAppClicked = "iOS_IN_APP_CLICKED";
// The first system version with a settings page the app can open.
constexpr double kFirstSystemWithSettingsURL = 8.0;
}  // namespace

void KOInAppDelegate::inAppClickedForWidget(int, const std::string&, const KODictionary&) {}
void KOInAppDelegate::selfHandledInAppWithData(const KODictionary&) {}

KOInAppV2ActionHandler& KOInAppV2ActionHandler::sharedInstance() {
  static auto* instance = new KOInAppV2ActionHandler();
  return *instance;
}

void KOInAppV2ActionHandler::setInAppObject(std::shared_ptr<const KOInAppV2Object> inApp,
                                            std::shared_ptr<KOPresentedScreen> view, std::function<void()> dismiss) {
  inApp_ = Shown{std::move(inApp), std::move(view), std::move(dismiss)};
}

void KOInAppV2ActionHandler::setNudgeObject(std::shared_ptr<const KOInAppV2Object> nudge,
                                            std::shared_ptr<KOPresentedScreen> view, std::function<void()> dismiss) {
  nudge_ = Shown{std::move(nudge), std::move(view), std::move(dismiss)};
}

KOViewEventHandler KOInAppV2ActionHandler::tapHandlerFor(const KOViewDescription& shown, bool forNudges) {
  auto kinds = std::make_shared<std::map<std::int64_t, KOViewKind>>();
  std::vector<const KOViewDescription*> pending{&shown};
  while (!pending.empty()) {
    const KOViewDescription* view = pending.back();
    pending.pop_back();
    if (view->tag != 0) kinds->emplace(view->tag, view->kind);
    for (const auto& child : view->children) pending.push_back(&child);
  }
  return [kinds, forNudges](std::int64_t tag, KOViewEvent event) {
    if (event != KOViewEvent::Tap) return;
    const auto kind = kinds->find(tag);
    if (kind == kinds->end()) return;
    KOInAppV2ActionHandler& actions = sharedInstance();
    if (kind->second == KOViewKind::Button) {
      actions.buttonTapped(tag, forNudges);
    } else if (kind->second == KOViewKind::Image) {
      actions.imageViewTapped(tag, forNudges);
    } else {
      actions.labelTapped(tag, forNudges);
    }
  };
}

void KOInAppV2ActionHandler::buttonTapped(std::int64_t tag, bool forNudges) {
  tapped(tag, forNudges, true, false, false);
}
void KOInAppV2ActionHandler::imageViewTapped(std::int64_t tag, bool forNudges) {
  tapped(tag, forNudges, false, true, false);
}
void KOInAppV2ActionHandler::labelTapped(std::int64_t tag, bool forNudges) {
  tapped(tag, forNudges, false, false, true);
}

void KOInAppV2ActionHandler::tapped(std::int64_t tag, bool forNudges, bool button, bool image, bool label) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception : %@", [&] {
    // A copy: the actions may dismiss the message and so replace what is shown.
    const Shown shown = forNudges ? nudge_ : inApp_;
    if (!shown.object) return;
    const auto widget = getTappedWidgetForTag(tag, *shown.object);
    if (!widget || widget->actionsArray().empty()) return;
    trackEventAndWriteToPlist(*widget, *shown.object);
    actionHandlerWithArray(widget->actionsArray(), button, image, label, widget->widgetId(), widget->type(),
                           *shown.object, forNudges);
  });
}

std::shared_ptr<const KOInAppV2WidgetObject> KOInAppV2ActionHandler::getTappedWidgetForTag(
    std::int64_t tag, const KOInAppV2Object& inAppObject) {
  if (!inAppObject.widgetsArray()) return nullptr;
  const auto inList =
      [tag](const std::optional<KOInAppV2WidgetList>& list) -> std::shared_ptr<const KOInAppV2WidgetObject> {
    if (!list) return nullptr;
    for (const KOInAppV2WidgetEntry& entry : *list) {
      if (entry.isList()) {
        for (const KOInAppV2WidgetEntry& inner : entry.list) {
          if (!inner.isList() && inner.widget->widgetId() == tag) return inner.widget;
        }
      } else if (entry.widget->widgetId() == tag) {
        return entry.widget;
      }
    }
    return nullptr;
  };
  for (const auto& widget : *inAppObject.widgetsArray()) {
    if (!widget) continue;
    if (widget->widgetId() == tag) return widget;
    // Containers hold widgets of their own, one level down.
    if (widget->type() != 0 && widget->type() != KOInAppV2WidgetButtonArray) {
      if (auto found = inList(widget->widgetsArray())) return found;
      if (auto found = inList(widget->buttonsArray())) return found;
    }
  }
  return nullptr;
}

void KOInAppV2ActionHandler::trackEventAndWriteToPlist(const KOInAppV2WidgetObject& widget,
                                                       const KOInAppV2Object& inAppObject) {
  if (widget.primary()) KOInAppV2Manager::writeToPlistForInAppClickedWithButtonType(1, inAppObject);
}

void KOInAppV2ActionHandler::actionHandlerWithArray(const std::vector<KOInAppV2ActionObject>& actions, bool forButton,
                                                    bool orForImage, bool orForText, std::int64_t forWidgetID,
                                                    int widgetType, const KOInAppV2Object& andInAppObject,
                                                    bool forNudge) {
  try {
    std::string screenName;
    KODictionary extras;
    for (const KOInAppV2ActionObject& action : actions) {
      if (action.actionType() == KOInAppV2ActionNavigate && !action.screenName().empty()) {
        screenName = action.screenName();
        extras = action.extrasDict();
        break;
      }
    }
    const Shown shown = forNudge ? nudge_ : inApp_;
    const KOPlatform& platform = KOPlatform::current();
    for (const KOInAppV2ActionObject& action : actions) {
      switch (action.actionType()) {
        case KOInAppV2ActionNavigate:
          if (!action.webUrl().empty()) {
            platform.application->openURL(KOStringFormat::format("%@", {KOValue(action.webUrl())}), [](bool) {});
          }
          break;
        case KOInAppV2ActionShare:
          if (!action.contentToShare().empty()) {
            KovantisUtils::openShareSheetWithContentToShare(KOArray{KOValue(action.contentToShare())});
          }
          break;
        case KOInAppV2ActionDismiss:
          if (shown.dismiss) shown.dismiss();
          break;
        case KOInAppV2ActionSetAttribute: {
          if (action.userAttributeToSet().empty()) break;
          KOValue value = action.value();
          if (!action.setAttributeWidgetID().isAbsent()) {
            const std::int64_t id = action.setAttributeWidgetID().isString()
                                        ? std::strtoll(action.setAttributeWidgetID().stringValue().c_str(), nullptr, 10)
                                        : action.setAttributeWidgetID().intValue();
            std::optional<KOView> input = shown.view ? shown.view->viewWithTag(id) : std::nullopt;
            value = KovantisUtils::getValueFromWidget(input ? &*input : nullptr);
          }
          if (!value.isAbsent()) {
            KOUserAttributesHandler::sharedInstance().trackUserAttribute(value, KOValue(action.userAttributeToSet()));
          }
          break;
        }
        case KOInAppV2ActionOpenInApp:
          if (!action.linkedCampaignID().empty()) {
            KOInAppV2Handler::fetchAndShowInAppForCampaignID(action.linkedCampaignID(), false);
          }
          break;
        case KOInAppV2ActionTrackEvent: {
          if (action.eventBeingTracked().empty()) break;
          KODictionary attributes{{CAMPAIGN_ID, andInAppObject.campaignPropertiesObject().campaignId()}};
          if (action.eventBeingTracked() == kInAppClicked) {
            attributes.set(KO_WIDGET_ID, KOStringFormat::format("%ld", {KOValue(forWidgetID)}));
          }
          KOEventsHandler::sharedInstance().trackEvent(KOValue(action.eventBeingTracked()),
                                                       KOValue(std::move(attributes)));
          break;
        }
        case KOInAppV2ActionCopy:
          if (action.value().isAbsent()) break;
          platform.userInterface->setPasteboardString(KOStringFormat::format("%@", {action.value()}));
          if (!action.message().empty()) KovantisUtils::showAlertViewWithMessage(action.message(), "COUPON");
          break;
        case KOInAppV2ActionCall:
          if (!action.value().isAbsent()) call(KOStringFormat::format("%@", {action.value()}));
          break;
        case KOInAppV2ActionPermissionNotification:
          if (!platform.preferences->standard().objectForKey(KO_PUSH_PREFERENCE_KEY).isNil()) {
            platform.application->openSettings();
          } else {
            KONotificationCenter::defaultCenter().post(KOPushRegistrationRequestedNotification);
          }
          break;
        case KOInAppV2ActionPermissionSettings:
          if (KovantisUtils::systemVersionAtLeast(kFirstSystemWithSettingsURL)) {
            platform.application->openSettings();
          }
          break;
        default:
          break;
      }
    }
    if (const auto delegate = KOSDKSettings::shared().inAppDelegate()) {
      int kind = forButton ? KOInAppWidgetButton : orForImage ? KOInAppWidgetImage : KOInAppWidgetLabel;
      if (widgetType == KOInAppV2WidgetCloseButton) kind = KOInAppWidgetCloseButton;
      static_cast<void>(orForText);
      delegate->inAppClickedForWidget(kind, screenName, extras);
    }
  } catch (const std::exception& e) {
    KOLogger::logLocated(
        KO_HERE, this, KOLogSeverityException,
        KOStringFormat::format("Kovantis - exception in action handler for in-app is %@", {KOValue(e.what())}),
        KOValue(KOStackTrace::current()));
  }
}

void KOInAppV2ActionHandler::call(const std::string& number) {
  KOUserInterface& ui = *KOPlatform::current().userInterface;
  const auto dial = [number] {
    KOApplication& app = *KOPlatform::current().application;
    const std::string url = KOStringFormat::format("tel:%@", {KOValue(number)});
    if (app.canOpenURL(url)) app.openURL(url, [](bool) {});
  };
  // Both alert generations ask the same: the number as title, "Call" and "Cancel".
  const auto presenter = ui.supportsAlertController() ? KovantisUtils::getTopViewController() : nullptr;
  ui.presentAlert(number, "",
                  {KOAlertAction{"Call", KOAlertActionStyle::Default, dial},
                   KOAlertAction{"Cancel", KOAlertActionStyle::Cancel, nullptr}},
                  presenter.get());
}
