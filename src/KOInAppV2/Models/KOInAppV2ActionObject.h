// One action of a widget ("action" list): what a tap does, with the values it needs.
#pragma once

#include <string>
#include <string_view>

#include "KOInAppV2/Models/KOModelDict.h"
#include "kovantis/KOValue.h"

/// An action's "tag".
enum KOInAppV2ActionType : int {
  KOInAppV2ActionNavigate = 0,
  KOInAppV2ActionShare = 1,
  KOInAppV2ActionDismiss = 2,
  KOInAppV2ActionSetAttribute = 3,
  KOInAppV2ActionOpenInApp = 4,
  KOInAppV2ActionTrackEvent = 5,
  KOInAppV2ActionCopy = 6,
  KOInAppV2ActionCall = 7,
  KOInAppV2ActionPermissionNotification = 8,
  KOInAppV2ActionPermissionSettings = 9,
  KOInAppV2ActionNone = 10,
};

class KOInAppV2ActionObject : public KOModelDict {
 public:
  KOInAppV2ActionObject() = default;
  explicit KOInAppV2ActionObject(const KOValue& action) { initWithDictionary(action); }

  void initWithDictionary(const KOValue& action) override;

  static int getActionTypeWithTag(std::string_view tag);

  const std::string& eventBeingTracked() const { return eventBeingTracked_; }
  void setEventBeingTracked(std::string value) { eventBeingTracked_ = std::move(value); }
  const std::string& webUrl() const { return webUrl_; }
  void setWebUrl(std::string value) { webUrl_ = std::move(value); }
  int actionType() const { return actionType_; }
  void setActionType(int value) { actionType_ = value; }
  const std::string& screenName() const { return screenName_; }
  void setScreenName(std::string value) { screenName_ = std::move(value); }
  const KODictionary& extrasDict() const { return extrasDict_; }
  void setExtrasDict(KODictionary value) { extrasDict_ = std::move(value); }
  const std::string& contentToShare() const { return contentToShare_; }
  void setContentToShare(std::string value) { contentToShare_ = std::move(value); }
  const KOValue& value() const { return value_; }
  void setValue(KOValue value) { value_ = std::move(value); }
  const std::string& message() const { return message_; }
  void setMessage(std::string value) { message_ = std::move(value); }
  const KOValue& setAttributeWidgetID() const { return setAttributeWidgetID_; }
  void setSetAttributeWidgetID(KOValue value) { setAttributeWidgetID_ = std::move(value); }
  const std::string& userAttributeToSet() const { return userAttributeToSet_; }
  void setUserAttributeToSet(std::string value) { userAttributeToSet_ = std::move(value); }
  const std::string& linkedCampaignID() const { return linkedCampaignID_; }
  void setLinkedCampaignID(std::string value) { linkedCampaignID_ = std::move(value); }

 private:
  std::string eventBeingTracked_;
  std::string webUrl_;
  int actionType_ = KOInAppV2ActionNone;
  std::string screenName_;
  KODictionary extrasDict_;
  std::string contentToShare_;
  KOValue value_;
  std::string message_;
  KOValue setAttributeWidgetID_;
  std::string userAttributeToSet_;
  std::string linkedCampaignID_;
};
