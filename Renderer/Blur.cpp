// Blur kernels on image surfaces. The Gaussian is separable: three running-sum
// box passes per axis (cost independent of the radius), or, for small sigmas
// where boxes are too coarse, a direct integer kernel. Sums are integers with
// fixed-point reciprocals so blurring keeps the total alpha within rounding.

#include "Effects.h"

#include "DeviceArea.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace plexa::render {

namespace {

// Below this sigma (device pixels) whole-pixel boxes cannot match the
// Gaussian's width closely (up to 6% too wide), and a direct kernel of at
// most 19 taps is cheap.
constexpr double kSmallSigma = 3.0;
constexpr int kFixedShift = 24;
constexpr int kKernelShift = 16;

double clampedRadius(double radiusPx) {
  if (!(radiusPx > 0)) return 0;  // NaN and negatives
  return std::min(radiusPx, kMaxBlurRadiusPx);
}

// One box of a 1-D pass: output i averages input [i - left, i + right].
struct Box {
  int left = 0, right = 0;
  int size() const { return left + right + 1; }
};

// Three boxes whose convolution approximates a Gaussian of this sigma: for an
// even box size the first two are offset half a pixel either way and the third
// is one wider, so the result stays centred.
std::array<Box, 3> gaussianBoxes(double sigma) {
  int d = static_cast<int>(std::floor(sigma * 3 * std::sqrt(2 * M_PI) / 4 + 0.5));
  d = std::max(d, 1);
  if (d % 2 == 1) {
    Box box{(d - 1) / 2, (d - 1) / 2};
    return {box, box, box};
  }
  return {Box{d / 2, d / 2 - 1}, Box{d / 2 - 1, d / 2}, Box{d / 2, d / 2}};
}

// Integer Gaussian weights over [-reach, reach], summing exactly to 1 << kKernelShift.
std::vector<uint32_t> smallKernel(double sigma) {
  int reach = static_cast<int>(std::ceil(3 * sigma));
  std::vector<double> weights(2 * reach + 1);
  double total = 0;
  for (int i = -reach; i <= reach; ++i) total += weights[i + reach] = std::exp(-(i * i) / (2 * sigma * sigma));
  std::vector<uint32_t> kernel(weights.size());
  uint32_t assigned = 0;
  for (size_t i = 0; i < weights.size(); ++i) {
    if (static_cast<int>(i) == reach) continue;
    kernel[i] = static_cast<uint32_t>(std::lround(weights[i] / total * (1 << kKernelShift)));
    assigned += kernel[i];
  }
  kernel[reach] = (1u << kKernelShift) - assigned;
  return kernel;
}

// The pixel plane of an image surface viewed as rows of bytes.
struct Plane {
  uint8_t* data = nullptr;
  int width = 0, height = 0, stride = 0, channels = 0;
  int rowBytes() const { return width * channels; }
  uint8_t* row(int y) const { return data + static_cast<size_t>(y) * stride; }
};

bool planeOf(cairo_surface_t* image, Plane& plane) {
  if (!image || cairo_surface_get_type(image) != CAIRO_SURFACE_TYPE_IMAGE) return false;
  cairo_format_t format = cairo_image_surface_get_format(image);
  if (format != CAIRO_FORMAT_ARGB32 && format != CAIRO_FORMAT_A8) return false;
  cairo_surface_flush(image);
  plane = {cairo_image_surface_get_data(image), cairo_image_surface_get_width(image),
           cairo_image_surface_get_height(image), cairo_image_surface_get_stride(image),
           format == CAIRO_FORMAT_A8 ? 1 : 4};
  return plane.data && plane.width > 0 && plane.height > 0;
}

// With boxes narrower than 65,000 pixels, sum * factor + half stays below
// 2^32 (sum <= 255 * size), so 32-bit arithmetic suffices and vectorises.
uint32_t reciprocal(const Box& box) { return ((1u << kFixedShift) + box.size() / 2) / box.size(); }

inline uint8_t scaled(uint32_t sum, uint32_t factor) {
  return static_cast<uint8_t>((sum * factor + (1u << (kFixedShift - 1))) >> kFixedShift);
}

// Box pass along one row of `n` pixels of C interleaved channels. `src` has
// at least box.left + 1 zero pixels before it and box.right after it, so the
// loop needs no bounds checks.
template <int C>
void boxRow(const uint8_t* __restrict src, uint8_t* __restrict dst, int n, const Box& box) {
  uint32_t factor = reciprocal(box);
  uint32_t sum[C] = {};
  for (int j = -box.left; j < box.right; ++j)
    for (int c = 0; c < C; ++c) sum[c] += src[j * C + c];
  for (int i = 0; i < n; ++i) {
    for (int c = 0; c < C; ++c) {
      sum[c] += src[(i + box.right) * C + c];
      dst[i * C + c] = scaled(sum[c], factor);
      sum[c] -= src[(i - box.left) * C + c];
    }
  }
}

// A row buffer with zero margins either side, for boxRow.
struct PaddedRow {
  std::vector<uint8_t> bytes;
  int margin = 0;  // pixels
  int channels = 0;
  PaddedRow(int width, int marginPixels, int channelCount)
      : bytes(static_cast<size_t>(width + 2 * marginPixels) * channelCount), margin(marginPixels), channels(channelCount) {}
  uint8_t* data() { return bytes.data() + static_cast<size_t>(margin) * channels; }
};

// One step of the column pass, fused so the compiler can vectorise it:
// add the incoming row, write the average, drop the outgoing row.
void slideColumns(uint32_t* __restrict sums, const uint8_t* __restrict added, const uint8_t* __restrict removed,
                  uint8_t* __restrict target, int bytes, uint32_t factor) {
  for (int x = 0; x < bytes; ++x) {
    uint32_t sum = sums[x] + added[x];
    target[x] = scaled(sum, factor);
    sums[x] = sum - removed[x];
  }
}

// Box pass down all columns at once: a running sum per byte of the row, so
// memory is read row by row. Rows outside the plane read as zeros.
void boxColumns(const Plane& src, const Plane& dst, const Box& box, std::vector<uint32_t>& sums,
                const std::vector<uint8_t>& zeros) {
  int bytes = src.rowBytes(), h = src.height;
  uint32_t factor = reciprocal(box);
  sums.assign(bytes, 0);
  for (int j = 0; j < std::min(box.right, h); ++j) {
    const uint8_t* row = src.row(j);
    for (int x = 0; x < bytes; ++x) sums[x] += row[x];
  }
  for (int y = 0; y < h; ++y) {
    int in = y + box.right, out = y - box.left;
    slideColumns(sums.data(), in < h ? src.row(in) : zeros.data(), out >= 0 ? src.row(out) : zeros.data(), dst.row(y),
                 bytes, factor);
  }
}

// Direct kernel along one row; `src` has kernel.size() / 2 zero pixels either
// side. Where the kernel covers only equal pixels the result is that pixel
// (the weights sum to one exactly), so flat runs — the inside and outside of
// a shadow's shape — are copied instead of summed.
template <int C>
void kernelRow(const uint8_t* __restrict src, uint8_t* __restrict dst, int n, const std::vector<uint32_t>& kernel) {
  int reach = static_cast<int>(kernel.size() / 2);
  auto changesAt = [&](int j) { return std::memcmp(src + j * C, src + (j - 1) * C, C) != 0; };
  int lastChange = -2 * reach - 1;  // the last pixel j <= i + reach that differs from pixel j - 1
  for (int j = 1 - reach; j < reach; ++j)
    if (changesAt(j)) lastChange = j;
  for (int i = 0; i < n; ++i) {
    if (changesAt(i + reach)) lastChange = i + reach;
    if (lastChange <= i - reach) {
      for (int c = 0; c < C; ++c) dst[i * C + c] = src[i * C + c];
      continue;
    }
    uint32_t sum[C];
    for (int c = 0; c < C; ++c) sum[c] = 1u << (kKernelShift - 1);
    for (int k = -reach; k <= reach; ++k)
      for (int c = 0; c < C; ++c) sum[c] += kernel[k + reach] * src[(i + k) * C + c];
    for (int c = 0; c < C; ++c) dst[i * C + c] = static_cast<uint8_t>(sum[c] >> kKernelShift);
  }
}

// The column pass of the direct kernel, with the same shortcut as kernelRow:
// `lastChange[x]` is the last row, up to y + reach, where byte x differs from
// the row above (rows outside the plane are zero); bytes whose window holds
// no change keep their value, the others are summed in spans.
struct ColumnKernel {
  const Plane& src;
  const Plane& dst;
  const std::vector<uint32_t>& kernel;
  const std::vector<uint8_t>& zeros;
  std::vector<uint32_t>& sums;
  std::vector<int>& lastChange;
  int reach = static_cast<int>(kernel.size() / 2);

  const uint8_t* rowAt(int r) const { return r >= 0 && r < src.height ? src.row(r) : zeros.data(); }

  void noteChanges(int r) {
    const uint8_t* __restrict row = rowAt(r);
    const uint8_t* __restrict above = rowAt(r - 1);
    int* __restrict last = lastChange.data();
    for (int x = 0; x < src.rowBytes(); ++x) last[x] = row[x] != above[x] ? r : last[x];
  }

  void sumSpan(int y, int from, int to) {
    uint32_t* __restrict total = sums.data();
    for (int x = from; x < to; ++x) total[x] = 1u << (kKernelShift - 1);
    for (int k = std::max(-reach, -y); k <= std::min(reach, src.height - 1 - y); ++k) {
      const uint8_t* __restrict row = src.row(y + k);
      uint32_t weight = kernel[k + reach];
      for (int x = from; x < to; ++x) total[x] += weight * row[x];
    }
    uint8_t* __restrict target = dst.row(y);
    for (int x = from; x < to; ++x) target[x] = static_cast<uint8_t>(total[x] >> kKernelShift);
  }

  void run() {
    const int bytes = src.rowBytes();
    sums.resize(bytes);
    lastChange.assign(bytes, -2 * reach - 1);
    for (int r = 1 - reach; r < reach; ++r) noteChanges(r);
    for (int y = 0; y < src.height; ++y) {
      noteChanges(y + reach);
      for (int x = 0; x < bytes;) {
        const int start = x;
        const bool flat = lastChange[x] <= y - reach;
        while (x < bytes && (lastChange[x] <= y - reach) == flat) ++x;
        if (flat) std::memcpy(dst.row(y) + start, src.row(y) + start, x - start);
        else sumSpan(y, start, x);
      }
    }
  }
};

// Runs `columns` (image → scratch) then `rows` (scratch row → image row).
template <int C, typename ColumnPass, typename RowPass>
void separable(const Plane& image, ColumnPass columns, RowPass rows) {
  // Every byte is written by `columns` before it is read: no need to clear.
  std::unique_ptr<uint8_t[]> scratchData(new uint8_t[static_cast<size_t>(image.rowBytes()) * image.height]);
  Plane scratch{scratchData.get(), image.width, image.height, image.rowBytes(), C};
  columns(image, scratch);
  for (int y = 0; y < image.height; ++y) rows(scratch.row(y), image.row(y));
}

template <int C>
void gaussianPlane(const Plane& image, double sigma) {
  std::vector<uint32_t> sums;
  if (sigma < kSmallSigma) {
    auto kernel = smallKernel(sigma);
    PaddedRow padded(image.width, static_cast<int>(kernel.size() / 2), C);
    std::vector<uint8_t> zeros(image.rowBytes());
    std::vector<int> lastChange;
    separable<C>(
        image, [&](const Plane& src, const Plane& dst) { ColumnKernel{src, dst, kernel, zeros, sums, lastChange}.run(); },
        [&](const uint8_t* src, uint8_t* dst) {
          std::memcpy(padded.data(), src, image.rowBytes());
          kernelRow<C>(padded.data(), dst, image.width, kernel);
        });
    return;
  }
  auto boxes = gaussianBoxes(sigma);
  int margin = boxes[0].size() + 1;
  PaddedRow rowA(image.width, margin, C), rowB(image.width, margin, C);
  std::vector<uint8_t> zeros(image.rowBytes());
  separable<C>(
      image,
      [&](const Plane& src, const Plane& scratch) {
        // image → scratch → image → scratch
        boxColumns(src, scratch, boxes[0], sums, zeros);
        boxColumns(scratch, src, boxes[1], sums, zeros);
        boxColumns(src, scratch, boxes[2], sums, zeros);
      },
      [&](const uint8_t* src, uint8_t* dst) {
        std::memcpy(rowA.data(), src, image.rowBytes());
        boxRow<C>(rowA.data(), rowB.data(), image.width, boxes[0]);
        boxRow<C>(rowB.data(), rowA.data(), image.width, boxes[1]);
        boxRow<C>(rowA.data(), dst, image.width, boxes[2]);
      });
}

// Bilinear read of a premultiplied pixel; outside the plane is transparent.
void sampleInto(const Plane& plane, double x, double y, double weight, double* acc) {
  x -= 0.5, y -= 0.5;
  int ix = static_cast<int>(std::floor(x)), iy = static_cast<int>(std::floor(y));
  double fx = x - ix, fy = y - iy;
  for (int dy = 0; dy < 2; ++dy) {
    int py = iy + dy;
    if (py < 0 || py >= plane.height) continue;
    double wy = dy ? fy : 1 - fy;
    for (int dx = 0; dx < 2; ++dx) {
      int px = ix + dx;
      if (px < 0 || px >= plane.width) continue;
      double w = weight * wy * (dx ? fx : 1 - fx);
      const uint8_t* p = plane.row(py) + px * plane.channels;
      for (int c = 0; c < plane.channels; ++c) acc[c] += w * p[c];
    }
  }
}

// Averages, for every pixel, `samples` points along the segment that
// `segment(x, y)` gives (start offset and end offset from the pixel centre).
template <typename Segment>
void streakBlur(const Plane& image, Segment segment) {
  std::vector<uint8_t> copy(static_cast<size_t>(image.rowBytes()) * image.height);
  Plane source{copy.data(), image.width, image.height, image.rowBytes(), image.channels};
  for (int y = 0; y < image.height; ++y) std::memcpy(source.row(y), image.row(y), image.rowBytes());
  for (int y = 0; y < image.height; ++y) {
    for (int x = 0; x < image.width; ++x) {
      double cx = x + 0.5, cy = y + 0.5;
      auto [ax, ay, bx, by] = segment(cx, cy);
      double length = std::hypot(bx - ax, by - ay);
      int samples = std::clamp(static_cast<int>(std::ceil(length)) + 1, 1, 129);
      double acc[4] = {};
      for (int s = 0; s < samples; ++s) {
        double t = samples == 1 ? 0.5 : static_cast<double>(s) / (samples - 1);
        sampleInto(source, cx + ax + (bx - ax) * t, cy + ay + (by - ay) * t, 1.0 / samples, acc);
      }
      uint8_t* p = image.row(y) + x * image.channels;
      for (int c = 0; c < image.channels; ++c) p[c] = static_cast<uint8_t>(std::clamp(std::lround(acc[c]), 0L, 255L));
    }
  }
}

struct Segment {
  double ax, ay, bx, by;
};

// Premultiplied saturation change towards (s < 1) or away from (s > 1) grey.
void saturate(const Plane& image, double saturation) {
  if (image.channels != 4 || std::isnan(saturation) || saturation == 1) return;
  for (int y = 0; y < image.height; ++y) {
    uint8_t* p = image.row(y);
    for (int x = 0; x < image.width; ++x, p += 4) {
      // Cairo's ARGB32 is a native-endian uint32: B, G, R, A in memory on little-endian.
      uint32_t pixel;
      std::memcpy(&pixel, p, 4);
      double a = pixel >> 24, r = (pixel >> 16) & 255, g = (pixel >> 8) & 255, b = pixel & 255;
      double grey = 0.2126 * r + 0.7152 * g + 0.0722 * b;
      auto adjust = [&](double v) { return static_cast<uint32_t>(std::lround(std::clamp(grey + (v - grey) * saturation, 0.0, a))); };
      pixel = (static_cast<uint32_t>(a) << 24) | (adjust(r) << 16) | (adjust(g) << 8) | adjust(b);
      std::memcpy(p, &pixel, 4);
    }
  }
}

// Max (grow) or min (shrink) over a window of ±reach bytes-of-pixels along a
// line; outside counts as transparent.
template <int C>
void extremeRow(const uint8_t* src, uint8_t* dst, int n, int step, int reach, bool grow) {
  for (int i = 0; i < n; ++i) {
    for (int c = 0; c < C; ++c) {
      int best = grow ? 0 : 255;
      for (int k = i - reach; k <= i + reach; ++k) {
        int v = (k < 0 || k >= n) ? 0 : src[static_cast<size_t>(k) * step + c];
        best = grow ? std::max(best, v) : std::min(best, v);
      }
      dst[static_cast<size_t>(i) * step + c] = static_cast<uint8_t>(best);
    }
  }
}

template <int C>
void spreadPlane(const Plane& image, int reach, bool grow) {
  std::vector<uint8_t> line(static_cast<size_t>(std::max(image.width, image.height)) * C);
  for (int y = 0; y < image.height; ++y) {
    extremeRow<C>(image.row(y), line.data(), image.width, C, reach, grow);
    std::memcpy(image.row(y), line.data(), image.rowBytes());
  }
  std::vector<uint8_t> column(static_cast<size_t>(image.height) * C);
  for (int x = 0; x < image.width; ++x) {
    for (int y = 0; y < image.height; ++y) std::memcpy(&column[y * C], image.row(y) + x * C, C);
    extremeRow<C>(column.data(), line.data(), image.height, C, reach, grow);
    for (int y = 0; y < image.height; ++y) std::memcpy(image.row(y) + x * C, &line[y * C], C);
  }
}

}  // namespace

void spreadAlpha(cairo_surface_t* image, int pixels) {
  Plane plane;
  if (pixels == 0 || !planeOf(image, plane)) return;
  int reach = std::min(std::abs(pixels), static_cast<int>(kMaxBlurRadiusPx));
  if (plane.channels == 1)
    spreadPlane<1>(plane, reach, pixels > 0);
  else
    spreadPlane<4>(plane, reach, pixels > 0);
  cairo_surface_mark_dirty(image);
}

void gaussianBlur(cairo_surface_t* image, double radiusPx) {
  double sigma = clampedRadius(radiusPx) / 2;
  Plane plane;
  if (sigma < 0.1 || !planeOf(image, plane)) return;
  if (plane.channels == 1)
    gaussianPlane<1>(plane, sigma);
  else
    gaussianPlane<4>(plane, sigma);
  cairo_surface_mark_dirty(image);
}

void motionBlur(cairo_surface_t* image, double radiusPx, double angleDegrees) {
  double radius = clampedRadius(radiusPx);
  Plane plane;
  if (radius < 0.5 || !planeOf(image, plane)) return;
  double angle = std::isfinite(angleDegrees) ? angleDegrees * M_PI / 180 : 0;
  double dx = std::cos(angle) * radius, dy = std::sin(angle) * radius;
  streakBlur(plane, [&](double, double) { return Segment{-dx, -dy, dx, dy}; });
  cairo_surface_mark_dirty(image);
}

void zoomBlur(cairo_surface_t* image, double radiusPx, Point centrePx) {
  double radius = clampedRadius(radiusPx);
  Plane plane;
  if (radius < 0.5 || !planeOf(image, plane)) return;
  if (!std::isfinite(centrePx.x) || !std::isfinite(centrePx.y)) centrePx = {plane.width / 2.0, plane.height / 2.0};
  double farthest = 0;
  for (double cornerX : {0.0, double(plane.width)})
    for (double cornerY : {0.0, double(plane.height)})
      farthest = std::max(farthest, std::hypot(cornerX - centrePx.x, cornerY - centrePx.y));
  double fraction = std::min(radius / std::max(farthest, 1.0), 1.0);
  // A pixel gathers from the stretch between itself and a point `fraction` of
  // the way towards the centre, so content streaks outwards.
  streakBlur(plane, [&](double x, double y) {
    return Segment{0, 0, (centrePx.x - x) * fraction, (centrePx.y - y) * fraction};
  });
  cairo_surface_mark_dirty(image);
}

int gaussianReach(double radiusPx) {
  double sigma = clampedRadius(radiusPx) / 2;
  if (sigma < 0.1) return 0;
  if (sigma < kSmallSigma) return static_cast<int>(std::ceil(3 * sigma));
  int reach = 0;
  for (const Box& box : gaussianBoxes(sigma)) reach += std::max(box.left, box.right);
  return reach;
}

int blurReach(const Blur& blur, double deviceScale) {
  double radius = clampedRadius(blur.radius * deviceScale);
  switch (blur.kind) {
    case BlurKind::Gaussian:
    case BlurKind::Background: return gaussianReach(radius);
    case BlurKind::Motion:
    case BlurKind::Zoom: return static_cast<int>(std::ceil(radius));
  }
  return 0;
}

void applyLayerBlur(cairo_surface_t* image, const Blur& blur, double deviceScale, const Rect& frameDevice) {
  double radius = blur.radius * deviceScale;
  switch (blur.kind) {
    case BlurKind::Gaussian: gaussianBlur(image, radius); break;
    case BlurKind::Motion: motionBlur(image, radius, blur.motionAngle); break;
    case BlurKind::Zoom:
      zoomBlur(image, radius, {frameDevice.x + blur.center.x * frameDevice.width,
                               frameDevice.y + blur.center.y * frameDevice.height});
      break;
    case BlurKind::Background: break;
  }
}

void saturateImage(cairo_surface_t* image, double saturation) {
  Plane plane;
  if (!planeOf(image, plane)) return;
  saturate(plane, saturation);
  cairo_surface_mark_dirty(image);
}

}  // namespace plexa::render
