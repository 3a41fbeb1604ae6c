// Blurs and shadows checked on small surfaces by counting pixels: mass,
// symmetry, edge profiles against the Gaussian, and exact shadow placement.

#include "Effects.h"

#include <gtest/gtest.h>

#include <cairo.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

using namespace plexa::render;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

struct SurfaceOwner {
  cairo_surface_t* surface;
  explicit SurfaceOwner(cairo_format_t format, int w, int h) : surface(cairo_image_surface_create(format, w, h)) {}
  ~SurfaceOwner() { cairo_surface_destroy(surface); }
  operator cairo_surface_t*() const { return surface; }
};

struct Canvas {
  SurfaceOwner surface;
  cairo_t* cr;
  Canvas(int w, int h) : surface(CAIRO_FORMAT_ARGB32, w, h), cr(cairo_create(surface)) {}
  ~Canvas() { cairo_destroy(cr); }
};

int alphaAt(cairo_surface_t* s, int x, int y) {
  cairo_surface_flush(s);
  const unsigned char* row = cairo_image_surface_get_data(s) + y * cairo_image_surface_get_stride(s);
  if (cairo_image_surface_get_format(s) == CAIRO_FORMAT_A8) return row[x];
  return static_cast<int>(reinterpret_cast<const uint32_t*>(row)[x] >> 24);
}

uint32_t pixelAt(cairo_surface_t* s, int x, int y) {
  cairo_surface_flush(s);
  const unsigned char* row = cairo_image_surface_get_data(s) + y * cairo_image_surface_get_stride(s);
  return reinterpret_cast<const uint32_t*>(row)[x];
}

long alphaSum(cairo_surface_t* s) {
  long sum = 0;
  for (int y = 0; y < cairo_image_surface_get_height(s); ++y)
    for (int x = 0; x < cairo_image_surface_get_width(s); ++x) sum += alphaAt(s, x, y);
  return sum;
}

// Bounding box of pixels whose alpha is at least `threshold`: {x0, y0, x1, y1}, half open.
struct Box {
  int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  bool operator==(const Box&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Box& b) {
  return os << "[" << b.x0 << "," << b.y0 << " – " << b.x1 << "," << b.y1 << ")";
}

Box inkBox(cairo_surface_t* s, int threshold = 1) {
  Box box{1 << 30, 1 << 30, -1, -1};
  for (int y = 0; y < cairo_image_surface_get_height(s); ++y)
    for (int x = 0; x < cairo_image_surface_get_width(s); ++x)
      if (alphaAt(s, x, y) >= threshold) {
        box.x0 = std::min(box.x0, x), box.y0 = std::min(box.y0, y);
        box.x1 = std::max(box.x1, x + 1), box.y1 = std::max(box.y1, y + 1);
      }
  return box.x1 < 0 ? Box{} : box;
}

void fillRect(cairo_surface_t* s, int x, int y, int w, int h) {
  cairo_t* cr = cairo_create(s);
  cairo_rectangle(cr, x, y, w, h);
  cairo_fill(cr);
  cairo_destroy(cr);
}

Path rectPath(double x, double y, double w, double h) {
  Path p;
  p.moveTo({x, y}), p.lineTo({x + w, y}), p.lineTo({x + w, y + h}), p.lineTo({x, y + h}), p.close();
  return p;
}

Shadow shadow(double dx, double dy, double blur, double spread = 0, Color color = {0, 0, 0, 1}) {
  Shadow s;
  s.color = color, s.offsetX = dx, s.offsetY = dy, s.blurRadius = blur, s.spread = spread;
  return s;
}

double normalCdf(double z) { return 0.5 * std::erfc(-z / std::sqrt(2.0)); }

// ---- Gaussian blur

struct PointCase {
  cairo_format_t format;
  double radius;
};

class GaussianPoint : public testing::TestWithParam<PointCase> {};

TEST_P(GaussianPoint, ConservesMassAndIsSymmetric) {
  auto [format, radius] = GetParam();
  const int size = 41, c = 20;
  SurfaceOwner s(format, size, size);
  fillRect(s, c, c, 1, 1);
  gaussianBlur(s, radius);
  EXPECT_NEAR(alphaSum(s), 255, 255 * 0.06) << "radius " << radius;
  EXPECT_LT(alphaAt(s, c, c), 255);
  for (int dy = 0; dy <= 6; ++dy)
    for (int dx = 0; dx <= 6; ++dx) {
      int v = alphaAt(s, c + dx, c + dy);
      EXPECT_NEAR(alphaAt(s, c - dx, c + dy), v, 1) << dx << "," << dy;
      EXPECT_NEAR(alphaAt(s, c + dx, c - dy), v, 1) << dx << "," << dy;
      EXPECT_NEAR(alphaAt(s, c + dy, c + dx), v, 1) << dx << "," << dy;
    }
  // Falls off from the centre.
  EXPECT_GE(alphaAt(s, c, c), alphaAt(s, c + 1, c));
  EXPECT_GE(alphaAt(s, c + 1, c), alphaAt(s, c + 2, c));
}

INSTANTIATE_TEST_SUITE_P(Radii, GaussianPoint,
                         testing::Values(PointCase{CAIRO_FORMAT_A8, 1}, PointCase{CAIRO_FORMAT_A8, 2},
                                         PointCase{CAIRO_FORMAT_A8, 3}, PointCase{CAIRO_FORMAT_ARGB32, 1.5},
                                         PointCase{CAIRO_FORMAT_ARGB32, 3}));

TEST(GaussianBlur, ConservesMassOfABlockForLargeRadii) {
  for (double radius : {4.0, 5.0, 8.0, 13.0, 20.0, 31.0}) {
    SurfaceOwner s(CAIRO_FORMAT_A8, 160, 160);
    fillRect(s, 70, 70, 20, 20);
    gaussianBlur(s, radius);
    EXPECT_NEAR(alphaSum(s), 400 * 255, 400 * 255 * 0.01) << "radius " << radius;
    EXPECT_LE(inkBox(s).x1 - 90, gaussianReach(radius)) << "radius " << radius;
    EXPECT_LE(70 - inkBox(s).x0, gaussianReach(radius)) << "radius " << radius;
  }
}

// A vertical edge between opaque (left) and clear (right) blurs into the
// Gaussian's cumulative profile: 50% at the edge, 84% / 16% one sigma away.
TEST(GaussianBlur, EdgeFollowsTheGaussianProfile) {
  for (double radius : {6.0, 10.0, 20.0}) {
    double sigma = radius / 2;
    for (cairo_format_t format : {CAIRO_FORMAT_A8, CAIRO_FORMAT_ARGB32}) {
      SurfaceOwner s(format, 200, 200);
      fillRect(s, 0, 0, 100, 200);
      gaussianBlur(s, radius);
      int y = 100;
      EXPECT_NEAR((alphaAt(s, 99, y) + alphaAt(s, 100, y)) / 2.0, 127.5, 2);
      for (int k = -25; k <= 25; k += 5) {
        double expected = 255 * normalCdf(-(k + 0.5) / sigma);
        EXPECT_NEAR(alphaAt(s, 100 + k, y), expected, 6) << "radius " << radius << " offset " << k;
      }
    }
  }
}

TEST(GaussianBlur, KeepsPremultipliedColourWithinAlpha) {
  SurfaceOwner s(CAIRO_FORMAT_ARGB32, 60, 60);
  cairo_t* cr = cairo_create(s);
  cairo_set_source_rgba(cr, 1, 0.5, 0, 0.8);
  cairo_rectangle(cr, 20, 20, 20, 20);
  cairo_fill(cr);
  cairo_destroy(cr);
  gaussianBlur(s, 9);
  for (int y = 0; y < 60; ++y)
    for (int x = 0; x < 60; ++x) {
      uint32_t p = pixelAt(s, x, y);
      uint32_t a = p >> 24, r = (p >> 16) & 255, g = (p >> 8) & 255;
      ASSERT_LE(r, a) << x << "," << y;
      ASSERT_LE(g, r) << x << "," << y;
    }
  // 80% alpha times the share of a sigma-4.5 Gaussian within ±10 px, squared.
  EXPECT_NEAR(pixelAt(s, 30, 30) >> 24, 197, 4);
}

TEST(GaussianBlur, NoOpAndHostileRadiiAreSafe) {
  struct Case {
    double radius;
    bool changes;
  };
  for (Case c : {Case{0, false}, Case{-5, false}, Case{kNaN, false}, Case{0.1, false},
                 Case{std::numeric_limits<double>::infinity(), true}, Case{1e12, true}}) {
    SurfaceOwner s(CAIRO_FORMAT_ARGB32, 30, 30);
    fillRect(s, 10, 10, 10, 10);
    gaussianBlur(s, c.radius);
    EXPECT_EQ(inkBox(s) == (Box{10, 10, 20, 20}) && alphaAt(s, 10, 10) == 255, !c.changes) << c.radius;
  }
  EXPECT_EQ(gaussianReach(kNaN), 0);
  EXPECT_EQ(gaussianReach(0), 0);
  EXPECT_LE(gaussianReach(1e12), gaussianReach(kMaxBlurRadiusPx));
  EXPECT_LE(gaussianReach(kMaxBlurRadiusPx), kMaxBlurRadiusPx * 1.5);
  // The streak blurs clamp alike; a NaN angle or centre falls back to 0° / the middle.
  SurfaceOwner streaked(CAIRO_FORMAT_A8, 30, 30);
  fillRect(streaked, 10, 10, 10, 10);
  motionBlur(streaked, kNaN, 0);
  zoomBlur(streaked, -3, {15, 15});
  EXPECT_EQ(inkBox(streaked), (Box{10, 10, 20, 20}));
  motionBlur(streaked, 4, kNaN);
  EXPECT_EQ(inkBox(streaked).y0, 10);
  EXPECT_LT(inkBox(streaked).x0, 10);
  zoomBlur(streaked, 1e12, {kNaN, kNaN});
  // Surfaces the blur cannot work on are left alone.
  SurfaceOwner rgb(CAIRO_FORMAT_RGB16_565, 8, 8);
  gaussianBlur(rgb, 4);
  gaussianBlur(nullptr, 4);
}

// ---- motion and zoom

TEST(MotionBlur, SpreadsOnlyAlongItsAngle) {
  struct Case {
    double angle;
    Box expected;  // ink of a 2×2 dot at (29, 29) blurred 10 px either way
  };
  for (Case c : {Case{0, {19, 29, 41, 31}}, Case{90, {29, 19, 31, 41}}, Case{180, {19, 29, 41, 31}}}) {
    SurfaceOwner s(CAIRO_FORMAT_ARGB32, 60, 60);
    fillRect(s, 29, 29, 2, 2);
    motionBlur(s, 10, c.angle);
    Box ink = inkBox(s);
    EXPECT_NEAR(ink.x0, c.expected.x0, 1) << c.angle;
    EXPECT_NEAR(ink.x1, c.expected.x1, 1) << c.angle;
    EXPECT_NEAR(ink.y0, c.expected.y0, 1) << c.angle;
    EXPECT_NEAR(ink.y1, c.expected.y1, 1) << c.angle;
    EXPECT_NEAR(alphaSum(s), 4 * 255, 4 * 255 * 0.1) << c.angle;
  }
}

TEST(ZoomBlur, StreaksAwayFromTheCentre) {
  SurfaceOwner s(CAIRO_FORMAT_A8, 101, 101);
  fillRect(s, 80, 49, 4, 3);  // right of the centre
  zoomBlur(s, 20, {50.5, 50.5});
  Box ink = inkBox(s);
  EXPECT_EQ(ink.x0, 80);      // nothing moves towards the centre
  EXPECT_GT(ink.x1, 84 + 5);  // but outwards
  EXPECT_LE(ink.y1 - ink.y0, 6);
}

// ---- shadows of shapes

struct OuterCase {
  const char* name;
  Shadow shadow;
  double scale;
  Box expected;  // ink of a 10×10 square at (20, 20) in points
};

class OuterShadowPlacement : public testing::TestWithParam<OuterCase> {};

TEST_P(OuterShadowPlacement, CoversTheMovedAndSpreadSilhouette) {
  const OuterCase& c = GetParam();
  Canvas canvas(120, 120);
  cairo_scale(canvas.cr, c.scale, c.scale);
  paintOuterShadows(canvas.cr, rectPath(20, 20, 10, 10), Silhouette{}, {c.shadow});
  EXPECT_EQ(inkBox(canvas.surface, 128), c.expected) << c.name;
  EXPECT_EQ(alphaAt(canvas.surface, (c.expected.x0 + c.expected.x1) / 2, (c.expected.y0 + c.expected.y1) / 2), 255);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, OuterShadowPlacement,
    testing::Values(OuterCase{"offset right", shadow(10, 0, 0), 1, {30, 20, 40, 30}},
                    OuterCase{"offset down-left", shadow(-5, 7, 0), 1, {15, 27, 25, 37}},
                    OuterCase{"spread grows", shadow(0, 0, 0, 2), 1, {18, 18, 32, 32}},
                    OuterCase{"negative spread shrinks", shadow(0, 0, 0, -2), 1, {22, 22, 28, 28}},
                    OuterCase{"scale doubles all", shadow(10, 0, 0, 2), 2, {56, 36, 84, 64}},
                    OuterCase{"NaN offsets count as zero", shadow(kNaN, kNaN, kNaN), 1, {20, 20, 30, 30}}));

TEST(OuterShadow, BlurConservesTheShadowAndCentresOnIt) {
  Canvas canvas(100, 100);
  paintOuterShadows(canvas.cr, rectPath(40, 40, 10, 10), Silhouette{}, {shadow(5, 0, 8)});
  EXPECT_NEAR(alphaSum(canvas.surface), 100 * 255, 100 * 255 * 0.02);
  for (int d = 0; d < 15; ++d) EXPECT_NEAR(alphaAt(canvas.surface, 49 - d, 45), alphaAt(canvas.surface, 50 + d, 45), 1) << d;
  EXPECT_LT(alphaAt(canvas.surface, 50, 45), 255);
}

TEST(OuterShadow, UsesColourAndStaysInsideTheClip) {
  Canvas canvas(60, 60);
  cairo_rectangle(canvas.cr, 0, 0, 35, 60);
  cairo_clip(canvas.cr);
  paintOuterShadows(canvas.cr, rectPath(20, 20, 10, 10), Silhouette{}, {shadow(10, 0, 0, 0, {1, 0, 0, 0.5})});
  EXPECT_EQ(inkBox(canvas.surface), (Box{30, 20, 35, 30}));
  uint32_t tinted = pixelAt(canvas.surface, 32, 25);
  EXPECT_NEAR(tinted >> 24, 128, 1);
  EXPECT_EQ((tinted >> 16) & 255, tinted >> 24);  // premultiplied pure red
  EXPECT_EQ(tinted & 0xffff, 0u);
}

TEST(OuterShadow, UnfilledShapesCastOnlyTheirBorder) {
  Canvas canvas(60, 60);
  Silhouette ring{false, 2, BorderPosition::Center};
  paintOuterShadows(canvas.cr, rectPath(20, 20, 20, 20), ring, {shadow(0, 0, 0)});
  EXPECT_EQ(inkBox(canvas.surface, 128), (Box{19, 19, 41, 41}));
  EXPECT_EQ(alphaAt(canvas.surface, 30, 30), 0);
  EXPECT_EQ(alphaAt(canvas.surface, 20, 30), 255);
}

TEST(OuterShadow, FarAwayOrHugeShadowsDrawNothingAndDoNotCrash) {
  Canvas canvas(40, 40);
  paintOuterShadows(canvas.cr, rectPath(10, 10, 10, 10), Silhouette{},
                    {shadow(1e12, 0, 0), shadow(0, -1e15, 1e9), shadow(1e300, 1e300, 1e300, 1e300)});
  EXPECT_EQ(alphaSum(canvas.surface), 0);
  // A huge blur is clamped: it draws what the largest allowed blur draws.
  Path big = rectPath(-200, -200, 440, 440);
  paintOuterShadows(canvas.cr, big, Silhouette{}, {shadow(0, 0, 1e9)});
  Canvas largest(40, 40);
  paintOuterShadows(largest.cr, big, Silhouette{}, {shadow(0, 0, kMaxBlurRadiusPx)});
  EXPECT_GT(alphaAt(canvas.surface, 20, 20), 50);
  EXPECT_EQ(alphaSum(canvas.surface), alphaSum(largest.surface));
  paintOuterShadows(canvas.cr, Path{}, Silhouette{}, {shadow(0, 0, 4)});
}

TEST(InnerShadow, PaintsOnlyInsideTheOutline) {
  Canvas canvas(60, 60);
  cairo_set_source_rgb(canvas.cr, 1, 1, 1);
  cairo_paint(canvas.cr);
  paintInnerShadows(canvas.cr, rectPath(20, 20, 20, 20), {shadow(3, 3, 4)});
  for (int y = 0; y < 60; ++y)
    for (int x = 0; x < 60; ++x)
      if (x < 20 || x >= 40 || y < 20 || y >= 40) ASSERT_EQ(pixelAt(canvas.surface, x, y), 0xffffffffu) << x << "," << y;
  EXPECT_LT(pixelAt(canvas.surface, 20, 20) & 255, 128u);  // dark in the top-left corner
  EXPECT_EQ(pixelAt(canvas.surface, 33, 33), 0xffffffffu);  // five sigmas from the moved edges
}

TEST(InnerShadow, OffsetAndSpreadPlaceTheBandExactly) {
  struct Case {
    Shadow shadow;
    Box dark;  // ink of the shadow within a 20×20 square at (20, 20)
  };
  for (Case c : {Case{shadow(3, 0, 0), {20, 20, 23, 40}}, Case{shadow(-4, 0, 0), {36, 20, 40, 40}},
                 Case{shadow(0, 2, 0), {20, 20, 40, 22}}}) {
    Canvas canvas(60, 60);
    paintInnerShadows(canvas.cr, rectPath(20, 20, 20, 20), {c.shadow});
    EXPECT_EQ(inkBox(canvas.surface, 128), c.dark);
  }
  Canvas spread(60, 60);
  paintInnerShadows(spread.cr, rectPath(20, 20, 20, 20), {shadow(0, 0, 0, 2)});
  EXPECT_EQ(alphaAt(spread.surface, 21, 30), 255);
  EXPECT_EQ(alphaAt(spread.surface, 38, 30), 255);
  EXPECT_EQ(alphaAt(spread.surface, 22, 30), 0);
  EXPECT_EQ(alphaSum(spread.surface), (400 - 256) * 255);
}

TEST(ShadowBounds, HoldEveryShadow) {
  Rect layer{0, 0, 10, 10};
  Rect grown = shadowBounds(layer, {shadow(5, -3, 4, 2)});
  EXPECT_LE(grown.x, 0);
  EXPECT_GE(grown.x + grown.width, 10 + 5 + 2 + 4 * 1.41);
  EXPECT_LE(grown.y, -3 - 2 - 4 * 1.41);
  EXPECT_GE(shadowReach(shadow(5, -3, 4, 2)), 5 + 2 + 4 * 1.41);
  EXPECT_TRUE(std::isfinite(shadowReach(shadow(kNaN, 0, kNaN, kNaN))));
}

// ---- shadows of rendered content

DeviceImage squareImage(cairo_t* cr) {
  return renderToDeviceImage(cr, {20, 20, 10, 10}, 0, [](cairo_t* inner) {
    cairo_rectangle(inner, 20, 20, 10, 10);
    cairo_fill(inner);
  });
}

TEST(ImageShadow, OuterShadowFollowsTheContentAlpha) {
  struct Case {
    Shadow shadow;
    Box expected;
  };
  for (Case c : {Case{shadow(10, 0, 0), {30, 20, 40, 30}}, Case{shadow(0, 0, 0, 2), {18, 18, 32, 32}},
                 Case{shadow(0, 0, 0, -3), {23, 23, 27, 27}}}) {
    Canvas canvas(60, 60);
    DeviceImage content = squareImage(canvas.cr);
    ASSERT_TRUE(content);
    EXPECT_EQ(content.x, 20);
    paintOuterShadowsOfImage(canvas.cr, content, {c.shadow});
    EXPECT_EQ(inkBox(canvas.surface, 128), c.expected);
  }
}

TEST(ImageShadow, InnerShadowStaysOnTheContent) {
  Canvas canvas(60, 60);
  DeviceImage content = squareImage(canvas.cr);
  paintInnerShadowsOfImage(canvas.cr, content, {shadow(3, 0, 0)});
  EXPECT_EQ(inkBox(canvas.surface, 128), (Box{20, 20, 23, 30}));
  Canvas blurred(60, 60);
  paintInnerShadowsOfImage(blurred.cr, squareImage(blurred.cr), {shadow(2, 2, 6)});
  Box ink = inkBox(blurred.surface);
  EXPECT_GE(ink.x0, 20);
  EXPECT_LE(ink.x1, 30);
}

// ---- layer and background blur

TEST(LayerBlur, PaintBlurredSpreadsBeyondTheFrame) {
  Canvas canvas(80, 80);
  Blur blur;
  blur.radius = 6;
  Rect frame{30, 30, 20, 20};
  paintBlurred(canvas.cr, frame, frame, blur, [](cairo_t* cr) {
    cairo_rectangle(cr, 30, 30, 20, 20);
    cairo_fill(cr);
  });
  EXPECT_NEAR(alphaSum(canvas.surface), 400 * 255, 400 * 255 * 0.01);
  EXPECT_LT(inkBox(canvas.surface).x0, 30 - 3);
  EXPECT_EQ(blurReach(blur, 1), gaussianReach(6));
  EXPECT_EQ(blurReach(blur, 2), gaussianReach(12));
}

TEST(BackgroundBlur, BlursOnlyInsideTheShape) {
  Canvas canvas(60, 60);
  cairo_set_source_rgb(canvas.cr, 1, 1, 1);
  cairo_paint(canvas.cr);
  cairo_set_source_rgb(canvas.cr, 0, 0, 0);
  cairo_rectangle(canvas.cr, 0, 0, 30, 60);
  cairo_fill(canvas.cr);
  Blur blur;
  blur.kind = BlurKind::Background;
  blur.radius = 8;
  SurfaceOwner before(CAIRO_FORMAT_ARGB32, 60, 60);
  cairo_t* copier = cairo_create(before);
  cairo_set_source_surface(copier, canvas.surface, 0, 0);
  cairo_paint(copier);
  cairo_destroy(copier);

  paintBackgroundBlur(canvas.cr, before, rectPath(20, 20, 20, 20), blur);
  for (int y = 0; y < 60; ++y)
    for (int x = 0; x < 60; ++x)
      if (x < 20 || x >= 40 || y < 20 || y >= 40) ASSERT_EQ(pixelAt(canvas.surface, x, y), pixelAt(before, x, y));
  int middle = pixelAt(canvas.surface, 29, 30) & 255;
  EXPECT_GT(middle, 60);
  EXPECT_LT(middle, 195);
  EXPECT_EQ(pixelAt(canvas.surface, 30, 30) >> 24, 255u);
}

}  // namespace
