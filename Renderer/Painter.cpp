#include "Painter.h"

#include "Effects.h"
#include "SceneBuilder.h"
#include "Style.h"
#include "TextBlock.h"

#include <algorithm>
#include <cmath>

namespace plexa::render {

namespace {

Rect frameRect(const Node& node) { return {0, 0, node.placement.frame.width, node.placement.frame.height}; }

bool isGrouped(const Style& style) { return style.opacity < 1 || style.blendMode != BlendMode::Normal; }

// Whether everything the layer draws lies within drawnBounds(): text may run
// past its frame (Sketch does not clip it) and blurs spread past it, while a
// board clips whatever it holds.
bool staysInDrawnBounds(const Node& node) {
  if (node.kind == NodeKind::Artboard || node.kind == NodeKind::SymbolMaster) return !node.style.blur;
  if (node.kind == NodeKind::Text || node.style.blur) return false;
  for (const auto& child : node.children)
    if (child->isVisible && !staysInDrawnBounds(*child)) return false;
  return true;
}

// A group surface is as large as the clip: cutting the clip to the pixels the
// layer can touch keeps a faded shape from costing a whole artboard of memory.
void clipToDevicePixels(cairo_t* cr, const Rect& bounds) {
  cairo_matrix_t toDevice;
  cairo_get_matrix(cr, &toDevice);
  Rect box = transformedBounds(bounds, toDevice);
  if (!std::isfinite(box.x) || !std::isfinite(box.y) || !std::isfinite(box.width) || !std::isfinite(box.height)) return;
  double x0 = std::floor(box.x) - 2, y0 = std::floor(box.y) - 2;
  double x1 = std::ceil(box.x + box.width) + 2, y1 = std::ceil(box.y + box.height) + 2;
  cairo_identity_matrix(cr);
  cairo_rectangle(cr, x0, y0, x1 - x0, y1 - y0);
  cairo_clip(cr);
  cairo_set_matrix(cr, &toDevice);
}

Silhouette silhouetteOf(const Style& style) {
  Silhouette silhouette;
  silhouette.filled = !style.fills.empty();
  for (const auto& border : style.borders) {
    if (border.thickness <= silhouette.borderThickness) continue;
    silhouette.borderThickness = border.thickness;
    silhouette.borderPosition = border.position;
  }
  return silhouette;
}

// Where a mask chain that starts at `maskIndex` ends: at a layer that breaks
// the chain, at the next mask, or at the end of the group.
size_t maskChainEnd(const std::vector<std::unique_ptr<Node>>& layers, size_t maskIndex) {
  size_t end = maskIndex + 1;
  while (end < layers.size() && !layers[end]->shouldBreakMaskChain && !layers[end]->hasClippingMask) ++end;
  return end;
}

}  // namespace

Rect drawnBounds(const Node& node) {
  Rect bounds = frameRect(node);
  if (node.kind == NodeKind::Shape && !node.outline.isEmpty()) bounds = bounds.unionWith(node.outline.bounds());
  if (node.kind == NodeKind::Group)
    for (const auto& child : node.children)
      if (child->isVisible && isSaneFrame(child->placement.frame))
        bounds = bounds.unionWith(transformedBounds(drawnBounds(*child), child->placement.matrix()));
  bounds = styleBounds(node.style, bounds);
  return shadowBounds(bounds, node.style.shadows);
}

PixelSize pixelSizeFor(const Rect& region, double scale) {
  auto side = [&](double points) {
    double pixels = points * scale;
    if (!std::isfinite(pixels) || pixels <= 0) return 0LL;
    if (pixels > 1e9) return static_cast<long long>(1e9);
    return static_cast<long long>(std::ceil(pixels - 0.01));
  };
  return {std::max(1LL, side(region.width)), std::max(1LL, side(region.height))};
}

// ---- Painter

void Painter::drawNode(cairo_t* cr, const Node& node) {
  if (!node.isVisible || node.kind == NodeKind::Slice || !isSaneFrame(node.placement.frame)) return;
  cairo_save(cr);
  cairo_matrix_t m = node.placement.matrix();
  cairo_transform(cr, &m);
  const Style& style = node.style;
  bool grouped = isGrouped(style);
  if (grouped) {
    if (staysInDrawnBounds(node)) clipToDevicePixels(cr, drawnBounds(node));
    cairo_push_group(cr);
  }
  if (style.blur && style.blur->kind != BlurKind::Background) {
    paintBlurred(cr, drawnBounds(node), frameRect(node), *style.blur, [&](cairo_t* c) { drawContent(c, node); });
  } else {
    drawContent(cr, node);
  }
  if (grouped) {
    cairo_pop_group_to_source(cr);
    cairo_set_operator(cr, cairoOperator(style.blendMode));
    cairo_paint_with_alpha(cr, std::clamp(style.opacity, 0.0, 1.0));
  }
  cairo_restore(cr);
}

void Painter::drawContent(cairo_t* cr, const Node& node) {
  switch (node.kind) {
    case NodeKind::Group: drawWithImageShadows(cr, node, &Painter::drawGroupChildren); break;
    case NodeKind::Artboard:
    case NodeKind::SymbolMaster:
      drawBoardContents(cr, node, node.hasBackgroundColor && node.includeBackgroundColorInExport);
      break;
    case NodeKind::Shape: drawShape(cr, node); break;
    case NodeKind::Text: drawWithImageShadows(cr, node, &Painter::drawText); break;
    case NodeKind::Bitmap: drawWithImageShadows(cr, node, &Painter::drawBitmap); break;
    case NodeKind::Slice: break;
  }
}

void Painter::drawGroupChildren(cairo_t* cr, const Node& node) { drawLayers(cr, node.children); }

// Groups, text and images cast shadows shaped like what they draw.
void Painter::drawWithImageShadows(cairo_t* cr, const Node& node, void (Painter::*draw)(cairo_t*, const Node&)) {
  const Style& style = node.style;
  if (style.shadows.empty() && style.innerShadows.empty()) {
    (this->*draw)(cr, node);
    return;
  }
  Rect bounds = drawnBounds(node);
  int margin = 2 + static_cast<int>(std::ceil(deviceScaleOf(cr)));
  DeviceImage content = renderToDeviceImage(cr, bounds, margin, [&](cairo_t* c) { (this->*draw)(c, node); });
  if (!content) return;
  paintOuterShadowsOfImage(cr, content, style.shadows);
  paintDeviceImage(cr, content);
  paintInnerShadowsOfImage(cr, content, style.innerShadows);
}

void Painter::drawShape(cairo_t* cr, const Node& node) {
  const Style& style = node.style;
  Rect frame = frameRect(node);
  if (node.outline.isEmpty()) return;
  if (!style.shadows.empty()) paintOuterShadows(cr, node.outline, silhouetteOf(style), style.shadows);
  if (style.blur && style.blur->kind == BlurKind::Background) {
    cairo_surface_t* target = cairo_get_group_target(cr);
    if (cairo_surface_get_type(target) == CAIRO_SURFACE_TYPE_IMAGE)
      paintBackgroundBlur(cr, target, node.outline, *style.blur);
    else
      notes_.skipped(node.layerClass, "background blur inside a group with opacity");
  }
  paintFills(cr, style, node.outline, frame);
  if (!style.innerShadows.empty()) paintInnerShadows(cr, node.outline, style.innerShadows);
  paintBorders(cr, style, node.outline, frame, node.isClosed);
}

void Painter::drawText(cairo_t* cr, const Node& node) {
  if (!node.text || !node.text->drawable) return;
  Rect frame = frameRect(node);
  cairo_save(cr);
  // Lines past the bottom of a wrapping text box are not shown: the box
  // holds only what fits (a little slack keeps descenders whole).
  if (node.text->behaviour != TextBehaviour::AutoWidth) {
    cairo_rectangle(cr, -frame.width, -2, 3 * frame.width, frame.height + 4);
    cairo_clip(cr);
  }
  try {
    drawTextBlock(cr, *node.text, frame);
  } catch (const std::exception& e) {
    notes_.skipped(node.layerClass, std::string("text that could not be laid out: ") + e.what());
  }
  cairo_restore(cr);
}

void Painter::drawBitmap(cairo_t* cr, const Node& node) {
  if (!node.image || node.image.width() <= 0 || node.image.height() <= 0) return;
  Rect frame = frameRect(node);
  if (frame.isEmpty()) return;
  cairo_save(cr);
  cairo_rectangle(cr, 0, 0, frame.width, frame.height);
  cairo_clip(cr);
  cairo_scale(cr, frame.width / node.image.width(), frame.height / node.image.height());
  cairo_set_source_surface(cr, node.image.get(), 0, 0);
  cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_GOOD);
  cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
  cairo_paint(cr);
  cairo_restore(cr);
}

void Painter::drawBoardContents(cairo_t* cr, const Node& board, bool withBackground) {
  Rect frame = frameRect(board);
  cairo_save(cr);
  cairo_rectangle(cr, 0, 0, frame.width, frame.height);
  cairo_clip(cr);
  if (withBackground) {
    const Color& c = board.backgroundColor;
    cairo_set_source_rgba(cr, c.r, c.g, c.b, c.a);
    cairo_paint(cr);
  }
  drawLayers(cr, board.children);
  cairo_restore(cr);
}

void Painter::drawLayers(cairo_t* cr, const std::vector<std::unique_ptr<Node>>& layers) {
  for (size_t i = 0; i < layers.size();) {
    const Node& layer = *layers[i];
    if (layer.hasClippingMask && layer.isVisible && isSaneFrame(layer.placement.frame)) {
      i = drawMaskChain(cr, layers, i);
    } else {
      drawNode(cr, layer);
      ++i;
    }
  }
}

// Clips with the mask's outline in the parent's coordinates, keeping cr's transform.
void Painter::clipToOutline(cairo_t* cr, const Node& mask) {
  cairo_matrix_t saved;
  cairo_get_matrix(cr, &saved);
  cairo_matrix_t m = mask.placement.matrix();
  cairo_transform(cr, &m);
  cairo_new_path(cr);
  if (mask.kind == NodeKind::Shape && !mask.outline.isEmpty()) {
    mask.outline.appendTo(cr);
    cairo_set_fill_rule(cr, mask.outline.evenOdd ? CAIRO_FILL_RULE_EVEN_ODD : CAIRO_FILL_RULE_WINDING);
  } else {
    cairo_rectangle(cr, 0, 0, mask.placement.frame.width, mask.placement.frame.height);
  }
  cairo_set_matrix(cr, &saved);
  cairo_clip(cr);
  cairo_set_fill_rule(cr, CAIRO_FILL_RULE_WINDING);
}

size_t Painter::drawMaskChain(cairo_t* cr, const std::vector<std::unique_ptr<Node>>& layers, size_t maskIndex) {
  const Node& mask = *layers[maskIndex];
  size_t end = maskChainEnd(layers, maskIndex);
  if (mask.clippingMaskMode == 1) {
    // Alpha mask: the masked layers show through the mask's rendered alpha.
    cairo_push_group(cr);
    for (size_t i = maskIndex + 1; i < end; ++i) drawNode(cr, *layers[i]);
    cairo_pattern_t* content = cairo_pop_group(cr);
    cairo_push_group(cr);
    drawNode(cr, mask);
    cairo_pattern_t* alpha = cairo_pop_group(cr);
    cairo_save(cr);
    cairo_set_source(cr, content);
    cairo_mask(cr, alpha);
    cairo_restore(cr);
    cairo_pattern_destroy(content);
    cairo_pattern_destroy(alpha);
    return end;
  }
  // Outline mask: the mask draws its own style, and everything above it in
  // the chain is clipped to its outline.
  cairo_save(cr);
  clipToOutline(cr, mask);
  drawNode(cr, mask);
  for (size_t i = maskIndex + 1; i < end; ++i) drawNode(cr, *layers[i]);
  cairo_restore(cr);
  return end;
}

// ---- Export images

namespace {

struct Canvas {
  SurfaceRef surface;
  cairo_t* cr = nullptr;
  ~Canvas() {
    if (cr) cairo_destroy(cr);
  }
};

bool makeCanvas(Canvas& canvas, const Rect& region, double scale) {
  PixelSize size = pixelSizeFor(region, scale);
  if (size.width > 32767 || size.height > 32767) return false;
  canvas.surface = SurfaceRef::adopt(
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, static_cast<int>(size.width), static_cast<int>(size.height)));
  if (cairo_surface_status(canvas.surface.get()) != CAIRO_STATUS_SUCCESS) return false;
  canvas.cr = cairo_create(canvas.surface.get());
  cairo_scale(canvas.cr, scale, scale);
  cairo_translate(canvas.cr, -region.x, -region.y);
  return cairo_status(canvas.cr) == CAIRO_STATUS_SUCCESS;
}

SurfaceRef finish(Canvas& canvas) {
  cairo_surface_flush(canvas.surface.get());
  return canvas.surface;
}

}  // namespace

void paintBoardExport(cairo_t* cr, const Node& board, RenderNotes& notes) {
  Painter painter(notes);
  painter.drawBoardContents(cr, board, board.hasBackgroundColor && board.includeBackgroundColorInExport);
}

void paintLayerExport(cairo_t* cr, const NodeLocation& location, RenderNotes& notes) {
  for (const Node* ancestor : location.ancestors) {
    cairo_matrix_t m = ancestor->placement.matrix();
    cairo_transform(cr, &m);
  }
  const Node& node = *location.node;
  if (node.isBoard()) {
    cairo_matrix_t m = node.placement.matrix();
    cairo_transform(cr, &m);
    paintBoardExport(cr, node, notes);
  } else {
    Painter(notes).drawNode(cr, node);
  }
}

void paintRegionExport(cairo_t* cr, const ScenePage& page, RenderNotes& notes) {
  Painter(notes).drawLayers(cr, page.layers);
}

SurfaceRef renderBoard(const Node& board, double scale, RenderNotes& notes) {
  Canvas canvas;
  if (!makeCanvas(canvas, {0, 0, board.placement.frame.width, board.placement.frame.height}, scale)) return {};
  paintBoardExport(canvas.cr, board, notes);
  return finish(canvas);
}

SurfaceRef renderLayer(const NodeLocation& location, const Rect& region, double scale, RenderNotes& notes) {
  Canvas canvas;
  if (!makeCanvas(canvas, region, scale)) return {};
  paintLayerExport(canvas.cr, location, notes);
  return finish(canvas);
}

SurfaceRef renderRegion(const ScenePage& page, const Rect& region, double scale, RenderNotes& notes) {
  Canvas canvas;
  if (!makeCanvas(canvas, region, scale)) return {};
  paintRegionExport(canvas.cr, page, notes);
  return finish(canvas);
}

}  // namespace plexa::render
