// Pictures of what the SDK asked the simulated device to show: one renderer for every kind of
// description (inbox screen, in-app messages, nudges), to SVG a person can open in a browser.
// Text is laid out with the device's own metric (KOSimTextLayout), so a picture shows exactly the
// lines and heights the SDK measured.
#pragma once

#include <string>

struct KOViewDescription;

class KOSimRenderer {
 public:
  /// Height of the bar a screen's title is drawn in, above its content.
  static constexpr double kTitleBarHeight = 44;

  /// The description as a standalone SVG document. A screen root gets its title bar on top;
  /// any other root is drawn alone at its frame's size.
  static std::string svg(const KOViewDescription& root);
};
