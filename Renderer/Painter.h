#pragma once
// Draws the scene with Cairo: each layer under its placement, groups with
// opacity and blend modes composited as one, masks clipping the siblings
// above them, and the style, effect and text painters doing the layer's own
// drawing. The render* functions make the image of one export.

#include "ImageSource.h"
#include "RenderTypes.h"
#include "Scene.h"

#include <cairo.h>

#include <memory>
#include <vector>

namespace plexa::render {

class Painter {
 public:
  explicit Painter(RenderNotes& notes) : notes_(notes) {}

  // Draws `node` under cr's current transform (its parent's coordinates).
  void drawNode(cairo_t* cr, const Node& node);
  // Draws sibling layers bottom first, applying the masks among them.
  void drawLayers(cairo_t* cr, const std::vector<std::unique_ptr<Node>>& layers);
  // An artboard's or symbol master's content in its own coordinates, clipped
  // to its frame, over its background colour when `withBackground`.
  void drawBoardContents(cairo_t* cr, const Node& board, bool withBackground);

 private:
  void drawContent(cairo_t* cr, const Node& node);
  void drawShape(cairo_t* cr, const Node& node);
  void drawText(cairo_t* cr, const Node& node);
  void drawBitmap(cairo_t* cr, const Node& node);
  void drawWithImageShadows(cairo_t* cr, const Node& node, void (Painter::*draw)(cairo_t*, const Node&));
  void drawGroupChildren(cairo_t* cr, const Node& node);
  size_t drawMaskChain(cairo_t* cr, const std::vector<std::unique_ptr<Node>>& layers, size_t maskIndex);
  void clipToOutline(cairo_t* cr, const Node& mask);

  RenderNotes& notes_;
};

// The layer's own coordinates grown by borders and outer shadows, for the
// bounds of its exported image.
Rect drawnBounds(const Node& node);

// The pixel size of an image of `region` at `scale`: each side rounded up,
// forgiving the last hundredth of a pixel that fractional scales leave.
struct PixelSize {
  long long width = 0, height = 0;
  long long area() const { return width * height; }
};
PixelSize pixelSizeFor(const Rect& region, double scale);

// Export images (ARGB32, premultiplied). Empty when the surface could not be made.
// A board alone, at its own origin, with its background when it exports one.
SurfaceRef renderBoard(const Node& board, double scale, RenderNotes& notes);
// One layer alone, placed as it is on its page; `region` is in page coordinates.
SurfaceRef renderLayer(const NodeLocation& location, const Rect& region, double scale, RenderNotes& notes);
// Everything on the page that lies in `region` (page coordinates).
SurfaceRef renderRegion(const ScenePage& page, const Rect& region, double scale, RenderNotes& notes);

// The same drawings into a prepared cairo_t (any surface type) whose user
// space is the board's own points, or page points for layers and regions.
void paintBoardExport(cairo_t* cr, const Node& board, RenderNotes& notes);
void paintLayerExport(cairo_t* cr, const NodeLocation& location, RenderNotes& notes);
void paintRegionExport(cairo_t* cr, const ScenePage& page, RenderNotes& notes);

}  // namespace plexa::render
