#pragma once
// Blurs and shadows. Pixel work happens in device space on small image
// surfaces that cover only what can show: each effect finds the device
// rectangle it needs (the shape's device bounds grown by the effect's reach,
// cut to the current clip), draws the silhouette there, blurs it in integer
// arithmetic, and composites it back with an identity transform.
//
// Conventions:
// - Shadow and Blur values come from Style.h in points (the layer's own
//   units). The functions taking a cairo_t read its current transform: the
//   blur sigma in device pixels is blurRadius / 2 times the transform's scale
//   (sqrt |det|), and shadow offsets and spreads are in the layer's own
//   coordinates, so they turn and flip with the layer.
// - Radii are clamped (NaN and negatives count as 0, anything above
//   kMaxBlurRadiusPx device pixels as that), so no input makes a huge buffer.
// - Every function leaves the cairo_t state as it found it. Shadows use the
//   shadow's blend mode; the layer's own opacity is the caller's group.
// - Surfaces are CAIRO_FORMAT_ARGB32 (premultiplied) or CAIRO_FORMAT_A8 image
//   surfaces; anything else is left untouched.

#include "RenderTypes.h"
#include "Style.h"

#include <cairo.h>

#include <functional>
#include <memory>
#include <vector>

namespace plexa::render {

inline constexpr double kMaxBlurRadiusPx = 500;

// ---- pixel blurs (in place, device pixels; outside the surface is transparent)

// Gaussian blur with sigma = radiusPx / 2: three box blurs per axis (cost
// independent of the radius), or a direct kernel when sigma is under 3 px.
void gaussianBlur(cairo_surface_t* image, double radiusPx);
// A blur of length radiusPx either way along angleDegrees (0 = horizontal,
// positive turns clockwise on screen, as y grows downwards).
void motionBlur(cairo_surface_t* image, double radiusPx, double angleDegrees);
// Streaks pointing away from centrePx (surface pixels); a pixel at the
// farthest corner gets a streak radiusPx long, nearer ones proportionally less.
void zoomBlur(cairo_surface_t* image, double radiusPx, Point centrePx);

// Scales colour saturation of a premultiplied ARGB32 image (1 = unchanged).
void saturateImage(cairo_surface_t* image, double saturation);
// Grows (pixels > 0) or shrinks (< 0) the opaque parts of an A8 or ARGB32
// image by a square of that many pixels either way (max / min filter).
void spreadAlpha(cairo_surface_t* image, int pixels);

// How far (device pixels) a blur of radiusPx can move colour outwards; pad a
// surface by this so nothing is cut.
int gaussianReach(double radiusPx);
// Same for any Blur (its radius in points) under a device scale.
int blurReach(const Blur& blur, double deviceScale);

// Applies a layer blur (Gaussian, Motion or Zoom; Background is handled by
// paintBackgroundBlur) to `image`. `frameDevice` is the layer's frame in the
// image's pixels (for the zoom centre).
void applyLayerBlur(cairo_surface_t* image, const Blur& blur, double deviceScale, const Rect& frameDevice);

// ---- rendering a layer to a device-space image (for layer blur and for
// shadows of groups and text, whose silhouette is their rendered alpha)

struct SurfaceDeleter {
  void operator()(cairo_surface_t* s) const { cairo_surface_destroy(s); }
};
using SurfacePtr = std::unique_ptr<cairo_surface_t, SurfaceDeleter>;

struct DeviceImage {
  SurfacePtr surface;  // ARGB32; null when nothing can show (outside the clip)
  int x = 0, y = 0;    // device position of pixel (0, 0)
  explicit operator bool() const { return surface != nullptr; }
};

// Renders `draw` (called with a fresh cairo_t whose transform equals cr's) into
// an ARGB32 image covering the device bounds of `userBounds` (in cr's user
// space) grown by `marginPx`, limited to cr's clip grown by `marginPx`.
DeviceImage renderToDeviceImage(cairo_t* cr, const Rect& userBounds, int marginPx,
                                const std::function<void(cairo_t*)>& draw);
// Paints the image onto cr at its device position with cr's operator.
void paintDeviceImage(cairo_t* cr, const DeviceImage& image, double alpha = 1);

// Layer blur in one call: renders `draw` with room for the blur, blurs, paints
// with cr's operator. `drawnBounds` holds everything `draw` paints (borders
// and shadows included) and `frame` is the layer's frame (zoom centre), both
// in cr's user space.
void paintBlurred(cairo_t* cr, const Rect& drawnBounds, const Rect& frame, const Blur& blur,
                  const std::function<void(cairo_t*)>& draw);

// Background blur: blurs what lies beneath `shape` and paints it inside the
// shape. `backdrop` is an image surface holding what has been drawn so far,
// addressed in cr's device space (its device offset is honoured; for the
// artboard's own target pass cairo_get_target). Draw the layer's fills after.
void paintBackgroundBlur(cairo_t* cr, cairo_surface_t* backdrop, const Path& shape, const Blur& blur);

// ---- shadows

// What of a shape casts its outer shadow: its fill area (when any fill is
// drawn) and its thickest border.
struct Silhouette {
  bool filled = true;
  double borderThickness = 0;  // 0: no border drawn
  BorderPosition borderPosition = BorderPosition::Center;
};

// How far (points) a shadow can reach beyond the layer's outline.
double shadowReach(const Shadow& shadow);
// The layer bounds grown to hold all the given outer shadows (points).
Rect shadowBounds(const Rect& layerBounds, const std::vector<Shadow>& shadows);

// Outer shadows of a shape, painted in order (first = bottom-most) beneath
// whatever the caller draws next: the silhouette grown by `spread` (shrunk
// when negative), moved by the offset, blurred, tinted with the shadow colour.
// The shape's own fills cover it; transparent fills let it show through.
void paintOuterShadows(cairo_t* cr, const Path& outline, const Silhouette& silhouette,
                       const std::vector<Shadow>& shadows);

// Inner shadows of a shape, painted only inside the outline: the outside of
// the outline, moved by the offset, its edge pushed inwards by `spread`,
// blurred and tinted. Draw after the fills and before the borders.
void paintInnerShadows(cairo_t* cr, const Path& outline, const std::vector<Shadow>& shadows);

// Outer / inner shadows of already rendered content (groups, text, images):
// the silhouette is the image's alpha. Spread grows (or shrinks) the alpha by
// a dilation of `spread` points. cr's transform gives the offset direction
// and the scale. Paint outer shadows before the image, inner ones after it.
void paintOuterShadowsOfImage(cairo_t* cr, const DeviceImage& content, const std::vector<Shadow>& shadows);
void paintInnerShadowsOfImage(cairo_t* cr, const DeviceImage& content, const std::vector<Shadow>& shadows);

// The device pixels per point of cr's transform (sqrt |det|, 1 if degenerate).
double deviceScaleOf(cairo_t* cr);

}  // namespace plexa::render
