#include "DeviceArea.h"

#include <algorithm>
#include <cmath>

namespace plexa::render {

namespace {

// Keeps coordinates well inside int range so sums of margins never overflow.
constexpr double kCoordinateLimit = 1e8;
constexpr int kMaxImageSide = 32767;  // Cairo's image surface limit

int floorClamped(double v) {
  if (std::isnan(v)) return 0;
  return static_cast<int>(std::floor(std::clamp(v, -kCoordinateLimit, kCoordinateLimit)));
}

int ceilClamped(double v) {
  if (std::isnan(v)) return 0;
  return static_cast<int>(std::ceil(std::clamp(v, -kCoordinateLimit, kCoordinateLimit)));
}

}  // namespace

DeviceArea DeviceArea::grownBy(int margin) const {
  if (isEmpty()) return *this;
  return {x0 - margin, y0 - margin, x1 + margin, y1 + margin};
}

DeviceArea DeviceArea::intersectedWith(const DeviceArea& other) const {
  return {std::max(x0, other.x0), std::max(y0, other.y0), std::min(x1, other.x1), std::min(y1, other.y1)};
}

DeviceArea DeviceArea::limitedToImageSize() const {
  return {x0, y0, std::min(x1, x0 + kMaxImageSide), std::min(y1, y0 + kMaxImageSide)};
}

DeviceArea deviceAreaOf(cairo_t* cr, const Rect& userRect) {
  if (userRect.isEmpty()) return {};
  double xs[4] = {userRect.x, userRect.x + userRect.width, userRect.x, userRect.x + userRect.width};
  double ys[4] = {userRect.y, userRect.y, userRect.y + userRect.height, userRect.y + userRect.height};
  double minX = INFINITY, minY = INFINITY, maxX = -INFINITY, maxY = -INFINITY;
  for (int i = 0; i < 4; ++i) {
    cairo_user_to_device(cr, &xs[i], &ys[i]);
    minX = std::min(minX, xs[i]), maxX = std::max(maxX, xs[i]);
    minY = std::min(minY, ys[i]), maxY = std::max(maxY, ys[i]);
  }
  if (!(minX <= maxX) || !(minY <= maxY)) return {};
  return {floorClamped(minX), floorClamped(minY), ceilClamped(maxX), ceilClamped(maxY)};
}

DeviceArea deviceClipOf(cairo_t* cr) {
  cairo_save(cr);
  cairo_identity_matrix(cr);
  double x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  cairo_clip_extents(cr, &x0, &y0, &x1, &y1);
  cairo_restore(cr);
  return {floorClamped(x0), floorClamped(y0), ceilClamped(x1), ceilClamped(y1)};
}

cairo_surface_t* createAreaSurface(cairo_format_t format, const DeviceArea& area) {
  DeviceArea limited = area.limitedToImageSize();
  if (limited.isEmpty()) return nullptr;
  cairo_surface_t* surface = cairo_image_surface_create(format, limited.width(), limited.height());
  if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) {
    cairo_surface_destroy(surface);
    return nullptr;
  }
  return surface;
}

}  // namespace plexa::render
