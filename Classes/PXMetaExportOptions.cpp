#include "PXMetaExportOptions.h"

#include "NSDictionary+MPSync.h"
#include "NSString+MPSync.h"
#include "PXMetaStyle.h"
#include "PathString.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cmath>

namespace plexa {

namespace {

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i) out += separator;
    out += parts[i];
  }
  return out;
}

std::string removingSlashes(std::string text) {
  std::erase(text, '/');
  return text;
}

std::string numberDescription(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  std::array<char, 64> buffer{};
  auto written = value == std::trunc(value) && std::fabs(value) < 9.2e18
                     ? std::to_chars(buffer.data(), buffer.data() + buffer.size(), static_cast<int64_t>(value))
                     : std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  return std::string(buffer.data(), written.ptr);
}

// The values every export format contributes to names and paths.
struct FormatFacts {
  PXMetaExportNaming naming;
  std::string fileFormat;
  float scale = 1;
};

FormatFacts factsForFormat(const JsonValue& format) {
  FormatFacts facts;
  facts.naming = PXMetaExportNamingFromFormat(format);
  const JsonValue* fileFormat = PXJsonFind(&format, "fileFormat");
  facts.fileFormat = PXMetaDescription(fileFormat);
  facts.scale = PXJsonFloat(PXJsonFind(&format, "scale")).value_or(0.0f);
  if (facts.scale == 0.0f) facts.scale = 1.0f;
  // Vector images have no pixel density.
  if (facts.fileFormat == "svg") facts.scale = 1.0f;
  return facts;
}

const JsonArray* exportFormats(const JsonObject& layer) {
  auto it = layer.find("exportOptions");
  if (it == layer.end()) return nullptr;
  return PXJsonArrayFor(&it->value(), "exportFormats");
}

std::string optionalFolder(const std::string& layerPath) {
  return stringIsEmpty_mps(std::optional<std::string_view>(layerPath)) ? std::string() : fmt::format("{}/", layerPath);
}

double scaledCeiling(float extent, float scale) {
  float product = extent * scale;
  double rounded = std::ceil(static_cast<double>(product));
  return std::isfinite(rounded) ? rounded : 0.0;
}

const JsonValue* member(const JsonObject& object, std::string_view key) {
  auto it = object.find(key);
  return it == object.end() ? nullptr : &it->value();
}

}  // namespace

std::string PXNormalizePath(std::string_view path) { return joined(PXPathComponents(path), "_"); }

std::string PXTrimmedPath(std::string_view path) {
  std::vector<std::string> parts = PXPathComponents(path);
  for (auto& part : parts) part = trimWhiteSpace_mps(part);
  return joined(parts, "/");
}

std::string PXMetaDescription(const JsonValue* value) {
  if (!value) return "(null)";
  switch (value->kind()) {
    case boost::json::kind::string: return std::string(value->get_string());
    case boost::json::kind::null: return "<null>";
    case boost::json::kind::bool_: return value->get_bool() ? "1" : "0";
    case boost::json::kind::int64: return std::to_string(value->get_int64());
    case boost::json::kind::uint64: return std::to_string(value->get_uint64());
    case boost::json::kind::double_: return numberDescription(value->get_double());
    default: return PXJsonSerialize(PXMetaFiniteValue(*value), false).value_or("");
  }
}

PXMetaExportNaming PXMetaExportNamingFromFormat(const JsonValue& format) {
  std::string name(PXJsonTextFor(&format, "name").value_or(""));
  if (PXJsonInt64For(&format, "namingScheme").value_or(0) == 1) return {name, ""};
  return {"", removingSlashes(name)};
}

JsonArray PXMetaExportOptionsFromJSON(const JsonObject& layer, const std::string& sketchFileName,
                                      const std::string& pageName, const std::string& artboardName,
                                      const std::string& layerPath, const JsonObject* assetIds,
                                      const boost::json::storage_ptr& storage) {
  JsonArray records(storage);
  const JsonArray* formats = exportFormats(layer);
  if (!formats) return records;
  const JsonValue* frame = member(layer, "frame");
  float width = PXJsonFloat(PXJsonFind(frame, "width")).value_or(0.0f);
  float height = PXJsonFloat(PXJsonFind(frame, "height")).value_or(0.0f);
  std::string layerName = PXMetaDescription(member(layer, "name"));
  std::string objectID = PXMetaDescription(member(layer, "do_objectID"));
  std::string folder = optionalFolder(layerPath);
  for (const auto& format : *formats) {
    if (!format.is_object()) continue;
    FormatFacts facts = factsForFormat(format);
    std::string path = PXTrimmedPath(fmt::format("{}/{}/{}/{}{}{}{}.{}", sketchFileName, PXNormalizePath(pageName),
                                                 PXNormalizePath(artboardName), folder, facts.naming.prefix,
                                                 layerName, facts.naming.suffix, facts.fileFormat));
    JsonObject record(8, storage);
    PXMetaAddToDictionary(record, "name", member(layer, "name"));
    PXMetaAddToDictionary(record, "format", PXJsonFind(&format, "fileFormat"));
    // Stored crosswise on purpose: the reader of these records expects the
    // suffix under "prefix" and the prefix under "suffix".
    record["prefix"] = facts.naming.suffix;
    record["suffix"] = facts.naming.prefix;
    record["scale"] = PXMetaFloatNumber(facts.scale);
    record["path"] = path;
    record["width"] = scaledCeiling(width, facts.scale);
    record["height"] = scaledCeiling(height, facts.scale);
    if (assetIds && !assetIds->empty()) {
      std::string key = fmt::format("{}{}.{}", objectID, facts.naming.suffix, facts.fileFormat);
      if (const JsonObject* asset = dictionaryForKey_mps(*assetIds, key))
        record = dictionaryByAddingDictionary_mps(record, PXMetaFiniteValue(*asset, storage).get_object());
    }
    records.push_back(std::move(record));
  }
  return records;
}

JsonArray PXMetaExportImagesFromJSON(const JsonObject& layer, const std::string& sketchFileName,
                                     const std::string& pageName, const std::string& artboardName,
                                     const std::string& artboardID, const std::string& layerPath,
                                     const std::string& outputFolder, const boost::json::storage_ptr& storage) {
  JsonArray records(storage);
  const JsonArray* formats = exportFormats(layer);
  if (!formats) return records;
  std::string layerName = PXMetaDescription(member(layer, "name"));
  std::string folder = optionalFolder(layerPath);
  const JsonString* originalObjectID = stringForKey_mps(layer, "originalObjectID");
  const JsonString* renewedFrom = stringForKey_mps(layer, "in_original_objectID");
  const JsonString* objectID = stringForKey_mps(layer, "do_objectID");
  std::string objectIDText = renewedFrom && !renewedFrom->empty() ? std::string(*renewedFrom)
                             : objectID                          ? std::string(*objectID)
                                                                 : std::string();
  for (const auto& format : *formats) {
    if (!format.is_object()) continue;
    FormatFacts facts = factsForFormat(format);
    std::string relativePath =
        PXTrimmedPath(fmt::format("{}/{}/{}{}{}{}.{}", PXNormalizePath(pageName), PXNormalizePath(artboardName), folder,
                                  facts.naming.prefix, layerName, facts.naming.suffix, facts.fileFormat));
    JsonObject record(7, storage);
    record["originalObjectID"] = originalObjectID ? std::string(*originalObjectID) : std::string();
    record["fullPath"] = fmt::format("{}/{}/{}", outputFolder, artboardID, relativePath);
    record["objectID"] = objectIDText;
    record["layerName"] = layerName;
    record["layerNameFormatted"] = PXDeletingPathExtension(PXLastPathComponent(relativePath));
    record["layerPath"] = PXDeletingLastPathComponent(relativePath);
    record["key"] = fmt::format("{}{}.{}", removingSlashes(facts.naming.prefix), facts.naming.suffix, facts.fileFormat);
    records.push_back(std::move(record));
  }
  return records;
}

}  // namespace plexa
