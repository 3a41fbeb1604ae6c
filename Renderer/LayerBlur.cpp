// Rendering a layer into a device-space image, layer blur and background blur.

#include "Effects.h"

#include "DeviceArea.h"

#include <cmath>
#include <cstdint>

namespace plexa::render {

double deviceScaleOf(cairo_t* cr) {
  cairo_matrix_t m;
  cairo_get_matrix(cr, &m);
  double scale = std::sqrt(std::fabs(m.xx * m.yy - m.xy * m.yx));
  return std::isfinite(scale) && scale > 0 ? scale : 1;
}

DeviceImage renderToDeviceImage(cairo_t* cr, const Rect& userBounds, int marginPx,
                                const std::function<void(cairo_t*)>& draw) {
  DeviceArea area = deviceAreaOf(cr, userBounds).grownBy(marginPx);
  area = area.intersectedWith(deviceClipOf(cr).grownBy(marginPx)).limitedToImageSize();
  DeviceImage image;
  cairo_surface_t* surface = area.isEmpty() ? nullptr : createAreaSurface(CAIRO_FORMAT_ARGB32, area);
  if (!surface) return image;
  image.surface.reset(surface);
  image.x = area.x0, image.y = area.y0;

  cairo_matrix_t m;
  cairo_get_matrix(cr, &m);
  cairo_t* inner = cairo_create(surface);
  cairo_translate(inner, -area.x0, -area.y0);
  cairo_transform(inner, &m);
  cairo_set_antialias(inner, cairo_get_antialias(cr));
  cairo_set_tolerance(inner, cairo_get_tolerance(cr));
  draw(inner);
  cairo_destroy(inner);
  cairo_surface_flush(surface);
  return image;
}

void paintDeviceImage(cairo_t* cr, const DeviceImage& image, double alpha) {
  if (!image) return;
  cairo_save(cr);
  cairo_identity_matrix(cr);
  cairo_set_source_surface(cr, image.surface.get(), image.x, image.y);
  cairo_paint_with_alpha(cr, alpha);
  cairo_restore(cr);
}

void paintBlurred(cairo_t* cr, const Rect& drawnBounds, const Rect& frame, const Blur& blur,
                  const std::function<void(cairo_t*)>& draw) {
  double scale = deviceScaleOf(cr);
  DeviceImage image = renderToDeviceImage(cr, drawnBounds, blurReach(blur, scale), draw);
  if (!image) return;
  double x0 = frame.x, y0 = frame.y, x1 = frame.x + frame.width, y1 = frame.y + frame.height;
  cairo_user_to_device(cr, &x0, &y0);
  cairo_user_to_device(cr, &x1, &y1);
  Rect frameInImage{std::min(x0, x1) - image.x, std::min(y0, y1) - image.y, std::fabs(x1 - x0), std::fabs(y1 - y0)};
  applyLayerBlur(image.surface.get(), blur, scale, frameInImage);
  paintDeviceImage(cr, image);
}

namespace {

// Copies the device pixels of `area` out of `backdrop` (whose pixel is the
// device position plus its device offset) into `copy`; outside is transparent.
void copyBackdrop(cairo_surface_t* backdrop, cairo_surface_t* copy, const DeviceArea& area) {
  cairo_format_t format = cairo_image_surface_get_format(backdrop);
  if (format != CAIRO_FORMAT_ARGB32 && format != CAIRO_FORMAT_RGB24) return;
  cairo_surface_flush(backdrop);
  cairo_surface_flush(copy);
  double offsetX = 0, offsetY = 0;
  cairo_surface_get_device_offset(backdrop, &offsetX, &offsetY);
  int shiftX = static_cast<int>(std::lround(offsetX)), shiftY = static_cast<int>(std::lround(offsetY));
  DeviceArea available{-shiftX, -shiftY, cairo_image_surface_get_width(backdrop) - shiftX,
                       cairo_image_surface_get_height(backdrop) - shiftY};
  DeviceArea part = area.intersectedWith(available);
  const unsigned char* from = cairo_image_surface_get_data(backdrop);
  unsigned char* to = cairo_image_surface_get_data(copy);
  int fromStride = cairo_image_surface_get_stride(backdrop), toStride = cairo_image_surface_get_stride(copy);
  for (int y = part.y0; y < part.y1 && !part.isEmpty(); ++y) {
    const auto* source = reinterpret_cast<const uint32_t*>(from + static_cast<size_t>(y + shiftY) * fromStride);
    auto* target = reinterpret_cast<uint32_t*>(to + static_cast<size_t>(y - area.y0) * toStride);
    for (int x = part.x0; x < part.x1; ++x) {
      uint32_t pixel = source[x + shiftX];
      target[x - area.x0] = format == CAIRO_FORMAT_RGB24 ? (pixel | 0xff000000u) : pixel;
    }
  }
  cairo_surface_mark_dirty(copy);
}

}  // namespace

void paintBackgroundBlur(cairo_t* cr, cairo_surface_t* backdrop, const Path& shape, const Blur& blur) {
  if (!backdrop || cairo_surface_get_type(backdrop) != CAIRO_SURFACE_TYPE_IMAGE || shape.isEmpty()) return;
  int reach = blurReach(blur, deviceScaleOf(cr));
  DeviceArea shown = deviceAreaOf(cr, shape.bounds()).intersectedWith(deviceClipOf(cr));
  DeviceArea area = shown.grownBy(reach).limitedToImageSize();
  cairo_surface_t* copy = area.isEmpty() ? nullptr : createAreaSurface(CAIRO_FORMAT_ARGB32, area);
  if (!copy) return;

  copyBackdrop(backdrop, copy, area);
  gaussianBlur(copy, blur.radius * deviceScaleOf(cr));
  saturateImage(copy, blur.saturation);

  cairo_save(cr);
  cairo_new_path(cr);
  shape.appendTo(cr);
  cairo_set_fill_rule(cr, shape.evenOdd ? CAIRO_FILL_RULE_EVEN_ODD : CAIRO_FILL_RULE_WINDING);
  cairo_clip(cr);
  cairo_identity_matrix(cr);
  cairo_set_source_surface(cr, copy, area.x0, area.y0);
  cairo_paint(cr);
  cairo_restore(cr);
  cairo_surface_destroy(copy);
}

}  // namespace plexa::render
