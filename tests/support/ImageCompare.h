#pragma once
// Comparing rendered images with reference images: PNG reading, flattening
// onto a background, and the structural similarity index (SSIM).

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace plexa::test {

// Straight (not premultiplied) RGBA, 8 bits a channel, rows top to bottom.
struct RGBAImage {
  int width = 0, height = 0;
  std::vector<uint8_t> pixels;  // width * height * 4
};

std::optional<RGBAImage> readPNG(const std::string& path);

// One colour channel (0 red, 1 green, 2 blue) of the image composited over
// an opaque grey level.
std::vector<double> flattenedChannel(const RGBAImage& image, int channel, double background);

// Mean SSIM of two equally sized luma planes over 8×8 windows (every window
// position), with the usual constants for 8-bit data. 1 means identical.
double ssim(const std::vector<double>& a, const std::vector<double>& b, int width, int height);

struct Similarity {
  double overWhite = 0, overBlack = 0;
  double score() const { return overWhite < overBlack ? overWhite : overBlack; }
};

// Both images flattened over white and over black, SSIM averaged over the
// red, green and blue channels (so a hue error counts, not only lightness).
// As in the reference implementation of SSIM, large images are first
// averaged down by max(1, round(shorter side / 256)) in each direction, so
// the score judges what a viewer sees rather than single pixels. Sizes may differ by the
// one pixel that rounding a frame gives; the shared top-left part is
// compared. Larger differences score 0.
Similarity compareImages(const RGBAImage& rendered, const RGBAImage& reference);

}  // namespace plexa::test
