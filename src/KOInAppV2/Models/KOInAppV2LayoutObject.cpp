#include "KOInAppV2/Models/KOInAppV2LayoutObject.h"

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOValueHelpers.h"
#include "kovantis/KOConstants.h"

void KOInAppV2LayoutObject::initWithDictionary(const KOValue& layout) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in initialize KOInAppV2LayoutObject is %@", [&] {
    const KODictionary* dict = dictionaryToRead(layout);
    if (!dict) return;
    height_ = doubleValue(validObjectForKey(*dict, KO_HEIGHT));
    width_ = doubleValue(validObjectForKey(*dict, KO_WIDTH));
    maxHeight_ = doubleValue(validObjectForKey(*dict, KO_MAX_HEIGHT));
    maxWidth_ = doubleValue(validObjectForKey(*dict, KO_MAX_WIDTH));
    marginLeft_ = doubleValue(valueForKeyPath(*dict, KO_MARGIN_LEFT));
    marginRight_ = doubleValue(valueForKeyPath(*dict, KO_MARGIN_RIGHT));
    marginTop_ = doubleValue(valueForKeyPath(*dict, KO_MARGIN_TOP));
    marginBottom_ = doubleValue(valueForKeyPath(*dict, KO_MARGIN_BOTTOM));
    paddingLeft_ = doubleValue(valueForKeyPath(*dict, KO_PADDING_LEFT));
    paddingRight_ = doubleValue(valueForKeyPath(*dict, KO_PADDING_RIGHT));
    paddingTop_ = doubleValue(valueForKeyPath(*dict, KO_PADDING_TOP));
    paddingBottom_ = doubleValue(valueForKeyPath(*dict, KO_PADDING_BOTTOM));
    const std::string& alignment = stringValue(validObjectForKey(*dict, KO_ALIGNMENT));
    if (alignment == KO_RIGHT) {
      alignment_ = KOInAppV2LayoutAlignmentRight;
    } else if (alignment == KO_LEFT) {
      alignment_ = KOInAppV2LayoutAlignmentLeft;
    }
  });
}
