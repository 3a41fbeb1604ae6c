#include "PXMetaArtboard.h"

#include "PXMetaExportOptions.h"
#include "PXMetaStyle.h"

#include <fmt/format.h>

namespace plexa {

namespace {

const JsonValue* member(const JsonObject* object, std::string_view key) {
  if (!object) return nullptr;
  auto it = object->find(key);
  return it == object->end() ? nullptr : &it->value();
}

// A value found in the document, or the JSON null marker.
JsonValue valueOrNull(const JsonValue* value) { return value ? PXMetaFiniteValue(*value) : JsonValue(nullptr); }

void copyWithFallback(JsonObject& record, std::string_view key, const JsonValue* source, std::string_view sourceKey,
                      const JsonValue& fallback) {
  PXMetaAddToDictionary(record, key, PXJsonFind(source, sourceKey), &fallback);
}

JsonArray inspectColor(double red, double green, double blue, double alpha) {
  return JsonArray{red, green, blue, alpha};
}

std::optional<JsonValue> colorValue(const JsonValue* color, const boost::json::storage_ptr& storage = {}) {
  auto converted = PXMetaColorFromJSON(color, storage);
  if (!converted) return std::nullopt;
  return JsonValue(std::move(*converted));
}

}  // namespace

JsonObject PXMetaLayoutFromArtboardJSON(const JsonObject& artboardJSON) {
  const JsonValue* layout = member(&artboardJSON, "layout");
  const bool hasLayout = layout && layout->is_object();
  const JsonValue no(false), zero(0);

  JsonObject rows;
  copyWithFallback(rows, "drawHorizontalLines", layout, "drawHorizontalLines", no);
  copyWithFallback(rows, "gutterHeight", layout, "gutterHeight", zero);
  copyWithFallback(rows, "rowHeightMultiplication", layout, "rowHeightMultiplication", zero);
  copyWithFallback(rows, "drawHorizontal", layout, "drawHorizontal", no);

  JsonObject columns;
  copyWithFallback(columns, "totalWidth", layout, "totalWidth", zero);
  copyWithFallback(columns, "gutterWidth", layout, "gutterWidth", zero);
  copyWithFallback(columns, "numberOfColumns", layout, "numberOfColumns", zero);
  copyWithFallback(columns, "horizontalOffset", layout, "horizontalOffset", zero);
  copyWithFallback(columns, "gutterOutside", layout, "guttersOutside", no);
  copyWithFallback(columns, "columnWidth", layout, "columnWidth", zero);
  copyWithFallback(columns, "drawVertical", layout, "drawVertical", no);

  // The overlay's own drawing colours, not the document's.
  return JsonObject{{"rows", std::move(rows)},
                    {"columns", std::move(columns)},
                    {"lightColor", hasLayout ? inspectColor(170, 170, 170, 1) : inspectColor(0, 0, 0, 0)},
                    {"darkColor", hasLayout ? inspectColor(85, 85, 85, 1) : inspectColor(0, 0, 0, 0)}};
}

JsonObject PXMetaGridFromJSON(const JsonValue* grid) {
  const JsonValue zero(0);
  JsonObject record;
  copyWithFallback(record, "gridSize", grid, "gridSize", zero);
  copyWithFallback(record, "thickGridTimes", grid, "thickGridTimes", zero);
  return record;
}

JsonObject PXMetaGuidesFromLayerJSON(const JsonObject& artboardJSON) {
  auto guides = [&](std::string_view ruler) {
    return valueOrNull(PXJsonFind(member(&artboardJSON, ruler), "guides"));
  };
  return JsonObject{{"horizontal", guides("horizontalRulerData")}, {"vertical", guides("verticalRulerData")}};
}

JsonArray PXMetaDocumentColorsFromJSON(const JsonObject* documentJSON, const boost::json::storage_ptr& storage) {
  return PXMetaApplyToArray(
      PXJsonFind(member(documentJSON, "assets"), "colors"),
      [&](const JsonValue& color) { return colorValue(&color, storage); }, storage);
}

JsonObject PXMetaArtboardFromJSON(const JsonObject& artboardJSON, const JsonObject* pageJSON,
                                  const JsonObject* documentJSON, const std::string& sketchFileName, int64_t pageIndex,
                                  const std::string& outputFolder, const JsonObject* assetIds,
                                  const PXMetaMissingLayerHandler& missingLayerHandler,
                                  const boost::json::storage_ptr& storage, const JsonArray* documentColors) {
  const JsonValue* cls = member(&artboardJSON, "_class");
  auto sketchClass = PXJsonText(cls);
  if (!sketchClass || (*sketchClass != "artboard" && *sketchClass != "symbolMaster")) {
    JsonObject other(storage);
    other["type"] = cls && !cls->is_null() ? PXMetaDescription(cls) : std::string("null");
    return other;
  }

  JsonArray exportedImagePaths(storage);
  PXMetaTypefaceSet typefaces;
  const JsonValue* frame = member(&artboardJSON, "frame");

  JsonObject document(16, storage);
  document["id"] = valueOrNull(member(&artboardJSON, "do_objectID"));
  document["pageName"] = valueOrNull(member(pageJSON, "name"));
  document["layout"] = PXMetaLayoutFromArtboardJSON(artboardJSON);
  document["guides"] = PXMetaGuidesFromLayerJSON(artboardJSON);
  document["pageIndex"] = pageIndex;
  PXMetaAddToDictionary(document, "backgroundColor", colorValue(member(&artboardJSON, "backgroundColor")),
                        JsonValue(nullptr));
  document["grid"] = PXMetaGridFromJSON(member(&artboardJSON, "grid"));
  document["width"] = valueOrNull(PXJsonFind(frame, "width"));
  document["displayScale"] = 1;
  if (documentColors)
    document["documentColors"] = *documentColors;
  else
    document["documentColors"] = PXMetaDocumentColorsFromJSON(documentJSON, storage);
  // Layers first: their conversion fills the image paths and typefaces.
  document["layers"] = PXMetaChildLayersFromJSON(member(&artboardJSON, "layers"), artboardJSON, pageJSON,
                                                 sketchFileName, "", typefaces, exportedImagePaths, outputFolder,
                                                 PXMetaPoint{0, 0}, nullptr, assetIds, missingLayerHandler, storage);
  document["height"] = valueOrNull(PXJsonFind(frame, "height"));
  document["__exportedImagePaths"] = std::move(exportedImagePaths);
  document["assetDirectoryPath"] = fmt::format("images/inspect/{}", sketchFileName);
  document["typefaces"] = typefaces.array();
  document["name"] = valueOrNull(member(&artboardJSON, "name"));
  return document;
}

}  // namespace plexa
