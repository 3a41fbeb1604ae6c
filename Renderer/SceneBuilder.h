#pragma once
// From document JSON to the typed scene: `SceneBuilder` turns one layer's
// JSON into a Node. Documents are opened by `SketchDocument`.

#include "ImageSource.h"
#include "Json.h"
#include "RenderTypes.h"
#include "Scene.h"
#include "SketchDocument.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plexa::render {

class SceneBuilder {
 public:
  // `curveTolerance`: how far (points) flattened curves of boolean shapes may
  // stray; choose it from the largest output scale.
  SceneBuilder(ImageSource& images, RenderNotes& notes, double curveTolerance = 0.05);

  // Nullptr for layers that draw nothing (unknown classes, instances whose
  // master is missing, frames that are not finite numbers).
  std::unique_ptr<Node> buildLayer(const JsonValue& layer);
  ScenePage buildPage(const JsonValue& page);

  // The outline of a shape layer or shape group in its own coordinates.
  Path outlineOf(const JsonValue& layer, bool* isClosed = nullptr);

 private:
  void readCommon(const JsonValue& layer, Node& node);
  void readBoard(const JsonValue& layer, Node& node);
  void readInstance(const JsonValue& layer, Node& node);
  void readChildren(const JsonValue& layer, Node& node);
  Path shapeGroupOutline(const JsonValue& group, double width, double height, bool evenOdd, bool* isClosed);

  struct DepthGuard {
    explicit DepthGuard(int& depth) : depth_(depth) { ++depth_; }
    ~DepthGuard() { --depth_; }
    int& depth_;
  };

  ImageSource& images_;
  RenderNotes& notes_;
  double tolerance_;
  int depth_ = 0;
};

// Layers nested deeper than this are left out of the scene.
inline constexpr int kMaxLayerDepth = 200;

// A frame is drawable when every number is finite and of a sane size.
bool isSaneFrame(const Rect& frame);

}  // namespace plexa::render
