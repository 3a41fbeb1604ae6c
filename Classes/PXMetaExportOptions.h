#pragma once
// Export options of a layer: the `exportOptions` records of the inspect
// data, the paths records of the "-paths" file, and the two path helpers.

#include "Json.h"

#include <string>
#include <string_view>

namespace plexa {

// Path components joined with "_" ("a/b" gives "a_b", "/a" gives "/_a").
std::string PXNormalizePath(std::string_view path);
// Path components, each trimmed of white space, joined with "/".
std::string PXTrimmedPath(std::string_view path);

// How a JSON value reads when formatted into a path or name: strings as
// they are, numbers in their shortest form, absent as "(null)".
std::string PXMetaDescription(const JsonValue* value);

// Prefix and suffix of one export format entry: naming scheme 1 puts the
// format's name in front (slashes kept, so it can make a sub-folder);
// otherwise the name without slashes goes after the layer name.
struct PXMetaExportNaming {
  std::string prefix;
  std::string suffix;
};
PXMetaExportNaming PXMetaExportNamingFromFormat(const JsonValue& format);

// One record {name, format, prefix, suffix, scale, path, width, height} per
// export format of `layer`, in order; asset information found under
// "<do_objectID><suffix>.<fileFormat>" in `assetIds` is merged in.
JsonArray PXMetaExportOptionsFromJSON(const JsonObject& layer, const std::string& sketchFileName,
                                      const std::string& pageName, const std::string& artboardName,
                                      const std::string& layerPath, const JsonObject* assetIds,
                                      const boost::json::storage_ptr& storage = {});

// One paths record {originalObjectID, fullPath, objectID, layerName,
// layerNameFormatted, layerPath, key} per export format of `layer`: the
// files the asset export must produce below `outputFolder`/`artboardID`.
JsonArray PXMetaExportImagesFromJSON(const JsonObject& layer, const std::string& sketchFileName,
                                     const std::string& pageName, const std::string& artboardName,
                                     const std::string& artboardID, const std::string& layerPath,
                                     const std::string& outputFolder, const boost::json::storage_ptr& storage = {});

}  // namespace plexa
