#include "PXSymbolDetacherV2.h"

#include "Files.h"
#include "Log.h"
#include "PathString.h"
#include "Zip.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>

namespace plexa {

struct PXSymbolDetacherV2::IdentifierSource {
  boost::uuids::random_generator_mt19937 generate;
};

namespace {

const JsonValue* member(const JsonObject& object, std::string_view key) {
  auto it = object.find(key);
  return it == object.end() ? nullptr : &it->value();
}

std::string textOf(const JsonObject& object, std::string_view key) {
  const auto* v = member(object, key);
  return v && v->is_string() ? std::string(v->get_string()) : std::string();
}

JsonArray* childLayers(JsonObject& node) {
  auto it = node.find("layers");
  return it != node.end() && it->value().is_array() ? &it->value().get_array() : nullptr;
}

const JsonArray* childLayers(const JsonObject& node) {
  auto it = node.find("layers");
  return it != node.end() && it->value().is_array() ? &it->value().get_array() : nullptr;
}

void report(const PXSymbolDetacherV2::Progress& progress, std::size_t index, std::size_t total) {
  if (progress) progress(index, total);
}

// Documents may carry numbers a JSON writer cannot print (1e999 parses as
// infinity); they become 0 so that the page can still be saved.
std::size_t replaceNonFiniteNumbers(JsonValue& value) {
  std::size_t replaced = 0;
  if (value.is_double() && !std::isfinite(value.get_double())) {
    value = 0;
    return 1;
  }
  if (auto* o = value.if_object())
    for (auto& kv : *o) replaced += replaceNonFiniteNumbers(kv.value());
  if (auto* a = value.if_array())
    for (auto& e : *a) replaced += replaceNonFiniteNumbers(e);
  return replaced;
}

}  // namespace

std::shared_ptr<PXSymbolDetacherV2> PXSymbolDetacherV2::detacherWithUrl(const std::string& workingUrl) {
  return std::make_shared<PXSymbolDetacherV2>(workingUrl);
}

PXSymbolDetacherV2::PXSymbolDetacherV2(std::string url)
    : workingUrl(std::move(url)), identifiers_(std::make_unique<IdentifierSource>()) {}

PXSymbolDetacherV2::~PXSymbolDetacherV2() {
  if (!isCancelled()) cancel();
}

void PXSymbolDetacherV2::setDetachingArtboardIds(std::set<std::string> artboardIds) {
  detachingArtboardIds_ = std::move(artboardIds);
}

void PXSymbolDetacherV2::cancel() { cancelled_ = true; }

// ---- Loading

std::optional<std::string> PXSymbolDetacherV2::pagePathForRef(std::string_view ref) const {
  auto path = PXResolveInside(workingUrl, std::string(ref) + ".json");
  if (!path) PXLogWarn("Page reference leaves the document folder, skipped: {}", ref);
  return path;
}

bool PXSymbolDetacherV2::loadDocument(const Progress& progress) {
  if (workingUrl.empty()) {
    PXLogError("Working file is nil");
    return false;
  }
  pages.clear();
  document.reset();
  symbols.reset();

  auto text = PXFileManager::readFile(PXAppendingPathComponent(workingUrl, "document.json"));
  if (!text) {
    PXLogError("Could not find document.json");
    return false;
  }
  if (auto parsed = PXJsonParse(*text); parsed && parsed->is_object()) document = std::move(parsed->get_object());
  // During loading the total is the size of the page map while it is still
  // empty: callers only learn that loading is under way.
  report(progress, 0, 0);

  std::vector<Page> loaded;
  const JsonArray* refs = nullptr;
  if (document)
    if (const auto* v = member(*document, "pages"); v && v->is_array()) refs = &v->get_array();
  for (std::size_t i = 0; refs && i < refs->size(); ++i) {
    auto ref = PXJsonTextFor(&(*refs)[i], "_ref");
    if (!ref) continue;
    auto path = pagePathForRef(*ref);
    if (!path) continue;
    auto pageText = PXFileManager::readFile(*path);
    if (!pageText) continue;
    std::string error;
    auto parsed = PXJsonParse(*pageText, &error);
    if (!parsed || !parsed->is_object()) {
      PXLogVerbose("Page skipped, not a JSON object: {} {}", *path, error);
      continue;
    }
    auto same = std::find_if(loaded.begin(), loaded.end(), [&](const Page& p) { return p.url == *path; });
    if (same != loaded.end())
      same->json = std::move(*parsed);
    else
      loaded.push_back(Page{*path, std::move(*parsed)});
    report(progress, i, 0);
  }
  pages = std::move(loaded);
  report(progress, 0, 0);
  return true;
}

// ---- Collecting masters

void PXSymbolDetacherV2::findSymbols(const Progress& progress) {
  if (!document) loadDocument();
  SymbolMap found;
  if (document) {
    if (const auto* foreign = member(*document, "foreignSymbols"); foreign && foreign->is_array()) {
      for (const auto& entry : foreign->get_array()) {
        if (const auto* original = PXJsonObjectFor(&entry, "originalMaster")) findSymbolsInNode(*original, found);
        if (const auto* master = PXJsonObjectFor(&entry, "symbolMaster")) findSymbolsInNode(*master, found);
      }
    }
  }
  const std::size_t total = pages.size();
  report(progress, 0, total);
  for (std::size_t i = 0; i < pages.size(); ++i) {
    findSymbolsInNode(pages[i].json.get_object(), found);
    report(progress, i, total);
  }
  symbols = std::move(found);
  report(progress, total, total);
}

void PXSymbolDetacherV2::findSymbolsInNode(const JsonObject& node, SymbolMap& found) const {
  const auto* symbolID = member(node, "symbolID");
  const std::string cls = textOf(node, "_class");
  if (symbolID && symbolID->is_string() && cls == "symbolMaster")
    found.insert_or_assign(std::string(symbolID->get_string()), deepCopyDictionary(node));
  if (cls == "artboard") return;
  if (const auto* layers = childLayers(node))
    for (const auto& child : *layers)
      if (child.is_object()) findSymbolsInNode(child.get_object(), found);
}

// ---- The walk

void PXSymbolDetacherV2::detachSymbols(const Progress& progress) {
  isDirty = true;
  if (!symbols) findSymbols();
  copiedLayers_ = 0;
  limitWarned_ = false;
  const std::size_t total = pages.size();
  report(progress, 0, total);
  for (std::size_t i = 0; i < pages.size(); ++i) {
    std::vector<std::string> detachedSymbols;
    detachSymbolsForNode(pages[i].json.get_object(), detachedSymbols);
    report(progress, i, total);
  }
  report(progress, total, total);
}

bool PXSymbolDetacherV2::mayDetachMore(const JsonObject& instance, const std::string& symbolID,
                                       const std::vector<std::string>& detachedSymbols) {
  const char* reason = nullptr;
  if (detachedSymbols.size() >= maxNestingDepth) reason = "Symbol nesting too deep, instance kept";
  else if (copiedLayers_ >= maxCopiedLayers) reason = "Detached layer limit reached, instance kept";
  if (!reason) return true;
  // A hostile document can hit a limit many times: warn once per run.
  if (!limitWarned_) PXLogWarn("{}: {}[{}]", reason, textOf(instance, "name"), symbolID);
  else PXLogVerbose("{}: {}[{}]", reason, textOf(instance, "name"), symbolID);
  limitWarned_ = true;
  return false;
}

void PXSymbolDetacherV2::detachSymbolsForNode(JsonObject& node, std::vector<std::string>& detachedSymbols) {
  const std::string symbolID = textOf(node, "symbolID");
  const std::string cls = textOf(node, "_class");

  if (!detachingArtboardIds_.empty() && cls == "artboard" &&
      !detachingArtboardIds_.contains(textOf(node, "do_objectID")))
    return;

  bool detached = false;
  if (cls == "symbolInstance" && !symbolID.empty()) {
    const JsonObject* master = nullptr;
    if (symbols)
      if (auto it = symbols->find(symbolID); it != symbols->end()) master = &it->second;
    if (!master) {
      PXLogVerbose("Not able to find symbol with id {}", symbolID);
    } else if (std::find(detachedSymbols.begin(), detachedSymbols.end(), symbolID) != detachedSymbols.end()) {
      PXLogVerbose("Infinit Nested symbol found: {}[{}]", textOf(node, "name"), symbolID);
      node["in_infinitNestedSymbol"] = true;
    } else if (mayDetachMore(node, symbolID, detachedSymbols)) {
      detachInstance(node, *master);
      detachedSymbols.push_back(symbolID);
      detached = true;
    }
  }
  if (!detached && cls == "group") node["in_detachedSymbol"] = false;

  if (auto* layers = childLayers(node)) {
    for (auto& child : *layers) {
      if (isCancelled()) return;
      if (child.is_object()) detachSymbolsForNode(child.get_object(), detachedSymbols);
    }
  }

  if (!detached) return;
  detachedSymbols.pop_back();
  // Overrides are matched by the identifiers the master's layers carry, so
  // they are renewed only once the outermost instance is complete.
  if (detachedSymbols.empty())
    if (auto* layers = childLayers(node))
      for (auto& child : *layers)
        if (child.is_object()) updateIdForNode(child.get_object());
}

void PXSymbolDetacherV2::detachInstance(JsonObject& instance, const JsonObject& symbol) {
  if (auto visible = PXJsonBool(member(instance, "isVisible")); visible && !*visible) return;

  const float masterWidth = PXJsonFloat(PXJsonFind(member(symbol, "frame"), "width")).value_or(0);
  const float masterHeight = PXJsonFloat(PXJsonFind(member(symbol, "frame"), "height")).value_or(0);
  const float width = PXJsonFloat(PXJsonFind(member(instance, "frame"), "width")).value_or(0);
  const float height = PXJsonFloat(PXJsonFind(member(instance, "frame"), "height")).value_or(0);

  const JsonObject overrides = nodeOverrides(instance);
  const std::optional<JsonValue> formerSymbolID =
      instance.contains("symbolID") ? std::optional<JsonValue>(instance.at("symbolID")) : std::nullopt;

  // The master's keys in its order, the instance's values winning; only the
  // keys the instance lacks (notably "layers") are copied from the master.
  JsonObject group;
  group.reserve(symbol.size() + instance.size() + 2);
  for (const auto& kv : symbol) {
    auto own = instance.find(kv.key());
    group[kv.key()] = own != instance.end() ? std::move(own->value()) : JsonValue(kv.value());
  }
  for (auto& kv : instance)
    if (!symbol.contains(kv.key())) group[kv.key()] = std::move(kv.value());

  group["_class"] = "group";
  if (formerSymbolID) group["in_detachedSymbolId"] = *formerSymbolID;
  group["in_detachedSymbol"] = true;
  group.erase("symbolID");
  group.erase("overrides");
  group.erase("overrideValues");
  instance = std::move(group);

  const double ratioWidth = static_cast<double>(width) / static_cast<double>(masterWidth);
  const double ratioHeight = static_cast<double>(height) / static_cast<double>(masterHeight);
  if (auto* layers = childLayers(instance))
    for (auto& child : *layers)
      if (child.is_object()) updateNode(child.get_object(), overrides, instance, ratioWidth, ratioHeight);
}

std::string PXSymbolDetacherV2::newIdentifier() {
  std::string text = boost::uuids::to_string(identifiers_->generate());
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

void PXSymbolDetacherV2::updateIdForNode(JsonObject& node) {
  if (std::string original = textOf(node, "do_objectID"); !original.empty()) {
    node["in_original_objectID"] = original;
    node["do_objectID"] = newIdentifier();
  }
  if (auto* layers = childLayers(node))
    for (auto& child : *layers)
      if (child.is_object()) updateIdForNode(child.get_object());
}

// ---- Saving

void PXSymbolDetacherV2::savePages() {
  if (isCancelled()) return;
  for (auto& page : pages) {
    if (isCancelled()) break;
    std::string error;
    auto text = PXJsonSerialize(page.json, true, &error);
    if (!text) {
      std::size_t replaced = replaceNonFiniteNumbers(page.json);
      PXLogWarn("Replaced {} non-finite numbers in {}", replaced, page.url);
      text = PXJsonSerialize(page.json, true, &error);
    }
    if (!text) {
      PXLogError("Could not serialise page {}: {}", page.url, error);
      continue;
    }
    if (!PXFileManager::writeFileAtomically(page.url, *text, &error))
      PXLogVerbose("Could not write page {}: {}", page.url, error);
  }
  isDirty = false;
}

bool PXSymbolDetacherV2::saveToUrl(const std::string& sketchFilePath) {
  if (isDirty) savePages();
  if (workingUrl.empty() || !PXFileManager::fileExists(workingUrl)) {
    PXLogError("Could not save. File does not exist");
    return false;
  }
  std::string output = zipFolderAtPath(workingUrl, sketchFilePath);
  PXLogVerbose("Zip output: {}", output);
  PXLogVerbose("Working Url: {}", workingUrl);
  return true;
}

std::string PXSymbolDetacherV2::zipFolderAtPath(const std::string& folderPath, const std::string& destinationPath) {
  // An archive written into the folder it holds must not hold its own
  // previous version.
  bool isDirectory = false;
  if (PXResolveInside(folderPath, destinationPath) && PXFileManager::fileExists(destinationPath, &isDirectory) &&
      !isDirectory)
    PXFileManager::removeItem(destinationPath);
  std::string error;
  if (!PXZip::zipFolder(folderPath, destinationPath, &error)) return "zip error: " + error;
  return "created " + destinationPath;
}

JsonObject PXSymbolDetacherV2::deepCopyDictionary(const JsonObject& dictionary) { return JsonObject(dictionary); }

// ---- Debugging aids

const JsonObject* PXSymbolDetacherV2::searchNode(const JsonObject& node, const JsonObject& query) {
  bool matches = std::all_of(query.begin(), query.end(), [&](const auto& kv) {
    const auto* own = member(node, kv.key());
    return own && *own == kv.value();
  });
  if (matches) return &node;
  if (const auto* layers = childLayers(node))
    for (const auto& child : *layers)
      if (child.is_object())
        if (const auto* hit = searchNode(child.get_object(), query)) return hit;
  return nullptr;
}

const JsonObject* PXSymbolDetacherV2::searchForNodeWithQuery(const JsonObject& query) {
  if (!document) loadDocument();
  for (const auto& page : pages)
    if (const auto* hit = searchNode(page.json.get_object(), query)) return hit;
  return nullptr;
}

const JsonObject* PXSymbolDetacherV2::searchForSymbolWithQuery(const JsonObject& query) {
  if (query.empty()) return nullptr;
  if (!symbols) findSymbols();
  for (const auto& [id, master] : *symbols) {
    bool matches = std::all_of(query.begin(), query.end(), [&](const auto& kv) {
      const auto* own = member(master, kv.key());
      return own && *own == kv.value();
    });
    if (matches) return &master;
  }
  return nullptr;
}

const JsonObject* PXSymbolDetacherV2::searchForDetachedSymbol(const std::string& name) {
  return searchForNodeWithQuery(JsonObject{{"name", name}, {"in_detachedSymbol", true}});
}

std::vector<std::string> PXSymbolDetacherV2::printStackForNode(const JsonValue& node, std::string_view key,
                                                                const JsonValue& value) {
  std::vector<std::string> path, found;
  printStackForNode(node, key, value, path, found);
  return found;
}

void PXSymbolDetacherV2::printStackForNode(const JsonValue& node, std::string_view key, const JsonValue& value,
                                           std::vector<std::string>& path, std::vector<std::string>& found) {
  const auto* dict = node.if_object();
  if (!dict) return;
  if (const auto* own = member(*dict, key); own && *own == value) {
    std::string joined;
    for (const auto& component : path) joined += (joined.empty() ? "" : " -> ") + component;
    PXLogVerbose("Path: {}", joined);
    found.push_back(std::move(joined));
  }
  for (const auto& kv : *dict) {
    if (kv.value().is_object()) {
      path.emplace_back(kv.key());
      printStackForNode(kv.value(), key, value, path, found);
      path.pop_back();
    } else if (const auto* array = kv.value().if_array()) {
      for (std::size_t i = 0; i < array->size(); ++i) {
        if (!(*array)[i].is_object()) continue;
        path.push_back(fmt::format("{}[{}]", std::string_view(kv.key()), i));
        printStackForNode((*array)[i], key, value, path, found);
        path.pop_back();
      }
    }
  }
}

}  // namespace plexa
