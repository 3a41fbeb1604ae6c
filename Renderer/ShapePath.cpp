#include "ShapePath.h"

#include "Json.h"
#include "Style.h"

#include <clipper.hpp>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace plexa::render {

namespace {

using boost::json::value;

Point operator+(Point a, Point b) { return {a.x + b.x, a.y + b.y}; }
Point operator-(Point a, Point b) { return {a.x - b.x, a.y - b.y}; }
Point operator*(Point a, double f) { return {a.x * f, a.y * f}; }
double length(Point a) { return std::hypot(a.x, a.y); }

Point pointFor(const value& json, std::string_view key, Point fallback, double width, double height) {
  auto text = PXJsonTextFor(&json, key);
  auto unit = text ? parsePointString(*text) : std::nullopt;
  if (!unit) return fallback;
  return {unit->x * width, unit->y * height};
}

std::optional<CurvePoint> readCurvePoint(const value& json, double width, double height) {
  auto text = PXJsonTextFor(&json, "point");
  auto unit = text ? parsePointString(*text) : std::nullopt;
  if (!unit) return std::nullopt;
  CurvePoint p;
  p.point = {unit->x * width, unit->y * height};
  p.curveFrom = pointFor(json, "curveFrom", p.point, width, height);
  p.curveTo = pointFor(json, "curveTo", p.point, width, height);
  // Files that leave the flags out mark a handle by moving it off the point.
  p.hasCurveFrom = PXJsonBoolFor(&json, "hasCurveFrom").value_or(!(p.curveFrom == p.point));
  p.hasCurveTo = PXJsonBoolFor(&json, "hasCurveTo").value_or(!(p.curveTo == p.point));
  double radius = PXJsonDoubleFor(&json, "cornerRadius").value_or(0);
  p.cornerRadius = std::isfinite(radius) && radius > 0 ? radius : 0;
  return p;
}

// A corner cut back along both edges and bridged by a circular arc.
struct Corner {
  bool rounded = false;
  Point entry, exit;      // where the arc meets the incoming and outgoing edges
  Point control1, control2;
};

Corner cornerAt(const CurvePoint& previous, const CurvePoint& current, const CurvePoint& next) {
  Corner corner;
  corner.entry = corner.exit = current.point;
  bool straightIn = !previous.hasCurveFrom && !current.hasCurveTo;
  bool straightOut = !current.hasCurveFrom && !next.hasCurveTo;
  if (current.cornerRadius <= 0 || !straightIn || !straightOut) return corner;
  Point toPrevious = previous.point - current.point, toNext = next.point - current.point;
  double lengthIn = length(toPrevious), lengthOut = length(toNext);
  if (lengthIn < 1e-9 || lengthOut < 1e-9) return corner;
  Point u1 = toPrevious * (1 / lengthIn), u2 = toNext * (1 / lengthOut);
  double angle = std::acos(std::clamp(u1.x * u2.x + u1.y * u2.y, -1.0, 1.0));
  if (angle < 1e-6 || angle > std::numbers::pi - 1e-6) return corner;
  double cut = std::min(current.cornerRadius / std::tan(angle / 2), std::min(lengthIn, lengthOut) / 2);
  double radius = cut * std::tan(angle / 2);
  double handle = 4.0 / 3.0 * std::tan((std::numbers::pi - angle) / 4) * radius;
  corner.rounded = true;
  corner.entry = current.point + u1 * cut;
  corner.exit = current.point + u2 * cut;
  corner.control1 = corner.entry - u1 * handle;
  corner.control2 = corner.exit - u2 * handle;
  return corner;
}

void addSegment(Path& path, const CurvePoint& from, const CurvePoint& to, Point start, Point end) {
  if (from.hasCurveFrom || to.hasCurveTo)
    path.cubicTo(from.hasCurveFrom ? from.curveFrom : start, to.hasCurveTo ? to.curveTo : end, end);
  else
    path.lineTo(end);
}

void addCorner(Path& path, const Corner& corner) {
  if (corner.rounded) path.cubicTo(corner.control1, corner.control2, corner.exit);
}

const value* pointsArrayOf(const value& layer, bool* isClosed) {
  const value* holder = &layer;
  if (!PXJsonArrayFor(&layer, "points"))
    if (const value* path = PXJsonFind(&layer, "path"); path && PXJsonArrayFor(path, "points")) holder = path;
  if (isClosed) *isClosed = PXJsonBoolFor(holder, "isClosed").value_or(true);
  return PXJsonFind(holder, "points");
}

void flattenCubic(Point p0, Point p1, Point p2, Point p3, double tolerance, std::vector<Point>& out) {
  Point d1 = p0 - p1 * 2 + p2, d2 = p1 - p2 * 2 + p3;
  double bend = std::max(length(d1), length(d2));
  int steps = std::clamp(static_cast<int>(std::ceil(std::sqrt(6 * bend / (8 * tolerance)))), 1, 1000);
  for (int i = 1; i <= steps; ++i) {
    double t = static_cast<double>(i) / steps, s = 1 - t;
    out.push_back(p0 * (s * s * s) + p1 * (3 * s * s * t) + p2 * (3 * s * t * t) + p3 * (t * t * t));
  }
}

ClipperLib::Paths toClipper(const Path& path, double tolerance, double unit) {
  ClipperLib::Paths result;
  for (const auto& polygon : flattenPath(path, tolerance)) {
    ClipperLib::Path ring;
    for (const auto& p : polygon)
      ring.emplace_back(static_cast<ClipperLib::cInt>(std::llround(p.x * unit)),
                        static_cast<ClipperLib::cInt>(std::llround(p.y * unit)));
    if (ring.size() >= 3) result.push_back(std::move(ring));
  }
  return result;
}

Path fromClipper(const ClipperLib::Paths& paths, double unit) {
  Path path;
  for (const auto& ring : paths) {
    if (ring.size() < 3) continue;
    path.moveTo({ring[0].X / unit, ring[0].Y / unit});
    for (size_t i = 1; i < ring.size(); ++i) path.lineTo({ring[i].X / unit, ring[i].Y / unit});
    path.close();
  }
  return path;
}

ClipperLib::ClipType clipTypeFor(BooleanOp op) {
  switch (op) {
    case BooleanOp::Subtract: return ClipperLib::ctDifference;
    case BooleanOp::Intersect: return ClipperLib::ctIntersection;
    case BooleanOp::Difference: return ClipperLib::ctXor;
    default: return ClipperLib::ctUnion;
  }
}

ClipperLib::PolyFillType fillTypeOf(const Path& path) {
  return path.evenOdd ? ClipperLib::pftEvenOdd : ClipperLib::pftNonZero;
}

}  // namespace

BooleanOp booleanOpFromSketch(long long value) {
  if (value < 0 || value > 3) return BooleanOp::None;
  return static_cast<BooleanOp>(value);
}

std::vector<CurvePoint> readCurvePoints(const value& layer, double width, double height, bool* isClosed) {
  std::vector<CurvePoint> points;
  const value* array = pointsArrayOf(layer, isClosed);
  if (!array || !array->is_array()) return points;
  for (const auto& entry : array->get_array())
    if (auto p = readCurvePoint(entry, width, height)) points.push_back(*p);
  return points;
}

Path outlineFromPoints(const std::vector<CurvePoint>& points, bool isClosed) {
  Path path;
  size_t n = points.size();
  if (n == 0) return path;
  std::vector<Corner> corners(n);
  for (size_t i = 0; i < n; ++i) {
    bool endpoint = !isClosed && (i == 0 || i == n - 1);
    if (n >= 3 && !endpoint) corners[i] = cornerAt(points[(i + n - 1) % n], points[i], points[(i + 1) % n]);
    else corners[i].entry = corners[i].exit = points[i].point;
  }
  path.moveTo(corners[0].exit);
  size_t segments = isClosed ? n : n - 1;
  for (size_t i = 0; i < segments; ++i) {
    size_t j = (i + 1) % n;
    addSegment(path, points[i], points[j], corners[i].exit, corners[j].entry);
    if (j != 0 || isClosed) addCorner(path, corners[j]);
  }
  if (isClosed) path.close();
  return path;
}

Path shapeOutline(const value& layer, double width, double height, bool* isClosed) {
  auto points = readCurvePoints(layer, width, height, isClosed);
  auto cls = PXJsonTextFor(&layer, "_class").value_or("");
  bool converted = PXJsonBoolFor(&layer, "hasConvertedToNewRoundCorners").value_or(true);
  double fixedRadius = PXJsonDoubleFor(&layer, "fixedRadius").value_or(0);
  if (cls == "rectangle" && !converted && fixedRadius > 0)
    for (auto& p : points) p.cornerRadius = fixedRadius;
  return outlineFromPoints(points, isClosed ? *isClosed : true);
}

std::vector<std::vector<Point>> flattenPath(const Path& path, double tolerance) {
  tolerance = std::max(tolerance, 1e-4);
  std::vector<std::vector<Point>> polygons;
  std::vector<Point> current;
  auto finish = [&] {
    if (current.size() >= 2) polygons.push_back(std::move(current));
    current.clear();
  };
  for (const auto& element : path.elements()) {
    switch (element.verb) {
      case Path::Verb::Move:
        finish();
        current.push_back(element.points[0]);
        break;
      case Path::Verb::Line:
        current.push_back(element.points[0]);
        break;
      case Path::Verb::Cubic:
        if (current.empty()) current.push_back(element.points[0]);
        flattenCubic(current.back(), element.points[0], element.points[1], element.points[2], tolerance, current);
        break;
      case Path::Verb::Close: {
        Point start = current.empty() ? Point{} : current.front();
        finish();
        current.push_back(start);  // a later Line continues from the start
        break;
      }
    }
  }
  finish();
  return polygons;
}

Path combineOutlines(const std::vector<BooleanOperand>& operands, double tolerance) {
  if (operands.empty()) return {};
  tolerance = std::max(tolerance, 1e-3);
  const double unit = std::max(256.0, 16.0 / tolerance);
  Path result = operands.front().outline;
  for (size_t i = 1; i < operands.size(); ++i) {
    const auto& operand = operands[i];
    if (operand.op == BooleanOp::None) {
      bool keepRule = result.evenOdd;
      result.append(operand.outline);
      result.evenOdd = keepRule;
      continue;
    }
    ClipperLib::Clipper clipper;
    clipper.AddPaths(toClipper(result, tolerance, unit), ClipperLib::ptSubject, true);
    clipper.AddPaths(toClipper(operand.outline, tolerance, unit), ClipperLib::ptClip, true);
    ClipperLib::Paths solution;
    clipper.Execute(clipTypeFor(operand.op), solution, fillTypeOf(result), fillTypeOf(operand.outline));
    result = fromClipper(solution, unit);
    result.evenOdd = false;  // Clipper orients holes against their outer rings
  }
  return result;
}

Path transformPath(const Path& path, const cairo_matrix_t& m) {
  Path result;
  result.evenOdd = path.evenOdd;
  auto map = [&](Point p) {
    cairo_matrix_transform_point(&m, &p.x, &p.y);
    return p;
  };
  for (const auto& element : path.elements()) {
    switch (element.verb) {
      case Path::Verb::Move: result.moveTo(map(element.points[0])); break;
      case Path::Verb::Line: result.lineTo(map(element.points[0])); break;
      case Path::Verb::Cubic:
        result.cubicTo(map(element.points[0]), map(element.points[1]), map(element.points[2]));
        break;
      case Path::Verb::Close: result.close(); break;
    }
  }
  return result;
}

}  // namespace plexa::render
