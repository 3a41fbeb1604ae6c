#pragma once
// The meta document of one artboard or symbol master: its own facts, its
// page, layout grid, square grid, guides, the document colours and the
// converted layers with what their conversion collects.

#include "Json.h"
#include "PXMetaLayer.h"

#include <cstdint>
#include <string>

namespace plexa {

// The sixteen-key meta document; for any other kind of layer the one-key
// object {"type": its class, or "null"}. Made in `storage`.
JsonObject PXMetaArtboardFromJSON(const JsonObject& artboardJSON, const JsonObject* pageJSON,
                                  const JsonObject* documentJSON, const std::string& sketchFileName, int64_t pageIndex,
                                  const std::string& outputFolder, const JsonObject* assetIds,
                                  const PXMetaMissingLayerHandler& missingLayerHandler,
                                  const boost::json::storage_ptr& storage = {},
                                  const JsonArray* documentColors = nullptr);

// `documentColors` of the meta document: the colours of the document's
// assets. The same for every artboard, so a caller writing many may convert
// them once and pass them in.
JsonArray PXMetaDocumentColorsFromJSON(const JsonObject* documentJSON, const boost::json::storage_ptr& storage = {});

// {rows, columns, lightColor, darkColor} of the artboard's `layout`, every
// value falling back to 0 or false.
JsonObject PXMetaLayoutFromArtboardJSON(const JsonObject& artboardJSON);
// {gridSize, thickGridTimes} of the artboard's `grid` value, 0 when absent.
JsonObject PXMetaGridFromJSON(const JsonValue* grid);
// {horizontal, vertical}: the rulers' guides, null when absent.
JsonObject PXMetaGuidesFromLayerJSON(const JsonObject& artboardJSON);

}  // namespace plexa
