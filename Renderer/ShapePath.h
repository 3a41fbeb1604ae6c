#pragma once
// Shape geometry: a path layer's `points` (relative "{x, y}" strings with
// curve handles and corner radii) turned into an outline in points, and the
// boolean combination of a shape group's children, done with Clipper on
// flattened curves.

#include "RenderTypes.h"

#include <boost/json/fwd.hpp>

#include <vector>

namespace plexa::render {

// `booleanOperation` of a shape group's child; None appends the outline
// as it is (the group's winding rule then decides).
enum class BooleanOp { None = -1, Union = 0, Subtract = 1, Intersect = 2, Difference = 3 };
BooleanOp booleanOpFromSketch(long long value);

struct CurvePoint {
  Point point, curveFrom, curveTo;  // absolute, in points
  bool hasCurveFrom = false, hasCurveTo = false;
  double cornerRadius = 0;
};

// The points of a path layer, in its own coordinates for a `width` × `height`
// frame. Reads the layer's `points` (newer files) or `path.points` (older).
// Malformed points are skipped. `isClosed` receives the path's closed flag.
std::vector<CurvePoint> readCurvePoints(const boost::json::value& layer, double width, double height,
                                        bool* isClosed);

// Builds the outline through the points, rounding corners whose radius is
// set where both neighbouring segments are straight. `smoothCorners` (the
// smooth corner style) is drawn as plain round corners.
Path outlineFromPoints(const std::vector<CurvePoint>& points, bool isClosed);

// The outline of a path layer (shapePath, rectangle, oval, star, polygon,
// triangle): the points, with a rectangle's `fixedRadius` applied to its
// corners when the document predates per-point radii.
Path shapeOutline(const boost::json::value& layer, double width, double height, bool* isClosed);

// Polygons approximating `path` with at most `tolerance` points of error.
std::vector<std::vector<Point>> flattenPath(const Path& path, double tolerance);

struct BooleanOperand {
  Path outline;  // in the shape group's coordinates
  BooleanOp op = BooleanOp::None;
};

// Combines operands in order: the first is taken as it is, each further one
// is merged into the result by its own operation. `tolerance` is the
// flattening error in points (pick it from the output scale).
Path combineOutlines(const std::vector<BooleanOperand>& operands, double tolerance);

// Transforms every point of `path` by `m`.
Path transformPath(const Path& path, const cairo_matrix_t& m);

}  // namespace plexa::render
