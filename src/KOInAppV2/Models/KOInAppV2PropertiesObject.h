// A widget's style and rating settings (its "properties" block): text, border, colours, font,
// images, opacity, scaling, gravity and the star-rating images and limits.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "KOInAppV2/Models/KOModelDict.h"
#include "kovantis/KOPlatform.h"

/// The platform's image content modes a "scaleType" maps to.
enum KOInAppV2ContentMode : int {
  KOInAppV2ContentModeScaleToFill = 0,
  KOInAppV2ContentModeAspectFit = 1,
  KOInAppV2ContentModeAspectFill = 2,
};

/// A "gravity".
enum KOInAppV2Gravity : int {
  KOInAppV2GravityCenter = 0,
  KOInAppV2GravityTop = 1,
  KOInAppV2GravityBottom = 2,
  KOInAppV2GravityLeft = 3,
  KOInAppV2GravityRight = 4,
};

class KOInAppV2PropertiesObject : public KOModelDict {
 public:
  /// Sizes are authored for a screen this many points high and scale with the device's.
  static constexpr double kDesignScreenHeight = 560.0;
  static constexpr std::int64_t kDefaultFontSize = 15;

  KOInAppV2PropertiesObject() = default;
  explicit KOInAppV2PropertiesObject(const KOValue& properties) { initWithDictionary(properties); }

  void initWithDictionary(const KOValue& properties) override;

  /// "ScaleToFill" 0, "AspectFit" 1, anything else aspect fill (2).
  static int getContentModeForScaleType(std::string_view scaleType);
  /// "" and "center" 0, "top" 1, "bottom" 2, "left" 3, "right" 4, anything else 0.
  static int gravityForStr(std::string_view gravity);

  const std::string& text() const { return text_; }
  void setText(std::string value) { text_ = std::move(value); }
  float cornerRadius() const { return cornerRadius_; }
  void setCornerRadius(float value) { cornerRadius_ = value; }
  const KOColor& borderColor() const { return borderColor_; }
  void setBorderColor(KOColor value) { borderColor_ = value; }
  float borderWeight() const { return borderWeight_; }
  void setBorderWeight(float value) { borderWeight_ = value; }
  /// None means clear.
  const std::optional<KOColor>& backgroundColor() const { return backgroundColor_; }
  void setBackgroundColor(std::optional<KOColor> value) { backgroundColor_ = value; }
  const KOColor& textColor() const { return textColor_; }
  void setTextColor(KOColor value) { textColor_ = value; }
  const std::string& backgroundImageUrl() const { return backgroundImageUrl_; }
  void setBackgroundImageUrl(std::string value) { backgroundImageUrl_ = std::move(value); }
  /// Already scaled to the device's in-app screen height.
  std::int64_t fontSize() const { return fontSize_; }
  void setFontSize(std::int64_t value) { fontSize_ = value; }
  const std::string& fontName() const { return fontName_; }
  void setFontName(std::string value) { fontName_ = std::move(value); }
  const std::string& image() const { return image_; }
  void setImage(std::string value) { image_ = std::move(value); }
  /// 0 means not set.
  float opacity() const { return opacity_; }
  void setOpacity(float value) { opacity_ = value; }
  int contentMode() const { return contentMode_; }
  void setContentMode(int value) { contentMode_ = value; }
  int gravity() const { return gravity_; }
  void setGravity(int value) { gravity_ = value; }
  const std::string& halfFilledRatingImageURL() const { return halfFilledRatingImageURL_; }
  void setHalfFilledRatingImageURL(std::string value) { halfFilledRatingImageURL_ = std::move(value); }
  const std::string& fillRatingImageURL() const { return fillRatingImageURL_; }
  void setFillRatingImageURL(std::string value) { fillRatingImageURL_ = std::move(value); }
  const std::string& emptyRatingImageURL() const { return emptyRatingImageURL_; }
  void setEmptyRatingImageURL(std::string value) { emptyRatingImageURL_ = std::move(value); }
  bool halfStarRatingEnabled() const { return halfStarRatingEnabled_; }
  void setHalfStarRatingEnabled(bool value) { halfStarRatingEnabled_ = value; }
  float maxRating() const { return maxRating_; }
  void setMaxRating(float value) { maxRating_ = value; }
  float minRating() const { return minRating_; }
  void setMinRating(float value) { minRating_ = value; }
  float defaultRating() const { return defaultRating_; }
  void setDefaultRating(float value) { defaultRating_ = value; }

 private:
  std::string text_;
  float cornerRadius_ = 0;
  KOColor borderColor_;
  float borderWeight_ = 0;
  std::optional<KOColor> backgroundColor_;
  KOColor textColor_;
  std::string backgroundImageUrl_;
  std::int64_t fontSize_ = kDefaultFontSize;
  std::string fontName_;
  std::string image_;
  float opacity_ = 0;
  int contentMode_ = KOInAppV2ContentModeScaleToFill;
  int gravity_ = KOInAppV2GravityCenter;
  std::string halfFilledRatingImageURL_;
  std::string fillRatingImageURL_;
  std::string emptyRatingImageURL_;
  bool halfStarRatingEnabled_ = false;
  float maxRating_ = 5.0F;
  float minRating_ = 0;
  float defaultRating_ = 0;
};
