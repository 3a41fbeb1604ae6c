#pragma once
// Turns the prototype links found in one artboard's layer tree into hotspot
// records for the server: the link's rectangle in exported-image pixels plus
// the server's codes for link type, gesture, transitions and overlay options.
//
// Links are read from a layer's userInfo at the dotted key path
// "userInfo.com.morrow.prototype", each dot one dictionary level. Sketch's own
// prototype data (a layer's "flow") is not a link here and gives no record.
//
// Not thread-safe; one extraction is used by one thread at a time.

#include "Json.h"
#include "MPSGeometry.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace plexa {

class PXSyncPrototypingMetaExtraction;

class PXSyncPrototypingMetaExtractionDelegate {
 public:
  virtual ~PXSyncPrototypingMetaExtractionDelegate() = default;
  // Whether two artboards lie on the same page. Optional: a delegate that does
  // not override it answers nothing (nullopt) and the link is kept.
  virtual std::optional<bool> prototypingMetaExtraction(const PXSyncPrototypingMetaExtraction& /*extraction*/,
                                                        const std::optional<std::string>& /*artboardID*/,
                                                        const std::optional<std::string>& /*samePageWithArtboardID*/) {
    return std::nullopt;
  }
};

class PXSyncPrototypingMetaExtraction {
 public:
  static constexpr std::string_view prototypePluginIdentifier = "com.morrow.prototype";

  // `sketchFilePath`: the .sketch file whose name salts the screen hashes.
  // The artboard is read in place, never copied: a layer shared with a
  // reader's page keeps that page alive while the extraction holds it.
  PXSyncPrototypingMetaExtraction(std::shared_ptr<const JsonObject> artboard, double scale,
                                  const std::string& sketchFilePath);
  // An artboard of the caller's own, taken over.
  PXSyncPrototypingMetaExtraction(std::optional<JsonObject> artboard, double scale, const std::string& sketchFilePath);

  std::shared_ptr<const JsonObject> artboard;
  std::string fileURL;  // the .sketch file's path
  double scale = 1;
  std::weak_ptr<PXSyncPrototypingMetaExtractionDelegate> delegate;

  // The artboard's records, children's before their parent's; empty without an artboard.
  JsonArray extract() const;
  JsonArray nestedLinkLayersInGroup(const JsonObject& layer) const;
  // `offset` is the sum of the frame origins of the layer's ancestors below
  // `parentArtboard`; `parentArtboard` is compared by identity.
  JsonArray nestedLinkLayersInGroup(const JsonObject& layer, const JsonObject& parentArtboard, MPSPoint offset) const;

  // The link dictionary at the dotted key path, when it is a dictionary; it
  // lies inside `layer` and lives as long as it does.
  static const JsonObject* metaForLayer(const JsonObject& layer);
  // A record, or nullopt (the null marker) when the layer yields none: no link,
  // no artboard, outside the artboard, a frame that is not finite, a target on
  // another page, or a timed redirect.
  std::optional<JsonObject> extractLinkMetaFromLayer(const JsonObject& layer, const JsonObject& parentArtboard,
                                                     MPSPoint offset) const;
  // Intersection in the manner of CoreGraphics: rectangles are standardised
  // first and touching edges count as intersecting (a zero-size result).
  // nullopt for the null rectangle.
  std::optional<MPSRect> calculateHotspotRectForLayer(MPSRect layerRect, MPSRect parentArtboardRect,
                                                      bool clipByArtboarParentArtboardBounds) const;
  static JsonObject rectToJSONRepresentationAsDictionary(MPSRect rect);
  // MD5 of the .sketch file name followed by the ID; an absent ID formats as "(null)".
  std::string hashForArtboardWithID(const std::optional<std::string>& artboardID) const;

  // Server codes; a code beyond a table gives -1.
  static int64_t linkTypeToBackendRepresentation(uint64_t linkType);
  static int64_t linkGestureToBackendRepresentation(uint64_t gesture);
  static int64_t linkOverlayPositionToBackendRepresentation(uint64_t overlayPosition);
  static int64_t linkTransitionTypeToBackendRepresentation(uint64_t transition);
  static int64_t linkOverlayTransitionTypeToBackendRepresentation(uint64_t overlayTransition);

  // Fresh copies of the server's default shapes; integers and booleans are
  // kept apart as the server expects.
  static JsonObject defaultHotspotsDictionaryForScreenLink();
  static JsonObject defaultHotspotsDictionaryForScreenAsOverlayLink();
  static JsonObject defaultHotspotsDictionaryForScrollToPositionLink();
  static JsonObject defaultHotspotsDictionaryForExternalUrlLink();
  static JsonObject defaultHotspotsDictionaryForBackCloseLink();
  static JsonObject defaultHotspotDictionary();
  static JsonObject defaultHotspotDictionaryForLinkOfType(uint64_t linkType);

 private:
  bool isTargetOnSamePage(const std::optional<std::string>& sourceArtboardID,
                          const std::optional<std::string>& targetArtboardID) const;
};

}  // namespace plexa
