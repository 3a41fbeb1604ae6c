// Drawing a Style's fills, borders and arrow heads with Cairo.
#include "Style.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace plexa::render {

namespace {

// Owns one pattern reference.
struct PatternHolder {
  cairo_pattern_t* pattern = nullptr;
  explicit PatternHolder(cairo_pattern_t* p) : pattern(p) {}
  ~PatternHolder() { if (pattern) cairo_pattern_destroy(pattern); }
  PatternHolder(const PatternHolder&) = delete;
  PatternHolder& operator=(const PatternHolder&) = delete;
};

Point framePoint(const Rect& frame, Point unit) {
  return {frame.x + unit.x * frame.width, frame.y + unit.y * frame.height};
}

void addStops(cairo_pattern_t* pattern, const std::vector<GradientStop>& stops) {
  for (const auto& stop : stops)
    cairo_pattern_add_color_stop_rgba(pattern, stop.position, stop.color.r, stop.color.g, stop.color.b, stop.color.a);
}

Color mix(const Color& a, const Color& b, double t) {
  return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t, a.a + (b.a - a.a) * t};
}

// The gradient's colour at `t` (0–1), held flat before the first and after the last stop.
Color colorAt(const std::vector<GradientStop>& stops, double t) {
  if (t <= stops.front().position) return stops.front().color;
  for (size_t i = 1; i < stops.size(); ++i) {
    if (t <= stops[i].position) {
      double span = stops[i].position - stops[i - 1].position;
      return span > 0 ? mix(stops[i - 1].color, stops[i].color, (t - stops[i - 1].position) / span) : stops[i].color;
    }
  }
  return stops.back().color;
}

cairo_pattern_t* linearPattern(const Gradient& gradient, const Rect& frame) {
  Point from = framePoint(frame, gradient.from), to = framePoint(frame, gradient.to);
  cairo_pattern_t* pattern = cairo_pattern_create_linear(from.x, from.y, to.x, to.y);
  addStops(pattern, gradient.stops);
  return pattern;
}

// A circle of radius |to − from| around `from`, squeezed across the from→to
// axis by the ellipse length.
cairo_pattern_t* radialPattern(const Gradient& gradient, const Rect& frame) {
  Point from = framePoint(frame, gradient.from), to = framePoint(frame, gradient.to);
  double radius = std::hypot(to.x - from.x, to.y - from.y);
  if (!(radius > 1e-9)) {
    const Color& last = gradient.stops.back().color;
    return cairo_pattern_create_rgba(last.r, last.g, last.b, last.a);
  }
  cairo_pattern_t* pattern = cairo_pattern_create_radial(0, 0, 0, 0, 0, radius);
  addStops(pattern, gradient.stops);
  cairo_matrix_t matrix;
  cairo_matrix_init_translate(&matrix, from.x, from.y);
  cairo_matrix_rotate(&matrix, std::atan2(to.y - from.y, to.x - from.x));
  cairo_matrix_scale(&matrix, 1, std::max(gradient.ellipseLength, 1e-6));
  if (cairo_matrix_invert(&matrix) == CAIRO_STATUS_SUCCESS) cairo_pattern_set_matrix(pattern, &matrix);
  return pattern;
}

// Angles around the frame's centre, turning clockwise on screen from the
// direction of from→to (Sketch's own renders put the seam there): a fan of
// thin wedges, each shading from one angle's colour to the next, sharp stops
// included as wedge edges.
cairo_pattern_t* angularPattern(const Gradient& gradient, const Rect& frame) {
  constexpr int kWedges = 180;
  Point center{frame.x + frame.width / 2, frame.y + frame.height / 2};
  Point from = framePoint(frame, gradient.from), to = framePoint(frame, gradient.to);
  double start = (from == to) ? 0 : std::atan2(to.y - from.y, to.x - from.x);
  double radius = std::max(1.0, std::hypot(frame.width, frame.height));
  std::vector<double> cuts;
  for (int i = 0; i <= kWedges; ++i) cuts.push_back(double(i) / kWedges);
  for (const auto& stop : gradient.stops) cuts.push_back(stop.position);
  std::sort(cuts.begin(), cuts.end());
  cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());

  cairo_pattern_t* mesh = cairo_pattern_create_mesh();
  for (size_t i = 1; i < cuts.size(); ++i) {
    double t0 = cuts[i - 1], t1 = cuts[i];
    // Just inside each cut so a sharp stop (two stops at one position) shows both sides.
    Color c0 = colorAt(gradient.stops, t0 + 1e-9), c1 = colorAt(gradient.stops, t1 - 1e-9);
    double a0 = start + t0 * 2 * std::numbers::pi, a1 = start + t1 * 2 * std::numbers::pi;
    cairo_mesh_pattern_begin_patch(mesh);
    cairo_mesh_pattern_move_to(mesh, center.x, center.y);
    cairo_mesh_pattern_line_to(mesh, center.x + radius * std::cos(a0), center.y + radius * std::sin(a0));
    cairo_mesh_pattern_line_to(mesh, center.x + radius * std::cos(a1), center.y + radius * std::sin(a1));
    cairo_mesh_pattern_line_to(mesh, center.x, center.y);
    cairo_mesh_pattern_set_corner_color_rgba(mesh, 0, c0.r, c0.g, c0.b, c0.a);
    cairo_mesh_pattern_set_corner_color_rgba(mesh, 1, c0.r, c0.g, c0.b, c0.a);
    cairo_mesh_pattern_set_corner_color_rgba(mesh, 2, c1.r, c1.g, c1.b, c1.a);
    cairo_mesh_pattern_set_corner_color_rgba(mesh, 3, c1.r, c1.g, c1.b, c1.a);
    cairo_mesh_pattern_end_patch(mesh);
  }
  return mesh;
}

cairo_pattern_t* gradientPattern(const Gradient& gradient, const Rect& frame) {
  if (gradient.stops.size() == 1) {
    const Color& only = gradient.stops.front().color;
    return cairo_pattern_create_rgba(only.r, only.g, only.b, only.a);
  }
  switch (gradient.kind) {
    case GradientKind::Radial: return radialPattern(gradient, frame);
    case GradientKind::Angular: return angularPattern(gradient, frame);
    case GradientKind::Linear: break;
  }
  return linearPattern(gradient, frame);
}

// Where the image lands: its top-left corner and its size in points.
Rect imagePlacement(const Paint& paint, double imageWidth, double imageHeight, const Rect& frame) {
  switch (paint.patternFit) {
    case PatternFit::Tile:
      return {frame.x, frame.y, imageWidth * paint.patternTileScale, imageHeight * paint.patternTileScale};
    case PatternFit::Stretch: return frame;
    case PatternFit::Fill:
    case PatternFit::Fit: {
      double sx = frame.width / imageWidth, sy = frame.height / imageHeight;
      double scale = paint.patternFit == PatternFit::Fill ? std::max(sx, sy) : std::min(sx, sy);
      double width = imageWidth * scale, height = imageHeight * scale;
      return {frame.x + (frame.width - width) / 2, frame.y + (frame.height - height) / 2, width, height};
    }
  }
  return frame;
}

cairo_pattern_t* imagePattern(const Paint& paint, const Rect& frame) {
  double width = paint.image.width(), height = paint.image.height();
  Rect placed = imagePlacement(paint, width, height, frame);
  if (!(width > 0) || !(height > 0) || placed.isEmpty()) return nullptr;
  cairo_pattern_t* pattern = cairo_pattern_create_for_surface(paint.image.get());
  // User space → image pixels.
  cairo_matrix_t matrix;
  double sx = width / placed.width, sy = height / placed.height;
  cairo_matrix_init(&matrix, sx, 0, 0, sy, -placed.x * sx, -placed.y * sy);
  cairo_pattern_set_matrix(pattern, &matrix);
  cairo_pattern_set_filter(pattern, CAIRO_FILTER_GOOD);
  // Padding keeps the image's edges sharp instead of fading into
  // transparency; a fitted image is clipped to its place by the caller.
  cairo_pattern_set_extend(pattern, paint.patternFit == PatternFit::Tile ? CAIRO_EXTEND_REPEAT : CAIRO_EXTEND_PAD);
  return pattern;
}

// Makes the paint `cr`'s source at full strength; false when it draws nothing.
bool setPaintSource(cairo_t* cr, const Paint& paint, const Rect& frame) {
  cairo_pattern_t* pattern = nullptr;
  switch (paint.kind) {
    case PaintKind::Color:
      cairo_set_source_rgba(cr, paint.color.r, paint.color.g, paint.color.b, paint.color.a);
      return true;
    case PaintKind::Gradient:
      if (paint.gradient.stops.empty()) return false;
      pattern = gradientPattern(paint.gradient, frame);
      break;
    case PaintKind::Image:
      if (!paint.image) return false;
      pattern = imagePattern(paint, frame);
      break;
    case PaintKind::Noise: return false;
  }
  if (!pattern) return false;
  PatternHolder holder(pattern);
  cairo_set_source(cr, pattern);
  return true;
}

void setOutline(cairo_t* cr, const Path& outline) {
  cairo_new_path(cr);
  outline.appendTo(cr);
  cairo_set_fill_rule(cr, outline.evenOdd ? CAIRO_FILL_RULE_EVEN_ODD : CAIRO_FILL_RULE_WINDING);
}

void paintOneFill(cairo_t* cr, const Paint& fill, const Path& outline, const Rect& frame) {
  cairo_save(cr);
  cairo_set_operator(cr, cairoOperator(fill.blendMode));
  setOutline(cr, outline);
  if (fill.kind == PaintKind::Color) {
    cairo_set_source_rgba(cr, fill.color.r, fill.color.g, fill.color.b, fill.color.a * fill.opacity);
    cairo_fill(cr);
  } else if (setPaintSource(cr, fill, frame)) {
    cairo_clip(cr);
    if (fill.kind == PaintKind::Image && fill.patternFit == PatternFit::Fit) {
      Rect placed = imagePlacement(fill, fill.image.width(), fill.image.height(), frame);
      cairo_rectangle(cr, placed.x, placed.y, placed.width, placed.height);
      cairo_clip(cr);
    }
    cairo_paint_with_alpha(cr, fill.opacity);
  }
  cairo_restore(cr);
}

// --- borders ---

void applyLineStyle(cairo_t* cr, const Style& style, double width) {
  cairo_set_line_width(cr, width);
  cairo_set_line_cap(cr, style.borderOptions.lineCap);
  cairo_set_line_join(cr, style.borderOptions.lineJoin);
  cairo_set_miter_limit(cr, style.miterLimit);
  const auto& dashes = style.borderOptions.dashPattern;
  cairo_set_dash(cr, dashes.empty() ? nullptr : dashes.data(), static_cast<int>(dashes.size()), 0);
}

// Strokes the current path with the paint, opacity and blend mode included.
void strokeWithPaint(cairo_t* cr, const Paint& paint, const Rect& frame) {
  cairo_set_operator(cr, cairoOperator(paint.blendMode));
  if (paint.kind == PaintKind::Color) {
    cairo_set_source_rgba(cr, paint.color.r, paint.color.g, paint.color.b, paint.color.a * paint.opacity);
    cairo_stroke(cr);
    return;
  }
  if (paint.opacity >= 1) {
    if (setPaintSource(cr, paint, frame)) cairo_stroke(cr);
    cairo_new_path(cr);
    return;
  }
  // The group keeps the blend operator for the final paint and strokes
  // with its own (the push saves state, the pop restores it).
  cairo_push_group(cr);
  cairo_set_operator(cr, CAIRO_OPERATOR_OVER);
  if (setPaintSource(cr, paint, frame)) cairo_stroke(cr);
  cairo_pop_group_to_source(cr);
  cairo_new_path(cr);
  cairo_paint_with_alpha(cr, paint.opacity);
}

// Outside borders: a doubled stroke with the outline's inside cut away,
// composed on its own so the cut never touches what is already drawn.
void strokeOutside(cairo_t* cr, const Border& border, const Path& outline, const Rect& frame) {
  cairo_push_group(cr);
  setOutline(cr, outline);
  Paint opaque = border.paint;
  opaque.opacity = 1;
  opaque.blendMode = BlendMode::Normal;
  strokeWithPaint(cr, opaque, frame);
  setOutline(cr, outline);
  cairo_set_operator(cr, CAIRO_OPERATOR_CLEAR);
  cairo_fill(cr);
  cairo_pop_group_to_source(cr);
  cairo_set_operator(cr, cairoOperator(border.paint.blendMode));
  cairo_paint_with_alpha(cr, border.paint.opacity);
}

void paintOneBorder(cairo_t* cr, const Style& style, const Border& border, const Path& outline, const Rect& frame,
                    bool isClosedPath) {
  BorderPosition position = isClosedPath ? border.position : BorderPosition::Center;
  cairo_save(cr);
  applyLineStyle(cr, style, position == BorderPosition::Center ? border.thickness : border.thickness * 2);
  switch (position) {
    case BorderPosition::Center:
      setOutline(cr, outline);
      strokeWithPaint(cr, border.paint, frame);
      break;
    case BorderPosition::Inside:
      setOutline(cr, outline);
      cairo_clip(cr);
      setOutline(cr, outline);
      strokeWithPaint(cr, border.paint, frame);
      break;
    case BorderPosition::Outside: strokeOutside(cr, border, outline, frame); break;
  }
  cairo_restore(cr);
}

// --- arrow heads ---

struct PathEnd {
  Point point;
  Point direction;  // unit vector pointing out of the path at this end
};

Point unitFrom(Point from, Point to) {
  double dx = to.x - from.x, dy = to.y - from.y, length = std::hypot(dx, dy);
  if (!(length > 1e-9)) return {0, 0};
  return {dx / length, dy / length};
}

// The points of the first subpath in order, with curves' control points:
// tangents at the ends come from the nearest distinct one.
std::vector<Point> firstSubpathPoints(const Path& path) {
  std::vector<Point> points;
  for (const auto& element : path.elements()) {
    if (element.verb == Path::Verb::Move && !points.empty()) break;
    if (element.verb == Path::Verb::Close) break;
    int count = element.verb == Path::Verb::Cubic ? 3 : 1;
    points.insert(points.end(), element.points, element.points + count);
  }
  return points;
}

std::optional<PathEnd> endOf(const std::vector<Point>& points, bool atStart) {
  if (points.size() < 2) return std::nullopt;
  Point end = atStart ? points.front() : points.back();
  for (size_t i = 1; i < points.size(); ++i) {
    Point other = atStart ? points[i] : points[points.size() - 1 - i];
    Point direction = unitFrom(other, end);
    if (direction.x != 0 || direction.y != 0) return PathEnd{end, direction};
  }
  return std::nullopt;
}

// Marker geometry in a frame where the path end is the origin and +x points
// out of the path; sizes grow with the border's thickness.
void addMarkerShape(cairo_t* cr, Marker marker, double t) {
  switch (marker) {
    case Marker::OpenArrow:
      cairo_move_to(cr, -3 * t, -3 * t);
      cairo_line_to(cr, 0, 0);
      cairo_line_to(cr, -3 * t, 3 * t);
      break;
    case Marker::FilledArrow:
      cairo_move_to(cr, t, 0);
      cairo_line_to(cr, -3 * t, -2.5 * t);
      cairo_line_to(cr, -3 * t, 2.5 * t);
      cairo_close_path(cr);
      break;
    case Marker::Line:
      cairo_move_to(cr, 0, -3 * t);
      cairo_line_to(cr, 0, 3 * t);
      break;
    case Marker::OpenCircle:
    case Marker::FilledCircle:
      cairo_new_sub_path(cr);
      cairo_arc(cr, 0, 0, 2 * t, 0, 2 * std::numbers::pi);
      cairo_close_path(cr);
      break;
    case Marker::OpenSquare:
    case Marker::FilledSquare: cairo_rectangle(cr, -2 * t, -2 * t, 4 * t, 4 * t); break;
    case Marker::None: break;
  }
}

bool markerIsFilled(Marker marker) {
  return marker == Marker::FilledArrow || marker == Marker::FilledCircle || marker == Marker::FilledSquare;
}

void paintMarker(cairo_t* cr, const Style& style, const Border& border, Marker marker, const PathEnd& end,
                 const Rect& frame) {
  if (marker == Marker::None) return;
  cairo_save(cr);
  applyLineStyle(cr, style, border.thickness);
  cairo_set_dash(cr, nullptr, 0, 0);
  cairo_translate(cr, end.point.x, end.point.y);
  cairo_rotate(cr, std::atan2(end.direction.y, end.direction.x));
  cairo_new_path(cr);
  addMarkerShape(cr, marker, border.thickness);
  // The path stays in place; gradients are then set up in the layer's own
  // space, not in the marker's turned one.
  cairo_restore(cr);
  cairo_save(cr);
  applyLineStyle(cr, style, border.thickness);
  cairo_set_dash(cr, nullptr, 0, 0);
  if (markerIsFilled(marker)) {
    cairo_set_operator(cr, cairoOperator(border.paint.blendMode));
    if (border.paint.kind == PaintKind::Color) {
      const Color& c = border.paint.color;
      cairo_set_source_rgba(cr, c.r, c.g, c.b, c.a * border.paint.opacity);
      cairo_fill(cr);
    } else if (setPaintSource(cr, border.paint, frame)) {
      cairo_clip(cr);
      cairo_paint_with_alpha(cr, border.paint.opacity);
    }
  } else {
    strokeWithPaint(cr, border.paint, frame);
  }
  cairo_new_path(cr);
  cairo_restore(cr);
}

void paintMarkers(cairo_t* cr, const Style& style, const Border& border, const Path& outline, const Rect& frame) {
  if (style.startMarker == Marker::None && style.endMarker == Marker::None) return;
  auto points = firstSubpathPoints(outline);
  if (auto start = endOf(points, true)) paintMarker(cr, style, border, style.startMarker, *start, frame);
  if (auto end = endOf(points, false)) paintMarker(cr, style, border, style.endMarker, *end, frame);
}

double borderReach(const Border& border) {
  switch (border.position) {
    case BorderPosition::Inside: return 0;
    case BorderPosition::Outside: return border.thickness;
    case BorderPosition::Center: break;
  }
  return border.thickness / 2;
}

}  // namespace

void paintFills(cairo_t* cr, const Style& style, const Path& outline, const Rect& frameInLayer) {
  if (outline.isEmpty()) return;
  for (const auto& fill : style.fills) paintOneFill(cr, fill, outline, frameInLayer);
}

void paintBorders(cairo_t* cr, const Style& style, const Path& outline, const Rect& frame, bool isClosedPath) {
  if (outline.isEmpty()) return;
  for (const auto& border : style.borders) {
    paintOneBorder(cr, style, border, outline, frame, isClosedPath);
    if (!isClosedPath) paintMarkers(cr, style, border, outline, frame);
  }
}

Rect styleBounds(const Style& style, const Rect& pathBounds) {
  double reach = 0, thickest = 0;
  for (const auto& border : style.borders) {
    reach = std::max(reach, borderReach(border));
    thickest = std::max(thickest, border.thickness);
  }
  // Square caps and dashes on open paths reach half a width past the ends.
  if (style.borderOptions.lineCap == CAIRO_LINE_CAP_SQUARE) reach = std::max(reach, thickest / 2 * std::numbers::sqrt2);
  bool hasMarkers = style.startMarker != Marker::None || style.endMarker != Marker::None;
  if (hasMarkers) reach = std::max(reach, thickest * 4.5);
  if (!(reach > 0)) return pathBounds;
  return {pathBounds.x - reach, pathBounds.y - reach, pathBounds.width + 2 * reach, pathBounds.height + 2 * reach};
}

}  // namespace plexa::render
