#pragma once
// The renderer's shared vocabulary: colours, points, rectangles, paths in
// points, blend modes, and the once-per-document note of what is not drawn.
// Every part of the scene and every painter speaks in these types.

#include <cairo.h>

#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace plexa::render {

// Straight (not premultiplied) RGBA, each 0–1.
struct Color {
  double r = 0, g = 0, b = 0, a = 1;
  bool operator==(const Color&) const = default;
};

struct Point {
  double x = 0, y = 0;
  bool operator==(const Point&) const = default;
};

struct Rect {
  double x = 0, y = 0, width = 0, height = 0;
  bool operator==(const Rect&) const = default;
  bool isEmpty() const { return !(width > 0) || !(height > 0); }
  Rect unionWith(const Rect& other) const;
  Rect insetBy(double dx, double dy) const { return {x + dx, y + dy, width - 2 * dx, height - 2 * dy}; }
};

// The axis-aligned bounds of `rect` after the affine map `m`.
Rect transformedBounds(const Rect& rect, const cairo_matrix_t& m);

// A vector outline in a layer's own coordinates (points). Curves are cubic.
class Path {
 public:
  enum class Verb { Move, Line, Cubic, Close };
  struct Element {
    Verb verb;
    Point points[3];  // Move/Line: [0]; Cubic: control 1, control 2, end
  };

  void moveTo(Point p) { elements_.push_back({Verb::Move, {p}}); }
  void lineTo(Point p) { elements_.push_back({Verb::Line, {p}}); }
  void cubicTo(Point c1, Point c2, Point end) { elements_.push_back({Verb::Cubic, {c1, c2, end}}); }
  void close() { elements_.push_back({Verb::Close, {}}); }
  void append(const Path& other) { elements_.insert(elements_.end(), other.elements_.begin(), other.elements_.end()); }

  const std::vector<Element>& elements() const { return elements_; }
  bool isEmpty() const { return elements_.empty(); }
  // Control-point bounds: cheap and never smaller than the outline.
  Rect bounds() const;
  // Adds the outline to `cr`'s current path under its current transform.
  void appendTo(cairo_t* cr) const;

  bool evenOdd = false;  // fill rule: even-odd instead of non-zero winding

 private:
  std::vector<Element> elements_;
};

// Sketch's blend modes in the order of the document's `blendMode` numbers.
enum class BlendMode {
  Normal, Darken, Multiply, ColorBurn, Lighten, Screen, ColorDodge, Overlay, SoftLight, HardLight,
  Difference, Exclusion, Hue, Saturation, Color, Luminosity, PlusDarker, PlusLighter
};
BlendMode blendModeFromSketch(long long value);  // unknown numbers draw as Normal
cairo_operator_t cairoOperator(BlendMode mode);  // PlusDarker has no Cairo twin: Multiply

// What a document asks for that the renderer does not draw, noted once per
// (layer class, property) and per missing resource, so a log stays short.
class RenderNotes {
 public:
  void skipped(std::string_view layerClass, std::string_view property);
  void missingFont(std::string_view fontName, std::string_view substitute);
  void missingImage(std::string_view reference);

 private:
  bool firstTime(std::string key);
  std::mutex lock_;
  std::set<std::string> seen_;
};

}  // namespace plexa::render
