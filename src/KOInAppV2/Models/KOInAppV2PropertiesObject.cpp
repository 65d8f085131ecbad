#include "KOInAppV2/Models/KOInAppV2PropertiesObject.h"

#include <cmath>
#include <limits>

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOValueHelpers.h"
#include "KOUtilities/KovantisUtils.h"
#include "kovantis/KOConstants.h"

namespace {

/// Narrowed to a float; beyond a float's range it saturates rather than overflow.
float floatValue(const KOValue& value) {
  const double d = KOModelDict::doubleValue(value);
  constexpr double kMax = std::numeric_limits<float>::max();
  if (d > kMax) return std::numeric_limits<float>::max();
  if (d < -kMax) return -std::numeric_limits<float>::max();
  return static_cast<float>(d);
}

/// A colour is written "#RRGGBB"; anything but text is a wrong kind.
KOColor colorValue(const KOValue& value) {
  return KovantisUtils::getColorFromHexValue(KOValue(KOModelDict::stringValue(value)));
}

std::int64_t scaledFontSize(std::int64_t size) {
  const double scaled = static_cast<double>(size) * KovantisUtils::screenHeightForInApp() /
                        KOInAppV2PropertiesObject::kDesignScreenHeight;
  // Truncated toward zero; a size beyond any screen saturates instead of overflowing.
  if (!(std::fabs(scaled) < 9.2e18))
    return scaled < 0 ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
  return static_cast<std::int64_t>(scaled);
}

}  // namespace

void KOInAppV2PropertiesObject::initWithDictionary(const KOValue& properties) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in initialize KOInAppV2PropertiesObject is %@", [&] {
    fontSize_ = scaledFontSize(kDefaultFontSize);
    const KODictionary* dict = dictionaryToRead(properties);
    if (!dict) return;
    text_ = stringValue(validObjectForKey(*dict, "text"));
    cornerRadius_ = floatValue(valueForKeyPath(*dict, "border.radius"));
    borderColor_ = colorValue(valueForKeyPath(*dict, "border.color"));
    borderWeight_ = floatValue(valueForKeyPath(*dict, "border.weight"));
    if (const KOValue& background = valueForKeyPath(*dict, "background.color"); !background.isNil()) {
      backgroundColor_ = colorValue(background);
    }
    const KOValue& color = validObjectForKey(*dict, "color");
    textColor_ = color.isNil() ? KOColor{} : colorValue(color);
    backgroundImageUrl_ = stringValue(valueForKeyPath(*dict, "background.image"));
    const KOValue& size = validObjectForKey(*dict, "size");
    fontSize_ = scaledFontSize(size.isNil() ? kDefaultFontSize : integerValue(size));
    fontName_ = stringValue(validObjectForKey(*dict, "fontName"));
    image_ = stringValue(valueForKeyPath(*dict, "background.image"));
    opacity_ = floatValue(validObjectForKey(*dict, "opacity"));
    if (const KOValue& scaleType = validObjectForKey(*dict, "scaleType"); !scaleType.isNil()) {
      contentMode_ = getContentModeForScaleType(stringValue(scaleType));
    }
    gravity_ = gravityForStr(stringValue(validObjectForKey(*dict, "gravity")));
    halfFilledRatingImageURL_ = stringValue(validObjectForKey(*dict, "halfFilledRatingImage"));
    fillRatingImageURL_ = stringValue(validObjectForKey(*dict, "fillRatingImage"));
    emptyRatingImageURL_ = stringValue(validObjectForKey(*dict, "emptyRatingImage"));
    halfStarRatingEnabled_ = boolValue(validObjectForKey(*dict, "halfStarRating"));
    const KOValue& maxRating = validObjectForKey(*dict, "maxRating");
    maxRating_ = maxRating.isNil() ? 5.0F : floatValue(maxRating);
    minRating_ = floatValue(validObjectForKey(*dict, "minRating"));
    defaultRating_ = floatValue(validObjectForKey(*dict, "defaultRating"));
  });
}

int KOInAppV2PropertiesObject::getContentModeForScaleType(std::string_view scaleType) {
  if (scaleType == "ScaleToFill") return KOInAppV2ContentModeScaleToFill;
  if (scaleType == "AspectFit") return KOInAppV2ContentModeAspectFit;
  // "AspectFill" and every unknown value alike: aspect fill is what the campaigns are designed for.
  return KOInAppV2ContentModeAspectFill;
}

int KOInAppV2PropertiesObject::gravityForStr(std::string_view gravity) {
  if (gravity == KO_TOP) return KOInAppV2GravityTop;
  if (gravity == KO_BOTTOM) return KOInAppV2GravityBottom;
  if (gravity == KO_LEFT) return KOInAppV2GravityLeft;
  if (gravity == KO_RIGHT) return KOInAppV2GravityRight;
  return KOInAppV2GravityCenter;  // "", "center" and anything unknown
}
