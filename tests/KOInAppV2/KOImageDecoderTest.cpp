// Downloaded images as the in-app view reads them: size, frames and delays, and the files it must
// refuse rather than decode.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "KOInAppV2/InAppHandlers/KOImageDecoder.h"

namespace {
const std::vector<std::uint8_t> kWidePng{
    137, 80, 78, 71,  13, 10,  26,  10,  0,   0,  0, 13, 73, 72, 68, 82, 0,  0,   0,   4,  0,   0,   0,   1,
    8,   2,  0,  0,   0,  118, 94,  152, 154, 0,  0, 0,  13, 73, 68, 65, 84, 120, 156, 99, 248, 207, 192, 0,
    71,  0,  29, 239, 3,  253, 230, 17,  102, 29, 0, 0,  0,  0,  73, 69, 78, 68,  174, 66, 96,  130};
const std::vector<std::uint8_t> kTwoFrameGif{71,  73,  70, 56,  57, 97, 1,  0, 1,  0,   128, 0,  0,  0, 0, 0, 255,
                                             255, 255, 33, 249, 4,  0,  10, 0, 0,  0,   44,  0,  0,  0, 0, 1, 0,
                                             1,   0,   0,  2,   2,  68, 1,  0, 33, 249, 4,   0,  20, 0, 0, 0, 44,
                                             0,   0,   0,  0,   1,  0,  1,  0, 0,  2,   2,   68, 1,  0, 59};
const std::vector<std::uint8_t> kHugePngHeader{137, 80,  78,  71, 13, 10,  26,  10, 0, 0, 0, 13, 73, 72, 68,  82, 0,
                                               1,   134, 160, 0,  1,  134, 160, 8,  2, 0, 0, 0,  39, 48, 156, 159};
KOData data(std::vector<std::uint8_t> bytes) { return KOData{std::move(bytes)}; }
}  // namespace

TEST(KOImageDecoderTest, SizeFramesAndDelaysOfWhatTheLibraryReads) {
  const auto png = KOImageDecoder::decode(data(kWidePng));
  ASSERT_TRUE(png);
  EXPECT_EQ(png->width, 4);
  EXPECT_EQ(png->height, 1);
  EXPECT_EQ(png->frames, 1);
  EXPECT_TRUE(png->delaysMs.empty());

  const auto gif = KOImageDecoder::decode(data(kTwoFrameGif));
  ASSERT_TRUE(gif);
  EXPECT_EQ(gif->width, 1);
  EXPECT_EQ(gif->frames, 2);
  EXPECT_EQ(gif->delaysMs, (std::vector<int>{100, 200}));
}

TEST(KOImageDecoderTest, NoImageTruncatedOrHugeIsRefused) {
  EXPECT_FALSE(KOImageDecoder::decode(data({})));
  EXPECT_FALSE(KOImageDecoder::decode(data({'n', 'o', 't', ' ', 'a', 'n', ' ', 'i', 'm', 'a', 'g', 'e'})));
  EXPECT_FALSE(KOImageDecoder::decode(data(kHugePngHeader)));  // 100,000 squared: refused from the header
  std::vector<std::uint8_t> cut(kTwoFrameGif.begin(), kTwoFrameGif.begin() + 20);
  EXPECT_FALSE(KOImageDecoder::decode(data(cut)));
}
