#pragma once
// Integer device-pixel rectangles and the cairo look-ups the effects need to
// find them: where a user-space rectangle lands on the device, and the clip.

#include "RenderTypes.h"

#include <cairo.h>

namespace plexa::render {

// Half-open pixel rectangle [x0, x1) × [y0, y1) in device space.
struct DeviceArea {
  int x0 = 0, y0 = 0, x1 = 0, y1 = 0;

  int width() const { return x1 - x0; }
  int height() const { return y1 - y0; }
  bool isEmpty() const { return x1 <= x0 || y1 <= y0; }
  DeviceArea grownBy(int margin) const;
  DeviceArea intersectedWith(const DeviceArea& other) const;
  DeviceArea movedBy(int dx, int dy) const { return {x0 + dx, y0 + dy, x1 + dx, y1 + dy}; }
  // Cuts the area to what an image surface can hold, keeping its top left.
  DeviceArea limitedToImageSize() const;
};

// The device pixels touched by `userRect` under cr's current transform.
DeviceArea deviceAreaOf(cairo_t* cr, const Rect& userRect);
// The device pixels cr's clip lets through.
DeviceArea deviceClipOf(cairo_t* cr);
// A transparent image surface covering `area`, or null if none can be made.
cairo_surface_t* createAreaSurface(cairo_format_t format, const DeviceArea& area);

}  // namespace plexa::render
