#include "KOInAppV2/Models/KOInAppV2ActionObject.h"

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOValueHelpers.h"
#include "kovantis/KOConstants.h"

void KOInAppV2ActionObject::initWithDictionary(const KOValue& action) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in initialize KOInAppV2ActionObject is %@", [&] {
    const KODictionary* dict = dictionaryToRead(action);
    if (!dict) return;
    eventBeingTracked_ = stringValue(validObjectForKey(*dict, "track"));
    webUrl_ = stringValue(validObjectForKey(*dict, "uri"));
    actionType_ = getActionTypeWithTag(stringValue(validObjectForKey(*dict, "tag")));
    screenName_ = stringValue(validObjectForKey(*dict, "screen"));
    if (const KODictionary* extras = dictionaryValue(validObjectForKey(*dict, "extras"))) extrasDict_ = *extras;
    contentToShare_ = stringValue(validObjectForKey(*dict, KO_CONTENT));
    value_ = validObjectForKey(*dict, "value");
    message_ = stringValue(validObjectForKey(*dict, "msg"));
    setAttributeWidgetID_ = validObjectForKey(*dict, "valueOf");
    userAttributeToSet_ = stringValue(validObjectForKey(*dict, "set"));
    linkedCampaignID_ = stringValue(validObjectForKey(*dict, "campaign_id"));
  });
}

int KOInAppV2ActionObject::getActionTypeWithTag(std::string_view tag) {
  if (tag == KO_ACTION_NAVIGATE) return KOInAppV2ActionNavigate;
  if (tag == KO_ACTION_SHARE) return KOInAppV2ActionShare;
  if (tag == KO_ACTION_DISMISS) return KOInAppV2ActionDismiss;
  if (tag == KO_ACTION_SETATTRIBUTE) return KOInAppV2ActionSetAttribute;
  if (tag == KO_ACTION_OPEN_INAPP) return KOInAppV2ActionOpenInApp;
  if (tag == KO_ACTION_TRACKEVENT) return KOInAppV2ActionTrackEvent;
  if (tag == KO_ACTION_COPY) return KOInAppV2ActionCopy;
  if (tag == KO_ACTION_CALL) return KOInAppV2ActionCall;
  if (tag == KO_PERMISSION_NOTIFICATION) return KOInAppV2ActionPermissionNotification;
  if (tag == KO_PERMISSION_SETTINGS) return KOInAppV2ActionPermissionSettings;
  return KOInAppV2ActionNone;
}
