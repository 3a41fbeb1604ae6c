// Blurs and shadows checked on small surfaces by counting pixels: mass,
// symmetry, edge profiles against the Gaussian, and exact shadow placement.

#include "Effects.h"
#include "RenderFixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

using namespace plexa::render;
using namespace plexa::test;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

long alphaSum(const Canvas& c) {
  long sum = 0;
  for (int y = 0; y < c.height(); ++y)
    for (int x = 0; x < c.width(); ++x) sum += c.alpha(x, y);
  return sum;
}

// Bounding box of pixels whose alpha is at least `threshold`, half open.
struct Box {
  int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  bool operator==(const Box&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Box& b) {
  return os << "[" << b.x0 << "," << b.y0 << " – " << b.x1 << "," << b.y1 << ")";
}

Box inkBox(const Canvas& c, int threshold = 1) {
  Box box{1 << 30, 1 << 30, -1, -1};
  for (int y = 0; y < c.height(); ++y)
    for (int x = 0; x < c.width(); ++x)
      if (c.alpha(x, y) >= threshold)
        box = {std::min(box.x0, x), std::min(box.y0, y), std::max(box.x1, x + 1), std::max(box.y1, y + 1)};
  return box.x1 < 0 ? Box{} : box;
}

// An opaque block on a fresh canvas.
Canvas block(int size, int x, int y, int w, int h, cairo_format_t format = CAIRO_FORMAT_ARGB32) {
  Canvas canvas(size, size, format);
  cairo_rectangle(canvas.cr(), x, y, w, h);
  cairo_fill(canvas.cr());
  return canvas;
}

Shadow shadow(double dx, double dy, double blur, double spread = 0, Color color = {0, 0, 0, 1}) {
  Shadow s;
  s.color = color, s.offsetX = dx, s.offsetY = dy, s.blurRadius = blur, s.spread = spread;
  return s;
}

double normalCdf(double z) { return 0.5 * std::erfc(-z / std::sqrt(2.0)); }

// The 10×10 square at (20, 20) rendered as content, for shadows of images.
DeviceImage squareImage(cairo_t* cr) {
  return renderToDeviceImage(cr, {20, 20, 10, 10}, 0, [](cairo_t* inner) {
    cairo_rectangle(inner, 20, 20, 10, 10);
    cairo_fill(inner);
  });
}

}  // namespace

// ---- Gaussian blur

struct PointCase {
  cairo_format_t format;
  double radius;
};

class GaussianPoint : public testing::TestWithParam<PointCase> {};

TEST_P(GaussianPoint, ConservesMassAndIsSymmetric) {
  auto [format, radius] = GetParam();
  const int c = 20;
  Canvas s = block(41, c, c, 1, 1, format);
  gaussianBlur(s.surface(), radius);
  EXPECT_NEAR(alphaSum(s), 255, 255 * 0.06) << "radius " << radius;
  EXPECT_LT(s.alpha(c, c), 255);
  for (int dy = 0; dy <= 6; ++dy)
    for (int dx = 0; dx <= 6; ++dx) {
      int v = s.alpha(c + dx, c + dy);
      EXPECT_NEAR(s.alpha(c - dx, c + dy), v, 1) << dx << "," << dy;
      EXPECT_NEAR(s.alpha(c + dx, c - dy), v, 1) << dx << "," << dy;
      EXPECT_NEAR(s.alpha(c + dy, c + dx), v, 1) << dx << "," << dy;
    }
  // Falls off from the centre.
  EXPECT_GE(s.alpha(c, c), s.alpha(c + 1, c));
  EXPECT_GE(s.alpha(c + 1, c), s.alpha(c + 2, c));
}

INSTANTIATE_TEST_SUITE_P(Radii, GaussianPoint,
                         testing::Values(PointCase{CAIRO_FORMAT_A8, 1}, PointCase{CAIRO_FORMAT_A8, 2},
                                         PointCase{CAIRO_FORMAT_A8, 3}, PointCase{CAIRO_FORMAT_ARGB32, 1.5},
                                         PointCase{CAIRO_FORMAT_ARGB32, 3}));

TEST(GaussianBlur, ConservesMassOfABlockForLargeRadii) {
  for (double radius : {4.0, 5.0, 8.0, 13.0, 20.0, 31.0}) {
    Canvas s = block(160, 70, 70, 20, 20, CAIRO_FORMAT_A8);
    gaussianBlur(s.surface(), radius);
    EXPECT_NEAR(alphaSum(s), 400 * 255, 400 * 255 * 0.01) << "radius " << radius;
    EXPECT_LE(inkBox(s).x1 - 90, gaussianReach(radius)) << "radius " << radius;
    EXPECT_LE(70 - inkBox(s).x0, gaussianReach(radius)) << "radius " << radius;
  }
}

// A vertical edge between opaque (left) and clear (right) blurs into the
// Gaussian's cumulative profile: 50% at the edge, 84% / 16% one sigma away.
TEST(GaussianBlur, EdgeFollowsTheGaussianProfile) {
  for (double radius : {6.0, 10.0, 20.0})
    for (cairo_format_t format : {CAIRO_FORMAT_A8, CAIRO_FORMAT_ARGB32}) {
      Canvas s(200, 200, format);
      cairo_rectangle(s.cr(), 0, 0, 100, 200);
      cairo_fill(s.cr());
      gaussianBlur(s.surface(), radius);
      EXPECT_NEAR((s.alpha(99, 100) + s.alpha(100, 100)) / 2.0, 127.5, 2);
      for (int k = -25; k <= 25; k += 5) {
        double expected = 255 * normalCdf(-(k + 0.5) / (radius / 2));
        EXPECT_NEAR(s.alpha(100 + k, 100), expected, 6) << "radius " << radius << " offset " << k;
      }
    }
}

TEST(GaussianBlur, KeepsPremultipliedColourWithinAlpha) {
  Canvas s(60, 60);
  cairo_set_source_rgba(s.cr(), 1, 0.5, 0, 0.8);
  cairo_rectangle(s.cr(), 20, 20, 20, 20);
  cairo_fill(s.cr());
  gaussianBlur(s.surface(), 9);
  for (int y = 0; y < 60; ++y)
    for (int x = 0; x < 60; ++x) {
      uint32_t p = s.raw(x, y), a = p >> 24, r = (p >> 16) & 255, g = (p >> 8) & 255;
      ASSERT_LE(r, a) << x << "," << y;
      ASSERT_LE(g, r) << x << "," << y;
    }
  // 80% alpha times the share of a sigma-4.5 Gaussian within ±10 px, squared.
  EXPECT_NEAR(s.alpha(30, 30), 197, 4);
}

TEST(GaussianBlur, NoOpAndHostileRadiiAreSafe) {
  struct Case {
    double radius;
    bool changes;
  };
  for (Case c : {Case{0, false}, Case{-5, false}, Case{kNaN, false}, Case{0.1, false},
                 Case{std::numeric_limits<double>::infinity(), true}, Case{1e12, true}}) {
    Canvas s = block(30, 10, 10, 10, 10);
    gaussianBlur(s.surface(), c.radius);
    EXPECT_EQ(inkBox(s) == (Box{10, 10, 20, 20}) && s.alpha(10, 10) == 255, !c.changes) << c.radius;
  }
  EXPECT_EQ(gaussianReach(kNaN), 0);
  EXPECT_EQ(gaussianReach(0), 0);
  EXPECT_LE(gaussianReach(1e12), gaussianReach(kMaxBlurRadiusPx));
  EXPECT_LE(gaussianReach(kMaxBlurRadiusPx), kMaxBlurRadiusPx * 1.5);
  // The streak blurs clamp alike; a NaN angle or centre falls back to 0° / the middle.
  Canvas streaked = block(30, 10, 10, 10, 10, CAIRO_FORMAT_A8);
  motionBlur(streaked.surface(), kNaN, 0);
  zoomBlur(streaked.surface(), -3, {15, 15});
  EXPECT_EQ(inkBox(streaked), (Box{10, 10, 20, 20}));
  motionBlur(streaked.surface(), 4, kNaN);
  EXPECT_EQ(inkBox(streaked).y0, 10);
  EXPECT_LT(inkBox(streaked).x0, 10);
  zoomBlur(streaked.surface(), 1e12, {kNaN, kNaN});
  // Surfaces the blur cannot work on are left alone.
  gaussianBlur(Canvas(8, 8, CAIRO_FORMAT_RGB16_565).surface(), 4);
  gaussianBlur(nullptr, 4);
}

// ---- motion and zoom

TEST(MotionBlur, SpreadsOnlyAlongItsAngle) {
  struct Case {
    double angle;
    Box expected;  // ink of a 2×2 dot at (29, 29) blurred 10 px either way
  };
  for (Case c : {Case{0, {19, 29, 41, 31}}, Case{90, {29, 19, 31, 41}}, Case{180, {19, 29, 41, 31}}}) {
    Canvas s = block(60, 29, 29, 2, 2);
    motionBlur(s.surface(), 10, c.angle);
    Box ink = inkBox(s);
    EXPECT_LE(std::max({std::abs(ink.x0 - c.expected.x0), std::abs(ink.x1 - c.expected.x1),
                        std::abs(ink.y0 - c.expected.y0), std::abs(ink.y1 - c.expected.y1)}),
              1)
        << c.angle << " " << ink;
    EXPECT_NEAR(alphaSum(s), 4 * 255, 4 * 255 * 0.1) << c.angle;
  }
}

TEST(ZoomBlur, StreaksAwayFromTheCentre) {
  Canvas s = block(101, 80, 49, 4, 3, CAIRO_FORMAT_A8);  // right of the centre
  zoomBlur(s.surface(), 20, {50.5, 50.5});
  Box ink = inkBox(s);
  EXPECT_EQ(ink.x0, 80);      // nothing moves towards the centre
  EXPECT_GT(ink.x1, 84 + 5);  // but outwards
  EXPECT_LE(ink.y1 - ink.y0, 6);
}

// ---- shadow placement: the 10×10 square at (20, 20) as a shape or as
// rendered content, unblurred, so every shadow pixel is fully covered.

enum class Cast { Outer, Inner, OuterOfImage, InnerOfImage };

struct PlacementCase {
  const char* name;
  Cast cast;
  Shadow shadow;
  Box expected;
  int area;  // shadow pixels, in device pixels
  double scale = 1;
  Silhouette silhouette = {};
};

void PrintTo(const PlacementCase& c, std::ostream* os) { *os << c.name; }

class ShadowPlacement : public testing::TestWithParam<PlacementCase> {};

TEST_P(ShadowPlacement, CoversExactlyTheMovedAndSpreadSilhouette) {
  const PlacementCase& c = GetParam();
  Canvas canvas(120, 120);
  cairo_scale(canvas.cr(), c.scale, c.scale);
  Path square = rectPath(20, 20, 10, 10);
  switch (c.cast) {
    case Cast::Outer: paintOuterShadows(canvas.cr(), square, c.silhouette, {c.shadow}); break;
    case Cast::Inner: paintInnerShadows(canvas.cr(), square, {c.shadow}); break;
    case Cast::OuterOfImage: paintOuterShadowsOfImage(canvas.cr(), squareImage(canvas.cr()), {c.shadow}); break;
    case Cast::InnerOfImage: paintInnerShadowsOfImage(canvas.cr(), squareImage(canvas.cr()), {c.shadow}); break;
  }
  EXPECT_EQ(inkBox(canvas, 128), c.expected);
  EXPECT_EQ(alphaSum(canvas), c.area * 255L);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ShadowPlacement,
    testing::Values(PlacementCase{"offset right", Cast::Outer, shadow(10, 0, 0), {30, 20, 40, 30}, 100},
                    PlacementCase{"offset down-left", Cast::Outer, shadow(-5, 7, 0), {15, 27, 25, 37}, 100},
                    PlacementCase{"spread grows", Cast::Outer, shadow(0, 0, 0, 2), {18, 18, 32, 32}, 196},
                    PlacementCase{"negative spread shrinks", Cast::Outer, shadow(0, 0, 0, -2), {22, 22, 28, 28}, 36},
                    PlacementCase{"scale doubles all", Cast::Outer, shadow(10, 0, 0, 2), {56, 36, 84, 64}, 784, 2},
                    PlacementCase{"NaN counts as zero", Cast::Outer, shadow(kNaN, kNaN, kNaN), {20, 20, 30, 30}, 100},
                    PlacementCase{"unfilled casts its border", Cast::Outer, shadow(0, 0, 0), {19, 19, 31, 31}, 144 - 64,
                                  1, {false, 2, BorderPosition::Center}},
                    PlacementCase{"inner offset right", Cast::Inner, shadow(3, 0, 0), {20, 20, 23, 30}, 30},
                    PlacementCase{"inner offset left", Cast::Inner, shadow(-4, 0, 0), {26, 20, 30, 30}, 40},
                    PlacementCase{"inner offset down", Cast::Inner, shadow(0, 2, 0), {20, 20, 30, 22}, 20},
                    PlacementCase{"inner spread is a ring", Cast::Inner, shadow(0, 0, 0, 2), {20, 20, 30, 30}, 64},
                    PlacementCase{"image offset", Cast::OuterOfImage, shadow(10, 0, 0), {30, 20, 40, 30}, 100},
                    PlacementCase{"image spread", Cast::OuterOfImage, shadow(0, 0, 0, 2), {18, 18, 32, 32}, 196},
                    PlacementCase{"image shrink", Cast::OuterOfImage, shadow(0, 0, 0, -3), {23, 23, 27, 27}, 16},
                    PlacementCase{"image inner", Cast::InnerOfImage, shadow(3, 0, 0), {20, 20, 23, 30}, 30}));

TEST(OuterShadow, BlurConservesTheShadowAndCentresOnIt) {
  Canvas canvas(100, 100);
  paintOuterShadows(canvas.cr(), rectPath(40, 40, 10, 10), Silhouette{}, {shadow(5, 0, 8)});
  EXPECT_NEAR(alphaSum(canvas), 100 * 255, 100 * 255 * 0.02);
  for (int d = 0; d < 15; ++d) EXPECT_NEAR(canvas.alpha(49 - d, 45), canvas.alpha(50 + d, 45), 1) << d;
  EXPECT_LT(canvas.alpha(50, 45), 255);
}

TEST(OuterShadow, UsesColourAndStaysInsideTheClip) {
  Canvas canvas(60, 60);
  cairo_rectangle(canvas.cr(), 0, 0, 35, 60);
  cairo_clip(canvas.cr());
  paintOuterShadows(canvas.cr(), rectPath(20, 20, 10, 10), Silhouette{}, {shadow(10, 0, 0, 0, {1, 0, 0, 0.5})});
  EXPECT_EQ(inkBox(canvas), (Box{30, 20, 35, 30}));
  EXPECT_TRUE(near(canvas.at(32, 25), {255, 0, 0, 128}, 1));
}

TEST(OuterShadow, FarAwayOrHugeShadowsDrawNothingAndDoNotCrash) {
  Canvas canvas(40, 40);
  paintOuterShadows(canvas.cr(), rectPath(10, 10, 10, 10), Silhouette{},
                    {shadow(1e12, 0, 0), shadow(0, -1e15, 1e9), shadow(1e300, 1e300, 1e300, 1e300)});
  EXPECT_EQ(alphaSum(canvas), 0);
  // A huge blur is clamped: it draws what the largest allowed blur draws.
  Path big = rectPath(-200, -200, 440, 440);
  paintOuterShadows(canvas.cr(), big, Silhouette{}, {shadow(0, 0, 1e9)});
  Canvas largest(40, 40);
  paintOuterShadows(largest.cr(), big, Silhouette{}, {shadow(0, 0, kMaxBlurRadiusPx)});
  EXPECT_GT(canvas.alpha(20, 20), 50);
  EXPECT_EQ(alphaSum(canvas), alphaSum(largest));
  paintOuterShadows(canvas.cr(), Path{}, Silhouette{}, {shadow(0, 0, 4)});
}

TEST(InnerShadow, BlurredShadowsStayInsideTheOutline) {
  Canvas canvas(60, 60);
  cairo_set_source_rgb(canvas.cr(), 1, 1, 1);
  cairo_paint(canvas.cr());
  paintInnerShadows(canvas.cr(), rectPath(20, 20, 20, 20), {shadow(3, 3, 4)});
  for (int y = 0; y < 60; ++y)
    for (int x = 0; x < 60; ++x)
      if (x < 20 || x >= 40 || y < 20 || y >= 40) ASSERT_EQ(canvas.raw(x, y), 0xffffffffu) << x << "," << y;
  EXPECT_LT(canvas.at(20, 20).b, 128);           // dark in the top-left corner
  EXPECT_EQ(canvas.raw(33, 33), 0xffffffffu);  // five sigmas from the moved edges

  Canvas image(60, 60);
  paintInnerShadowsOfImage(image.cr(), squareImage(image.cr()), {shadow(2, 2, 6)});
  Box ink = inkBox(image);
  EXPECT_GE(ink.x0, 20);
  EXPECT_LE(ink.x1, 30);
}

TEST(ShadowBounds, HoldEveryShadow) {
  Rect grown = shadowBounds({0, 0, 10, 10}, {shadow(5, -3, 4, 2)});
  EXPECT_LE(grown.x, 0);
  EXPECT_GE(grown.x + grown.width, 10 + 5 + 2 + 4 * 1.41);
  EXPECT_LE(grown.y, -3 - 2 - 4 * 1.41);
  EXPECT_GE(shadowReach(shadow(5, -3, 4, 2)), 5 + 2 + 4 * 1.41);
  EXPECT_TRUE(std::isfinite(shadowReach(shadow(kNaN, 0, kNaN, kNaN))));
}

// ---- layer and background blur

TEST(LayerBlur, PaintBlurredSpreadsBeyondTheFrame) {
  Canvas canvas(80, 80);
  Blur blur;
  blur.radius = 6;
  Rect frame{30, 30, 20, 20};
  paintBlurred(canvas.cr(), frame, frame, blur, [](cairo_t* cr) {
    cairo_rectangle(cr, 30, 30, 20, 20);
    cairo_fill(cr);
  });
  EXPECT_NEAR(alphaSum(canvas), 400 * 255, 400 * 255 * 0.01);
  EXPECT_LT(inkBox(canvas).x0, 30 - 3);
  EXPECT_EQ(blurReach(blur, 1), gaussianReach(6));
  EXPECT_EQ(blurReach(blur, 2), gaussianReach(12));
}

TEST(BackgroundBlur, BlursOnlyInsideTheShape) {
  // White with a black left half, then the same picture kept as the backdrop.
  Canvas canvas(60, 60), before(60, 60);
  for (cairo_t* cr : {canvas.cr(), before.cr()}) {
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_paint(cr);
    cairo_set_source_rgb(cr, 0, 0, 0);
    cairo_rectangle(cr, 0, 0, 30, 60);
    cairo_fill(cr);
  }
  Blur blur;
  blur.kind = BlurKind::Background;
  blur.radius = 8;
  paintBackgroundBlur(canvas.cr(), before.surface(), rectPath(20, 20, 20, 20), blur);
  for (int y = 0; y < 60; ++y)
    for (int x = 0; x < 60; ++x)
      if (x < 20 || x >= 40 || y < 20 || y >= 40) ASSERT_EQ(canvas.raw(x, y), before.raw(x, y));
  int middle = canvas.at(29, 30).b;
  EXPECT_GT(middle, 60);
  EXPECT_LT(middle, 195);
  EXPECT_EQ(canvas.alpha(30, 30), 255);
}
