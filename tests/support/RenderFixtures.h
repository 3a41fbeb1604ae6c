#pragma once
// Small layers for renderer tests: filled shapes as Sketch writes them
// (points in unit coordinates), outlines, canvases and pixel reads.

#include "RenderTypes.h"
#include "TestSupport.h"

#include <cairo.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace plexa::test {

struct RGBA8 {
  int r = 0, g = 0, b = 0, a = 0;
};

inline JsonObject colorJSON(double r, double g, double b, double a = 1) {
  return JsonObject{{"_class", "color"}, {"red", r}, {"green", g}, {"blue", b}, {"alpha", a}};
}

inline JsonObject fillStyle(JsonObject color) {
  JsonObject fill{{"_class", "fill"}, {"isEnabled", true}, {"fillType", 0}, {"color", std::move(color)}};
  return JsonObject{{"_class", "style"}, {"fills", JsonArray{fill}}};
}

inline JsonObject curvePoint(double x, double y, double radius = 0) {
  std::string p = "{" + std::to_string(x) + ", " + std::to_string(y) + "}";
  return JsonObject{{"_class", "curvePoint"}, {"point", p},       {"curveFrom", p},      {"curveTo", p},
                    {"hasCurveFrom", false},  {"hasCurveTo", false}, {"curveMode", 1}, {"cornerRadius", radius}};
}

// A curve point with handles, all in unit coordinates.
inline JsonObject curvePoint(std::array<double, 2> point, std::array<double, 2> from, std::array<double, 2> to) {
  auto text = [](std::array<double, 2> p) { return "{" + std::to_string(p[0]) + ", " + std::to_string(p[1]) + "}"; };
  return JsonObject{{"_class", "curvePoint"}, {"point", text(point)}, {"curveFrom", text(from)},
                    {"curveTo", text(to)},    {"hasCurveFrom", true}, {"hasCurveTo", true},
                    {"curveMode", 2},         {"cornerRadius", 0}};
}

inline JsonArray unitRectanglePoints(double radius = 0) {
  return JsonArray{curvePoint(0, 0, radius), curvePoint(1, 0, radius), curvePoint(1, 1, radius),
                   curvePoint(0, 1, radius)};
}

// The four points Sketch writes for an oval.
inline JsonArray unitOvalPoints() {
  constexpr double k = 0.5 * 0.5522847498;
  return JsonArray{curvePoint({0.5, 1}, {0.5 + k, 1}, {0.5 - k, 1}), curvePoint({1, 0.5}, {1, 0.5 - k}, {1, 0.5 + k}),
                   curvePoint({0.5, 0}, {0.5 - k, 0}, {0.5 + k, 0}), curvePoint({0, 0.5}, {0, 0.5 + k}, {0, 0.5 - k})};
}

// A shape layer of the newer form: points on the layer, style with one fill.
inline JsonObject shapeLayer(const std::string& cls, const std::string& id, JsonObject f, JsonArray points,
                             JsonObject color) {
  JsonObject l = layer(cls, id, id, std::move(f));
  l["points"] = std::move(points);
  l["isClosed"] = true;
  l["style"] = fillStyle(std::move(color));
  return l;
}

inline JsonObject filledRect(const std::string& id, double x, double y, double w, double h, JsonObject color) {
  return shapeLayer("rectangle", id, frame(x, y, w, h), unitRectanglePoints(), std::move(color));
}

// Straight RGBA of one pixel of an ARGB32 surface.
inline RGBA8 pixelAt(cairo_surface_t* surface, int x, int y) {
  cairo_surface_flush(surface);
  const unsigned char* row = cairo_image_surface_get_data(surface) + y * cairo_image_surface_get_stride(surface);
  uint32_t p = reinterpret_cast<const uint32_t*>(row)[x];
  int a = static_cast<int>(p >> 24);
  auto channel = [&](int shift) {
    int c = static_cast<int>((p >> shift) & 0xFF);
    return a == 0 ? 0 : std::min(255, (c * 255 + a / 2) / a);
  };
  return {channel(16), channel(8), channel(0), a};
}

inline std::ostream& operator<<(std::ostream& os, const RGBA8& p) {
  return os << "rgba(" << p.r << "," << p.g << "," << p.b << "," << p.a << ")";
}

inline ::testing::AssertionResult near(const RGBA8& p, const RGBA8& q, int tolerance = 2) {
  if (std::abs(p.r - q.r) <= tolerance && std::abs(p.g - q.g) <= tolerance && std::abs(p.b - q.b) <= tolerance &&
      std::abs(p.a - q.a) <= tolerance)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << p << " is not within " << tolerance << " of " << q;
}

inline render::Path rectPath(double x, double y, double w, double h) {
  render::Path p;
  p.moveTo({x, y}), p.lineTo({x + w, y}), p.lineTo({x + w, y + h}), p.lineTo({x, y + h}), p.close();
  return p;
}

// A transparent surface with a context on it; reads straight or raw pixels.
struct Canvas {
  std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> owned;
  std::unique_ptr<cairo_t, decltype(&cairo_destroy)> context;

  Canvas(int w, int h, cairo_format_t format = CAIRO_FORMAT_ARGB32)
      : owned(cairo_image_surface_create(format, w, h), cairo_surface_destroy),
        context(cairo_create(owned.get()), cairo_destroy) {}
  cairo_t* cr() const { return context.get(); }
  cairo_surface_t* surface() const { return owned.get(); }
  int width() const { return cairo_image_surface_get_width(surface()); }
  int height() const { return cairo_image_surface_get_height(surface()); }

  RGBA8 at(int x, int y) const { return pixelAt(surface(), x, y); }
  // The premultiplied ARGB word as stored.
  uint32_t raw(int x, int y) const { return reinterpret_cast<const uint32_t*>(row(y))[x]; }
  int alpha(int x, int y) const {
    if (cairo_image_surface_get_format(surface()) == CAIRO_FORMAT_A8) return row(y)[x];
    return static_cast<int>(raw(x, y) >> 24);
  }
  bool painted(int x, int y) const { return alpha(x, y) > 0; }
  // Columns 0..width-1 of row y: '#' where alpha reaches `threshold`
  // (by default: more than half covered).
  std::string coverageRow(int y, int threshold = 128) const {
    std::string text;
    for (int x = 0; x < width(); ++x) text += alpha(x, y) >= threshold ? '#' : '.';
    return text;
  }

 private:
  const unsigned char* row(int y) const {
    cairo_surface_flush(surface());
    return cairo_image_surface_get_data(surface()) + y * cairo_image_surface_get_stride(surface());
  }
};

}  // namespace plexa::test
