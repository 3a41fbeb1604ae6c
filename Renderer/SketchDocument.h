#pragma once
// A Sketch document opened for drawing. Only what is asked for is read:
// document.json and meta.json at once, a page's JSON when a requested item
// may be on it (its text is searched for the item's ID first), and the
// symbol masters only when a drawn layer still holds symbol instances.
// Scenes are built for the top-level layers that hold the requested items,
// or for whole pages when a region of the page is drawn.

#include "DocumentFiles.h"
#include "ImageSource.h"
#include "Json.h"
#include "RenderTypes.h"
#include "Scene.h"

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace plexa {
class PXSymbolDetacherV2;
}

namespace plexa::render {

class SketchDocument {
 public:
  // Opens a .sketch archive or an unzipped document folder. Nullptr with the
  // reason in `error`.
  static std::unique_ptr<SketchDocument> open(const std::string& path, RenderNotes& notes, std::string* error);
  ~SketchDocument();
  SketchDocument(const SketchDocument&) = delete;
  SketchDocument& operator=(const SketchDocument&) = delete;

  void setCurveTolerance(double points) { curveTolerance_ = points; }

  struct PageInfo {
    std::string id, name;
  };
  // These three read every page.
  std::vector<PageInfo> pages();
  // IDs of the top-level artboards and symbol masters, page by page.
  std::vector<std::string> boardIDs();
  // IDs of every layer with export formats, page by page, outermost first.
  std::vector<std::string> exportableLayerIDs();

  // The page whose layer tree holds a layer with this ID.
  std::optional<std::string> pageIDForLayer(const std::string& layerID);
  // Builds (once) and returns the whole page's scene; nullptr when there is
  // no such page.
  const ScenePage* scenePage(const std::string& pageID);
  // The layer in a scene of its page that holds at least its top-level
  // layer (the whole page when `wholePage`, or when that is built already).
  std::optional<NodeLocation> locate(const std::string& layerID, bool wholePage = false);
  // meta.json, or null when it cannot be read.
  std::optional<JsonValue> metaJSON() const;

 private:
  struct StoredPage {
    std::string entry;  // "pages/<id>.json"
    std::string refID;  // the <id> of the entry's name
    std::optional<std::string> text;
    std::optional<JsonValue> json;  // an object, once parsed
    bool unreadable = false;
    std::set<size_t> detachedLayers;  // top-level layers whose instances are detached
  };

  SketchDocument(std::unique_ptr<DocumentFiles> files, RenderNotes& notes);
  bool load(std::string* error);
  const std::string* textOf(StoredPage& page);
  JsonValue* jsonOf(size_t index);
  void readAllPages();
  bool mayHold(StoredPage& page, const std::string& layerID);
  std::optional<size_t> pageIndexForLayer(const std::string& layerID);
  std::optional<size_t> topLevelIndexForLayer(size_t pageIndex, const std::string& layerID);
  std::optional<size_t> pageIndexForID(const std::string& pageID);
  std::string pageID(size_t index);
  void detachTopLevelLayer(size_t pageIndex, size_t layerIndex);
  void collectMasters(size_t drawnPage);

  std::unique_ptr<DocumentFiles> files_;
  RenderNotes& notes_;
  std::unique_ptr<ImageSource> images_;
  std::string documentText_;          // document.json until it is parsed
  std::optional<JsonValue> document_;
  std::optional<JsonValue> meta_;
  std::vector<StoredPage> pages_;
  // Layer ID → (page, top-level layer), for the pages read so far.
  std::unordered_map<std::string, std::pair<size_t, size_t>> layerPages_;
  std::shared_ptr<PXSymbolDetacherV2> detacher_;
  bool mastersCollected_ = false;
  double curveTolerance_ = 0.05;
  std::map<std::string, ScenePage> built_;                   // whole pages by ID
  std::map<std::pair<size_t, size_t>, ScenePage> partial_;  // (page, top-level layer)
};

}  // namespace plexa::render
