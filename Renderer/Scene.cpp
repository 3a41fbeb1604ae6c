#include "Scene.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace plexa::render {

cairo_matrix_t Placement::matrix() const {
  cairo_matrix_t m;
  cairo_matrix_init_translate(&m, frame.x, frame.y);
  if (rotation == 0 && !flipHorizontal && !flipVertical) return m;
  double cx = frame.width / 2, cy = frame.height / 2;
  cairo_matrix_translate(&m, cx, cy);
  // The y axis points down, so a counter-clockwise turn on screen is a negative angle.
  if (rotation != 0) cairo_matrix_rotate(&m, -rotation * std::numbers::pi / 180);
  cairo_matrix_scale(&m, flipHorizontal ? -1 : 1, flipVertical ? -1 : 1);
  cairo_matrix_translate(&m, -cx, -cy);
  return m;
}

Rect Placement::boundsInParent() const {
  cairo_matrix_t m = matrix();
  double xs[4] = {0, frame.width, frame.width, 0}, ys[4] = {0, 0, frame.height, frame.height};
  double minX = INFINITY, minY = INFINITY, maxX = -INFINITY, maxY = -INFINITY;
  for (int i = 0; i < 4; ++i) {
    double x = xs[i], y = ys[i];
    cairo_matrix_transform_point(&m, &x, &y);
    minX = std::min(minX, x), maxX = std::max(maxX, x);
    minY = std::min(minY, y), maxY = std::max(maxY, y);
  }
  return {minX, minY, maxX - minX, maxY - minY};
}

double ExportFormat::effectiveScale(double width, double height) const {
  if (absoluteSize > 0) {
    if (visibleScaleType == 1 && width > 0) return absoluteSize / width;
    if (visibleScaleType == 2 && height > 0) return absoluteSize / height;
  }
  return scale > 0 ? scale : 1;
}

Rect ScenePage::contentBounds() const {
  Rect bounds;
  for (const auto& layer : layers) bounds = bounds.unionWith(layer->placement.boundsInParent());
  return bounds;
}

namespace {

double finiteOrZero(double value) { return std::isfinite(value) ? value : 0; }

// Sketch counts a shadow as far as its blur radius reaches past the offset,
// spread-grown shape (not the longer tail a Gaussian leaves).
Rect withShadows(const Rect& bounds, const std::vector<Shadow>& shadows) {
  Rect result = bounds;
  for (const Shadow& shadow : shadows) {
    double grow = std::max(finiteOrZero(shadow.spread), 0.0) + std::clamp(finiteOrZero(shadow.blurRadius), 0.0, 1e4);
    result = result.unionWith({bounds.x + finiteOrZero(shadow.offsetX) - grow,
                               bounds.y + finiteOrZero(shadow.offsetY) - grow, bounds.width + 2 * grow,
                               bounds.height + 2 * grow});
  }
  return result;
}

bool isSane(const Rect& r) {
  return std::isfinite(r.x) && std::isfinite(r.y) && std::isfinite(r.width) && std::isfinite(r.height) &&
         r.width >= 0 && r.height >= 0;
}

// A layer's extent in its own coordinates as Sketch measures a page: its
// frame (or outline) grown by borders and shadows, and for groups and symbol
// masters their children's extents too. Artboards and symbol instances
// count by their frames alone; a symbol master's content counts even past
// its frame (Sketch's page previews are that much larger).
Rect extentOf(const Node& node, int depth) {
  Rect bounds{0, 0, node.placement.frame.width, node.placement.frame.height};
  if (node.kind == NodeKind::Shape && !node.outline.isEmpty()) bounds = bounds.unionWith(node.outline.bounds());
  if (node.kind == NodeKind::Artboard) return bounds;
  if (node.isContainer() && !node.isSymbolInstance && depth < 200)
    for (const auto& child : node.children)
      if (child->isVisible && isSane(child->placement.frame))
        bounds = bounds.unionWith(transformedBounds(extentOf(*child, depth + 1), child->placement.matrix()));
  return withShadows(styleBounds(node.style, bounds), node.style.shadows);
}

}  // namespace

Rect ScenePage::drawnBounds() const {
  Rect bounds;
  for (const auto& layer : layers) {
    if (!isSane(layer->placement.frame)) continue;
    // A hidden layer still holds its place on the page by its frame.
    bounds = bounds.unionWith(layer->isVisible ? transformedBounds(extentOf(*layer, 0), layer->placement.matrix())
                                               : layer->placement.boundsInParent());
  }
  return bounds;
}

namespace {

bool search(const Node& node, const std::string& id, std::vector<const Node*>& chain) {
  if (node.id == id) return true;
  chain.push_back(&node);
  for (const auto& child : node.children)
    if (search(*child, id, chain)) return true;
  chain.pop_back();
  return false;
}

const Node* findIn(const Node& node, const std::string& id) {
  if (node.id == id) return &node;
  for (const auto& child : node.children)
    if (const Node* hit = findIn(*child, id)) return hit;
  return nullptr;
}

}  // namespace

std::optional<NodeLocation> locateNode(const ScenePage& page, const std::string& id) {
  for (const auto& layer : page.layers) {
    const Node* node = findIn(*layer, id);
    if (!node) continue;
    NodeLocation location;
    location.page = &page;
    location.node = node;
    search(*layer, id, location.ancestors);
    // Own coordinates → parent → … → page: innermost first.
    cairo_matrix_t m = node->placement.matrix();
    for (auto it = location.ancestors.rbegin(); it != location.ancestors.rend(); ++it) {
      cairo_matrix_t parent = (*it)->placement.matrix();
      cairo_matrix_multiply(&m, &m, &parent);
    }
    location.toPage = m;
    return location;
  }
  return std::nullopt;
}

std::optional<NodeLocation> Scene::find(const std::string& id) const {
  for (const auto& page : pages)
    if (auto location = locateNode(page, id)) return location;
  return std::nullopt;
}

const ScenePage* Scene::page(const std::string& id) const {
  for (const auto& page : pages)
    if (page.id == id) return &page;
  return nullptr;
}

}  // namespace plexa::render
