// A campaign as a view description (kovantis/KOViewDescription.h), laid out by these rules:
// - The root fills the screen. Centred and full campaigns dim what is behind them (black at 40%);
//   top and bottom ones do not.
// - The card is the screen's width less 16 each side (a full campaign: the whole screen), white,
//   corner radius 12, placed in the middle, 20 from the top or 20 from the bottom by "align".
// - Inside the card, widgets stack top to bottom, 16 from the edges and 12 apart, in list order; a
//   nested list is one row, its widgets side by side with equal widths. Heights: text as measured
//   by the platform at its width (17 points, unlimited lines), buttons 44, images at the width with
//   their decoded aspect ratio (half the width when unknown), ratings 32. A close button sits 30 by 30 in the card's
//   top-right corner, outside the stack.
// - Every widget's tag is its widget id, so a tap names the widget it hit.
// - The card carries the campaign's entry and exit animations; an animated image its frame delays.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "KOInAppV2/InAppHandlers/KOImageDecoder.h"
#include "KOInAppV2/Models/KOInAppV2Object.h"
#include "kovantis/KOViewDescription.h"

class KOInAppV2ViewBuilder {
 public:
  static constexpr double kCardInset = 16;
  static constexpr double kSpacing = 12;
  static constexpr double kButtonHeight = 44;
  static constexpr double kRatingHeight = 32;
  static constexpr double kCloseSize = 30;
  static constexpr double kTextSize = 17;

  /// The file an image widget's picture is stored in once downloaded.
  static std::string imagePathForWidget(const KOInAppV2Object& inApp, std::int64_t widgetId);
  /// `images`: what each image widget's downloaded picture decoded to, by widget id.
  static KOViewDescription describe(const KOInAppV2Object& inApp, const KOSize& screen,
                                    const std::map<std::int64_t, KOImageInfo>& images = {});
  /// The animation's name in a description ("" for none).
  static std::string animationName(int animation);
};
