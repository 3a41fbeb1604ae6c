// Reading a layer's `style` object into a Style. Painting is in StylePainter.cpp.
#include "Style.h"

#include "Json.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

namespace plexa::render {

namespace {

using boost::json::value;

// Sketch's colour for a fill or border that names none.
constexpr Color kDefaultPaintColor{0.847, 0.847, 0.847, 1};

double clamp01(double v) { return std::clamp(v, 0.0, 1.0); }

double numberFor(const value* object, std::string_view key, double fallback) {
  auto number = PXJsonDoubleFor(object, key);
  return number ? *number : fallback;
}

// Lengths beyond these draw nothing sensible and can stall the rasteriser.
constexpr double kMaxLength = 1e5;
constexpr double kMaxOffset = 1e6;

double boundedFor(const value* object, std::string_view key, double fallback, double low, double high) {
  return std::clamp(numberFor(object, key, fallback), low, high);
}

bool enabledFor(const value* object) {
  auto enabled = PXJsonBoolFor(object, "isEnabled");
  return enabled.value_or(true);
}

long long integerFor(const value* object, std::string_view key, long long fallback) {
  auto number = PXJsonInt64For(object, key);
  return number ? *number : fallback;
}

std::optional<Color> parseHexColor(std::string_view text) {
  text.remove_prefix(1);
  if (text.size() != 6 && text.size() != 8) return std::nullopt;
  unsigned parts[4] = {0, 0, 0, 255};
  for (size_t i = 0; i < text.size() / 2; ++i) {
    auto byte = std::string(text.substr(i * 2, 2));
    char* end = nullptr;
    parts[i] = static_cast<unsigned>(std::strtoul(byte.c_str(), &end, 16));
    if (end != byte.c_str() + 2) return std::nullopt;
  }
  return Color{parts[0] / 255.0, parts[1] / 255.0, parts[2] / 255.0, parts[3] / 255.0};
}

std::optional<Color> parseRGBAColor(std::string_view text) {
  std::string copy(text);
  double r, g, b, a = 1;
  int read = std::sscanf(copy.c_str(), "rgba(%lf ,%lf ,%lf ,%lf", &r, &g, &b, &a);
  if (read < 3) read = std::sscanf(copy.c_str(), "rgb(%lf ,%lf ,%lf", &r, &g, &b);
  if (read < 3 || !std::isfinite(r) || !std::isfinite(g) || !std::isfinite(b) || !std::isfinite(a)) return std::nullopt;
  // Values above 1 are in 0–255 form.
  double scale = (r > 1 || g > 1 || b > 1) ? 255.0 : 1.0;
  return Color{clamp01(r / scale), clamp01(g / scale), clamp01(b / scale), clamp01(a)};
}

struct ContextSettings {
  double opacity = 1;
  BlendMode blendMode = BlendMode::Normal;
};

ContextSettings contextSettingsFor(const value* owner) {
  const value* settings = PXJsonFind(owner, "contextSettings");
  return {clamp01(numberFor(settings, "opacity", 1)), blendModeFromSketch(integerFor(settings, "blendMode", 0))};
}

std::vector<GradientStop> readStops(const value* gradientJSON) {
  std::vector<GradientStop> stops;
  if (const auto* list = PXJsonArrayFor(gradientJSON, "stops")) {
    for (const auto& stop : *list) {
      auto color = parseColor(PXJsonFind(&stop, "color"));
      auto position = PXJsonDoubleFor(&stop, "position");
      if (color && position) stops.push_back({clamp01(*position), *color});
    }
  }
  std::stable_sort(stops.begin(), stops.end(),
                   [](const GradientStop& a, const GradientStop& b) { return a.position < b.position; });
  return stops;
}

Point pointFor(const value* object, std::string_view key, Point fallback) {
  auto text = PXJsonTextFor(object, key);
  if (!text) return fallback;
  return parsePointString(*text).value_or(fallback);
}

std::optional<Gradient> readGradient(const value* gradientJSON, RenderNotes& notes, std::string_view layerClass) {
  Gradient gradient;
  gradient.stops = readStops(gradientJSON);
  if (gradient.stops.empty()) {
    notes.skipped(layerClass, "gradient without colour stops");
    return std::nullopt;
  }
  switch (integerFor(gradientJSON, "gradientType", 0)) {
    case 0: gradient.kind = GradientKind::Linear; break;
    case 1: gradient.kind = GradientKind::Radial; break;
    case 2: gradient.kind = GradientKind::Angular; break;
    default: notes.skipped(layerClass, "unknown gradient type (drawn linear)"); break;
  }
  gradient.from = pointFor(gradientJSON, "from", {0.5, 0});
  gradient.to = pointFor(gradientJSON, "to", {0.5, 1});
  // Older files write 0 where no ellipse was ever set: that is a circle.
  double ellipse = numberFor(gradientJSON, "elipseLength", 1);
  gradient.ellipseLength = ellipse > 0 ? ellipse : 1;
  return gradient;
}

PatternFit patternFitFor(long long type) {
  switch (type) {
    case 0: return PatternFit::Tile;
    case 2: return PatternFit::Stretch;
    case 3: return PatternFit::Fit;
    default: return PatternFit::Fill;
  }
}

bool readImagePaint(const value* fill, Paint& paint, ImageSource& images, RenderNotes& notes,
                    std::string_view layerClass) {
  auto reference = PXJsonTextFor(PXJsonFind(fill, "image"), "_ref");
  if (!reference) {
    notes.skipped(layerClass, "image fill without an image");
    return false;
  }
  paint.image = images.image(*reference, notes);
  paint.patternFit = patternFitFor(integerFor(fill, "patternFillType", 1));
  double scale = boundedFor(fill, "patternTileScale", 1, 0, 1e3);
  paint.patternTileScale = scale > 1e-3 ? scale : 1;
  return static_cast<bool>(paint.image);
}

// One fill or border paint; nullopt when it draws nothing.
std::optional<Paint> readPaint(const value* fill, ImageSource& images, RenderNotes& notes, std::string_view layerClass,
                               bool isBorder) {
  Paint paint;
  paint.color = parseColor(PXJsonFind(fill, "color")).value_or(kDefaultPaintColor);
  auto context = contextSettingsFor(fill);
  paint.opacity = context.opacity;
  paint.blendMode = context.blendMode;
  long long type = integerFor(fill, "fillType", 0);
  switch (type) {
    case 0: paint.kind = PaintKind::Color; return paint;
    case 1: {
      paint.kind = PaintKind::Gradient;
      auto gradient = readGradient(PXJsonFind(fill, "gradient"), notes, layerClass);
      if (!gradient) return std::nullopt;
      paint.gradient = std::move(*gradient);
      return paint;
    }
    case 4:
      if (isBorder) break;
      paint.kind = PaintKind::Image;
      if (!readImagePaint(fill, paint, images, notes, layerClass)) return std::nullopt;
      return paint;
    case 5:
      paint.kind = PaintKind::Noise;
      paint.noiseIntensity = clamp01(numberFor(fill, "noiseIntensity", 0));
      notes.skipped(layerClass, isBorder ? "noise border" : "noise fill");
      return std::nullopt;
    default: break;
  }
  notes.skipped(layerClass, fmt::format("{} of fill type {}", isBorder ? "border" : "fill", type));
  return std::nullopt;
}

std::vector<Paint> readFills(const value* style, ImageSource& images, RenderNotes& notes, std::string_view layerClass) {
  std::vector<Paint> fills;
  if (const auto* list = PXJsonArrayFor(style, "fills")) {
    for (const auto& fill : *list) {
      if (!fill.is_object() || !enabledFor(&fill)) continue;
      if (auto paint = readPaint(&fill, images, notes, layerClass, false)) fills.push_back(std::move(*paint));
    }
  }
  return fills;
}

BorderPosition borderPositionFor(long long position) {
  switch (position) {
    case 1: return BorderPosition::Inside;
    case 2: return BorderPosition::Outside;
    default: return BorderPosition::Center;
  }
}

std::vector<Border> readBorders(const value* style, ImageSource& images, RenderNotes& notes,
                                std::string_view layerClass) {
  std::vector<Border> borders;
  if (const auto* list = PXJsonArrayFor(style, "borders")) {
    for (const auto& entry : *list) {
      if (!entry.is_object() || !enabledFor(&entry)) continue;
      double thickness = boundedFor(&entry, "thickness", 1, 0, kMaxLength);
      if (!(thickness > 0)) continue;
      auto paint = readPaint(&entry, images, notes, layerClass, true);
      if (!paint) continue;
      borders.push_back({std::move(*paint), borderPositionFor(integerFor(&entry, "position", 0)), thickness});
    }
  }
  return borders;
}

// Cairo puts the whole context in an error state on a negative or all-zero
// dash list, so only lengths that can be drawn are kept.
std::vector<double> readDashes(const value* options) {
  std::vector<double> dashes;
  bool anyPositive = false;
  if (const auto* list = PXJsonArrayFor(options, "dashPattern")) {
    for (const auto& entry : *list) {
      auto length = PXJsonDouble(&entry);
      if (!length || *length < 0) continue;
      dashes.push_back(std::min(*length, kMaxLength));
      anyPositive = anyPositive || *length > 0;
    }
  }
  if (!anyPositive) dashes.clear();
  return dashes;
}

// `isEnabled` on border options is false in most files that still draw
// their dashes, so it is not consulted.
BorderOptions readBorderOptions(const value* style) {
  const value* options = PXJsonFind(style, "borderOptions");
  BorderOptions result;
  result.dashPattern = readDashes(options);
  switch (integerFor(options, "lineCapStyle", 0)) {
    case 1: result.lineCap = CAIRO_LINE_CAP_ROUND; break;
    case 2: result.lineCap = CAIRO_LINE_CAP_SQUARE; break;
    default: result.lineCap = CAIRO_LINE_CAP_BUTT; break;
  }
  switch (integerFor(options, "lineJoinStyle", 0)) {
    case 1: result.lineJoin = CAIRO_LINE_JOIN_ROUND; break;
    case 2: result.lineJoin = CAIRO_LINE_JOIN_BEVEL; break;
    default: result.lineJoin = CAIRO_LINE_JOIN_MITER; break;
  }
  return result;
}

Marker markerFor(const value* style, std::string_view markerKey, std::string_view decorationKey, RenderNotes& notes,
                 std::string_view layerClass) {
  if (auto type = PXJsonInt64(PXJsonFind(style, markerKey))) {
    if (*type >= 0 && *type <= static_cast<long long>(Marker::FilledSquare)) return static_cast<Marker>(*type);
    notes.skipped(layerClass, fmt::format("arrow head type {}", *type));
    return Marker::None;
  }
  // Older files: none, open arrow, closed arrow, bar.
  switch (integerFor(style, decorationKey, 0)) {
    case 1: return Marker::OpenArrow;
    case 2: return Marker::FilledArrow;
    case 3: return Marker::Line;
    default: return Marker::None;
  }
}

std::vector<Shadow> readShadows(const value* style, std::string_view key) {
  std::vector<Shadow> shadows;
  if (const auto* list = PXJsonArrayFor(style, key)) {
    for (const auto& entry : *list) {
      if (!entry.is_object() || !enabledFor(&entry)) continue;
      Shadow shadow;
      shadow.color = parseColor(PXJsonFind(&entry, "color")).value_or(Color{0, 0, 0, 0.5});
      auto context = contextSettingsFor(&entry);
      shadow.color.a *= context.opacity;
      shadow.blendMode = context.blendMode;
      shadow.offsetX = boundedFor(&entry, "offsetX", 0, -kMaxOffset, kMaxOffset);
      shadow.offsetY = boundedFor(&entry, "offsetY", 0, -kMaxOffset, kMaxOffset);
      shadow.blurRadius = boundedFor(&entry, "blurRadius", 0, 0, kMaxLength);
      shadow.spread = boundedFor(&entry, "spread", 0, -kMaxLength, kMaxLength);
      shadows.push_back(shadow);
    }
  }
  return shadows;
}

std::optional<Blur> readBlur(const value* style) {
  const value* blurJSON = PXJsonFind(style, "blur");
  if (!blurJSON || !blurJSON->is_object() || !enabledFor(blurJSON)) return std::nullopt;
  // An old file may lack `isEnabled`; a blur that was never switched on has none.
  if (!PXJsonFind(blurJSON, "isEnabled")) return std::nullopt;
  Blur blur;
  switch (integerFor(blurJSON, "type", 0)) {
    case 1: blur.kind = BlurKind::Motion; break;
    case 2: blur.kind = BlurKind::Zoom; break;
    case 3: blur.kind = BlurKind::Background; break;
    default: blur.kind = BlurKind::Gaussian; break;
  }
  blur.radius = boundedFor(blurJSON, "radius", 0, 0, kMaxLength);
  if (!(blur.radius > 0)) return std::nullopt;
  blur.motionAngle = numberFor(blurJSON, "motionAngle", 0);
  blur.center = pointFor(blurJSON, "center", {0.5, 0.5});
  blur.saturation = std::max(0.0, numberFor(blurJSON, "saturation", 1));
  return blur;
}

}  // namespace

std::optional<Point> parsePointString(std::string_view text) {
  std::string copy(text);
  double x, y;
  char close = 0;
  if (std::sscanf(copy.c_str(), " {%lf ,%lf %c", &x, &y, &close) != 3 || close != '}') return std::nullopt;
  if (!std::isfinite(x) || !std::isfinite(y)) return std::nullopt;
  return Point{x, y};
}

std::optional<Color> parseColor(const value* colorJSON) {
  if (!colorJSON) return std::nullopt;
  if (auto text = PXJsonText(colorJSON)) {
    if (text->starts_with('#')) return parseHexColor(*text);
    return parseRGBAColor(*text);
  }
  if (!colorJSON->is_object()) return std::nullopt;
  return Color{clamp01(numberFor(colorJSON, "red", 0)), clamp01(numberFor(colorJSON, "green", 0)),
               clamp01(numberFor(colorJSON, "blue", 0)), clamp01(numberFor(colorJSON, "alpha", 1))};
}

Style buildStyle(const value* styleJSON, ImageSource& images, RenderNotes& notes, std::string_view layerClass) {
  Style style;
  if (!styleJSON || !styleJSON->is_object()) return style;
  style.fills = readFills(styleJSON, images, notes, layerClass);
  style.borders = readBorders(styleJSON, images, notes, layerClass);
  style.borderOptions = readBorderOptions(styleJSON);
  style.startMarker = markerFor(styleJSON, "startMarkerType", "startDecorationType", notes, layerClass);
  style.endMarker = markerFor(styleJSON, "endMarkerType", "endDecorationType", notes, layerClass);
  double miter = numberFor(styleJSON, "miterLimit", 10);
  style.miterLimit = miter >= 1 ? miter : 10;
  if (auto rule = PXJsonInt64(PXJsonFind(styleJSON, "windingRule"))) style.evenOdd = *rule == 1;
  auto context = contextSettingsFor(styleJSON);
  style.opacity = context.opacity;
  style.blendMode = context.blendMode;
  style.shadows = readShadows(styleJSON, "shadows");
  style.innerShadows = readShadows(styleJSON, "innerShadows");
  style.blur = readBlur(styleJSON);
  return style;
}

}  // namespace plexa::render
