// The similarity measure the renderer is judged by must itself be right.
#include "ImageCompare.h"

#include <gtest/gtest.h>

using namespace plexa::test;

namespace {

// A diagonal ramp with a sharp square in it: structure at every scale.
RGBAImage pattern(int width, int height, int shift = 0, uint8_t alpha = 255) {
  RGBAImage image{width, height, std::vector<uint8_t>(size_t(width) * height * 4)};
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      int sx = x - shift;
      bool square = sx > width / 4 && sx < width / 2 && y > height / 4 && y < height / 2;
      uint8_t* p = &image.pixels[(size_t(y) * width + x) * 4];
      p[0] = square ? 250 : uint8_t((sx + y) * 255 / (width + height));
      p[1] = square ? 20 : uint8_t(y * 255 / height);
      p[2] = 128, p[3] = alpha;
    }
  return image;
}

}  // namespace

TEST(ImageCompare, IdenticalImagesScoreOneAndDifferencesScoreLess) {
  for (int size : {16, 300, 700}) {  // 700: compared after averaging down
    SCOPED_TRACE(size);
    auto base = pattern(size, size);
    EXPECT_NEAR(compareImages(base, base).score(), 1.0, 1e-9);
    double near = compareImages(pattern(size, size, size / 40 + 1), base).score();
    double far = compareImages(pattern(size, size, size / 10 + 1), base).score();
    EXPECT_LT(near, 0.999);
    EXPECT_LT(far, near);
    EXPECT_GT(far, 0.2);
  }
}

TEST(ImageCompare, TransparencyCountsOverWhiteAndOverBlack) {
  auto opaque = pattern(64, 64), faint = pattern(64, 64, 0, 40);
  Similarity similarity = compareImages(faint, opaque);
  EXPECT_LT(similarity.overWhite, 0.9);
  EXPECT_LT(similarity.overBlack, 0.9);
  EXPECT_EQ(similarity.score(), std::min(similarity.overWhite, similarity.overBlack));
}

TEST(ImageCompare, SizesMayDifferByOnePixelOnly) {
  auto base = pattern(40, 30);
  EXPECT_GT(compareImages(pattern(41, 30), base).score(), 0.9);
  EXPECT_EQ(compareImages(pattern(42, 30), base).score(), 0.0);
  EXPECT_EQ(compareImages(pattern(40, 28), base).score(), 0.0);
}
