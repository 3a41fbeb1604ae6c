#pragma once
// Layer conversion: one Sketch layer into one inspect layer record, and a
// layer array into the `layers` of its parent, through groups and through
// the masters of symbol instances.

#include "Json.h"
#include "MPSGeometry.h"
#include "PXMetaStyle.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace plexa {

// What the missing-layer handler finds for an artboard or symbol master ID:
// its JSON and the JSON of the page that holds it (null when unknown).
struct PXMetaMissingLayer {
  std::shared_ptr<const JsonObject> artboardJSON;
  std::shared_ptr<const JsonObject> pageJSON;
};
// Resolves the master of a symbol instance; absent when it has no page.
using PXMetaMissingLayerHandler = std::function<std::optional<PXMetaMissingLayer>(const std::string& artboardID)>;

// Distinct typeface records in first-seen order.
class PXMetaTypefaceSet {
 public:
  // False when an equal record is already in the set.
  bool add(JsonObject typeface);
  const std::vector<JsonObject>& elements() const { return elements_; }
  JsonArray array() const;

 private:
  std::vector<JsonObject> elements_;
};

// The records of `layers` (a Sketch layer array, bottom-most first), top-most
// first. A layer whose conversion fails is logged and left out. Records are
// made in `storage`.
JsonArray PXMetaChildLayersFromJSON(const JsonValue* layers, const JsonObject& artboardJSON,
                                    const JsonObject* pageJSON, const std::string& sketchFileName,
                                    const std::string& layerPath, PXMetaTypefaceSet& typefaces,
                                    JsonArray& exportedImagePaths, const std::string& outputFolder,
                                    PXMetaPoint offset, const JsonObject* enclosingInstance,
                                    const JsonObject* assetIds, const PXMetaMissingLayerHandler& missingLayerHandler,
                                    const boost::json::storage_ptr& storage = {});

// One record, or absent when the layer is hidden or shows nothing. Throws
// PXMetaLayerError for input that cannot be a layer at all (the children
// conversion catches it).
std::optional<JsonObject> PXMetaLayerFromJSON(const JsonValue& layer, const JsonObject& artboardJSON,
                                              const JsonObject* pageJSON, const std::string& sketchFileName,
                                              const std::string& layerPath, PXMetaTypefaceSet& typefaces,
                                              JsonArray& exportedImagePaths, const std::string& outputFolder,
                                              PXMetaPoint offset, const JsonObject* enclosingInstance,
                                              const JsonObject* assetIds,
                                              const PXMetaMissingLayerHandler& missingLayerHandler, uint64_t index,
                                              const boost::json::storage_ptr& storage = {});

class PXMetaLayerError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The layer's entry under the Anima plug-in's identifier in `userInfo`.
const JsonObject* PXMetaAnimaInfoFromLayerJSON(const JsonObject& layer);

// The layer's `frame` as a rectangle (missing values 0), and its bounds.
MPSRect CGRectFromLayer(const JsonObject& layer);
MPSRect CGBoundsFromLayer(const JsonObject& layer);

}  // namespace plexa
