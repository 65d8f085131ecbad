// What the view layer needs of a downloaded image: its pixel size and, for an animated GIF, its
// frames and their delays. Decoded by the stb image library; never by hand.
#pragma once

#include <optional>
#include <vector>

#include "kovantis/KOValue.h"

struct KOImageInfo {
  int width = 0;
  int height = 0;
  /// 1 for a still image.
  int frames = 1;
  /// Per frame, in milliseconds; empty for a still image.
  std::vector<int> delaysMs;
};

class KOImageDecoder {
 public:
  /// Larger images are refused rather than decoded: no in-app needs them, and a hostile file
  /// could otherwise ask for gigabytes.
  static constexpr long long kMaxPixels = 4096LL * 4096LL;
  static constexpr std::size_t kMaxAnimatedBytes = 8u << 20;
  /// Nothing for bytes that are no image the library reads, or one beyond the limits.
  static std::optional<KOImageInfo> decode(const KOData& bytes);
};
