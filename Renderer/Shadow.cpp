// Outer and inner shadows. Each shadow draws its silhouette as alpha into a
// small A8 surface covering only the device pixels it can reach within the
// clip, blurs that alpha, and paints the shadow colour through it.

#include "Effects.h"

#include "DeviceArea.h"
#include "ShadowMaskCache.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace plexa::render {

namespace {

// Miter joins keep a grown rectangle's corners square; sharper corners bevel
// beyond this ratio, which also bounds how far a grown outline can reach.
constexpr double kSpreadMiterLimit = 4;
// A spread beyond this (points) cannot matter on any artboard.
constexpr double kMaxSpread = 10000;

double finiteOr0(double v) { return std::isfinite(v) ? v : 0; }

double spreadOf(const Shadow& shadow) { return std::clamp(finiteOr0(shadow.spread), -kMaxSpread, kMaxSpread); }

struct Offset {
  double x = 0, y = 0;
};

Offset offsetOf(const Shadow& shadow) { return {finiteOr0(shadow.offsetX), finiteOr0(shadow.offsetY)}; }

double blurPx(cairo_t* cr, const Shadow& shadow) { return finiteOr0(shadow.blurRadius) * deviceScaleOf(cr); }

// A cairo_t drawing into `surface` (covering `area`) with cr's transform.
cairo_t* drawerFor(cairo_t* cr, cairo_surface_t* surface, const DeviceArea& area) {
  cairo_matrix_t m;
  cairo_get_matrix(cr, &m);
  cairo_t* drawer = cairo_create(surface);
  cairo_translate(drawer, -area.x0, -area.y0);
  cairo_transform(drawer, &m);
  cairo_set_tolerance(drawer, cairo_get_tolerance(cr));
  return drawer;
}

void setOutline(cairo_t* drawer, const Path& outline) {
  cairo_new_path(drawer);
  outline.appendTo(drawer);
  cairo_set_fill_rule(drawer, outline.evenOdd ? CAIRO_FILL_RULE_EVEN_ODD : CAIRO_FILL_RULE_WINDING);
}

// Strokes the outline `width` wide with `op` (a no-op for width <= 0).
void strokeOutline(cairo_t* drawer, const Path& outline, double width, cairo_operator_t op) {
  if (!(width > 0)) return;
  setOutline(drawer, outline);
  cairo_set_operator(drawer, op);
  cairo_set_line_width(drawer, width);
  cairo_set_line_join(drawer, CAIRO_LINE_JOIN_MITER);
  cairo_set_miter_limit(drawer, kSpreadMiterLimit);
  cairo_stroke(drawer);
}

void fillOutline(cairo_t* drawer, const Path& outline, cairo_operator_t op) {
  setOutline(drawer, outline);
  cairo_set_operator(drawer, op);
  cairo_fill(drawer);
}

// The parts of a border that lie outside and inside the outline.
struct BorderSides {
  double outside = 0, inside = 0;
};

BorderSides sidesOf(const Silhouette& silhouette) {
  double t = std::max(finiteOr0(silhouette.borderThickness), 0.0);
  switch (silhouette.borderPosition) {
    case BorderPosition::Center: return {t / 2, t / 2};
    case BorderPosition::Inside: return {0, t};
    case BorderPosition::Outside: return {t, 0};
  }
  return {};
}

// The outer shadow's silhouette: the fill area and border, grown by `spread`
// (shrunk when negative), in the drawer's user space.
void drawSilhouette(cairo_t* drawer, const Path& outline, const Silhouette& silhouette, double spread) {
  BorderSides sides = sidesOf(silhouette);
  if (silhouette.filled) {
    double grow = sides.outside + spread;
    fillOutline(drawer, outline, CAIRO_OPERATOR_OVER);
    strokeOutline(drawer, outline, 2 * grow, CAIRO_OPERATOR_OVER);
    strokeOutline(drawer, outline, -2 * grow, CAIRO_OPERATOR_DEST_OUT);
    return;
  }
  double width = sides.outside + sides.inside;
  if (!(width > 0)) return;
  switch (silhouette.borderPosition) {
    case BorderPosition::Center: strokeOutline(drawer, outline, width + 2 * spread, CAIRO_OPERATOR_OVER); break;
    case BorderPosition::Inside:
      setOutline(drawer, outline);
      cairo_clip(drawer);
      strokeOutline(drawer, outline, 2 * (width + spread), CAIRO_OPERATOR_OVER);
      cairo_reset_clip(drawer);
      break;
    case BorderPosition::Outside:
      strokeOutline(drawer, outline, 2 * (width + spread), CAIRO_OPERATOR_OVER);
      fillOutline(drawer, outline, CAIRO_OPERATOR_DEST_OUT);
      break;
  }
}

// Paints the shadow colour through the blurred alpha `mask` placed at `area`.
void paintThroughMask(cairo_t* cr, const Shadow& shadow, cairo_surface_t* mask, const DeviceArea& area) {
  cairo_save(cr);
  cairo_identity_matrix(cr);
  cairo_set_operator(cr, cairoOperator(shadow.blendMode));
  const Color& c = shadow.color;
  cairo_set_source_rgba(cr, finiteOr0(c.r), finiteOr0(c.g), finiteOr0(c.b), finiteOr0(c.a));
  cairo_mask_surface(cr, mask, area.x0, area.y0);
  cairo_restore(cr);
}

// The device area a shadow needs: where its silhouette lands, grown by the
// blur, cut to the clip grown by the blur (content farther out cannot show).
DeviceArea neededArea(cairo_t* cr, const DeviceArea& silhouette, int reach) {
  return silhouette.grownBy(reach).intersectedWith(deviceClipOf(cr).grownBy(reach)).limitedToImageSize();
}

Rect grownRect(const Rect& r, double by) { return {r.x - by, r.y - by, r.width + 2 * by, r.height + 2 * by}; }
Rect movedRect(const Rect& r, Offset o) { return {r.x + o.x, r.y + o.y, r.width, r.height}; }

template <typename T>
void appendBits(std::string& key, const T& value) {
  key.append(reinterpret_cast<const char*>(&value), sizeof value);
}

// Everything that decides a path shadow's blurred mask: the transform
// relative to the mask's corner, the mask's size, the outline and the
// shadow's geometry. Colour and blending are applied later and left out.
std::string maskKey(cairo_t* cr, const DeviceArea& area, char kind, const Path& outline,
                    const Silhouette* silhouette, const Shadow& shadow) {
  std::string key(1, kind);
  cairo_matrix_t m;
  cairo_get_matrix(cr, &m);
  for (double value : {m.xx, m.yx, m.xy, m.yy, m.x0 - area.x0, m.y0 - area.y0, cairo_get_tolerance(cr), shadow.offsetX,
                       shadow.offsetY, shadow.blurRadius, shadow.spread})
    appendBits(key, value);
  appendBits(key, area.width());
  appendBits(key, area.height());
  if (silhouette) {
    appendBits(key, silhouette->filled);
    appendBits(key, silhouette->borderThickness);
    appendBits(key, silhouette->borderPosition);
  }
  appendBits(key, outline.evenOdd);
  for (const auto& element : outline.elements()) {
    key.push_back(static_cast<char>(element.verb));
    int points = element.verb == Path::Verb::Cubic ? 3 : element.verb == Path::Verb::Close ? 0 : 1;
    for (int i = 0; i < points; ++i) appendBits(key, element.points[i].x), appendBits(key, element.points[i].y);
  }
  return key;
}

// The blurred mask for `key` from the drawing's cache, or made by `draw`
// (which draws the unblurred alpha into a fresh mask) and kept.
template <typename Draw>
SurfaceRef blurredMask(cairo_t* cr, const DeviceArea& area, double radius, const std::string& key, Draw draw) {
  ShadowMaskCache* cache = ShadowMaskCache::of(cr);
  if (SurfaceRef kept = cache ? cache->find(key) : SurfaceRef()) return kept;
  SurfaceRef mask = SurfaceRef::adopt(createAreaSurface(CAIRO_FORMAT_A8, area));
  if (!mask) return mask;
  draw(mask.get());
  gaussianBlur(mask.get(), radius);
  if (cache) cache->keep(key, mask);
  return mask;
}

void paintOuterShadow(cairo_t* cr, const Path& outline, const Silhouette& silhouette, const Shadow& shadow) {
  double spread = spreadOf(shadow);
  double radius = blurPx(cr, shadow);
  int reach = gaussianReach(radius);
  double growth = std::max(0.0, sidesOf(silhouette).outside + spread) * kSpreadMiterLimit;
  Rect userBounds = movedRect(grownRect(outline.bounds(), growth), offsetOf(shadow));
  DeviceArea area = neededArea(cr, deviceAreaOf(cr, userBounds), reach);
  if (area.isEmpty()) return;
  SurfaceRef mask = blurredMask(cr, area, radius, maskKey(cr, area, 'o', outline, &silhouette, shadow),
                                [&](cairo_surface_t* target) {
                                  cairo_t* drawer = drawerFor(cr, target, area);
                                  cairo_translate(drawer, offsetOf(shadow).x, offsetOf(shadow).y);
                                  drawSilhouette(drawer, outline, silhouette, spread);
                                  cairo_destroy(drawer);
                                });
  if (mask) paintThroughMask(cr, shadow, mask.get(), area);
}

void paintInnerShadow(cairo_t* cr, const Path& outline, const Shadow& shadow) {
  double spread = spreadOf(shadow);
  double radius = blurPx(cr, shadow);
  int reach = gaussianReach(radius);
  DeviceArea shown = deviceAreaOf(cr, outline.bounds()).intersectedWith(deviceClipOf(cr));
  DeviceArea area = shown.grownBy(reach).limitedToImageSize();
  if (area.isEmpty()) return;
  // Everything but the moved outline casts: paint all, cut the hole, then
  // shrink the hole by the spread (or widen it for a negative spread).
  SurfaceRef mask = blurredMask(cr, area, radius, maskKey(cr, area, 'i', outline, nullptr, shadow),
                                [&](cairo_surface_t* target) {
                                  cairo_t* drawer = drawerFor(cr, target, area);
                                  cairo_paint(drawer);
                                  cairo_translate(drawer, offsetOf(shadow).x, offsetOf(shadow).y);
                                  fillOutline(drawer, outline, CAIRO_OPERATOR_DEST_OUT);
                                  strokeOutline(drawer, outline, 2 * spread, CAIRO_OPERATOR_OVER);
                                  strokeOutline(drawer, outline, -2 * spread, CAIRO_OPERATOR_DEST_OUT);
                                  cairo_destroy(drawer);
                                });
  if (!mask) return;
  cairo_save(cr);
  setOutline(cr, outline);
  cairo_clip(cr);
  paintThroughMask(cr, shadow, mask.get(), area);
  cairo_restore(cr);
}

DeviceArea areaOf(const DeviceImage& image) {
  return {image.x, image.y, image.x + cairo_image_surface_get_width(image.surface.get()),
          image.y + cairo_image_surface_get_height(image.surface.get())};
}

// Puts the content's alpha into `mask` (covering `area`), moved by the
// device offset, with operator `op`.
void paintContentAlpha(cairo_surface_t* mask, const DeviceArea& area, const DeviceImage& content, double dx, double dy,
                       cairo_operator_t op) {
  cairo_t* drawer = cairo_create(mask);
  cairo_set_operator(drawer, op);
  cairo_set_source_surface(drawer, content.surface.get(), content.x + dx - area.x0, content.y + dy - area.y0);
  cairo_paint(drawer);
  cairo_destroy(drawer);
}

struct DeviceShift {
  double dx = 0, dy = 0;
  int spreadPx = 0;
};

DeviceShift deviceShiftOf(cairo_t* cr, const Shadow& shadow) {
  DeviceShift shift{offsetOf(shadow).x, offsetOf(shadow).y};
  cairo_user_to_device_distance(cr, &shift.dx, &shift.dy);
  double spreadPx = std::clamp(spreadOf(shadow) * deviceScaleOf(cr), -kMaxBlurRadiusPx, kMaxBlurRadiusPx);
  shift.spreadPx = static_cast<int>(std::lround(spreadPx));
  return shift;
}

void paintOuterShadowOfImage(cairo_t* cr, const DeviceImage& content, const Shadow& shadow) {
  DeviceShift shift = deviceShiftOf(cr, shadow);
  double radius = blurPx(cr, shadow);
  int reach = gaussianReach(radius);
  DeviceArea moved = areaOf(content).movedBy(static_cast<int>(std::floor(shift.dx)), static_cast<int>(std::floor(shift.dy)));
  DeviceArea area = neededArea(cr, moved.grownBy(1 + std::max(shift.spreadPx, 0)), reach);
  cairo_surface_t* mask = area.isEmpty() ? nullptr : createAreaSurface(CAIRO_FORMAT_A8, area);
  if (!mask) return;
  paintContentAlpha(mask, area, content, shift.dx, shift.dy, CAIRO_OPERATOR_SOURCE);
  spreadAlpha(mask, shift.spreadPx);
  gaussianBlur(mask, radius);
  paintThroughMask(cr, shadow, mask, area);
  cairo_surface_destroy(mask);
}

void paintInnerShadowOfImage(cairo_t* cr, const DeviceImage& content, const Shadow& shadow) {
  DeviceShift shift = deviceShiftOf(cr, shadow);
  double radius = blurPx(cr, shadow);
  int reach = gaussianReach(radius) + std::max(shift.spreadPx, 0);
  DeviceArea shown = areaOf(content).intersectedWith(deviceClipOf(cr));
  DeviceArea area = shown.grownBy(reach).limitedToImageSize();
  cairo_surface_t* mask = area.isEmpty() ? nullptr : createAreaSurface(CAIRO_FORMAT_A8, area);
  if (!mask) return;
  cairo_t* drawer = cairo_create(mask);
  cairo_paint(drawer);
  cairo_destroy(drawer);
  paintContentAlpha(mask, area, content, shift.dx, shift.dy, CAIRO_OPERATOR_DEST_OUT);
  spreadAlpha(mask, shift.spreadPx);
  gaussianBlur(mask, radius);
  // Only where the content itself is.
  paintContentAlpha(mask, area, content, 0, 0, CAIRO_OPERATOR_DEST_IN);
  paintThroughMask(cr, shadow, mask, area);
  cairo_surface_destroy(mask);
}

}  // namespace

double shadowReach(const Shadow& shadow) {
  // A Gaussian of sigma = blur / 2 is negligible beyond 3 sigma.
  double blur = std::min(std::max(finiteOr0(shadow.blurRadius), 0.0), kMaxBlurRadiusPx);
  return std::max(spreadOf(shadow), 0.0) + 1.5 * blur + std::max(std::fabs(offsetOf(shadow).x), std::fabs(offsetOf(shadow).y));
}

Rect shadowBounds(const Rect& layerBounds, const std::vector<Shadow>& shadows) {
  Rect bounds = layerBounds;
  for (const Shadow& shadow : shadows) {
    double blur = std::min(std::max(finiteOr0(shadow.blurRadius), 0.0), kMaxBlurRadiusPx);
    Rect cast = grownRect(movedRect(layerBounds, offsetOf(shadow)), std::max(spreadOf(shadow), 0.0) + 1.5 * blur);
    bounds = bounds.unionWith(cast);
  }
  return bounds;
}

void paintOuterShadows(cairo_t* cr, const Path& outline, const Silhouette& silhouette, const std::vector<Shadow>& shadows) {
  if (outline.isEmpty()) return;
  for (const Shadow& shadow : shadows) paintOuterShadow(cr, outline, silhouette, shadow);
}

void paintInnerShadows(cairo_t* cr, const Path& outline, const std::vector<Shadow>& shadows) {
  if (outline.isEmpty()) return;
  for (const Shadow& shadow : shadows) paintInnerShadow(cr, outline, shadow);
}

void paintOuterShadowsOfImage(cairo_t* cr, const DeviceImage& content, const std::vector<Shadow>& shadows) {
  if (!content) return;
  for (const Shadow& shadow : shadows) paintOuterShadowOfImage(cr, content, shadow);
}

void paintInnerShadowsOfImage(cairo_t* cr, const DeviceImage& content, const std::vector<Shadow>& shadows) {
  if (!content) return;
  for (const Shadow& shadow : shadows) paintInnerShadowOfImage(cr, content, shadow);
}

}  // namespace plexa::render
