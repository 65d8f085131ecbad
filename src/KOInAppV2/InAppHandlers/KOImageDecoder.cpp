#include "KOImageDecoder.h"

#include <stb/stb_image.h>

#include <climits>
#include <cstring>

namespace {

bool isGif(const KOData& bytes) { return bytes.bytes.size() >= 6 && std::memcmp(bytes.bytes.data(), "GIF8", 4) == 0; }

}  // namespace

std::optional<KOImageInfo> KOImageDecoder::decode(const KOData& bytes) {
  if (bytes.bytes.empty() || bytes.bytes.size() > static_cast<std::size_t>(INT_MAX)) return std::nullopt;
  const auto* data = reinterpret_cast<const stbi_uc*>(bytes.bytes.data());
  const int length = static_cast<int>(bytes.bytes.size());
  KOImageInfo info;
  int channels = 0;
  // The header alone gives the size; nothing is decoded for a still image.
  if (!stbi_info_from_memory(data, length, &info.width, &info.height, &channels)) return std::nullopt;
  if (info.width <= 0 || info.height <= 0 ||
      static_cast<long long>(info.width) * static_cast<long long>(info.height) > kMaxPixels) {
    return std::nullopt;
  }
  if (!isGif(bytes)) return info;
  // Frames and delays need the whole animation decoded: bounded by the file's size, since the
  // library keeps every frame at full size.
  if (bytes.bytes.size() > kMaxAnimatedBytes) return std::nullopt;
  int* delays = nullptr;
  int width = 0, height = 0, frames = 0, comp = 0;
  stbi_uc* pixels = stbi_load_gif_from_memory(data, length, &delays, &width, &height, &frames, &comp, 4);
  if (!pixels) return std::nullopt;
  info.frames = frames > 0 ? frames : 1;
  if (frames > 1 && delays) info.delaysMs.assign(delays, delays + frames);
  stbi_image_free(pixels);
  stbi_image_free(delays);
  return info;
}
