#include "MPSGeometry.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <vector>

using namespace plexa;

namespace {

constexpr double kPi = std::numbers::pi;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

MPSRect rect(double x, double y, double w, double h) { return {{x, y}, {w, h}}; }

// Rotating by repeated 45° steps, as the rule states it; only for angles
// small enough that the loop ends quickly.
MPSCorner rotateStepwise(MPSCorner corner, double degrees) {
  while (!(-23 < degrees && degrees < 23)) {
    corner = MPSCornerByRotating45DegreesCounterClockwise(corner);
    degrees += degrees >= 0 ? -45 : 45;
  }
  return corner;
}

}  // namespace

TEST(MPSGeometryCorners, RotationFollowsTheTableStepwiseForAnyAngle) {
  const MPSCorner expected[8] = {5, 4, 7, 6, 0, 2, 1, 3};
  for (MPSCorner c = 0; c < 8; ++c) EXPECT_EQ(MPSCornerByRotating45DegreesCounterClockwise(c), expected[c]);
  EXPECT_EQ(MPSCornerByRotating45DegreesCounterClockwise(8), 8);
  EXPECT_EQ(MPSCornerByRotating45DegreesCounterClockwise(-1), 8);

  // Both directions turn counter-clockwise, from 23° on; invalid corners
  // become 8 at the first step; large angles end and match the rule.
  for (MPSCorner c = -1; c <= 9; ++c) {
    for (double d : {10.0, 22.9, 23.0, -23.0, 45.0, 90.0, -90.0, 360.0, 383.0, 405.0, 725.0, 1000.5, -368.0, -405.0,
                     -1079.0, 1080.0}) {
      EXPECT_EQ(MPSCornerByRotatingByDegrees(c, d), rotateStepwise(c, d)) << "corner " << c << " degrees " << d;
    }
  }
  EXPECT_EQ(MPSCornerByRotatingByDegrees(0, -90), 2);
  EXPECT_EQ(MPSCornerByRotatingByDegrees(3, 23), 6);
  // A full turn brings every corner back; a turn of 8 steps plus one is one step.
  EXPECT_EQ(MPSCornerByRotatingByDegrees(1, 1e12), MPSCornerByRotatingByDegrees(1, std::fmod(1e12, 360.0)));
  EXPECT_EQ(MPSCornerByRotatingByDegrees(4, kNaN), 4);
  EXPECT_EQ(MPSCornerByRotatingByDegrees(4, kInf), 4);
  EXPECT_EQ(MPSCornerByRotatingByDegrees(4, -kInf), 4);
}

TEST(MPSGeometryCorners, FlipsMasksAndEdges) {
  EXPECT_FALSE(MPSCornerSatisfiesMask(2, 0b1000));
  EXPECT_TRUE(MPSCornerSatisfiesMask(40, std::uint64_t{1} << 40));
  EXPECT_FALSE(MPSCornerSatisfiesMask(-1, ~std::uint64_t{0}));
  EXPECT_FALSE(MPSCornerSatisfiesMask(64, ~std::uint64_t{0}));

  // The edges of each corner agree with the point the corner names, and the
  // flips name the point mirrored through the mid (x + x' = 120, y + y' = 90).
  const MPSRect r = rect(10, 20, 100, 50);
  for (MPSCorner c = 0; c < 8; ++c) {
    const unsigned edges = MPSCornerRectEdgesMask(c);
    const MPSPoint p = MPSRectPointForCorner(r, c);
    EXPECT_EQ((edges & MPSRectEdgeLeft) != 0, p.x == 10) << c;
    EXPECT_EQ((edges & MPSRectEdgeRight) != 0, p.x == 110) << c;
    EXPECT_EQ((edges & MPSRectEdgeTop) != 0, p.y == 20) << c;
    EXPECT_EQ((edges & MPSRectEdgeBottom) != 0, p.y == 70) << c;
    EXPECT_EQ(MPSCornerIsInMidHorizontal(c), p.y == 45 && (p.x == 10 || p.x == 110)) << c;
    EXPECT_EQ(MPSCornerIsInMidVertical(c), p.x == 60) << c;
    EXPECT_EQ(MPSRectPointForCorner(r, MPSCornerFlip(c)), (MPSPoint{120 - p.x, 90 - p.y})) << c;
    EXPECT_EQ(MPSRectPointForCorner(r, MPSCornerFlipByAxis(c, 0)), (MPSPoint{120 - p.x, p.y})) << c;
    EXPECT_EQ(MPSRectPointForCorner(r, MPSCornerFlipByAxis(c, 1)), (MPSPoint{p.x, 90 - p.y})) << c;
  }
  EXPECT_EQ(MPSCornerFlip(-3), 8);
  EXPECT_EQ(MPSCornerFlipByAxis(1, 7), 3);  // any axis but 0 is vertical
  EXPECT_EQ(MPSCornerRectEdgesMask(8), 0u);
  EXPECT_EQ(MPSCornerRectEdgesMask(-2), 0u);
}

TEST(MPSGeometryCorners, EnumerationAndPredicates) {
  std::vector<MPSCorner> seen;
  MPSCornerEnumerate([&](MPSCorner c) { seen.push_back(c); });
  EXPECT_EQ(seen, (std::vector<MPSCorner>{0, 1, 2, 3, 4, 5, 6, 7}));
  EXPECT_EQ(MPSCornerFirstCornerSatisfyingPredicate([](MPSCorner c) { return c > 4; }), 5);
  EXPECT_EQ(MPSCornerFirstCornerSatisfyingPredicate([](MPSCorner) { return false; }), -1);
  EXPECT_EQ(MPSCornerFirstCornerSatisfyingPredicate({}), -1);
  MPSCornerEnumerate({});  // an empty callback is ignored
}

TEST(MPSGeometryNumbers, MarginsAreStrictAndRoundingGoesAwayFromZero) {
  EXPECT_TRUE(MPSFloatEqualWithMargin(1.0, 1.4, 0.5));
  EXPECT_FALSE(MPSFloatEqualWithMargin(1.0, 1.5, 0.5));
  EXPECT_FALSE(MPSFloatEqualWithMargin(kNaN, kNaN, 1));
  EXPECT_TRUE(MPSFloatEqual(0.1 + 0.2, 0.3));
  EXPECT_FALSE(MPSFloatEqual(1.0, 1.0 + 1e-15));
  EXPECT_FALSE(MPSPointsEqualWithMargin({0, 0}, {3, 4}, 5));
  EXPECT_TRUE(MPSPointsEqualWithMargin({0, 0}, {3, 4}, 5.0001));
  EXPECT_FALSE(MPSPointEqualToPointWithAccuracy({0, 0}, {0.5, 0}, 0.5));
  EXPECT_TRUE(MPSSizeEqualToSizeWithAccuracy({1, 2}, {1.2, 2.2}, 0.25));

  EXPECT_EQ(MPSFloatRoundToStep(7.5, 5), 10);
  EXPECT_EQ(MPSFloatRoundToStep(-7.5, 5), -10);
  EXPECT_EQ(MPSFloatRoundToStep(7.4, 5), 5);
  EXPECT_EQ(MPSPointByRoundingPoint({2.5, -2.5}), (MPSPoint{3, -3}));
  EXPECT_EQ(MPSSizeIntegral({1.01, -1.5}), (MPSSize{2, -1}));
  EXPECT_EQ(MPSRectByRoundingRect(rect(0.5, -0.5, 10.49, 1.5)), rect(1, -1, 10, 2));
  EXPECT_EQ(MPSRectByRoundingRectToStep(rect(3, 7, 12, 13), 5), rect(5, 5, 10, 15));
}

TEST(MPSGeometryNumbers, ForcingAwayFromZeroAndMakingFinite) {
  EXPECT_EQ(MPSFloatMakeAbsGreaterThanOrEqual(kNaN, 0.01), 0.1);
  EXPECT_EQ(MPSFloatMakeAbsGreaterThanOrEqual(kInf, 3), 3);
  EXPECT_EQ(MPSFloatMakeAbsGreaterThanOrEqual(0, 2), -2);
  EXPECT_EQ(MPSFloatMakeAbsGreaterThanOrEqual(0.5, 2), 2);
  EXPECT_EQ(MPSFloatMakeAbsGreaterThanOrEqual(5, 2), 5);
  EXPECT_EQ(MPSFloatMakeAbsGreaterThanOrEqual(-0.5, 2), -2);
  EXPECT_EQ(MPSFloatMakeAbsGreaterThanOrEqual(-7, 2), -7);

  EXPECT_EQ(MPSFloatMakeNotInfOrNan(kNaN), 0);
  EXPECT_EQ(MPSFloatMakeNotInfOrNan(-kInf), 0);
  EXPECT_EQ(MPSFloatMakeNotInfOrNan(-3.5), -3.5);
  EXPECT_EQ(MPSPointSafe({kNaN, 2}), (MPSPoint{0, 2}));
  EXPECT_EQ(MPSRectSafe(rect(1, kInf, kNaN, 4)), rect(1, 0, 0, 4));
}

TEST(MPSGeometryPoints, CoordinateSpacesAndRanges) {
  const MPSRect from = rect(10, 20, 100, 0.0005);
  const MPSRect to = rect(0, 0, 2, 3);
  // The thin side is not divided; the other side maps proportionally.
  const MPSPoint mapped = MPSPointFromCoordinateSpaceRectToRect({60, 21}, from, to);
  EXPECT_DOUBLE_EQ(mapped.x, 1);
  EXPECT_DOUBLE_EQ(mapped.y, 3);

  const MPSRect frame = rect(-5, 10, 40, 20);
  const MPSPoint unit{0.25, 0.75};
  const MPSPoint placed = MPSPointAbsolute(unit, frame);
  EXPECT_EQ(placed, (MPSPoint{5, 25}));
  EXPECT_EQ(MPSPointRelative(placed, frame), unit);
  EXPECT_EQ(MPSPointRelative({3, 4}, rect(1, 1, 0, 0)), (MPSPoint{2, 3}));

  EXPECT_TRUE(MPSRangeContainsRange({10, 10}, {12, 3}));
  EXPECT_TRUE(MPSRangeContainsRange({10, 10}, {10, 10}));
  EXPECT_FALSE(MPSRangeContainsRange({10, 10}, {15, 10}));
  EXPECT_FALSE(MPSRangeContainsRange({10, 10}, {30, 0}));
  EXPECT_FALSE(MPSRangeContainsRange({10, 10}, {9, 2}));
  // Ends past 2^64 must not wrap around into a small number.
  EXPECT_FALSE(MPSRangeContainsRange({0, 100}, {std::numeric_limits<std::uint64_t>::max(), 200}));

  EXPECT_EQ(MPSPointBetweenPointsAt({0, 10}, {10, 30}, 0.25), (MPSPoint{2.5, 15}));
  EXPECT_EQ(MPSPointWithPositionForAxis({1, 2}, 5, 9), (MPSPoint{1, 9}));
  EXPECT_EQ(MPSPointPositionForAxis(-1, {1, 2}), 2);
}

TEST(MPSGeometryRects, ConstructionAndFitting) {
  EXPECT_EQ(MPSRectFromPoints({10, 2}, {4, 8}), rect(4, 2, 6, 6));
  EXPECT_EQ(MPSRectWithMarginAroundPoint(3, {10, 10}), rect(7, 7, 6, 6));
  EXPECT_EQ(MPSRectWithSizeCenteredInRect(rect(0, 0, 100, 50), {20, 10}), rect(40, 20, 20, 10));

  // A wide size fills the width, a tall one the height.
  EXPECT_EQ(MPSRectWithSizeProportionallyInRect(rect(0, 0, 100, 100), {200, 100}), rect(0, 25, 100, 50));
  EXPECT_EQ(MPSRectWithSizeProportionallyInRect(rect(0, 0, 100, 100), {50, 100}), rect(25, 0, 50, 100));
  // Around: the same ratio covering the rect instead.
  EXPECT_EQ(MPSRectWithSizeProportionallyAroundRect(rect(0, 0, 100, 100), {200, 100}), rect(-50, 0, 200, 100));
  EXPECT_EQ(MPSRectWithSizeProportionallyAroundRect(rect(0, 0, 100, 100), {50, 100}), rect(0, -50, 100, 200));
  EXPECT_EQ(MPSRectWithSizeProportionallyAroundRect(rect(1, 2, 3, 4), {0, 10}), rect(1, 2, 3, 4));

  EXPECT_TRUE(MPSRectIsZero(rect(-0.0, 0, 0, -0.0)));
  EXPECT_FALSE(MPSRectIsZero(rect(0, 0, 0, 1e-300)));
  EXPECT_FALSE(MPSRectIsZero(rect(kNaN, 0, 0, 0)));
}

TEST(MPSGeometryRects, AxesKeysAndProportions) {
  const MPSRect r = rect(10, 20, 30, 40);
  EXPECT_EQ(MPSRectMaxForAxis(0, r), 40);
  EXPECT_EQ(MPSRectMaxForAxis(3, r), 60);
  EXPECT_EQ(MPSRectWithMaxForAxis(r, 0, 100), rect(70, 20, 30, 40));
  EXPECT_EQ(MPSRectWithMaxForAxis(r, 1, 100), rect(10, 60, 30, 40));
  EXPECT_EQ(MPSRectWithMidX(r, 0), rect(-15, 20, 30, 40));
  EXPECT_EQ(MPSRectResizeMaxYTo(r, 25), rect(10, 20, 30, 5));
  EXPECT_EQ(MPSRectResizeMinXTo(r, 0), rect(0, 20, 40, 40));
  EXPECT_EQ(MPSRectResizeMinYTo(r, 50), rect(10, 50, 30, 10));

  EXPECT_EQ(MPSRectValueForKey("midX", r), 25);
  EXPECT_EQ(MPSRectValueForKey("maxY", r), 60);
  for (const char* key : {"width", "height", "x", "MinX", ""}) EXPECT_EQ(MPSRectValueForKey(key, r), 0) << key;

  EXPECT_EQ(MPSRectWithWidthRespectingProportions(r, 60, 2), rect(10, 20, 60, 30));
  EXPECT_EQ(MPSRectWithWidthRespectingProportions(r, 60, 0), rect(10, 20, 60, 40));
  EXPECT_EQ(MPSRectWithHeightRespectingProportions(r, 10, 0.5), rect(10, 20, 5, 10));
  EXPECT_EQ(MPSRectWithHeightRespectingProportions(r, 10, 0), rect(10, 20, 30, 10));
  EXPECT_EQ(MPSRectWithSizeOnAxisAspectRatio(r, 1, 10, 2), rect(10, 20, 20, 10));
  EXPECT_EQ(MPSRectWithSizeOnAxisAspectRatio(r, 2, 10, 2), rect(10, 20, 10, 5));
  EXPECT_EQ(MPSRectWithSizeOnAxisAspectRatio(r, 0, 10, 0), rect(10, 20, 10, 40));
  EXPECT_EQ(MPSRectWithSizeOnAxisAspectRatio(r, 1, 10, 0), rect(10, 20, 30, 10));
}

TEST(MPSGeometryRects, CoordinateSpacesRoundTrip) {
  const MPSRect frame = rect(100, 50, 200, 400);
  const MPSRect inner = rect(150, 150, 50, 100);
  const MPSRect relative = MPSRectRelative(inner, frame);
  EXPECT_EQ(relative, rect(0.25, 0.25, 0.25, 0.25));
  EXPECT_EQ(MPSRectAbsolute(relative, frame), inner);
  EXPECT_EQ(MPSRectFromCoordinateSpaceRectToRect(inner, frame, rect(0, 0, 20, 40)), rect(5, 10, 5, 10));
  EXPECT_EQ(MPSRectScale(inner, 2), rect(300, 300, 100, 200));
  EXPECT_EQ(MPSRectExpand(inner, 5), rect(145, 145, 60, 110));
}

TEST(MPSGeometryRects, CornersMovingAndNormalising) {
  const MPSRect r = rect(0, 0, 100, 50);
  EXPECT_EQ(MPSRectResizeByPuttingCorner(r, 3, {120, 60}), rect(0, 0, 120, 60));
  EXPECT_EQ(MPSRectResizeByPuttingCorner(r, 0, {10, 5}), rect(10, 5, 90, 45));
  EXPECT_EQ(MPSRectResizeByPuttingCorner(r, 4, {999, 10}), rect(0, 10, 100, 40));
  EXPECT_EQ(MPSRectResizeByPuttingCorner(r, 6, {80, 999}), rect(0, 0, 80, 50));
  EXPECT_EQ(MPSRectResizeByPuttingCorner(r, 8, {7, 7}), r);
  // Dragging a corner past the opposite edge and normalising flips the rect.
  EXPECT_EQ(MPSRectNormalise(MPSRectResizeByPuttingCorner(r, 0, {150, 80})), rect(100, 50, 50, 30));

  EXPECT_EQ(MPSRectWithCornerAtPoint(r, 3, {0, 0}), rect(-100, -50, 100, 50));
  EXPECT_EQ(MPSRectWithCornerAtPoint(r, 5, {10, 10}), rect(10, -15, 100, 50));
  EXPECT_EQ(MPSRectWithCornerAtPoint(r, -1, {10, 10}), r);
  EXPECT_EQ(MPSRectPointForCorner(r, 12), (MPSPoint{50, 25}));
  EXPECT_DOUBLE_EQ(MPSRectDistanceFromCornerToMid(r, 0), std::hypot(50, 25));
  EXPECT_EQ(MPSRectDistanceFromCornerToMid(r, 9), 0);

  EXPECT_EQ(MPSRectClosestCornerForPoint(r, {98, 2}, 5), 1);
  EXPECT_EQ(MPSRectClosestCornerForPoint(r, {51, 49}, 5), 7);
  EXPECT_EQ(MPSRectClosestCornerForPoint(r, {25, 0}, 25), -1);    // exactly at the margin
  EXPECT_EQ(MPSRectClosestCornerForPoint(r, {25, 0}, 25.01), 0);  // tie with corner 4: the lower wins
  EXPECT_EQ(MPSRectClosestCornerForPoint(r, {kNaN, 0}, 1000), -1);
}

TEST(MPSGeometryRects, ContainmentIntersectionAndUnion) {
  const MPSRect box = rect(0, 0, 100, 100);
  EXPECT_EQ(MPSRectMoveIntoRect(rect(90, -10, 20, 20), box), rect(80, 0, 20, 20));
  EXPECT_EQ(MPSRectMoveIntoRect(rect(10, 10, 20, 20), box), rect(10, 10, 20, 20));
  EXPECT_EQ(MPSRectMoveIntoRect(rect(50, 50, 150, 20), box), rect(0, 50, 150, 20));
  EXPECT_EQ(MPSRectMoveIntoRect(rect(10, 10, 20, 20), rect(100, 100, -100, -100)), rect(10, 10, 20, 20));
  EXPECT_EQ(MPSRectByEnsuringMidIsContainedInRect(rect(190, -50, 20, 20), box), rect(90, -10, 20, 20));
  EXPECT_EQ(MPSRectByEnsuringMidIsContainedInRect(rect(40, 40, 20, 20), box), rect(40, 40, 20, 20));

  EXPECT_TRUE(MPSRectIntersectsRectOnAxis(box, rect(99, 500, 10, 10), 0));
  EXPECT_FALSE(MPSRectIntersectsRectOnAxis(box, rect(99, 500, 10, 10), 1));
  EXPECT_FALSE(MPSRectIntersectsRectOnAxis(box, rect(100, 0, 10, 10), 0));  // touching
  EXPECT_TRUE(MPSRectIntersectsRectOnAxis(box, rect(110, 0, -20, 10), 0));  // negative width

  EXPECT_EQ(MPSRectUnionSafe(rect(0, 0, 10, 10), rect(20, -5, 5, 5)), rect(0, -5, 25, 15));
  EXPECT_EQ(MPSRectUnionSafe(MPSRect{}, rect(20, 20, 5, 5)), rect(20, 20, 5, 5));
  EXPECT_EQ(MPSRectUnionSafe(rect(kNaN, kInf, kNaN, kNaN), rect(20, 20, 5, 5)), rect(20, 20, 5, 5));
  EXPECT_EQ(MPSRectUnionSafe(rect(10, 10, -10, -10), rect(5, 5, 10, 10)), rect(0, 0, 15, 15));
}

TEST(MPSGeometryRects, PaddingsInsetsAndComparison) {
  const MPSRect inner = rect(10, 20, 30, 40);
  const MPSRect outer = rect(5, 10, 50, 60);
  const MPSEdgePaddings p = MPSEdgePaddingsMakeWithRects(inner, outer);
  EXPECT_EQ(p, MPSEdgePaddingsMake(10, 5, 10, 15));
  EXPECT_EQ(MPSPaddedRect(inner, p), outer);
  EXPECT_EQ(MPSPaddedRect(inner, MPSEdgePaddingsZero), inner);
  EXPECT_EQ(MPSEdgePaddingsExpand(p, -5), MPSEdgePaddingsMake(5, 0, 5, 10));
  EXPECT_EQ(MPSEdgeInsetsCalculate(outer, inner), p);
  EXPECT_EQ(MPSEdgeInsetsCalculate(rect(0, 0, 10, 10), rect(-5, 2, 20, 3)), MPSEdgePaddingsMake(2, 0, 5, 0));

  const MPSRect a = rect(0, 0, 10, 10);
  EXPECT_TRUE(MPSRectFuzzyEqualToRect(a, rect(0.0005, 0, 10, 10.0009)));
  EXPECT_FALSE(MPSRectFuzzyEqualToRect(a, rect(0.001, 0, 10, 10)));
  // Only the named edges count: moving the right edge keeps the left equal.
  const MPSRect wider = rect(0, 0, 12, 10);
  EXPECT_TRUE(MPSRectFuzzyCompareWithOptions(a, wider, MPSRectEdgeLeft | MPSRectEdgeTop | MPSRectEdgeBottom));
  EXPECT_FALSE(MPSRectFuzzyCompareWithOptions(a, wider, MPSRectEdgeRight));

  EXPECT_EQ(MPSRectCompare(rect(50, 0, 1, 1), rect(0, 1, 1, 1)), -1);
  EXPECT_EQ(MPSRectCompare(rect(0, 5, 1, 1), rect(1, 5, 1, 1)), -1);
  EXPECT_EQ(MPSRectCompare(rect(0, 5, 1, 2), rect(0, 5, 9, 1)), 1);
  EXPECT_EQ(MPSRectCompare(a, a), 0);
}

TEST(MPSGeometryRects, ScalingWithResizingConstraints) {
  const MPSSize oldParent{100, 100};
  const MPSSize wide{200, 100};
  const MPSRect child = rect(10, 10, 20, 20);
  // Everything stretches: position, width and far margin all double.
  EXPECT_EQ(MPSRectScaledRelativeToSizeWithConstraints(child, oldParent, wide, 63), rect(20, 10, 40, 20));
  // Left margin fixed: width and right margin share the growth in proportion.
  const MPSRect leftFixed = MPSRectScaledRelativeToSizeWithConstraints(child, oldParent, wide, 59);
  EXPECT_EQ(leftFixed.origin.x, 10);
  EXPECT_NEAR(leftFixed.size.width, 20 * 190.0 / 90.0, 1e-9);
  // Width fixed, both margins stretch: the centre keeps its relative place.
  EXPECT_EQ(MPSRectScaledRelativeToSizeWithConstraints(child, oldParent, wide, 45), rect(30, 10, 20, 20));
  // Nothing stretches, or a parent without room: unchanged.
  EXPECT_EQ(MPSRectScaledRelativeToSizeWithConstraints(child, oldParent, wide, 0), child);
  EXPECT_EQ(MPSRectScaledRelativeToSizeWithConstraints(child, {0, 0}, wide, 63), child);
  // Vertical bits act on the vertical axis only.
  EXPECT_EQ(MPSRectScaledRelativeToSizeWithConstraints(child, oldParent, {100, 300}, 16 | 2), rect(10, 10, 20, 220));
  EXPECT_EQ(MPSRectScaledRelativeToSizeWithConstraints(child, oldParent, {kInf, kNaN}, 63), rect(0, 0, 0, 0));
}

TEST(MPSGeometrySnapping, PointsRectsAndLines) {
  MPSPoint p{10, 10};
  EXPECT_FALSE(MPSSnapPointToPointWithMargin(p, {13, 14}, 5));  // distance exactly 5
  EXPECT_EQ(p, (MPSPoint{10, 10}));
  EXPECT_TRUE(MPSSnapPointToPointWithMargin(p, {13, 14}, 5.5));
  EXPECT_EQ(p, (MPSPoint{13, 14}));
  EXPECT_EQ(MPSPointSnapToPointWithMargin({0, 0}, {1, 1}, 1), (MPSPoint{0, 0}));

  const MPSRect r = rect(0, 0, 100, 40);
  EXPECT_EQ(MPSPointSnapToRectWithMargin({48, 3}, r, 4), (MPSPoint{50, 0}));
  EXPECT_EQ(MPSPointSnapToRectWithMargin({97, 30}, r, 4), (MPSPoint{100, 30}));

  const std::vector<std::shared_ptr<MPSLineObject>> lines = {
      MPSLineObject::lineOnAxis(0, 20), nullptr, MPSLineObject::lineOnAxis(0, 12),
      MPSLineObject::lineOnAxis(1, 52), MPSLineObject::lineOnAxis(7, 48)};
  // The nearest line on each axis wins; a tie keeps the earlier line.
  EXPECT_EQ(MPSPointSnapToLinesWithMargin({15, 50}, lines, 6), (MPSPoint{12, 52}));
  EXPECT_EQ(MPSPointSnapToLinesWithMargin({16, 50}, lines, 6), (MPSPoint{20, 52}));
  EXPECT_EQ(MPSPointSnapToLinesWithMargin({16, 50}, lines, 2), (MPSPoint{16, 50}));
  EXPECT_EQ(MPSPointSnapToLinesWithMargin({16, 50}, {}, 100), (MPSPoint{16, 50}));
}

TEST(MPSGeometryAngles, SnappingNormalisingAndConverting) {
  EXPECT_DOUBLE_EQ(MPSSlopeToStraightAngles(kPi / 8), kPi / 4);
  EXPECT_DOUBLE_EQ(MPSSlopeToStraightAngles(kPi / 8 - 1e-9), 0);
  EXPECT_DOUBLE_EQ(MPSSlopeToStraightAngles(-kPi / 8), -kPi / 4);
  EXPECT_DOUBLE_EQ(MPSSlopeToStraightAngles(-0.1), 0);
  EXPECT_DOUBLE_EQ(MPSSlopeToStraightAngles(3.0), kPi);
  EXPECT_DOUBLE_EQ(MPSSlopeToStraightAngles(4.0), 4.0);
  EXPECT_DOUBLE_EQ(MPSSlopeToStraightAngles(-4.0), -4.0);
  EXPECT_TRUE(std::isnan(MPSSlopeToStraightAngles(kNaN)));

  EXPECT_DOUBLE_EQ(MPSNormalizeRadians(3 * kPi / 2), -kPi / 2);
  EXPECT_DOUBLE_EQ(MPSNormalizeRadians(kPi), kPi);
  EXPECT_DOUBLE_EQ(MPSNormalizeRadians(-5 * kPi / 2), -kPi / 2);
  const double far = MPSNormalizeRadians(1e15);
  EXPECT_LE(std::fabs(far), kPi);
  EXPECT_TRUE(std::isnan(MPSNormalizeRadians(kInf)));

  EXPECT_DOUBLE_EQ(MPSRadiansToDegrees(kPi), 180);
  EXPECT_DOUBLE_EQ(MPSDegreesToRadians(90), kPi / 2);
  EXPECT_EQ(MPSReversedDegrees(90), 270);
  EXPECT_EQ(MPSReversedDegrees(-90), 90);
  EXPECT_EQ(MPSReversedDegrees(720), 0);
  EXPECT_FALSE(std::signbit(MPSReversedDegrees(360)));
  EXPECT_EQ(MPSReversedDegrees(kNaN), 0);
  EXPECT_EQ(MPSAxisFlip(0), 1);
  EXPECT_EQ(MPSAxisFlip(1), 0);
  EXPECT_EQ(MPSAxisFlip(-4), 0);
}

TEST(MPSGeometryAngles, SlopesAndStraightAlignment) {
  const MPSPoint anchor{10, 10};
  EXPECT_DOUBLE_EQ(MPSSlopeBetweenPoints(anchor, {10, 20}), kPi / 2);  // y grows downwards
  const MPSPoint out = MPSPointAtDistanceAndSlopeFromPoint(anchor, 5, MPSSlopeBetweenPoints(anchor, {13, 14}));
  EXPECT_NEAR(out.x, 13, 1e-12);
  EXPECT_NEAR(out.y, 14, 1e-12);

  // 30° from the anchor snaps onto the 45° diagonal at the same distance.
  const MPSPoint dragged = MPSPointAtDistanceAndSlopeFromPoint(anchor, 10, kPi / 6);
  const MPSPoint aligned = MPSPointAlignStraightAngleToPoint(dragged, anchor);
  EXPECT_NEAR(aligned.x - anchor.x, aligned.y - anchor.y, 1e-9);
  EXPECT_NEAR(MPSDistanceBetweenPoints(aligned, anchor), 10, 1e-9);
  const MPSPoint nearlyLevel = MPSPointAlignStraightAngleToPoint({20, 11}, anchor);
  EXPECT_NEAR(nearlyLevel.y, 10, 1e-9);
  EXPECT_EQ(MPSPointAlignStraightAngleToPoint(anchor, anchor), anchor);
}

TEST(MPSGeometryLogging, WritesTheThreeFormsAtVerbose) {
  plexa::test::LogCapture capture;
  MPSLogRect(rect(1, 2.5, 3, 4));
  MPSLogSize({5, 6});
  MPSLogPoint({-7, 8});
  EXPECT_EQ(capture.messages(), (std::vector<std::string>{"x:1 y:2.5 w:3 h:4", "w:5 h:6", "x:-7 y:8"}));
}
