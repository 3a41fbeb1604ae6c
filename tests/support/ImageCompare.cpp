#include "ImageCompare.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace plexa::test {

std::optional<RGBAImage> readPNG(const std::string& path) {
  cairo_surface_t* surface = cairo_image_surface_create_from_png(path.c_str());
  if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) {
    cairo_surface_destroy(surface);
    return std::nullopt;
  }
  cairo_surface_flush(surface);
  RGBAImage image;
  image.width = cairo_image_surface_get_width(surface);
  image.height = cairo_image_surface_get_height(surface);
  image.pixels.resize(size_t(image.width) * image.height * 4);
  const unsigned char* data = cairo_image_surface_get_data(surface);
  int stride = cairo_image_surface_get_stride(surface);
  bool hasAlpha = cairo_image_surface_get_format(surface) == CAIRO_FORMAT_ARGB32;
  for (int y = 0; y < image.height; ++y) {
    const auto* row = reinterpret_cast<const uint32_t*>(data + size_t(y) * stride);
    for (int x = 0; x < image.width; ++x) {
      uint32_t argb = row[x];
      unsigned a = hasAlpha ? argb >> 24 : 255;
      auto channel = [&](int shift) -> uint8_t {
        unsigned premultiplied = (argb >> shift) & 0xFF;
        return a == 0 ? 0 : uint8_t(std::min(255u, (premultiplied * 255 + a / 2) / a));
      };
      uint8_t* out = &image.pixels[(size_t(y) * image.width + x) * 4];
      out[0] = channel(16), out[1] = channel(8), out[2] = channel(0), out[3] = uint8_t(a);
    }
  }
  cairo_surface_destroy(surface);
  return image;
}

std::vector<double> flattenedChannel(const RGBAImage& image, int channel, double background) {
  std::vector<double> plane(size_t(image.width) * image.height);
  for (size_t i = 0; i < plane.size(); ++i) {
    const uint8_t* p = &image.pixels[i * 4];
    double alpha = p[3] / 255.0;
    plane[i] = p[channel] * alpha + background * (1 - alpha);
  }
  return plane;
}

namespace {

// Summed-area table with a zero row and column in front.
std::vector<double> integral(const std::vector<double>& plane, int width, int height) {
  std::vector<double> sums(size_t(width + 1) * (height + 1), 0.0);
  for (int y = 0; y < height; ++y) {
    double row = 0;
    for (int x = 0; x < width; ++x) {
      row += plane[size_t(y) * width + x];
      sums[size_t(y + 1) * (width + 1) + x + 1] = sums[size_t(y) * (width + 1) + x + 1] + row;
    }
  }
  return sums;
}

double boxSum(const std::vector<double>& sums, int width, int x, int y, int size) {
  auto at = [&](int px, int py) { return sums[size_t(py) * (width + 1) + px]; };
  return at(x + size, y + size) - at(x, y + size) - at(x + size, y) + at(x, y);
}

std::vector<double> product(const std::vector<double>& a, const std::vector<double>& b) {
  std::vector<double> out(a.size());
  for (size_t i = 0; i < a.size(); ++i) out[i] = a[i] * b[i];
  return out;
}

}  // namespace

double ssim(const std::vector<double>& a, const std::vector<double>& b, int width, int height) {
  const int window = std::min({8, width, height});
  if (window <= 0) return a == b ? 1.0 : 0.0;
  const double c1 = (0.01 * 255) * (0.01 * 255), c2 = (0.03 * 255) * (0.03 * 255);
  auto sumA = integral(a, width, height), sumB = integral(b, width, height);
  auto sumAA = integral(product(a, a), width, height), sumBB = integral(product(b, b), width, height);
  auto sumAB = integral(product(a, b), width, height);
  const double n = double(window) * window;
  double total = 0;
  size_t windows = 0;
  for (int y = 0; y + window <= height; ++y) {
    for (int x = 0; x + window <= width; ++x) {
      double meanA = boxSum(sumA, width, x, y, window) / n, meanB = boxSum(sumB, width, x, y, window) / n;
      double varA = boxSum(sumAA, width, x, y, window) / n - meanA * meanA;
      double varB = boxSum(sumBB, width, x, y, window) / n - meanB * meanB;
      double covariance = boxSum(sumAB, width, x, y, window) / n - meanA * meanB;
      total += ((2 * meanA * meanB + c1) * (2 * covariance + c2)) /
               ((meanA * meanA + meanB * meanB + c1) * (varA + varB + c2));
      ++windows;
    }
  }
  return total / double(windows);
}

namespace {

RGBAImage cropped(const RGBAImage& image, int width, int height) {
  RGBAImage out{width, height, std::vector<uint8_t>(size_t(width) * height * 4)};
  for (int y = 0; y < height; ++y)
    std::copy_n(&image.pixels[size_t(y) * image.width * 4], size_t(width) * 4, &out.pixels[size_t(y) * width * 4]);
  return out;
}

// Each factor × factor block averaged into one value.
std::vector<double> downsampled(const std::vector<double>& plane, int width, int height, int factor) {
  int w = width / factor, h = height / factor;
  std::vector<double> out(size_t(w) * h, 0.0);
  for (int y = 0; y < h * factor; ++y)
    for (int x = 0; x < w * factor; ++x) out[size_t(y / factor) * w + x / factor] += plane[size_t(y) * width + x];
  for (auto& value : out) value /= double(factor) * factor;
  return out;
}

}  // namespace

Similarity compareImages(const RGBAImage& rendered, const RGBAImage& reference) {
  if (std::abs(rendered.width - reference.width) > 1 || std::abs(rendered.height - reference.height) > 1) return {};
  int width = std::min(rendered.width, reference.width), height = std::min(rendered.height, reference.height);
  RGBAImage a = cropped(rendered, width, height), b = cropped(reference, width, height);
  const int factor = std::max(1, int(std::lround(std::min(width, height) / 256.0)));
  auto plane = [&](const RGBAImage& image, int channel, double background) {
    auto flat = flattenedChannel(image, channel, background);
    return factor == 1 ? flat : downsampled(flat, width, height, factor);
  };
  auto over = [&](double background) {
    double sum = 0;
    for (int channel = 0; channel < 3; ++channel)
      sum += ssim(plane(a, channel, background), plane(b, channel, background), width / factor, height / factor);
    return sum / 3;
  };
  return {over(255), over(0)};
}

}  // namespace plexa::test
