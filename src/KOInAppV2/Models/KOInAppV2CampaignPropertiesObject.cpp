#include "KOInAppV2/Models/KOInAppV2CampaignPropertiesObject.h"

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOValueHelpers.h"
#include "kovantis/KOConstants.h"

void KOInAppV2CampaignPropertiesObject::initWithDictionary(const KOValue& campaign) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in initialize KOInAppV2CampaignPropertiesObject is %@", [&] {
    if (const KODictionary* dict = dictionaryToRead(campaign)) initWithDictionary(*dict);
  });
}

void KOInAppV2CampaignPropertiesObject::initWithDictionary(const KODictionary& campaign) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in initialize KOInAppV2CampaignPropertiesObject is %@", [&] {
    campaignId_ = stringValue(validObjectForKey(campaign, CAMPAIGN_ID));
    interval_ = integerValue(validObjectForKey(campaign, KO_INTERVAL));
    ttl_ = doubleValue(validObjectForKey(campaign, KO_TTL));
    maxTimes_ = integerValue(validObjectForKey(campaign, KO_MAX_TIMES));
    status_ = stringValue(validObjectForKey(campaign, KO_STATUS));
    persistence_ = boolValue(validObjectForKey(campaign, KO_PERSISTENCE));
    priority_ = integerValue(validObjectForKey(campaign, KO_PRIORITY));
    context_ = validObjectForKey(campaign, KO_CONTEXT);
    lastUpdated_ = validObjectForKey(campaign, KO_LAST_UPDATED);
    inAppType_ = inAppTypeForString(stringValue(validObjectForKey(campaign, "type")));
    showOnlyInScreen_ = stringValue(validObjectForKey(campaign, KO_SHOW_ONLY_IN_SCREEN));
  });
}

int KOInAppV2CampaignPropertiesObject::inAppTypeForString(std::string_view type) {
  if (type == KO_INAPPTYPE_SMART) return KOInAppV2TypeSmart;
  if (type == KO_INAPPTYPE_GENERAL) return KOInAppV2TypeGeneral;
  if (type == KO_INAPPTYPE_ADVANCED) return KOInAppV2TypeAdvanced;
  if (type == KO_INAPPTYPE_EMBEDDED) return KOInAppV2TypeEmbedded;
  if (type == KO_INAPPTYPE_SELF_HANDLED) return KOInAppV2TypeSelfHandled;
  if (type == KO_INAPPTYPE_TEST) return KOInAppV2TypeTest;
  return KOInAppV2TypeGeneral;  // "linked" included: nothing maps to the reserved value
}
