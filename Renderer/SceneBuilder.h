#pragma once
// From document JSON to the typed scene. `SketchDocument` opens a .sketch
// file (or an unzipped document folder) once, keeps its pages as JSON, and
// builds a page's scene only when asked, detaching that page's symbol
// instances first. `SceneBuilder` turns one layer's JSON into a Node.

#include "ImageSource.h"
#include "Json.h"
#include "RenderTypes.h"
#include "Scene.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plexa {
class PXSymbolDetacherV2;
}

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

class SketchDocument {
 public:
  // Opens a .sketch archive (unzipped into a private temporary folder) or an
  // unzipped document folder. Nullptr with the reason in `error`.
  static std::unique_ptr<SketchDocument> open(const std::string& path, RenderNotes& notes, std::string* error);
  ~SketchDocument();
  SketchDocument(const SketchDocument&) = delete;
  SketchDocument& operator=(const SketchDocument&) = delete;

  void setCurveTolerance(double points) { curveTolerance_ = points; }

  struct PageInfo {
    std::string id, name;
  };
  std::vector<PageInfo> pages() const;
  // IDs of the top-level artboards and symbol masters, page by page.
  std::vector<std::string> boardIDs() const;
  // IDs of every layer with export formats, page by page, outermost first.
  std::vector<std::string> exportableLayerIDs() const;
  // The page whose layer tree holds a layer with this ID.
  std::optional<std::string> pageIDForLayer(const std::string& layerID) const;
  // Builds (once) and returns the page's scene; nullptr when there is no such page.
  const ScenePage* scenePage(const std::string& pageID);
  // meta.json, or null when it cannot be read.
  std::optional<JsonValue> metaJSON() const;

 private:
  SketchDocument(std::string folder, RenderNotes& notes);
  bool load(std::string* error);

  std::string folder_;
  std::string archive_;  // set when opened from a .sketch file
  RenderNotes& notes_;
  std::unique_ptr<ImageSource> images_;
  std::optional<JsonValue> meta_;
  std::shared_ptr<PXSymbolDetacherV2> detacher_;
  bool symbolsFound_ = false;
  double curveTolerance_ = 0.05;
  std::map<std::string, ScenePage> built_;
};

}  // namespace plexa::render
