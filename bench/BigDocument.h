#pragma once
// A large Sketch document for benchmarks: a real document's pages repeated
// until the JSON reaches a target size. Every copy gets fresh identifiers
// (upper-case UUID text) and every reference to them is rewritten, so the
// copies are as independent as pages a designer duplicated by hand.
//
// Header-only: each benchmark is its own program.

#include "Files.h"
#include "Json.h"
#include "PathString.h"
#include "Zip.h"

#include <cstdint>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace plexa::bench {

struct BigDocument {
  std::string path;
  uint64_t jsonBytes = 0;  // uncompressed size of every .json entry
  size_t pages = 0;
  size_t copies = 0;
};

namespace detail {

inline bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'); }

inline bool looksLikeUUID(std::string_view text, size_t at) {
  return at + 36 <= text.size() && text[at + 8] == '-' && text[at + 13] == '-' && text[at + 18] == '-' &&
         text[at + 23] == '-' && isHexDigit(text[at]) && isHexDigit(text[at + 35]);
}

inline std::string freshIdentifier(std::mt19937_64& rng) {
  uint64_t high = (rng() & ~0xF000ull) | 0x4000ull;  // version 4
  uint64_t low = (rng() & 0x3FFFFFFFFFFFFFFFull) | 0x8000000000000000ull;
  char text[40];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%012llX", static_cast<unsigned>(high >> 32),
                static_cast<unsigned>((high >> 16) & 0xFFFF), static_cast<unsigned>(high & 0xFFFF),
                static_cast<unsigned>(low >> 48), static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFull));
  return text;
}

// Layer IDs and symbol IDs defined in the pages; references to anything
// else (foreign symbols, shared styles) stay as they are.
inline void collectIdentifiers(const JsonValue& value, std::unordered_map<std::string, std::string>& ids) {
  if (const auto* object = value.if_object()) {
    if (auto id = PXJsonTextFor(&value, "do_objectID")) ids.emplace(*id, std::string());
    if (PXJsonTextFor(&value, "_class") == std::optional<std::string_view>("symbolMaster"))
      if (auto symbol = PXJsonTextFor(&value, "symbolID")) ids.emplace(*symbol, std::string());
    for (const auto& member : *object) collectIdentifiers(member.value(), ids);
  } else if (const auto* array = value.if_array()) {
    for (const auto& element : *array) collectIdentifiers(element, ids);
  }
}

// Identifiers appear in values, keys and compound override names
// ("<id>/<id>_stringValue"), so the JSON text is rewritten rather than the tree.
inline std::string remapIdentifiers(std::string_view text, const std::unordered_map<std::string, std::string>& fresh) {
  std::string out;
  out.reserve(text.size());
  size_t copied = 0;
  for (size_t at = 0; at + 36 <= text.size();) {
    if (looksLikeUUID(text, at) && (at == 0 || !isHexDigit(text[at - 1]))) {
      if (auto it = fresh.find(std::string(text.substr(at, 36))); it != fresh.end()) {
        out.append(text.substr(copied, at - copied));
        out += it->second;
        at += 36;
        copied = at;
        continue;
      }
    }
    ++at;
  }
  out.append(text.substr(copied));
  return out;
}

inline std::string serialize(const JsonValue& value) {
  auto text = PXJsonSerialize(value, false);
  if (!text) throw std::runtime_error("cannot serialise generated JSON");
  return *text;
}

inline JsonValue parse(std::string_view text, const std::string& what) {
  auto value = PXJsonParse(text);
  if (!value) throw std::runtime_error("cannot parse " + what);
  return std::move(*value);
}

}  // namespace detail

// Writes `outputPath` from `sourceSketch`; throws std::runtime_error when the
// source cannot be read.
inline BigDocument makeBigDocument(const std::string& sourceSketch, const std::string& outputPath,
                                   uint64_t targetJsonBytes, uint64_t seed = 20240601) {
  using namespace detail;
  auto names = PXZip::entryNames(sourceSketch);
  if (!names) throw std::runtime_error("not a zip: " + sourceSketch);

  std::vector<std::pair<std::string, std::string>> others;  // kept once, as they are
  std::vector<std::pair<std::string, std::string>> pageTexts;
  std::unordered_map<std::string, std::string> ids;
  JsonValue document, meta;
  uint64_t sourceJson = 0;
  for (const auto& name : *names) {
    auto bytes = PXZip::readEntry(sourceSketch, name);
    if (!bytes) throw std::runtime_error("cannot read " + name);
    if (PXPathExtension(name) == "json") sourceJson += bytes->size();
    if (name == "document.json") {
      document = parse(*bytes, name);
    } else if (name == "meta.json") {
      meta = parse(*bytes, name);
    } else if (name.rfind("pages/", 0) == 0 && PXPathExtension(name) == "json") {
      collectIdentifiers(parse(*bytes, name), ids);
      pageTexts.emplace_back(name, std::move(*bytes));
    } else {
      others.emplace_back(name, std::move(*bytes));
    }
  }
  auto* pageRefs = PXJsonFindMutable(&document, "pages");
  auto* listing = PXJsonFindMutable(&meta, "pagesAndArtboards");
  if (!pageRefs || !pageRefs->is_array() || !listing || !listing->is_object() || sourceJson == 0)
    throw std::runtime_error("not a Sketch document: " + sourceSketch);

  BigDocument result;
  result.path = outputPath;
  result.copies = static_cast<size_t>((targetJsonBytes + sourceJson - 1) / sourceJson);
  if (result.copies == 0) result.copies = 1;
  const JsonArray originalRefs = pageRefs->as_array();
  const JsonObject originalListing = listing->as_object();

  std::mt19937_64 rng(seed);
  std::vector<std::pair<std::string, std::string>> copies;
  for (size_t copy = 1; copy < result.copies; ++copy) {
    for (auto& [id, fresh] : ids) fresh = freshIdentifier(rng);
    for (const auto& ref : originalRefs)
      pageRefs->as_array().push_back(parse(remapIdentifiers(serialize(ref), ids), "page reference"));
    for (const auto& [pageID, artboards] : originalListing)
      listing->as_object()[remapIdentifiers(pageID, ids)] = parse(remapIdentifiers(serialize(artboards), ids), "listing");
    for (const auto& [name, text] : pageTexts)
      copies.emplace_back(remapIdentifiers(name, ids), remapIdentifiers(text, ids));
  }

  std::vector<std::pair<std::string, std::string>> entries;
  entries.emplace_back("document.json", serialize(document));
  for (auto* group : {&pageTexts, &copies})
    for (auto& page : *group) entries.push_back(std::move(page));
  entries.emplace_back("meta.json", serialize(meta));
  for (auto& other : others) entries.push_back(std::move(other));

  for (const auto& [name, bytes] : entries) {
    if (PXPathExtension(name) != "json") continue;
    result.jsonBytes += bytes.size();
    if (name.rfind("pages/", 0) == 0) ++result.pages;
  }
  std::string error;
  if (!PXZip::zipEntries(entries, outputPath, &error)) throw std::runtime_error("cannot write " + outputPath + ": " + error);
  return result;
}

}  // namespace plexa::bench
