#include "KOInAppV2/Models/KOInAppV2Object.h"

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOValueHelpers.h"
#include "kovantis/KOConstants.h"

void KOInAppV2Object::initWithDictionary(const KOValue& campaign) {
  initWithDictionary(campaign, KOInAppV2CampaignPropertiesObject(campaign));
}

void KOInAppV2Object::initWithDictionary(const KOValue& campaign,
                                         KOInAppV2CampaignPropertiesObject andPropertiesObject) {
  campaignPropertiesObject_ = std::move(andPropertiesObject);
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in initialize KOInAppV2Object is %@", [&] {
    const KODictionary* dict = dictionaryToRead(campaign);
    if (!dict) return;
    widgetsArray_ = getWidgetsFromWidgetsDictArray(validObjectForKey(*dict, KO_WIDGETS));
    cancellable_ = boolValue(validObjectForKey(*dict, KO_CANCELLABLE));
    alignmentType_ = alignmentForString(stringValue(validObjectForKey(*dict, "align")));
    if (const KODictionary* tint = dictionaryValue(validObjectForKey(*dict, KO_PROPERTIES)))
      tintPropertiesDict_ = *tint;
    entryAnimation_ = getAnimationType(stringValue(valueForKeyPath(*dict, KO_ANIMATE_ENTRY)));
    exitAnimation_ = getAnimationType(stringValue(valueForKeyPath(*dict, KO_ANIMATE_EXIT)));
    selfHandledcontent_ = stringValue(validObjectForKey(*dict, KO_CONTENT));
    autoDismissInterval_ = integerValue(validObjectForKey(*dict, KO_AUTO_DISMISS));
  });
}

int KOInAppV2Object::alignmentForString(std::string_view align) {
  if (align == KO_CENTER) return KOInAppV2AlignmentCenter;
  if (align == KO_TOP) return KOInAppV2AlignmentTop;
  if (align == KO_BOTTOM) return KOInAppV2AlignmentBottom;
  if (align == KO_ALIGNMENT_EMBED) return KOInAppV2AlignmentEmbedded;
  if (align == KO_ALIGNMENT_FULL) return KOInAppV2AlignmentFull;
  if (align == KO_ALIGNMENT_SELF_HANDLED) return KOInAppV2AlignmentSelfHandled;
  return KOInAppV2AlignmentCenter;
}

int KOInAppV2Object::getAnimationType(std::string_view animation) {
  if (animation == KO_ANIMATION_SLIDE_UP) return KOInAppV2AnimationSlideUp;
  if (animation == KO_ANIMATION_SLIDE_DOWN) return KOInAppV2AnimationSlideDown;
  if (animation == KO_ANIMATION_SLIDE_LEFT) return KOInAppV2AnimationSlideLeft;
  if (animation == KO_ANIMATION_SLIDE_RIGHT) return KOInAppV2AnimationSlideRight;
  if (animation == KO_ANIMATION_FADE_IN) return KOInAppV2AnimationFadeIn;
  if (animation == KO_ANIMATION_FADE_OUT) return KOInAppV2AnimationFadeOut;
  return KOInAppV2AnimationNone;
}

std::optional<KOInAppV2Object::WidgetArray> KOInAppV2Object::getWidgetsFromWidgetsDictArray(const KOValue& list) {
  const KOArray* elements = arrayValue(list);
  if (!elements) return std::nullopt;
  WidgetArray out;
  out.reserve(elements->size());
  // At this level every element is one widget; a nested list is a widget of the wrong kind.
  for (const KOValue& element : *elements) out.push_back(std::make_shared<const KOInAppV2WidgetObject>(element));
  return out;
}
