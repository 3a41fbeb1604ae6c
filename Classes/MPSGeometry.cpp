#include "MPSGeometry.h"

#include "Log.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace plexa {

namespace {

constexpr double kPi = std::numbers::pi;
constexpr double kDegreesPerRadian = 57.29577951308232;
constexpr double kDoubleEpsilon = 2.220446049250313e-16;

bool isValidCorner(MPSCorner corner) { return corner >= 0 && corner <= 7; }

double minX(MPSRect r) { return r.origin.x; }
double midX(MPSRect r) { return r.origin.x + r.size.width / 2; }
double maxX(MPSRect r) { return r.origin.x + r.size.width; }
double minY(MPSRect r) { return r.origin.y; }
double midY(MPSRect r) { return r.origin.y + r.size.height / 2; }
double maxY(MPSRect r) { return r.origin.y + r.size.height; }

// Snaps one coordinate to the nearest candidate strictly within margin; the
// earlier candidate wins a tie.
template <typename Candidates>
double snapCoordinate(double value, const Candidates& candidates, double margin) {
  double best = value;
  double bestDistance = std::numeric_limits<double>::infinity();
  for (double candidate : candidates) {
    const double distance = std::fabs(candidate - value);
    if (distance < margin && distance < bestDistance) {
      best = candidate;
      bestDistance = distance;
    }
  }
  return best;
}

struct AxisExtent {
  double position;
  double size;
};

// One axis of a child whose parent changes from oldRoom to newRoom. The
// bits name the flexible parts: start margin, size, end margin.
AxisExtent stretchAxis(AxisExtent child, double oldRoom, double newRoom, bool startFlexible, bool sizeFlexible,
                       bool endFlexible) {
  if (!(oldRoom > 0)) return child;
  const double ratio = newRoom / oldRoom;
  if (startFlexible && endFlexible && !sizeFlexible)
    return {(child.position + child.size / 2) * ratio - child.size / 2, child.size};

  const double endMargin = oldRoom - child.position - child.size;
  double num = newRoom;
  double den = oldRoom;
  if (!startFlexible) { num -= child.position; den -= child.position; }
  if (!sizeFlexible) { num -= child.size; den -= child.size; }
  if (!endFlexible) { num -= endMargin; den -= endMargin; }
  if (!(den > 0)) return child;

  const double k = num / den;
  return {startFlexible ? child.position * k : child.position, sizeFlexible ? child.size * k : child.size};
}

}  // namespace

std::shared_ptr<MPSLineObject> MPSLineObject::lineOnAxis(int axis, double position) {
  auto line = std::make_shared<MPSLineObject>();
  line->axis = axis;
  line->position = position;
  return line;
}

// ---- Corners ----

void MPSCornerEnumerate(const std::function<void(MPSCorner)>& callback) {
  if (!callback) return;
  for (MPSCorner corner = 0; corner <= 7; ++corner) callback(corner);
}

MPSCorner MPSCornerFirstCornerSatisfyingPredicate(const std::function<bool(MPSCorner)>& predicate) {
  if (!predicate) return MPSCornerNone;
  for (MPSCorner corner = 0; corner <= 7; ++corner)
    if (predicate(corner)) return corner;
  return MPSCornerNone;
}

MPSCorner MPSCornerByRotating45DegreesCounterClockwise(MPSCorner corner) {
  static constexpr MPSCorner kRotated[8] = {5, 4, 7, 6, 0, 2, 1, 3};
  return isValidCorner(corner) ? kRotated[corner] : MPSCornerInvalid;
}

MPSCorner MPSCornerByRotatingByDegrees(MPSCorner corner, double degrees) {
  auto withinHalfStep = [](double d) { return -23 < d && d < 23; };
  if (!std::isfinite(degrees) || withinHalfStep(degrees)) return corner;
  // The first step turns an invalid corner into 8, which no step changes.
  // Eight steps make a full turn, so whole turns can be dropped first;
  // fmod is exact, so the count of remaining steps is the same.
  corner = MPSCornerByRotating45DegreesCounterClockwise(corner);
  degrees += degrees >= 0 ? -45 : 45;
  degrees = std::fmod(degrees, 360.0);
  while (!withinHalfStep(degrees)) {
    corner = MPSCornerByRotating45DegreesCounterClockwise(corner);
    degrees += degrees >= 0 ? -45 : 45;
  }
  return corner;
}

MPSCorner MPSCornerFlip(MPSCorner corner) {
  if (corner < 0) return MPSCornerInvalid;
  return corner <= 3 ? 3 - corner : 11 - corner;
}

MPSCorner MPSCornerFlipByAxis(MPSCorner corner, int axis) {
  if (axis == 0) {
    switch (corner) {
      case 0: return 1;
      case 1: return 0;
      case 2: return 3;
      case 3: return 2;
      case 5: return 6;
      case 6: return 5;
      default: return corner;
    }
  }
  switch (corner) {
    case 0: return 2;
    case 2: return 0;
    case 1: return 3;
    case 3: return 1;
    case 4: return 7;
    case 7: return 4;
    default: return corner;
  }
}

bool MPSCornerSatisfiesMask(MPSCorner corner, std::uint64_t mask) {
  if (corner < 0 || corner > 63) return false;
  return (mask & (std::uint64_t{1} << corner)) != 0;
}

bool MPSCornerIsInMidHorizontal(MPSCorner corner) { return corner == 5 || corner == 6; }

bool MPSCornerIsInMidVertical(MPSCorner corner) { return corner == 4 || corner == 7; }

unsigned MPSCornerRectEdgesMask(MPSCorner corner) {
  static constexpr unsigned kEdges[8] = {5, 6, 9, 10, 4, 1, 2, 8};
  return isValidCorner(corner) ? kEdges[corner] : 0;
}

// ---- Numbers ----

bool MPSFloatEqualWithMargin(double a, double b, double margin) { return margin > std::fabs(a - b); }

bool MPSFloatEqual(double a, double b) { return std::fabs(a - b) < kDoubleEpsilon; }

double MPSFloatRoundToStep(double value, double step) { return std::round(value / step) * step; }

double MPSFloatMakeAbsGreaterThanOrEqual(double value, double minimum) {
  if (!std::isfinite(value)) return std::max(0.1, minimum);
  if (value > 0) return std::max(value, minimum);
  return std::min(value, -minimum);
}

double MPSFloatMakeNotInfOrNan(double value) { return std::isfinite(value) ? value : 0; }

// ---- Points and sizes ----

bool MPSPointEqualToPointWithAccuracy(MPSPoint a, MPSPoint b, double accuracy) {
  return MPSFloatEqualWithMargin(a.x, b.x, accuracy) && MPSFloatEqualWithMargin(a.y, b.y, accuracy);
}

bool MPSSizeEqualToSizeWithAccuracy(MPSSize a, MPSSize b, double accuracy) {
  return MPSFloatEqualWithMargin(a.width, b.width, accuracy) &&
         MPSFloatEqualWithMargin(a.height, b.height, accuracy);
}

bool MPSPointsEqualWithMargin(MPSPoint a, MPSPoint b, double margin) {
  return MPSDistanceBetweenPoints(a, b) < margin;
}

double MPSDistanceBetweenPoints(MPSPoint a, MPSPoint b) { return std::hypot(b.x - a.x, b.y - a.y); }

MPSPoint MPSPointAddPoint(MPSPoint p, MPSPoint q) { return {p.x + q.x, p.y + q.y}; }

MPSPoint MPSPointWithOffset(MPSPoint p, MPSPoint offset) { return MPSPointAddPoint(p, offset); }

MPSPoint MPSPointSubtractPoint(MPSPoint p, MPSPoint q) { return {p.x - q.x, p.y - q.y}; }

MPSPoint MPSOffsetBetweenPoints(MPSPoint p, MPSPoint q) { return MPSPointSubtractPoint(p, q); }

MPSPoint MPSPointMultiply(MPSPoint p, double factor) { return {p.x * factor, p.y * factor}; }

MPSPoint MPSPointDivide(MPSPoint p, double divisor) { return {p.x / divisor, p.y / divisor}; }

MPSPoint MPSPointBetweenPoints(MPSPoint a, MPSPoint b) { return {(a.x + b.x) / 2, (a.y + b.y) / 2}; }

MPSPoint MPSPointBetweenPointsAt(MPSPoint a, MPSPoint b, double t) {
  return {a.x + (b.x - a.x) * t, a.y + (b.y - a.y) * t};
}

MPSPoint MPSPointByRoundingPoint(MPSPoint p) { return {std::round(p.x), std::round(p.y)}; }

MPSSize MPSSizeByRoundingSize(MPSSize s) { return {std::round(s.width), std::round(s.height)}; }

MPSPoint MPSPointByRoundingPointToStep(MPSPoint p, double step) {
  return {MPSFloatRoundToStep(p.x, step), MPSFloatRoundToStep(p.y, step)};
}

MPSPoint MPSPointFromSize(MPSSize s) { return {s.width, s.height}; }

MPSSize MPSSizeFromPoint(MPSPoint p) { return {p.x, p.y}; }

MPSSize MPSSizeScale(MPSSize s, double factor) { return {s.width * factor, s.height * factor}; }

MPSSize MPSSizeIntegral(MPSSize s) { return {std::ceil(s.width), std::ceil(s.height)}; }

MPSPoint MPSPointAbsolute(MPSPoint p, MPSRect frame) {
  return {p.x * frame.size.width + frame.origin.x, p.y * frame.size.height + frame.origin.y};
}

MPSPoint MPSPointFromCoordinateSpaceRectToRect(MPSPoint p, MPSRect from, MPSRect to) {
  auto convert = [](double value, double fromOrigin, double fromSize, double toOrigin, double toSize) {
    double unit = value - fromOrigin;
    if (fromSize > 0.001) unit /= fromSize;
    return unit * toSize + toOrigin;
  };
  return {convert(p.x, from.origin.x, from.size.width, to.origin.x, to.size.width),
          convert(p.y, from.origin.y, from.size.height, to.origin.y, to.size.height)};
}

bool MPSRangeContainsRange(MPSRange a, MPSRange b) {
  // Ends are compared in 128 bits so that ranges reaching past 2^64 do not wrap.
  using Wide = unsigned __int128;
  const Wide endA = Wide{a.location} + a.length;
  const Wide endB = Wide{b.location} + b.length;
  const std::uint64_t unionLocation = std::min(a.location, b.location);
  const Wide unionEnd = std::max(endA, endB);
  return unionLocation == a.location && unionEnd == endA;
}

MPSPoint MPSPointSafe(MPSPoint p) { return {MPSFloatMakeNotInfOrNan(p.x), MPSFloatMakeNotInfOrNan(p.y)}; }

MPSPoint MPSPointRelative(MPSPoint p, MPSRect frame) {
  return MPSPointFromCoordinateSpaceRectToRect(p, frame, MPSRect{{0, 0}, {1, 1}});
}

MPSPoint MPSPointInvert(MPSPoint p) { return {-p.x, -p.y}; }

double MPSPointPositionForAxis(int axis, MPSPoint p) { return axis == 0 ? p.x : p.y; }

MPSPoint MPSPointWithPositionForAxis(MPSPoint p, int axis, double position) {
  if (axis == 0)
    p.x = position;
  else
    p.y = position;
  return p;
}

MPSPoint MPSPointAtDistanceAndSlopeFromPoint(MPSPoint p, double distance, double slope) {
  return {p.x + std::cos(slope) * distance, p.y + std::sin(slope) * distance};
}

MPSPoint MPSPointAlignStraightAngleToPoint(MPSPoint p, MPSPoint anchor) {
  const double slope = MPSSlopeToStraightAngles(MPSSlopeBetweenPoints(anchor, p));
  return MPSPointAtDistanceAndSlopeFromPoint(anchor, MPSDistanceBetweenPoints(anchor, p), slope);
}

// ---- Snapping ----

bool MPSSnapPointToPointWithMargin(MPSPoint& point, MPSPoint target, double margin) {
  if (!MPSPointsEqualWithMargin(point, target, margin)) return false;
  point = target;
  return true;
}

MPSPoint MPSPointSnapToPointWithMargin(MPSPoint p, MPSPoint target, double margin) {
  MPSSnapPointToPointWithMargin(p, target, margin);
  return p;
}

MPSPoint MPSPointSnapToRectWithMargin(MPSPoint p, MPSRect rect, double margin) {
  const double xs[] = {minX(rect), midX(rect), maxX(rect)};
  const double ys[] = {minY(rect), midY(rect), maxY(rect)};
  return {snapCoordinate(p.x, xs, margin), snapCoordinate(p.y, ys, margin)};
}

MPSPoint MPSPointSnapToLinesWithMargin(MPSPoint p, const std::vector<std::shared_ptr<MPSLineObject>>& lines,
                                       double margin) {
  // The nearest line wins, which is the first of the lines sorted by distance.
  auto snapOnAxis = [&](int axis) {
    const bool horizontal = axis == 0;
    const double value = MPSPointPositionForAxis(axis, p);
    double best = value;
    double bestDistance = std::numeric_limits<double>::infinity();
    for (const auto& line : lines) {
      if (!line || (line->axis == 0) != horizontal) continue;
      const double distance = std::fabs(line->position - value);
      if (distance < margin && distance < bestDistance) {
        best = line->position;
        bestDistance = distance;
      }
    }
    return best;
  };
  return {snapOnAxis(0), snapOnAxis(1)};
}

// ---- Edge paddings ----

MPSEdgePaddings MPSEdgePaddingsMake(double top, double left, double bottom, double right) {
  return {top, left, bottom, right};
}

MPSEdgePaddings MPSEdgePaddingsExpand(MPSEdgePaddings paddings, double delta) {
  return {paddings.top + delta, paddings.left + delta, paddings.bottom + delta, paddings.right + delta};
}

MPSEdgePaddings MPSEdgePaddingsMakeWithRects(MPSRect inner, MPSRect outer) {
  return {minY(inner) - minY(outer), minX(inner) - minX(outer), maxY(outer) - maxY(inner),
          maxX(outer) - maxX(inner)};
}

MPSEdgePaddings MPSEdgeInsetsCalculate(MPSRect outer, MPSRect inner) {
  const MPSEdgePaddings raw = MPSEdgePaddingsMakeWithRects(inner, outer);
  return {std::max(raw.top, 0.0), std::max(raw.left, 0.0), std::max(raw.bottom, 0.0), std::max(raw.right, 0.0)};
}

MPSRect MPSPaddedRect(MPSRect rect, MPSEdgePaddings paddings) {
  return {{rect.origin.x - paddings.left, rect.origin.y - paddings.top},
          {rect.size.width + paddings.left + paddings.right, rect.size.height + paddings.top + paddings.bottom}};
}

// ---- Rectangles ----

MPSRect MPSRectWithOriginAndSize(MPSPoint origin, MPSSize size) { return {origin, size}; }

MPSRect MPSRectFromSize(MPSSize size) { return {{0, 0}, size}; }

MPSRect MPSRectFromPoints(MPSPoint a, MPSPoint b) {
  return {{std::min(a.x, b.x), std::min(a.y, b.y)}, {std::fabs(b.x - a.x), std::fabs(b.y - a.y)}};
}

MPSRect MPSRectWithMarginAroundPoint(double margin, MPSPoint p) {
  return {{p.x - margin, p.y - margin}, {2 * margin, 2 * margin}};
}

MPSRect MPSRectWithSizeCenteredAtPoint(MPSSize size, MPSPoint p) {
  return {{p.x - size.width / 2, p.y - size.height / 2}, size};
}

MPSRect MPSRectWithSizeCenteredInRect(MPSRect rect, MPSSize size) {
  return {{rect.origin.x + (rect.size.width - size.width) / 2, rect.origin.y + (rect.size.height - size.height) / 2},
          size};
}

MPSRect MPSRectWithSizeProportionallyInRect(MPSRect rect, MPSSize size) {
  MPSSize fitted;
  if (size.width / rect.size.width > size.height / rect.size.height)
    fitted = {rect.size.width, rect.size.width * size.height / size.width};
  else
    fitted = {rect.size.height * size.width / size.height, rect.size.height};
  return MPSRectWithSizeCenteredInRect(rect, fitted);
}

MPSRect MPSRectWithSizeProportionallyAroundRect(MPSRect rect, MPSSize size) {
  if (!(size.width > 0) || !(size.height > 0)) return rect;
  MPSSize covering;
  if (size.width / rect.size.width < size.height / rect.size.height)
    covering = {rect.size.width, rect.size.width * size.height / size.width};
  else
    covering = {rect.size.height * size.width / size.height, rect.size.height};
  return MPSRectWithSizeCenteredInRect(rect, covering);
}

MPSRect MPSRectScale(MPSRect rect, double factor) {
  return {{rect.origin.x * factor, rect.origin.y * factor}, {rect.size.width * factor, rect.size.height * factor}};
}

MPSRect MPSRectExpand(MPSRect rect, double delta) {
  return {{rect.origin.x - delta, rect.origin.y - delta},
          {rect.size.width + 2 * delta, rect.size.height + 2 * delta}};
}

MPSRect MPSRectByRoundingRect(MPSRect rect) {
  return {MPSPointByRoundingPoint(rect.origin), MPSSizeByRoundingSize(rect.size)};
}

MPSRect MPSRectByRoundingRectToStep(MPSRect rect, double step) {
  return {MPSPointByRoundingPointToStep(rect.origin, step),
          {MPSFloatRoundToStep(rect.size.width, step), MPSFloatRoundToStep(rect.size.height, step)}};
}

bool MPSRectIsZero(MPSRect rect) { return rect == MPSRect{}; }

bool MPSRectEqualToRectWithAccuracy(MPSRect a, MPSRect b, double accuracy) {
  return MPSPointEqualToPointWithAccuracy(a.origin, b.origin, accuracy) &&
         MPSSizeEqualToSizeWithAccuracy(a.size, b.size, accuracy);
}

bool MPSRectFuzzyEqualToRect(MPSRect a, MPSRect b) { return MPSRectEqualToRectWithAccuracy(a, b, MPSFuzzyMargin); }

bool MPSRectFuzzyCompareWithOptions(MPSRect a, MPSRect b, unsigned edgeMask) {
  auto edgeEqual = [&](unsigned edge, double (*value)(MPSRect)) {
    return (edgeMask & edge) == 0 || MPSFloatEqualWithMargin(value(a), value(b), MPSFuzzyMargin);
  };
  return edgeEqual(MPSRectEdgeLeft, minX) && edgeEqual(MPSRectEdgeRight, maxX) && edgeEqual(MPSRectEdgeTop, minY) &&
         edgeEqual(MPSRectEdgeBottom, maxY);
}

int MPSRectCompare(MPSRect a, MPSRect b) {
  const double keysA[] = {a.origin.y, a.origin.x, a.size.height, a.size.width};
  const double keysB[] = {b.origin.y, b.origin.x, b.size.height, b.size.width};
  for (int i = 0; i < 4; ++i) {
    if (keysA[i] < keysB[i]) return -1;
    if (keysA[i] > keysB[i]) return 1;
  }
  return 0;
}

MPSRect MPSRectAbsolute(MPSRect r, MPSRect frame) {
  return {{r.origin.x * frame.size.width + frame.origin.x, r.origin.y * frame.size.height + frame.origin.y},
          {frame.size.width * r.size.width, frame.size.height * r.size.height}};
}

MPSRect MPSRectRelative(MPSRect r, MPSRect frame) {
  return {{(r.origin.x - frame.origin.x) / frame.size.width, (r.origin.y - frame.origin.y) / frame.size.height},
          {r.size.width / frame.size.width, r.size.height / frame.size.height}};
}

MPSRect MPSRectFromCoordinateSpaceRectToRect(MPSRect r, MPSRect from, MPSRect to) {
  return {{(r.origin.x - from.origin.x) / from.size.width * to.size.width + to.origin.x,
           (r.origin.y - from.origin.y) / from.size.height * to.size.height + to.origin.y},
          {r.size.width / from.size.width * to.size.width, r.size.height / from.size.height * to.size.height}};
}

double MPSRectMinForAxis(int axis, MPSRect r) { return axis == 0 ? minX(r) : minY(r); }

double MPSRectMaxForAxis(int axis, MPSRect r) { return axis == 0 ? maxX(r) : maxY(r); }

double MPSRectSizeForAxis(int axis, MPSRect r) { return axis == 0 ? r.size.width : r.size.height; }

MPSRect MPSRectWithMinForAxis(MPSRect r, int axis, double value) {
  (axis == 0 ? r.origin.x : r.origin.y) = value;
  return r;
}

MPSRect MPSRectWithSizeForAxis(MPSRect r, int axis, double value) {
  (axis == 0 ? r.size.width : r.size.height) = value;
  return r;
}

MPSRect MPSRectWithMaxForAxis(MPSRect r, int axis, double value) {
  if (axis == 0)
    r.origin.x = value - r.size.width;
  else
    r.origin.y = value - r.size.height;
  return r;
}

MPSPoint MPSRectGetMid(MPSRect r) { return {midX(r), midY(r)}; }

MPSRect MPSRectWithMid(MPSRect r, MPSPoint p) { return {{p.x - r.size.width / 2, p.y - r.size.height / 2}, r.size}; }

MPSRect MPSRectWithMidX(MPSRect r, double value) {
  r.origin.x = value - r.size.width / 2;
  return r;
}

MPSRect MPSRectWithMidY(MPSRect r, double value) {
  r.origin.y = value - r.size.height / 2;
  return r;
}

MPSRect MPSRectResizeMinXTo(MPSRect r, double value) {
  const double right = maxX(r);
  r.origin.x = value;
  r.size.width = right - value;
  return r;
}

MPSRect MPSRectResizeMinYTo(MPSRect r, double value) {
  const double bottom = maxY(r);
  r.origin.y = value;
  r.size.height = bottom - value;
  return r;
}

MPSRect MPSRectResizeMaxXTo(MPSRect r, double value) {
  r.size.width = value - r.origin.x;
  return r;
}

MPSRect MPSRectResizeMaxYTo(MPSRect r, double value) {
  r.size.height = value - r.origin.y;
  return r;
}

MPSRect MPSRectResizeByPuttingCorner(MPSRect r, MPSCorner corner, MPSPoint p) {
  const unsigned edges = MPSCornerRectEdgesMask(corner);
  if (edges & MPSRectEdgeLeft) r = MPSRectResizeMinXTo(r, p.x);
  if (edges & MPSRectEdgeRight) r = MPSRectResizeMaxXTo(r, p.x);
  if (edges & MPSRectEdgeTop) r = MPSRectResizeMinYTo(r, p.y);
  if (edges & MPSRectEdgeBottom) r = MPSRectResizeMaxYTo(r, p.y);
  return r;
}

MPSRect MPSRectWithWidthRespectingProportions(MPSRect r, double width, double ratio) {
  r.size.height = ratio == 0 ? r.size.height : width / ratio;
  r.size.width = width;
  return r;
}

MPSRect MPSRectWithHeightRespectingProportions(MPSRect r, double height, double ratio) {
  r.size.width = ratio == 0 ? r.size.width : height * ratio;
  r.size.height = height;
  return r;
}

MPSRect MPSRectWithSizeOnAxisAspectRatio(MPSRect r, int axis, double size, double ratio) {
  if (axis == 1) {
    r.size.height = size;
    if (ratio != 0) r.size.width = ratio * size;
  } else {
    r.size.width = size;
    if (ratio != 0) r.size.height = size / ratio;
  }
  return r;
}

double MPSRectValueForKey(std::string_view key, MPSRect r) {
  if (key == "minX") return minX(r);
  if (key == "midX") return midX(r);
  if (key == "maxX") return maxX(r);
  if (key == "minY") return minY(r);
  if (key == "midY") return midY(r);
  if (key == "maxY") return maxY(r);
  return 0;
}

MPSPoint MPSRectPointForCorner(MPSRect r, MPSCorner corner) {
  switch (corner) {
    case MPSCornerTopLeft: return {minX(r), minY(r)};
    case MPSCornerTopRight: return {maxX(r), minY(r)};
    case MPSCornerBottomLeft: return {minX(r), maxY(r)};
    case MPSCornerBottomRight: return {maxX(r), maxY(r)};
    case MPSCornerTopMiddle: return {midX(r), minY(r)};
    case MPSCornerLeftMiddle: return {minX(r), midY(r)};
    case MPSCornerRightMiddle: return {maxX(r), midY(r)};
    case MPSCornerBottomMiddle: return {midX(r), maxY(r)};
    default: return MPSRectGetMid(r);
  }
}

MPSCorner MPSRectClosestCornerForPoint(MPSRect r, MPSPoint p, double margin) {
  double nearest = std::numeric_limits<double>::infinity();
  MPSCornerEnumerate([&](MPSCorner corner) {
    nearest = std::min(nearest, MPSDistanceBetweenPoints(MPSRectPointForCorner(r, corner), p));
  });
  if (!(nearest < margin)) return MPSCornerNone;
  return MPSCornerFirstCornerSatisfyingPredicate([&](MPSCorner corner) {
    return MPSDistanceBetweenPoints(MPSRectPointForCorner(r, corner), p) == nearest;
  });
}

double MPSRectDistanceFromCornerToMid(MPSRect r, MPSCorner corner) {
  return MPSDistanceBetweenPoints(MPSRectPointForCorner(r, corner), MPSRectGetMid(r));
}

MPSRect MPSRectNormalise(MPSRect r) {
  if (r.size.width < 0) {
    r.origin.x += r.size.width;
    r.size.width = -r.size.width;
  }
  if (r.size.height < 0) {
    r.origin.y += r.size.height;
    r.size.height = -r.size.height;
  }
  return r;
}

MPSRect MPSRectWithCornerAtPoint(MPSRect r, MPSCorner corner, MPSPoint p) {
  if (!isValidCorner(corner)) return r;
  const MPSPoint offset = MPSPointSubtractPoint(p, MPSRectPointForCorner(r, corner));
  return {MPSPointAddPoint(r.origin, offset), r.size};
}

MPSRect MPSRectByEnsuringMidIsContainedInRect(MPSRect r, MPSRect container) {
  const MPSRect bounds = MPSRectNormalise(container);
  const MPSPoint mid = MPSRectGetMid(r);
  const MPSPoint clamped{std::clamp(mid.x, minX(bounds), maxX(bounds)), std::clamp(mid.y, minY(bounds), maxY(bounds))};
  return MPSRectWithMid(r, clamped);
}

MPSRect MPSRectMoveIntoRect(MPSRect r, MPSRect container) {
  const MPSRect bounds = MPSRectNormalise(container);
  auto place = [](double position, double size, double low, double high) {
    if (size > high - low) return low;
    return std::clamp(position, low, high - size);
  };
  r.origin.x = place(r.origin.x, r.size.width, minX(bounds), maxX(bounds));
  r.origin.y = place(r.origin.y, r.size.height, minY(bounds), maxY(bounds));
  return r;
}

bool MPSRectIntersectsRectOnAxis(MPSRect a, MPSRect b, int axis) {
  const MPSRect na = MPSRectNormalise(a);
  const MPSRect nb = MPSRectNormalise(b);
  return MPSRectMinForAxis(axis, na) < MPSRectMaxForAxis(axis, nb) &&
         MPSRectMinForAxis(axis, nb) < MPSRectMaxForAxis(axis, na);
}

MPSRect MPSRectSafe(MPSRect r) {
  return {MPSPointSafe(r.origin), {MPSFloatMakeNotInfOrNan(r.size.width), MPSFloatMakeNotInfOrNan(r.size.height)}};
}

MPSRect MPSRectUnionSafe(MPSRect a, MPSRect b) {
  const MPSRect sa = MPSRectNormalise(MPSRectSafe(a));
  const MPSRect sb = MPSRectNormalise(MPSRectSafe(b));
  if (MPSRectIsZero(sa)) return sb;
  if (MPSRectIsZero(sb)) return sa;
  return MPSRectFromPoints({std::min(minX(sa), minX(sb)), std::min(minY(sa), minY(sb))},
                           {std::max(maxX(sa), maxX(sb)), std::max(maxY(sa), maxY(sb))});
}

MPSRect MPSRectScaledRelativeToSizeWithConstraints(MPSRect r, MPSSize oldSize, MPSSize newSize, unsigned constraints) {
  const AxisExtent x = stretchAxis({r.origin.x, r.size.width}, oldSize.width, newSize.width, constraints & 4,
                                   constraints & 2, constraints & 1);
  const AxisExtent y = stretchAxis({r.origin.y, r.size.height}, oldSize.height, newSize.height, constraints & 32,
                                   constraints & 16, constraints & 8);
  return MPSRectSafe({{x.position, y.position}, {x.size, y.size}});
}

// ---- Angles and axes ----

double MPSSlopeBetweenPoints(MPSPoint a, MPSPoint b) { return std::atan2(b.y - a.y, b.x - a.x); }

double MPSNormalizeRadians(double radians) {
  if (!std::isfinite(radians)) return std::numeric_limits<double>::quiet_NaN();
  // Far-off angles drop whole turns first so the stepping below stays short.
  if (std::fabs(radians) > 64 * kPi) radians = std::fmod(radians, 2 * kPi);
  while (radians > kPi) radians -= 2 * kPi;
  while (radians < -kPi) radians += 2 * kPi;
  return radians;
}

double MPSRadiansToDegrees(double radians) { return radians * kDegreesPerRadian; }

double MPSDegreesToRadians(double degrees) { return degrees / kDegreesPerRadian; }

double MPSSlopeToStraightAngles(double radians) {
  const double eighth = kPi / 8;
  if (radians > 0) {
    for (int k = 0; k <= 8; k += 2)
      if ((k + 1) * eighth > radians) return k * eighth;
    return radians;
  }
  for (int k = 0; k <= 8; k += 2)
    if (radians > (k + 1) * -eighth) return k * -eighth;
  return radians;
}

double MPSReversedDegrees(double degrees) {
  if (!std::isfinite(degrees)) return 0;
  double reversed = std::fmod(-degrees, 360.0);
  if (reversed < 0) reversed += 360;
  if (reversed >= 360) reversed = 0;
  return reversed + 0.0;  // no negative zero
}

int MPSAxisFlip(int axis) { return axis == 0 ? 1 : 0; }

// ---- Logging ----

void MPSLogRect(MPSRect r) {
  PXLogVerbose("x:{} y:{} w:{} h:{}", r.origin.x, r.origin.y, r.size.width, r.size.height);
}

void MPSLogSize(MPSSize s) { PXLogVerbose("w:{} h:{}", s.width, s.height); }

void MPSLogPoint(MPSPoint p) { PXLogVerbose("x:{} y:{}", p.x, p.y); }

}  // namespace plexa
