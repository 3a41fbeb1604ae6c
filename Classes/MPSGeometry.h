#pragma once
// Point, size, rectangle, corner, axis and angle arithmetic for hosts that
// lay out or snap things around Sketch layers. Coordinates grow rightwards
// and downwards. Axis 0 is horizontal (x, width), any other axis vertical.
// Margins are strict: a value exactly at the margin does not qualify.

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

namespace plexa {

struct MPSPoint {
  double x = 0;
  double y = 0;
  friend bool operator==(const MPSPoint&, const MPSPoint&) = default;
};

struct MPSSize {
  double width = 0;
  double height = 0;
  friend bool operator==(const MPSSize&, const MPSSize&) = default;
};

struct MPSRect {
  MPSPoint origin;
  MPSSize size;
  friend bool operator==(const MPSRect&, const MPSRect&) = default;
};

// Space on each side of a rectangle; positive values lie outside it.
struct MPSEdgePaddings {
  double top = 0;
  double left = 0;
  double bottom = 0;
  double right = 0;
  friend bool operator==(const MPSEdgePaddings&, const MPSEdgePaddings&) = default;
};

// A closed-open range of unsigned positions [location, location + length).
struct MPSRange {
  std::uint64_t location = 0;
  std::uint64_t length = 0;
};

// Eight points of a rectangle, y growing downwards.
using MPSCorner = int;
inline constexpr MPSCorner MPSCornerTopLeft = 0;
inline constexpr MPSCorner MPSCornerTopRight = 1;
inline constexpr MPSCorner MPSCornerBottomLeft = 2;
inline constexpr MPSCorner MPSCornerBottomRight = 3;
inline constexpr MPSCorner MPSCornerTopMiddle = 4;
inline constexpr MPSCorner MPSCornerLeftMiddle = 5;
inline constexpr MPSCorner MPSCornerRightMiddle = 6;
inline constexpr MPSCorner MPSCornerBottomMiddle = 7;
inline constexpr MPSCorner MPSCornerInvalid = 8;
inline constexpr MPSCorner MPSCornerNone = -1;

// Edge mask bits.
inline constexpr unsigned MPSRectEdgeLeft = 1;
inline constexpr unsigned MPSRectEdgeRight = 2;
inline constexpr unsigned MPSRectEdgeTop = 4;
inline constexpr unsigned MPSRectEdgeBottom = 8;

inline constexpr MPSEdgePaddings MPSEdgePaddingsZero{};

// Tolerance of the fuzzy rectangle comparisons.
inline constexpr double MPSFuzzyMargin = 0.001;

// A line across an axis at a position, a target for snapping.
class MPSLineObject {
 public:
  int axis = 0;
  double position = 0;

  static std::shared_ptr<MPSLineObject> lineOnAxis(int axis, double position);
};

// ---- Corners ----

void MPSCornerEnumerate(const std::function<void(MPSCorner)>& callback);
MPSCorner MPSCornerFirstCornerSatisfyingPredicate(const std::function<bool(MPSCorner)>& predicate);
// Any value outside 0–7 gives 8.
MPSCorner MPSCornerByRotating45DegreesCounterClockwise(MPSCorner corner);
// A NaN or infinite angle leaves the corner unchanged.
MPSCorner MPSCornerByRotatingByDegrees(MPSCorner corner, double degrees);
// A negative corner gives 8.
MPSCorner MPSCornerFlip(MPSCorner corner);
MPSCorner MPSCornerFlipByAxis(MPSCorner corner, int axis);
// A corner outside 0–63 satisfies no mask.
bool MPSCornerSatisfiesMask(MPSCorner corner, std::uint64_t mask);
bool MPSCornerIsInMidHorizontal(MPSCorner corner);
bool MPSCornerIsInMidVertical(MPSCorner corner);
unsigned MPSCornerRectEdgesMask(MPSCorner corner);

// ---- Numbers ----

bool MPSFloatEqualWithMargin(double a, double b, double margin);
bool MPSFloatEqual(double a, double b);
double MPSFloatRoundToStep(double value, double step);
double MPSFloatMakeAbsGreaterThanOrEqual(double value, double minimum);
// NaN and infinities become 0; finite values are returned unchanged.
double MPSFloatMakeNotInfOrNan(double value);

// ---- Points and sizes ----

bool MPSPointEqualToPointWithAccuracy(MPSPoint a, MPSPoint b, double accuracy);
bool MPSSizeEqualToSizeWithAccuracy(MPSSize a, MPSSize b, double accuracy);
bool MPSPointsEqualWithMargin(MPSPoint a, MPSPoint b, double margin);
double MPSDistanceBetweenPoints(MPSPoint a, MPSPoint b);
MPSPoint MPSPointAddPoint(MPSPoint p, MPSPoint q);
MPSPoint MPSPointWithOffset(MPSPoint p, MPSPoint offset);
MPSPoint MPSPointSubtractPoint(MPSPoint p, MPSPoint q);
MPSPoint MPSOffsetBetweenPoints(MPSPoint p, MPSPoint q);
MPSPoint MPSPointMultiply(MPSPoint p, double factor);
MPSPoint MPSPointDivide(MPSPoint p, double divisor);
MPSPoint MPSPointBetweenPoints(MPSPoint a, MPSPoint b);
MPSPoint MPSPointBetweenPointsAt(MPSPoint a, MPSPoint b, double t);
MPSPoint MPSPointByRoundingPoint(MPSPoint p);
MPSSize MPSSizeByRoundingSize(MPSSize s);
MPSPoint MPSPointByRoundingPointToStep(MPSPoint p, double step);
MPSPoint MPSPointFromSize(MPSSize s);
MPSSize MPSSizeFromPoint(MPSPoint p);
MPSSize MPSSizeScale(MPSSize s, double factor);
MPSSize MPSSizeIntegral(MPSSize s);
MPSPoint MPSPointAbsolute(MPSPoint p, MPSRect frame);
MPSPoint MPSPointFromCoordinateSpaceRectToRect(MPSPoint p, MPSRect from, MPSRect to);
bool MPSRangeContainsRange(MPSRange a, MPSRange b);
// Each component passed through MPSFloatMakeNotInfOrNan.
MPSPoint MPSPointSafe(MPSPoint p);
// The unit-space position of p in frame: the inverse of MPSPointAbsolute, a frame side of 0.001 or less left undivided.
MPSPoint MPSPointRelative(MPSPoint p, MPSRect frame);
// (−x, −y): the point mirrored through the origin.
MPSPoint MPSPointInvert(MPSPoint p);
// x on axis 0, y on any other axis.
double MPSPointPositionForAxis(int axis, MPSPoint p);
// p with x (axis 0) or y (any other axis) replaced by position.
MPSPoint MPSPointWithPositionForAxis(MPSPoint p, int axis, double position);
// The point at distance along the direction slope (radians, as MPSSlopeBetweenPoints measures it) from p.
MPSPoint MPSPointAtDistanceAndSlopeFromPoint(MPSPoint p, double distance, double slope);
// p moved, at its distance from anchor, onto the nearest multiple of 45° around anchor (MPSSlopeToStraightAngles).
MPSPoint MPSPointAlignStraightAngleToPoint(MPSPoint p, MPSPoint anchor);

// ---- Snapping ----

// Moves point onto target when their distance is strictly below margin; returns whether it moved.
bool MPSSnapPointToPointWithMargin(MPSPoint& point, MPSPoint target, double margin);
// p, or target when their distance is strictly below margin.
MPSPoint MPSPointSnapToPointWithMargin(MPSPoint p, MPSPoint target, double margin);
// Per axis, the coordinate moves to the nearest of the rect's min, mid and max lying strictly within margin.
MPSPoint MPSPointSnapToRectWithMargin(MPSPoint p, MPSRect rect, double margin);
// Per axis, the coordinate moves to the nearest line on that axis strictly within margin (ties: the earlier line); null lines are skipped.
MPSPoint MPSPointSnapToLinesWithMargin(MPSPoint p, const std::vector<std::shared_ptr<MPSLineObject>>& lines,
                                       double margin);

// ---- Edge paddings ----

MPSEdgePaddings MPSEdgePaddingsMake(double top, double left, double bottom, double right);
// Every side grown by delta.
MPSEdgePaddings MPSEdgePaddingsExpand(MPSEdgePaddings paddings, double delta);
// The paddings that turn inner into outer, so that MPSPaddedRect(inner, result) equals outer.
MPSEdgePaddings MPSEdgePaddingsMakeWithRects(MPSRect inner, MPSRect outer);
// How far each edge of inner lies inside outer, 0 for an edge that reaches or crosses outer's.
MPSEdgePaddings MPSEdgeInsetsCalculate(MPSRect outer, MPSRect inner);
// rect grown by the paddings on each side (negative paddings shrink it).
MPSRect MPSPaddedRect(MPSRect rect, MPSEdgePaddings paddings);

// ---- Rectangles ----

MPSRect MPSRectWithOriginAndSize(MPSPoint origin, MPSSize size);
MPSRect MPSRectFromSize(MPSSize size);
MPSRect MPSRectFromPoints(MPSPoint a, MPSPoint b);
MPSRect MPSRectWithMarginAroundPoint(double margin, MPSPoint p);
MPSRect MPSRectWithSizeCenteredAtPoint(MPSSize size, MPSPoint p);
MPSRect MPSRectWithSizeCenteredInRect(MPSRect rect, MPSSize size);
MPSRect MPSRectWithSizeProportionallyInRect(MPSRect rect, MPSSize size);
// The smallest rect of size's aspect ratio that covers rect, centred on it; a size without area gives rect.
MPSRect MPSRectWithSizeProportionallyAroundRect(MPSRect rect, MPSSize size);
MPSRect MPSRectScale(MPSRect rect, double factor);
MPSRect MPSRectExpand(MPSRect rect, double delta);
MPSRect MPSRectByRoundingRect(MPSRect rect);
MPSRect MPSRectByRoundingRectToStep(MPSRect rect, double step);
bool MPSRectIsZero(MPSRect rect);
bool MPSRectEqualToRectWithAccuracy(MPSRect a, MPSRect b, double accuracy);
// Equal with MPSFuzzyMargin as the accuracy.
bool MPSRectFuzzyEqualToRect(MPSRect a, MPSRect b);
// True when every edge named in edgeMask (1 minX, 2 maxX, 4 minY, 8 maxY) is equal within MPSFuzzyMargin.
bool MPSRectFuzzyCompareWithOptions(MPSRect a, MPSRect b, unsigned edgeMask);
// Reading order: −1, 0 or 1 by minY, then minX, then height, then width.
int MPSRectCompare(MPSRect a, MPSRect b);
MPSRect MPSRectAbsolute(MPSRect r, MPSRect frame);
MPSRect MPSRectRelative(MPSRect r, MPSRect frame);
MPSRect MPSRectFromCoordinateSpaceRectToRect(MPSRect r, MPSRect from, MPSRect to);
double MPSRectMinForAxis(int axis, MPSRect r);
double MPSRectMaxForAxis(int axis, MPSRect r);
double MPSRectSizeForAxis(int axis, MPSRect r);
MPSRect MPSRectWithMinForAxis(MPSRect r, int axis, double value);
MPSRect MPSRectWithSizeForAxis(MPSRect r, int axis, double value);
MPSRect MPSRectWithMaxForAxis(MPSRect r, int axis, double value);
// (midX, midY).
MPSPoint MPSRectGetMid(MPSRect r);
MPSRect MPSRectWithMid(MPSRect r, MPSPoint p);
MPSRect MPSRectWithMidX(MPSRect r, double value);
MPSRect MPSRectWithMidY(MPSRect r, double value);
// x = value, max x kept.
MPSRect MPSRectResizeMinXTo(MPSRect r, double value);
// y = value, max y kept.
MPSRect MPSRectResizeMinYTo(MPSRect r, double value);
MPSRect MPSRectResizeMaxXTo(MPSRect r, double value);
MPSRect MPSRectResizeMaxYTo(MPSRect r, double value);
// The edges of MPSCornerRectEdgesMask(corner) moved to p, the other edges kept; not normalised.
MPSRect MPSRectResizeByPuttingCorner(MPSRect r, MPSCorner corner, MPSPoint p);
MPSRect MPSRectWithWidthRespectingProportions(MPSRect r, double width, double ratio);
MPSRect MPSRectWithHeightRespectingProportions(MPSRect r, double height, double ratio);
MPSRect MPSRectWithSizeOnAxisAspectRatio(MPSRect r, int axis, double size, double ratio);
double MPSRectValueForKey(std::string_view key, MPSRect r);
// The corner's point of r; the mid for a corner outside 0–7.
MPSPoint MPSRectPointForCorner(MPSRect r, MPSCorner corner);
// The corner whose point is nearest p and strictly within margin of it (ties: the lower corner); −1 if none.
MPSCorner MPSRectClosestCornerForPoint(MPSRect r, MPSPoint p, double margin);
// Distance from the corner's point to the mid; 0 for a corner outside 0–7.
double MPSRectDistanceFromCornerToMid(MPSRect r, MPSCorner corner);
// Negative width or height made positive by moving the origin, covering the same area.
MPSRect MPSRectNormalise(MPSRect r);
// r moved, size kept, so that the corner's point lies at p; unchanged for a corner outside 0–7.
MPSRect MPSRectWithCornerAtPoint(MPSRect r, MPSCorner corner, MPSPoint p);
// r moved, size kept, the least distance that puts its mid inside container (edges included).
MPSRect MPSRectByEnsuringMidIsContainedInRect(MPSRect r, MPSRect container);
// r moved, size kept, the least distance into container; on an axis where it is larger it takes container's min.
MPSRect MPSRectMoveIntoRect(MPSRect r, MPSRect container);
// The extents on the axis overlap by more than a point (touching edges do not intersect).
bool MPSRectIntersectsRectOnAxis(MPSRect a, MPSRect b, int axis);
// Each of the four numbers passed through MPSFloatMakeNotInfOrNan.
MPSRect MPSRectSafe(MPSRect r);
// Bounding box of both after MPSRectSafe and MPSRectNormalise; a rect equal to the zero rect is ignored.
MPSRect MPSRectUnionSafe(MPSRect a, MPSRect b);
// r inside a parent resized from oldSize to newSize; per axis the parts whose resizing bit is set (4/2/1, 32/16/8) share the new room in proportion, margins alone keep the centre's relative place, none set or no old room keeps r.
MPSRect MPSRectScaledRelativeToSizeWithConstraints(MPSRect r, MPSSize oldSize, MPSSize newSize, unsigned constraints);

// ---- Angles and axes ----

double MPSSlopeBetweenPoints(MPSPoint a, MPSPoint b);
// A NaN or infinite value gives NaN.
double MPSNormalizeRadians(double radians);
double MPSRadiansToDegrees(double radians);
double MPSDegreesToRadians(double degrees);
double MPSSlopeToStraightAngles(double radians);
// The same turn taken the other way, in [0, 360): −degrees modulo 360; non-finite gives 0.
double MPSReversedDegrees(double degrees);
int MPSAxisFlip(int axis);

// ---- Logging (verbose flag) ----

void MPSLogRect(MPSRect r);
void MPSLogSize(MPSSize s);
void MPSLogPoint(MPSPoint p);

}  // namespace plexa
