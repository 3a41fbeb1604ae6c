#include "RenderTypes.h"

#include "Log.h"

#include <algorithm>
#include <limits>

namespace plexa::render {

Rect Rect::unionWith(const Rect& other) const {
  if (isEmpty()) return other;
  if (other.isEmpty()) return *this;
  double left = std::min(x, other.x), top = std::min(y, other.y);
  double right = std::max(x + width, other.x + other.width);
  double bottom = std::max(y + height, other.y + other.height);
  return {left, top, right - left, bottom - top};
}

Rect transformedBounds(const Rect& rect, const cairo_matrix_t& m) {
  double xs[4] = {rect.x, rect.x + rect.width, rect.x + rect.width, rect.x};
  double ys[4] = {rect.y, rect.y, rect.y + rect.height, rect.y + rect.height};
  double inf = std::numeric_limits<double>::infinity();
  double minX = inf, minY = inf, maxX = -inf, maxY = -inf;
  for (int i = 0; i < 4; ++i) {
    cairo_matrix_transform_point(&m, &xs[i], &ys[i]);
    minX = std::min(minX, xs[i]), maxX = std::max(maxX, xs[i]);
    minY = std::min(minY, ys[i]), maxY = std::max(maxY, ys[i]);
  }
  return {minX, minY, maxX - minX, maxY - minY};
}

Rect Path::bounds() const {
  double inf = std::numeric_limits<double>::infinity();
  double minX = inf, minY = inf, maxX = -inf, maxY = -inf;
  for (const auto& element : elements_) {
    int count = element.verb == Verb::Cubic ? 3 : element.verb == Verb::Close ? 0 : 1;
    for (int i = 0; i < count; ++i) {
      minX = std::min(minX, element.points[i].x), maxX = std::max(maxX, element.points[i].x);
      minY = std::min(minY, element.points[i].y), maxY = std::max(maxY, element.points[i].y);
    }
  }
  if (minX > maxX) return {};
  return {minX, minY, maxX - minX, maxY - minY};
}

void Path::appendTo(cairo_t* cr) const {
  for (const auto& element : elements_) {
    const Point* p = element.points;
    switch (element.verb) {
      case Verb::Move: cairo_move_to(cr, p[0].x, p[0].y); break;
      case Verb::Line: cairo_line_to(cr, p[0].x, p[0].y); break;
      case Verb::Cubic: cairo_curve_to(cr, p[0].x, p[0].y, p[1].x, p[1].y, p[2].x, p[2].y); break;
      case Verb::Close: cairo_close_path(cr); break;
    }
  }
}

BlendMode blendModeFromSketch(long long value) {
  if (value < 0 || value > static_cast<long long>(BlendMode::PlusLighter)) return BlendMode::Normal;
  return static_cast<BlendMode>(value);
}

cairo_operator_t cairoOperator(BlendMode mode) {
  switch (mode) {
    case BlendMode::Normal: return CAIRO_OPERATOR_OVER;
    case BlendMode::Darken: return CAIRO_OPERATOR_DARKEN;
    case BlendMode::Multiply: return CAIRO_OPERATOR_MULTIPLY;
    case BlendMode::ColorBurn: return CAIRO_OPERATOR_COLOR_BURN;
    case BlendMode::Lighten: return CAIRO_OPERATOR_LIGHTEN;
    case BlendMode::Screen: return CAIRO_OPERATOR_SCREEN;
    case BlendMode::ColorDodge: return CAIRO_OPERATOR_COLOR_DODGE;
    case BlendMode::Overlay: return CAIRO_OPERATOR_OVERLAY;
    case BlendMode::SoftLight: return CAIRO_OPERATOR_SOFT_LIGHT;
    case BlendMode::HardLight: return CAIRO_OPERATOR_HARD_LIGHT;
    case BlendMode::Difference: return CAIRO_OPERATOR_DIFFERENCE;
    case BlendMode::Exclusion: return CAIRO_OPERATOR_EXCLUSION;
    case BlendMode::Hue: return CAIRO_OPERATOR_HSL_HUE;
    case BlendMode::Saturation: return CAIRO_OPERATOR_HSL_SATURATION;
    case BlendMode::Color: return CAIRO_OPERATOR_HSL_COLOR;
    case BlendMode::Luminosity: return CAIRO_OPERATOR_HSL_LUMINOSITY;
    case BlendMode::PlusDarker: return CAIRO_OPERATOR_MULTIPLY;
    case BlendMode::PlusLighter: return CAIRO_OPERATOR_ADD;
  }
  return CAIRO_OPERATOR_OVER;
}

bool RenderNotes::firstTime(std::string key) {
  std::lock_guard guard(lock_);
  return seen_.insert(std::move(key)).second;
}

void RenderNotes::skipped(std::string_view layerClass, std::string_view property) {
  if (firstTime(fmt::format("skip\x1f{}\x1f{}", layerClass, property)))
    PXLogWarn("not drawn: {} of {} layers", property, layerClass);
}

void RenderNotes::missingFont(std::string_view fontName, std::string_view substitute) {
  if (firstTime(fmt::format("font\x1f{}", fontName)))
    PXLogWarn("font \"{}\" is not installed; drawn with \"{}\"", fontName, substitute);
}

void RenderNotes::missingImage(std::string_view reference) {
  if (firstTime(fmt::format("image\x1f{}", reference))) PXLogWarn("image \"{}\" is missing from the document", reference);
}

}  // namespace plexa::render
