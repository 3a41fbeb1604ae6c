#include "PXSyncPrototypingMetaExtraction.h"

#include "Log.h"
#include "MPSyncLinkModel.h"
#include "NSString+MPSync.h"
#include "PathString.h"

#include <array>
#include <cfloat>
#include <cmath>
#include <limits>

namespace plexa {

namespace {

template <size_t N>
int64_t translate(const std::array<int64_t, N>& table, uint64_t code) {
  return code < N ? table[code] : -1;
}

// A missing or unreadable number is 0, as a nil number reads; a double beyond
// single precision becomes an infinity here and is refused later.
float singlePrecision(const JsonValue* value) {
  auto number = PXJsonDouble(value);
  if (!number) return 0;
  if (*number > FLT_MAX) return std::numeric_limits<float>::infinity();
  if (*number < -FLT_MAX) return -std::numeric_limits<float>::infinity();
  return static_cast<float>(*number);
}

const JsonValue* frameOf(const JsonObject& layer) {
  const JsonValue* frame = layer.if_contains("frame");
  return frame && frame->is_object() ? frame : nullptr;
}

MPSPoint frameOrigin(const JsonObject& layer) {
  const JsonValue* frame = frameOf(layer);
  return {singlePrecision(PXJsonFind(frame, "x")), singlePrecision(PXJsonFind(frame, "y"))};
}

MPSSize frameSize(const JsonObject& layer) {
  const JsonValue* frame = frameOf(layer);
  return {singlePrecision(PXJsonFind(frame, "width")), singlePrecision(PXJsonFind(frame, "height"))};
}

bool isFinite(const MPSRect& r) {
  return std::isfinite(r.origin.x) && std::isfinite(r.origin.y) && std::isfinite(r.size.width) &&
         std::isfinite(r.size.height);
}

// Closed ranges: rectangles that only touch meet in a zero-size rectangle.
std::optional<MPSRect> intersection(MPSRect a, MPSRect b) {
  a = MPSRectNormalise(a);
  b = MPSRectNormalise(b);
  double minX = std::max(a.origin.x, b.origin.x);
  double minY = std::max(a.origin.y, b.origin.y);
  double maxX = std::min(a.origin.x + a.size.width, b.origin.x + b.size.width);
  double maxY = std::min(a.origin.y + a.size.height, b.origin.y + b.size.height);
  if (!(minX <= maxX && minY <= maxY)) return std::nullopt;  // also refuses NaN
  return MPSRect{{minX, minY}, {maxX - minX, maxY - minY}};
}

// Truncated toward zero, held inside the integer range; NaN gives 0.
int64_t integerValue(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 9.2233720368547758e18) return std::numeric_limits<int64_t>::max();
  if (value <= -9.2233720368547758e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

JsonObject& objectMember(JsonObject& object, std::string_view key) {
  JsonValue& member = object[key];
  if (!member.is_object()) member = JsonObject();
  return member.get_object();
}

std::optional<std::string> textMember(const JsonObject& object, std::string_view key) {
  const JsonValue* value = object.if_contains(key);
  if (!value || !value->is_string()) return std::nullopt;
  return std::string(value->get_string());
}

void logUnplaceableLink(const JsonObject& layer) {
  PXLogVerbose("PXSyncPrototypingMetaExtraction skipped the link of layer {}: its rectangle is not finite",
               textMember(layer, "do_objectID").value_or("(null)"));
}

JsonObject positionOffset() { return JsonObject{{"x", 0}, {"y", 0}}; }

}  // namespace

PXSyncPrototypingMetaExtraction::PXSyncPrototypingMetaExtraction(std::shared_ptr<const JsonObject> artboard,
                                                                 double scale, const std::string& sketchFilePath)
    : artboard(std::move(artboard)), fileURL(sketchFilePath), scale(scale) {}

PXSyncPrototypingMetaExtraction::PXSyncPrototypingMetaExtraction(std::optional<JsonObject> artboard, double scale,
                                                                 const std::string& sketchFilePath)
    : PXSyncPrototypingMetaExtraction(
          artboard ? std::make_shared<const JsonObject>(std::move(*artboard)) : std::shared_ptr<const JsonObject>(),
          scale, sketchFilePath) {}

JsonArray PXSyncPrototypingMetaExtraction::extract() const {
  if (!artboard) return JsonArray();
  return nestedLinkLayersInGroup(*artboard);
}

JsonArray PXSyncPrototypingMetaExtraction::nestedLinkLayersInGroup(const JsonObject& layer) const {
  return nestedLinkLayersInGroup(layer, layer, MPSPoint{0, 0});
}

JsonArray PXSyncPrototypingMetaExtraction::nestedLinkLayersInGroup(const JsonObject& layer,
                                                                   const JsonObject& parentArtboard,
                                                                   MPSPoint offset) const {
  // Group rotation and flipping are deliberately not applied to the offset.
  MPSPoint layerOffset = &layer == &parentArtboard ? MPSPoint{0, 0} : MPSPointAddPoint(offset, frameOrigin(layer));
  JsonArray records;
  if (const JsonValue* children = layer.if_contains("layers"); children && children->is_array()) {
    for (const JsonValue& child : children->get_array()) {
      const JsonObject* childLayer = child.if_object();
      if (!childLayer) continue;
      for (JsonValue& record : nestedLinkLayersInGroup(*childLayer, parentArtboard, layerOffset))
        records.push_back(std::move(record));
    }
  }
  if (layer.contains("userInfo")) {
    auto link = metaForLayer(layer);
    if (link && textMember(*link, "componentType") == "SRLink") {
      if (auto record = extractLinkMetaFromLayer(layer, parentArtboard, layerOffset))
        records.push_back(std::move(*record));
    }
  }
  return records;
}

const JsonObject* PXSyncPrototypingMetaExtraction::metaForLayer(const JsonObject& layer) {
  // "userInfo.com.morrow.prototype" as a key path: every dot descends one
  // dictionary level, the identifier's own dots included. Walking dictionaries
  // directly gives the same answer as a general key-path evaluation would for
  // a dictionary result, without copying the layer.
  static constexpr std::string_view path = "userInfo.com.morrow.prototype";
  static_assert(path.substr(sizeof("userInfo.") - 1) == prototypePluginIdentifier);
  const JsonObject* current = &layer;
  size_t start = 0;
  while (current) {
    size_t dot = path.find('.', start);
    std::string_view key = path.substr(start, dot == std::string_view::npos ? dot : dot - start);
    const JsonValue* next = current->if_contains(key);
    current = next ? next->if_object() : nullptr;
    if (dot == std::string_view::npos) break;
    start = dot + 1;
  }
  return current;
}

std::optional<JsonObject> PXSyncPrototypingMetaExtraction::extractLinkMetaFromLayer(const JsonObject& layer,
                                                                                    const JsonObject& parentArtboard,
                                                                                    MPSPoint offset) const {
  auto linkDictionary = metaForLayer(layer);
  if (!linkDictionary) return std::nullopt;
  auto sourceArtboardID = textMember(parentArtboard, "do_objectID");
  MPSRect layerRect = MPSRectWithOriginAndSize(offset, frameSize(layer));
  MPSRect artboardRect = MPSRectWithOriginAndSize(MPSPoint{0, 0}, frameSize(parentArtboard));
  if (!isFinite(layerRect) || !isFinite(artboardRect)) {
    logUnplaceableLink(layer);
    return std::nullopt;
  }
  auto hotspotRect = calculateHotspotRectForLayer(layerRect, artboardRect, true);
  if (!hotspotRect) return std::nullopt;
  if (!isFinite(*hotspotRect)) {  // the scale carried it out of range
    logUnplaceableLink(layer);
    return std::nullopt;
  }

  MPSyncLinkModel link(*linkDictionary);
  JsonObject record = defaultHotspotDictionaryForLinkOfType(link.linkType);
  if (link.shouldHaveArtboardAsTarget() && !isTargetOnSamePage(sourceArtboardID, link.targetArtboardID))
    return std::nullopt;

  record["transitionTypeID"] = linkTransitionTypeToBackendRepresentation(link.transition);
  record["eventTypeID"] = linkGestureToBackendRepresentation(link.gesture);
  for (const auto& member : rectToJSONRepresentationAsDictionary(*hotspotRect)) record[member.key()] = member.value();

  switch (link.linkType) {
    case MPSyncLinkTypeScreen: {
      record["targetScreenHash"] = hashForArtboardWithID(link.targetArtboardID);
      record["isScrollTo"] = link.maintainScrollPositionAfterGesture;
      objectMember(record, "metaData")["stayOnScreen"] = link.stayOnTargetScreen;
      break;
    }
    case MPSyncLinkTypeScreenAsOverlay: {
      record["targetScreenHash"] = hashForArtboardWithID(link.targetArtboardID);
      JsonObject& metaData = objectMember(record, "metaData");
      JsonObject& overlay = objectMember(metaData, "overlay");
      overlay["positionID"] = linkOverlayPositionToBackendRepresentation(link.overlayPosition);
      overlay["bgOpacity"] = link.backgroundOpacity;
      overlay["reverseTransitionOnClose"] = link.reverseTransitionOnClose;
      overlay["closeOnOutsideClick"] = link.closeOnClickOutside;
      overlay["transitionID"] = linkOverlayTransitionTypeToBackendRepresentation(link.overlayTransition);
      overlay["isFixedPosition"] = link.fixOverlayPosition;
      metaData["stayOnScreen"] = link.stayOnTargetScreen;
      break;
    }
    case MPSyncLinkTypeScrollToPosition: {
      record["isScrollTo"] = true;
      JsonObject& metaData = objectMember(record, "metaData");
      metaData["isSmothScroll"] = link.smoothScrolling;
      metaData["scrollOffset"] = integerValue(static_cast<double>(link.scrollToPosition) * scale);
      record["targetScreenHash"] = hashForArtboardWithID(sourceArtboardID);
      break;
    }
    case MPSyncLinkTypeExternalURL: {
      record["targetScreenHash"] = hashForArtboardWithID(sourceArtboardID);
      JsonObject& metaData = objectMember(record, "metaData");
      metaData["isOpenInNewWindow"] = link.openURLInNewWindow;
      if (link.externalURL)
        metaData["url"] = *link.externalURL;
      else
        metaData.erase("url");
      break;
    }
    case MPSyncLinkTypeTimedRedirect:
      PXLogVerbose("Timed rederect option isn't supported yet!");
      return std::nullopt;
    case MPSyncLinkTypeBackClose: {
      record["targetScreenHash"] = hashForArtboardWithID(sourceArtboardID);
      record["isScrollTo"] = link.maintainScrollPositionAfterGesture;
      objectMember(record, "metaData")["stayOnScreen"] = link.stayOnTargetScreen;
      break;
    }
    default:
      break;
  }
  return record;
}

bool PXSyncPrototypingMetaExtraction::isTargetOnSamePage(const std::optional<std::string>& sourceArtboardID,
                                                         const std::optional<std::string>& targetArtboardID) const {
  auto pageCheck = delegate.lock();
  if (!pageCheck) return true;
  return pageCheck->prototypingMetaExtraction(*this, sourceArtboardID, targetArtboardID).value_or(true);
}

std::optional<MPSRect> PXSyncPrototypingMetaExtraction::calculateHotspotRectForLayer(
    MPSRect layerRect, MPSRect parentArtboardRect, bool clipByArtboarParentArtboardBounds) const {
  MPSRect artboard = MPSRectNormalise(parentArtboardRect);
  MPSRect bounds = MPSRectWithOriginAndSize(MPSPoint{0, 0}, artboard.size);
  MPSRect r = MPSRectWithOriginAndSize(MPSPointSubtractPoint(layerRect.origin, parentArtboardRect.origin),
                                       layerRect.size);
  auto clipped = intersection(r, bounds);
  if (!clipped) return std::nullopt;
  if (clipByArtboarParentArtboardBounds) r = *clipped;
  // Each value rounds on its own, so a width is not derived from rounded edges.
  return MPSRectByRoundingRect(MPSRectScale(r, scale));
}

JsonObject PXSyncPrototypingMetaExtraction::rectToJSONRepresentationAsDictionary(MPSRect rect) {
  return JsonObject{{"x", rect.origin.x}, {"y", rect.origin.y}, {"width", rect.size.width}, {"height", rect.size.height}};
}

std::string PXSyncPrototypingMetaExtraction::hashForArtboardWithID(const std::optional<std::string>& artboardID) const {
  return md5_mps(PXLastPathComponent(fileURL) + artboardID.value_or("(null)"));
}

int64_t PXSyncPrototypingMetaExtraction::linkTypeToBackendRepresentation(uint64_t linkType) {
  static constexpr std::array<int64_t, 6> table{1, 7, 6, 5, -1000, 2};
  return translate(table, linkType);
}

int64_t PXSyncPrototypingMetaExtraction::linkGestureToBackendRepresentation(uint64_t gesture) {
  static constexpr std::array<int64_t, 8> table{1, 8, 2, 4, 5, 6, 7, 1};
  return translate(table, gesture);
}

int64_t PXSyncPrototypingMetaExtraction::linkOverlayPositionToBackendRepresentation(uint64_t overlayPosition) {
  static constexpr std::array<int64_t, 8> table{2, 1, 5, 3, 4, 8, 6, 7};
  return translate(table, overlayPosition);
}

int64_t PXSyncPrototypingMetaExtraction::linkTransitionTypeToBackendRepresentation(uint64_t transition) {
  static constexpr std::array<int64_t, 13> table{1, 8, 2, 3, 11, 12, 4, 5, 6, 7, 9, 10, 13};
  return translate(table, transition);
}

int64_t PXSyncPrototypingMetaExtraction::linkOverlayTransitionTypeToBackendRepresentation(uint64_t overlayTransition) {
  static constexpr std::array<int64_t, 18> table{4, 12, 1, 18, 2, 3, 17, 5, 6, 7, 8, 9, 10, 11, 14, 16, 15, 13};
  return translate(table, overlayTransition);
}

JsonObject PXSyncPrototypingMetaExtraction::defaultHotspotsDictionaryForScreenLink() {
  return JsonObject{{"targetTypeID", 1},
                    {"isBottomAligned", false},
                    {"isScrollTo", false},
                    {"metaData", JsonObject{{"stayOnScreen", false}}}};
}

JsonObject PXSyncPrototypingMetaExtraction::defaultHotspotsDictionaryForScreenAsOverlayLink() {
  JsonObject overlay{{"bgOpacity", 0},
                     {"closeOnOutsideClick", true},
                     {"isFixedPosition", true},
                     {"positionID", 2},
                     {"positionOffset", positionOffset()},
                     {"reverseTransitionOnClose", true},
                     {"transitionID", 4}};
  return JsonObject{{"targetTypeID", 7},
                    {"isBottomAligned", false},
                    {"isScrollTo", false},
                    {"metaData", JsonObject{{"overlay", std::move(overlay)}, {"stayOnScreen", true}}}};
}

JsonObject PXSyncPrototypingMetaExtraction::defaultHotspotsDictionaryForScrollToPositionLink() {
  return JsonObject{{"targetTypeID", 6},
                    {"isBottomAligned", false},
                    {"isScrollTo", false},
                    {"targetScreenID", 0},
                    {"metaData", JsonObject{{"scrollOffset", 0}, {"isSmothScroll", false}}}};
}

JsonObject PXSyncPrototypingMetaExtraction::defaultHotspotsDictionaryForExternalUrlLink() {
  return JsonObject{{"targetTypeID", 5},
                    {"isBottomAligned", false},
                    {"isScrollTo", false},
                    {"targetScreenID", 0},
                    {"metaData", JsonObject{{"isOpenInNewWindow", true}, {"url", ""}}},
                    {"templateID", 0}};
}

JsonObject PXSyncPrototypingMetaExtraction::defaultHotspotsDictionaryForBackCloseLink() {
  return JsonObject{{"targetTypeID", 2},
                    {"isBottomAligned", false},
                    {"isScrollTo", false},
                    {"targetScreenID", 0},
                    {"metaData", JsonObject{{"stayOnScreen", false}}}};
}

JsonObject PXSyncPrototypingMetaExtraction::defaultHotspotDictionary() {
  // The server expects this shape as it stands: "isFixedPosition" is an
  // integer here, and the transition keys sit in metaData, not in overlay.
  JsonObject overlay{{"bgOpacity", 0},
                     {"closeOnOutsideClick", false},
                     {"isFixedPosition", 0},
                     {"positionID", 2},
                     {"positionOffset", positionOffset()}};
  JsonObject metaData{{"stayOnScreen", false},
                      {"scrollOffset", 0},
                      {"isSmothScroll", false},
                      {"url", ""},
                      {"isOpenInNewWindow", false},
                      {"overlay", std::move(overlay)},
                      {"reverseTransitionOnClose", true},
                      {"transitionID", 1}};
  return JsonObject{{"eventTypeID", 1},
                    {"targetTypeID", 1},
                    {"x", 0},
                    {"y", 0},
                    {"width", 0},
                    {"height", 0},
                    {"isBottomAligned", false},
                    {"isScrollTo", false},
                    {"targetScreenHash", ""},
                    {"transitionTypeID", 1},
                    {"metaData", std::move(metaData)}};
}

JsonObject PXSyncPrototypingMetaExtraction::defaultHotspotDictionaryForLinkOfType(uint64_t linkType) {
  switch (linkType) {
    case MPSyncLinkTypeScreen: return defaultHotspotsDictionaryForScreenLink();
    case MPSyncLinkTypeScreenAsOverlay: return defaultHotspotsDictionaryForScreenAsOverlayLink();
    case MPSyncLinkTypeScrollToPosition: return defaultHotspotsDictionaryForScrollToPositionLink();
    case MPSyncLinkTypeExternalURL: return defaultHotspotsDictionaryForExternalUrlLink();
    case MPSyncLinkTypeBackClose: return defaultHotspotsDictionaryForBackCloseLink();
    default: return defaultHotspotDictionary();
  }
}

}  // namespace plexa
