#include "kovantis/testing/KOTestCampaign.h"

#include <algorithm>
#include <utility>

#include "kovantis/KOConstants.h"

namespace {

// The campaign's keys and values the public constants do not name, in one place.
namespace key {
constexpr const char* kType = "type";
constexpr const char* kAlign = "align";
constexpr const char* kWidgetId = "id";
constexpr const char* kPrimary = "primary";
constexpr const char* kActions = "action";
constexpr const char* kActionTag = "tag";
constexpr const char* kScreen = "screen";
constexpr const char* kExtras = "extras";
constexpr const char* kURL = "uri";
constexpr const char* kTrack = "track";
constexpr const char* kSet = "set";
constexpr const char* kValue = "value";
constexpr const char* kMessage = "msg";
constexpr const char* kLinkedCampaign = "campaign_id";
constexpr const char* kMaxRating = "maxRating";
constexpr const char* kDefaultRating = "defaultRating";
constexpr const char* kInAppClicked = "iOS_IN_APP_CLICKED";
constexpr const char* kWidgetText = "text";
constexpr const char* kWidgetImage = "image";
constexpr const char* kWidgetButton = "button";
constexpr const char* kWidgetCloseButton = "closebutton";
constexpr const char* kWidgetRating = "rating";
}  // namespace key

// The service's campaigns carry an expiry: 2100-01-01, so that a test's never runs out.
constexpr double kFarFuture = 4102444800;

KOTestCampaign::Action action(const char* tag, KODictionary fields = {}) {
  KODictionary json{{key::kActionTag, tag}};
  for (auto& [name, value] : fields) json.set(name, std::move(value));
  return {std::move(json)};
}

KOValue actionList(const std::vector<KOTestCampaign::Action>& actions) {
  KOArray list;
  for (const auto& a : actions) list.push_back(KOValue(a.json));
  return KOValue(std::move(list));
}

}  // namespace

KOTestCampaign::Action KOTestCampaign::navigate(std::string screen, KODictionary extras) {
  KODictionary fields{{key::kScreen, std::move(screen)}};
  if (!extras.empty()) fields.set(key::kExtras, KOValue(std::move(extras)));
  return action(KO_ACTION_NAVIGATE, std::move(fields));
}
KOTestCampaign::Action KOTestCampaign::openURL(std::string url) {
  return action(KO_ACTION_NAVIGATE, {{key::kURL, std::move(url)}});
}
KOTestCampaign::Action KOTestCampaign::dismiss() { return action(KO_ACTION_DISMISS); }
KOTestCampaign::Action KOTestCampaign::track(std::string event) {
  return action(KO_ACTION_TRACKEVENT, {{key::kTrack, std::move(event)}});
}
KOTestCampaign::Action KOTestCampaign::trackClick() { return track(key::kInAppClicked); }
KOTestCampaign::Action KOTestCampaign::setUserAttribute(std::string name, KOValue value) {
  return action(KO_ACTION_SETATTRIBUTE, {{key::kSet, std::move(name)}, {key::kValue, std::move(value)}});
}
KOTestCampaign::Action KOTestCampaign::openCampaign(std::string campaignId) {
  return action(KO_ACTION_OPEN_INAPP, {{key::kLinkedCampaign, std::move(campaignId)}});
}
KOTestCampaign::Action KOTestCampaign::copy(std::string code, std::string message) {
  KODictionary fields{{key::kValue, std::move(code)}};
  if (!message.empty()) fields.set(key::kMessage, std::move(message));
  return action(KO_ACTION_COPY, std::move(fields));
}
KOTestCampaign::Action KOTestCampaign::share(std::string content) {
  return action(KO_ACTION_SHARE, {{KO_CONTENT, std::move(content)}});
}
KOTestCampaign::Action KOTestCampaign::call(std::string number) {
  return action(KO_ACTION_CALL, {{key::kValue, std::move(number)}});
}
KOTestCampaign::Action KOTestCampaign::askPushPermission() { return action(KO_PERMISSION_NOTIFICATION); }
KOTestCampaign::Action KOTestCampaign::openSettings() { return action(KO_PERMISSION_SETTINGS); }

KOTestCampaign::KOTestCampaign(std::string campaignId) : campaignId_(std::move(campaignId)) {
  campaign_.set(CAMPAIGN_ID, campaignId_);
  campaign_.set(KO_STATUS, KO_INAPP_STATUS_ACTIVE);
  campaign_.set(key::kType, KO_INAPPTYPE_GENERAL);
  campaign_.set(KO_TTL, kFarFuture);
  campaign_.set(KO_MAX_TIMES, 1);
}

KOTestCampaign& KOTestCampaign::widget(KODictionary widget) {
  if (const KOValue* id = widget.find(key::kWidgetId); id && id->isNumber()) {
    nextWidget_ = std::max(nextWidget_, id->intValue() + 1);
  } else {
    widget.set(key::kWidgetId, nextWidget_++);
  }
  widgets_.push_back(KOValue(std::move(widget)));
  return *this;
}

KOTestCampaign& KOTestCampaign::text(std::string content) {
  return widget({{key::kType, key::kWidgetText}, {KO_CONTENT, std::move(content)}});
}
KOTestCampaign& KOTestCampaign::image(std::string url) {
  return widget({{key::kType, key::kWidgetImage}, {KO_CONTENT, std::move(url)}});
}
KOTestCampaign& KOTestCampaign::button(std::string title, std::vector<Action> actions, bool primary) {
  KODictionary button{{key::kType, key::kWidgetButton}, {KO_CONTENT, std::move(title)}};
  if (primary) button.set(key::kPrimary, true);
  if (!actions.empty()) button.set(key::kActions, actionList(actions));
  return widget(std::move(button));
}
KOTestCampaign& KOTestCampaign::closeButton() {
  return widget({{key::kType, key::kWidgetCloseButton}, {key::kActions, actionList({dismiss()})}});
}
KOTestCampaign& KOTestCampaign::rating(double maxRating, double defaultRating) {
  return widget({{key::kType, key::kWidgetRating},
                 {KO_PROPERTIES, KODictionary{{key::kMaxRating, maxRating}, {key::kDefaultRating, defaultRating}}}});
}

KOTestCampaign& KOTestCampaign::maxTimes(int times) { return set(KO_MAX_TIMES, times); }
KOTestCampaign& KOTestCampaign::secondsBetweenShowings(int seconds) { return set(KO_INTERVAL, seconds); }
KOTestCampaign& KOTestCampaign::priority(int priority) { return set(KO_PRIORITY, priority); }
KOTestCampaign& KOTestCampaign::expiresAt(double secondsSince1970) { return set(KO_TTL, secondsSince1970); }
KOTestCampaign& KOTestCampaign::onlyOnScreen(std::string screenName) {
  return set(KO_SHOW_ONLY_IN_SCREEN, std::move(screenName));
}
KOTestCampaign& KOTestCampaign::persistent(bool persistent) { return set(KO_PERSISTENCE, persistent); }
KOTestCampaign& KOTestCampaign::status(std::string status) { return set(KO_STATUS, std::move(status)); }
KOTestCampaign& KOTestCampaign::cancellable(bool cancellable) { return set(KO_CANCELLABLE, cancellable); }
KOTestCampaign& KOTestCampaign::autoDismissAfter(int seconds) { return set(KO_AUTO_DISMISS, seconds); }

KOTestCampaign& KOTestCampaign::align(Alignment alignment) {
  switch (alignment) {
    case Alignment::Center:
      return set(key::kAlign, KO_CENTER);
    case Alignment::Top:
      return set(key::kAlign, KO_TOP);
    case Alignment::Bottom:
      return set(key::kAlign, KO_BOTTOM);
    case Alignment::Full:
      return set(key::kAlign, KO_ALIGNMENT_FULL);
  }
  return *this;
}

KOTestCampaign& KOTestCampaign::triggeredBy(std::string event) {
  // What the service answers for a tracked event is a smart campaign, unless the app draws it.
  if (campaign_[key::kType] == KOValue(KO_INAPPTYPE_GENERAL)) set(key::kType, KO_INAPPTYPE_SMART);
  triggers_.push_back(std::move(event));
  return *this;
}

KOTestCampaign& KOTestCampaign::nudge() { return set(key::kAlign, KO_ALIGNMENT_EMBED); }

KOTestCampaign& KOTestCampaign::selfHandled(std::string content) {
  set(key::kType, KO_INAPPTYPE_SELF_HANDLED);
  return set(KO_CONTENT, std::move(content));
}

KOTestCampaign& KOTestCampaign::set(std::string key, KOValue value) {
  campaign_.set(std::move(key), std::move(value));
  return *this;
}

KODictionary KOTestCampaign::json() const {
  KODictionary json = campaign_;
  if (!widgets_.empty()) json.set(KO_WIDGETS, KOValue(widgets_));
  return json;
}
