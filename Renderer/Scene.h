#pragma once
// The typed, fully resolved scene the painter draws from: symbol instances
// already detached, styles and text read, outlines built, units in points.
// Nothing here refers back to the document JSON.

#include "ImageSource.h"
#include "RenderTypes.h"
#include "Style.h"
#include "TextBlock.h"

#include <cairo.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plexa::render {

enum class NodeKind { Group, Artboard, SymbolMaster, Shape, Text, Bitmap, Slice };

// Where a layer sits in its parent: the frame's origin and size, then a
// rotation and flips about the frame's centre.
struct Placement {
  Rect frame;
  double rotation = 0;  // degrees, counter-clockwise on screen as Sketch shows it
  bool flipHorizontal = false, flipVertical = false;

  // Maps the layer's own coordinates (0…width, 0…height) into the parent's.
  cairo_matrix_t matrix() const;
  // The frame's corners mapped into the parent, as an axis-aligned box.
  Rect boundsInParent() const;
};

// One entry of a layer's `exportOptions.exportFormats`.
struct ExportFormat {
  std::string fileFormat = "png";
  std::string name;        // prefix or suffix text
  bool nameIsPrefix = false;  // `namingScheme` 1
  double scale = 1;
  double absoluteSize = 0;    // points of width or height when set
  int visibleScaleType = 0;   // 0 scale, 1 width, 2 height

  // The factor from points to pixels for a layer of that size.
  double effectiveScale(double width, double height) const;
};

struct Node {
  NodeKind kind = NodeKind::Group;
  std::string id, name, layerClass;
  Placement placement;
  bool isVisible = true;
  Style style;

  // Masks: a mask layer clips its later siblings (outline, or alpha when
  // `clippingMaskMode` is 1) until a sibling breaks the chain or the group ends.
  bool hasClippingMask = false;
  int clippingMaskMode = 0;
  bool shouldBreakMaskChain = false;

  // Shape: the resolved outline in the layer's own coordinates.
  Path outline;
  bool isClosed = true;

  // Text.
  std::optional<TextBlock> text;

  // Bitmap.
  SurfaceRef image;

  // A symbol instance, detached into a group of its master's layers.
  bool isSymbolInstance = false;

  // Artboards and symbol masters.
  bool hasBackgroundColor = false;
  bool includeBackgroundColorInExport = true;
  Color backgroundColor{1, 1, 1, 1};

  std::vector<ExportFormat> exportFormats;
  std::vector<std::unique_ptr<Node>> children;  // bottom-most first

  bool isContainer() const {
    return kind == NodeKind::Group || kind == NodeKind::Artboard || kind == NodeKind::SymbolMaster;
  }
  bool isBoard() const { return kind == NodeKind::Artboard || kind == NodeKind::SymbolMaster; }
};

struct ScenePage {
  std::string id, name;
  std::vector<std::unique_ptr<Node>> layers;  // top-level, bottom-most first
  // Union of the top-level layers' frames.
  Rect contentBounds() const;
  // What a render of the whole page covers, as Sketch bounds it: the
  // top-level layers with their borders and shadows, artboards by their
  // frames, symbol masters with content that reaches past their frames.
  Rect drawnBounds() const;
};

// Where a node was found: its page, its chain of parents (outermost first)
// and the transform from its own coordinates to the page's.
struct NodeLocation {
  const ScenePage* page = nullptr;
  const Node* node = nullptr;
  std::vector<const Node*> ancestors;
  cairo_matrix_t toPage;
};

// Finds a layer by ID anywhere in the page.
std::optional<NodeLocation> locateNode(const ScenePage& page, const std::string& id);

class Scene {
 public:
  std::vector<ScenePage> pages;

  std::optional<NodeLocation> find(const std::string& id) const;
  const ScenePage* page(const std::string& id) const;
};

}  // namespace plexa::render
