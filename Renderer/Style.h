#pragma once
// The resolved style of one layer: fills, borders, border options, arrow
// heads, shadows and blur, read once from the document's `style` object
// (Sketch 43 and later, old and new key names), and the painters that draw
// fills and borders with Cairo.
//
// How a layer is drawn, in order (the caller orchestrates):
//   1. layer opacity / blend mode: `style.opacity`, `style.blendMode` — the
//      caller groups the layer (cairo_push_group ... paint_with_alpha) when
//      they are not 1 / Normal; the painters here never apply them;
//   2. outer shadows (`style.shadows`, painted by the effects code);
//   3. paintFills();
//   4. inner shadows (`style.innerShadows`, effects code);
//   5. paintBorders() (arrow heads included for open paths);
//   6. `style.blur` is applied by the effects code to the result.
// All painters work under the caller's current transform, in the layer's
// own coordinates (points), and leave the cairo_t state as they found it
// (the current path is replaced). A fill's or border's own blend mode mixes
// with whatever the target already holds: inside a layer group that is only
// the layer's own lower fills.

#include "ImageSource.h"
#include "RenderTypes.h"

#include <boost/json/value.hpp>
#include <cairo.h>

#include <optional>
#include <string_view>
#include <vector>

namespace plexa::render {

enum class GradientKind { Linear, Radial, Angular };

struct GradientStop {
  double position = 0;  // 0–1 along the gradient
  Color color;
};

// Linear: from → to. Radial: centred on `from`, reaching `to`, squeezed
// across that axis by `ellipseLength`. Angular: around the frame's centre,
// clockwise (on screen) starting in the direction from → to.
struct Gradient {
  GradientKind kind = GradientKind::Linear;
  // Unit coordinates relative to the frame: {0,0} top left, {1,1} bottom right.
  Point from{0.5, 0}, to{0.5, 1};
  // Radial: the ellipse's minor axis as a fraction of its major axis (from→to).
  double ellipseLength = 1;
  std::vector<GradientStop> stops;  // sorted by position, at least one
};

// How an image fill places its image in the frame.
enum class PatternFit { Tile, Fill, Stretch, Fit };

enum class PaintKind { Color, Gradient, Image, Noise };

// One fill, or the paint of one border.
struct Paint {
  PaintKind kind = PaintKind::Color;
  Color color;
  Gradient gradient;                    // kind Gradient
  SurfaceRef image;                     // kind Image; empty when the image is missing
  PatternFit patternFit = PatternFit::Fill;
  double patternTileScale = 1;          // Tile: image pixels → points factor
  double noiseIntensity = 0;            // kind Noise (not drawn; noted)
  double opacity = 1;                   // the fill's own contextSettings.opacity
  BlendMode blendMode = BlendMode::Normal;
};

enum class BorderPosition { Center, Inside, Outside };

struct Border {
  Paint paint;
  BorderPosition position = BorderPosition::Center;
  double thickness = 1;
};

struct BorderOptions {
  std::vector<double> dashPattern;  // on/off lengths in points; empty: solid
  cairo_line_cap_t lineCap = CAIRO_LINE_CAP_BUTT;
  cairo_line_join_t lineJoin = CAIRO_LINE_JOIN_MITER;
};

// Arrow heads at the ends of open paths (numbers as the document's marker
// types), in the border's paint, sized from its thickness t: arrows 3t deep,
// circles and squares 4t across, bars 6t long.
enum class Marker { None, OpenArrow, FilledArrow, Line, OpenCircle, FilledCircle, OpenSquare, FilledSquare };

struct Shadow {
  Color color;  // opacity of the shadow's contextSettings already folded into alpha
  double offsetX = 0, offsetY = 0;
  double blurRadius = 0;
  double spread = 0;
  BlendMode blendMode = BlendMode::Normal;
};

enum class BlurKind { Gaussian, Motion, Zoom, Background };

struct Blur {
  BlurKind kind = BlurKind::Gaussian;
  double radius = 0;
  double motionAngle = 0;  // degrees
  Point center{0.5, 0.5};  // zoom: unit coordinates relative to the frame
  double saturation = 1;   // background blur
};

struct Style {
  // Enabled entries only, bottom-most first (document order).
  std::vector<Paint> fills;
  std::vector<Border> borders;
  BorderOptions borderOptions;
  Marker startMarker = Marker::None, endMarker = Marker::None;
  double miterLimit = 10;
  // The style's winding rule (1 even-odd) when it has one; the caller copies
  // it into Path::evenOdd (a layer-level `windingRule` wins in older files).
  std::optional<bool> evenOdd;

  double opacity = 1;  // layer's contextSettings
  BlendMode blendMode = BlendMode::Normal;

  std::vector<Shadow> shadows;       // enabled only
  std::vector<Shadow> innerShadows;  // enabled only
  std::optional<Blur> blur;          // set only when enabled and radius > 0

  bool hasBorders() const { return !borders.empty(); }
  bool isInvisible() const { return fills.empty() && borders.empty() && shadows.empty() && innerShadows.empty(); }
};

// Reads a `style` object. A missing style or missing keys give defaults;
// bad values (wrong types, NaN, out of range) are clamped or skipped, and
// what cannot be drawn (noise fills, unknown formats) is noted once per
// `layerClass`. Image references are resolved through `images` now.
Style buildStyle(const boost::json::value* styleJSON, ImageSource& images, RenderNotes& notes,
                 std::string_view layerClass);

// Fills `outline` (its own `evenOdd` rule) with every fill, bottom first.
// Gradient points and image placement are relative to `frameInLayer`,
// normally {0, 0, frame.width, frame.height}.
void paintFills(cairo_t* cr, const Style& style, const Path& outline, const Rect& frameInLayer);

// Strokes every border at its position (inside: clipped to the outline;
// outside: outline cut out; centre: plain; open paths always centre), with
// dashes, caps and joins from the border options, then the arrow heads when
// `isClosedPath` is false. Gradient borders use `frame` as fills do.
void paintBorders(cairo_t* cr, const Style& style, const Path& outline, const Rect& frame, bool isClosedPath);

// `pathBounds` grown by how far borders (and arrow heads) reach outside the
// outline, for export bounds. Shadows and blur are not included.
Rect styleBounds(const Style& style, const Rect& pathBounds);

// Parses Sketch's "{x, y}" point strings; nullopt when malformed.
std::optional<Point> parsePointString(std::string_view text);
// Reads a colour object ({red, green, blue, alpha} 0–1, or "#RRGGBB[AA]" /
// "rgba(r,g,b,a)" strings); components are clamped, missing ones default to
// 0 (alpha 1).
std::optional<Color> parseColor(const boost::json::value* colorJSON);

}  // namespace plexa::render
