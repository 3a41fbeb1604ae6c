#include "SketchDocument.h"

#include "Log.h"
#include "PathString.h"
#include "PXSymbolDetacherV2.h"
#include "SceneBuilder.h"

#include <algorithm>
#include <cstring>
#include <functional>

namespace plexa::render {

namespace {

bool holdsLayer(const JsonValue& node, const std::string& id, int depth = 0) {
  if (depth > kMaxLayerDepth) return false;
  if (PXJsonTextFor(&node, "do_objectID") == std::optional<std::string_view>(id)) return true;
  if (const JsonArray* layers = PXJsonArrayFor(&node, "layers"))
    for (const auto& child : *layers)
      if (holdsLayer(child, id, depth + 1)) return true;
  return false;
}

void collectExportable(const JsonValue& node, std::vector<std::string>& ids, int depth) {
  if (depth > kMaxLayerDepth) return;
  const JsonArray* formats = PXJsonArrayFor(PXJsonFind(&node, "exportOptions"), "exportFormats");
  if (auto id = PXJsonTextFor(&node, "do_objectID"); id && formats && !formats->empty()) ids.emplace_back(*id);
  if (const JsonArray* layers = PXJsonArrayFor(&node, "layers"))
    for (const auto& child : *layers) collectExportable(child, ids, depth + 1);
}

// Every layer ID below `node`, with the top-level layer it is under.
void indexLayers(const JsonValue& node, size_t page, size_t topLevel, int depth,
                 std::unordered_map<std::string, std::pair<size_t, size_t>>& index) {
  if (depth > kMaxLayerDepth) return;
  if (auto id = PXJsonTextFor(&node, "do_objectID")) index.try_emplace(std::string(*id), page, topLevel);
  if (const JsonArray* layers = PXJsonArrayFor(&node, "layers"))
    for (const auto& child : *layers) indexLayers(child, page, topLevel, depth + 1, index);
}

bool containsText(std::string_view text, std::string_view word) {
  return std::search(text.begin(), text.end(), std::boyer_moore_horspool_searcher(word.begin(), word.end())) !=
         text.end();
}

// An ID that JSON writes as it is, so that a text search finds it.
bool isPlainID(const std::string& id) {
  return !id.empty() && std::all_of(id.begin(), id.end(), [](char c) {
    return c > 0x20 && c < 0x7f && c != '"' && c != '\\' && c != '/';
  });
}

bool isClass(const JsonValue& node, std::string_view cls) { return PXJsonTextFor(&node, "_class") == cls; }

bool holdsMaster(const JsonValue& node, int depth = 0) {
  if (depth > kMaxLayerDepth) return false;
  if (const JsonArray* layers = PXJsonArrayFor(&node, "layers"))
    for (const auto& child : *layers)
      if (isClass(child, "symbolMaster") || holdsMaster(child, depth + 1)) return true;
  return false;
}

bool holdsInstance(const JsonValue& node, int depth = 0) {
  if (depth > kMaxLayerDepth) return false;
  if (isClass(node, "symbolInstance")) return true;
  if (const JsonArray* layers = PXJsonArrayFor(&node, "layers"))
    for (const auto& child : *layers)
      if (holdsInstance(child, depth + 1)) return true;
  return false;
}

// The masters below `node`, as the detacher finds them (later ones win, no
// look into artboards). Masters are taken over when `take` and no other
// master lies inside them; the node is then left empty. Returns how many
// were taken.
size_t gatherMasters(JsonValue& node, PXSymbolDetacherV2::SymbolMap& found, bool take, int depth = 0) {
  if (depth > kMaxLayerDepth || !node.is_object()) return 0;
  if (isClass(node, "symbolMaster"))
    if (auto id = PXJsonTextFor(&node, "symbolID")) {
      if (take && !holdsMaster(node)) {
        found.insert_or_assign(std::string(*id), std::move(node.get_object()));
        return 1;
      }
      found.insert_or_assign(std::string(*id), PXSymbolDetacherV2::deepCopyDictionary(node.get_object()));
    }
  if (isClass(node, "artboard")) return 0;
  size_t taken = 0;
  if (auto* layers = node.get_object().if_contains("layers"); layers && layers->is_array())
    for (auto& child : layers->get_array()) taken += gatherMasters(child, found, take, depth + 1);
  return taken;
}

// ---- Finding one member of a large JSON text without parsing the rest

size_t skipSpace(std::string_view text, size_t at) {
  while (at < text.size() && (text[at] == ' ' || text[at] == '\n' || text[at] == '\r' || text[at] == '\t')) ++at;
  return at;
}

// `at` is on the opening quote; returns the position after the closing one.
// A quote ends the string unless an odd number of backslashes precede it.
std::optional<size_t> skipString(std::string_view text, size_t at) {
  for (size_t i = at + 1; i < text.size(); ++i) {
    const void* quote = std::memchr(text.data() + i, '"', text.size() - i);
    if (!quote) return std::nullopt;
    i = static_cast<const char*>(quote) - text.data();
    size_t backslashes = 0;
    while (i - backslashes > at + 1 && text[i - backslashes - 1] == '\\') ++backslashes;
    if (backslashes % 2 == 0) return i + 1;
  }
  return std::nullopt;
}

std::optional<size_t> skipValue(std::string_view text, size_t at) {
  if (at >= text.size()) return std::nullopt;
  if (text[at] == '"') return skipString(text, at);
  if (text[at] != '{' && text[at] != '[') {
    size_t end = text.find_first_of(",}] \n\r\t", at);
    return end == std::string_view::npos ? text.size() : end;
  }
  size_t depth = 0;
  for (size_t i = at; i < text.size();) {
    switch (text[i]) {
      case '"': {
        auto next = skipString(text, i);
        if (!next) return std::nullopt;
        i = *next;
        continue;
      }
      case '{':
      case '[': ++depth; break;
      case '}':
      case ']':
        if (--depth == 0) return i + 1;
        break;
      default: break;
    }
    ++i;
  }
  return std::nullopt;
}

// The text of the top-level object's member `key` (the last one when the
// key repeats); nullopt when the text is not an object we can walk.
std::optional<std::string_view> topLevelMember(std::string_view text, std::string_view key) {
  size_t at = skipSpace(text, 0);
  if (at >= text.size() || text[at] != '{') return std::nullopt;
  std::optional<std::string_view> found;
  for (at = skipSpace(text, at + 1); at < text.size() && text[at] != '}';) {
    if (text[at] != '"') return std::nullopt;
    auto keyEnd = skipString(text, at);
    if (!keyEnd) return std::nullopt;
    std::string_view name = text.substr(at + 1, *keyEnd - at - 2);
    at = skipSpace(text, *keyEnd);
    if (at >= text.size() || text[at] != ':') return std::nullopt;
    at = skipSpace(text, at + 1);
    auto valueEnd = skipValue(text, at);
    if (!valueEnd) return std::nullopt;
    if (name == key) found = text.substr(at, *valueEnd - at);
    at = skipSpace(text, *valueEnd);
    if (at < text.size() && text[at] == ',') at = skipSpace(text, at + 1);
  }
  return at < text.size() ? found : std::nullopt;
}

}  // namespace

SketchDocument::SketchDocument(std::unique_ptr<DocumentFiles> files, RenderNotes& notes)
    : files_(std::move(files)), notes_(notes) {}

SketchDocument::~SketchDocument() = default;

std::unique_ptr<SketchDocument> SketchDocument::open(const std::string& path, RenderNotes& notes,
                                                     std::string* error) {
  auto files = DocumentFiles::open(path, error);
  if (!files) return nullptr;
  std::unique_ptr<SketchDocument> document(new SketchDocument(std::move(files), notes));
  if (!document->load(error)) return nullptr;
  const DocumentFiles* source = document->files_.get();
  document->images_ =
      std::make_unique<ImageSource>([source](const std::string& relativePath) { return source->read(relativePath); });
  return document;
}

bool SketchDocument::load(std::string* error) {
  auto text = files_->read("document.json");
  if (!text) {
    if (error) *error = "document.json is missing or malformed";
    return false;
  }
  // Only the page list is needed now; the rest (foreign masters) is parsed
  // if an instance ever needs it.
  std::optional<JsonValue> pageList;
  if (auto member = topLevelMember(*text, "pages")) pageList = PXJsonParse(*member);
  if (pageList) {
    documentText_ = std::move(*text);
  } else {
    document_ = PXJsonParseIntoArena(*text);
    if (const JsonValue* pages = PXJsonFind(document_ ? &*document_ : nullptr, "pages")) pageList = *pages;
  }
  const JsonArray* refs = pageList ? pageList->if_array() : nullptr;
  std::set<std::string> seen;
  for (const auto& ref : refs ? *refs : JsonArray()) {
    auto name = PXJsonTextFor(&ref, "_ref");
    if (!name) continue;
    std::string entry = std::string(*name) + ".json";
    if (!PXIsPlainRelativePath(entry)) {
      PXLogWarn("Page reference leaves the document, skipped: {}", *name);
      continue;
    }
    if (!seen.insert(entry).second) continue;
    StoredPage page;
    page.refID = std::string(name->substr(name->rfind('/') + 1));
    page.entry = std::move(entry);
    pages_.push_back(std::move(page));
  }
  if (auto meta = files_->read("meta.json")) meta_ = PXJsonParse(*meta);
  detacher_ = PXSymbolDetacherV2::detacherWithUrl("");
  return true;
}

const std::string* SketchDocument::textOf(StoredPage& page) {
  if (!page.text && !page.unreadable) {
    page.text = files_->read(page.entry);
    if (!page.text) {
      PXLogVerbose("Page skipped, cannot be read: {}", page.entry);
      page.unreadable = true;
    }
  }
  return page.text ? &*page.text : nullptr;
}

JsonValue* SketchDocument::jsonOf(size_t index) {
  StoredPage& page = pages_[index];
  if (page.json) return &*page.json;
  const std::string* text = textOf(page);
  if (!text) return nullptr;
  std::string why;
  auto parsed = PXJsonParseIntoArena(*text, &why);
  if (!parsed || !parsed->is_object()) {
    PXLogVerbose("Page skipped, not a JSON object: {} {}", page.entry, why);
    page.unreadable = true;
    return nullptr;
  }
  page.json = std::move(parsed);
  // Read again from the document if ever needed: freed now, its memory
  // serves the drawing.
  page.text.reset();
  if (const JsonArray* layers = PXJsonArrayFor(&*page.json, "layers"))
    for (size_t i = 0; i < layers->size(); ++i) indexLayers((*layers)[i], index, i, 0, layerPages_);
  return &*page.json;
}

void SketchDocument::readAllPages() {
  for (size_t i = 0; i < pages_.size(); ++i) jsonOf(i);
}

std::string SketchDocument::pageID(size_t index) {
  const JsonValue* json = jsonOf(index);
  return std::string(PXJsonTextFor(json, "do_objectID").value_or(""));
}

std::vector<SketchDocument::PageInfo> SketchDocument::pages() {
  std::vector<PageInfo> result;
  for (size_t i = 0; i < pages_.size(); ++i)
    if (const JsonValue* json = jsonOf(i))
      result.push_back({std::string(PXJsonTextFor(json, "do_objectID").value_or("")),
                        std::string(PXJsonTextFor(json, "name").value_or(""))});
  return result;
}

std::vector<std::string> SketchDocument::boardIDs() {
  std::vector<std::string> ids;
  for (size_t i = 0; i < pages_.size(); ++i)
    if (const JsonArray* layers = PXJsonArrayFor(jsonOf(i), "layers"))
      for (const auto& layer : *layers) {
        auto id = PXJsonTextFor(&layer, "do_objectID");
        if (id && (isClass(layer, "artboard") || isClass(layer, "symbolMaster"))) ids.emplace_back(*id);
      }
  return ids;
}

std::vector<std::string> SketchDocument::exportableLayerIDs() {
  std::vector<std::string> ids;
  for (size_t i = 0; i < pages_.size(); ++i)
    if (const JsonArray* layers = PXJsonArrayFor(jsonOf(i), "layers"))
      for (const auto& layer : *layers) collectExportable(layer, ids, 0);
  return ids;
}

bool SketchDocument::mayHold(StoredPage& page, const std::string& layerID) {
  if (!isPlainID(layerID)) return true;
  const std::string* text = textOf(page);
  return text && containsText(*text, "\"" + layerID + "\"");
}

std::optional<size_t> SketchDocument::pageIndexForLayer(const std::string& layerID) {
  if (layerID.empty()) return std::nullopt;
  if (auto known = layerPages_.find(layerID); known != layerPages_.end() && pages_[known->second.first].json)
    return known->second.first;
  // Layers made by detaching carry IDs the index has not seen.
  for (size_t i = 0; i < pages_.size(); ++i)
    if (pages_[i].json)
      if (const JsonArray* layers = PXJsonArrayFor(&*pages_[i].json, "layers"))
        for (const auto& layer : *layers)
          if (holdsLayer(layer, layerID)) return i;
  for (size_t i = 0; i < pages_.size(); ++i) {
    if (pages_[i].json || !mayHold(pages_[i], layerID)) continue;
    if (const JsonArray* layers = PXJsonArrayFor(jsonOf(i), "layers"))
      for (const auto& layer : *layers)
        if (holdsLayer(layer, layerID)) return i;
  }
  return std::nullopt;
}

std::optional<std::string> SketchDocument::pageIDForLayer(const std::string& layerID) {
  auto index = pageIndexForLayer(layerID);
  return index ? std::optional(pageID(*index)) : std::nullopt;
}

std::optional<size_t> SketchDocument::pageIndexForID(const std::string& id) {
  for (size_t i = 0; i < pages_.size(); ++i)
    if (pages_[i].json && pageID(i) == id) return i;
  // Pages are stored under their own IDs: that one first, then any.
  for (size_t i = 0; i < pages_.size(); ++i)
    if (!pages_[i].json && pages_[i].refID == id && pageID(i) == id) return i;
  for (size_t i = 0; i < pages_.size(); ++i)
    if (pageID(i) == id) return i;
  return std::nullopt;
}

void SketchDocument::collectMasters(size_t drawnPage) {
  PXSymbolDetacherV2::SymbolMap found;
  if (!document_ && containsText(documentText_, "foreignSymbols")) document_ = PXJsonParseIntoArena(documentText_);
  documentText_ = std::string();
  // document.json is not read again: its foreign masters are taken over.
  if (const JsonArray* foreign = PXJsonArrayFor(document_ ? &*document_ : nullptr, "foreignSymbols"))
    for (auto& entry : const_cast<JsonArray&>(*foreign))
      for (const char* key : {"originalMaster", "symbolMaster"})
        if (auto* master = entry.is_object() ? entry.get_object().if_contains(key) : nullptr)
          gatherMasters(*master, found, true);
  for (size_t i = 0; i < pages_.size(); ++i) {
    StoredPage& page = pages_[i];
    if (i != drawnPage && !page.json) {
      const std::string* text = textOf(page);
      if (!text || !containsText(*text, "symbolMaster")) continue;
    }
    JsonValue* json = jsonOf(i);
    if (!json) continue;
    // Other pages give their masters up, and are read again if drawn later.
    if (i == drawnPage) {
      gatherMasters(*json, found, false);
    } else if (gatherMasters(*json, found, true) > 0) {
      page.json.reset();
      page.detachedLayers.clear();
    }
  }
  detacher_->symbols = std::move(found);
  mastersCollected_ = true;
}

void SketchDocument::detachTopLevelLayer(size_t pageIndex, size_t layerIndex) {
  StoredPage& page = pages_[pageIndex];
  if (!page.detachedLayers.insert(layerIndex).second) return;
  auto& layer = page.json->get_object()["layers"].get_array()[layerIndex];
  if (!layer.is_object() || !holdsInstance(layer)) return;
  if (!mastersCollected_) collectMasters(pageIndex);
  std::vector<std::string> chain;
  detacher_->detachSymbolsForNode(layer.get_object(), chain);
}

const ScenePage* SketchDocument::scenePage(const std::string& pageID) {
  if (auto it = built_.find(pageID); it != built_.end()) return &it->second;
  auto index = pageIndexForID(pageID);
  if (!index) return nullptr;
  const JsonArray* layers = PXJsonArrayFor(jsonOf(*index), "layers");
  for (size_t i = 0; layers && i < layers->size(); ++i) detachTopLevelLayer(*index, i);
  SceneBuilder builder(*images_, notes_, curveTolerance_);
  auto [it, inserted] = built_.emplace(pageID, builder.buildPage(*pages_[*index].json));
  return &it->second;
}

std::optional<NodeLocation> SketchDocument::locate(const std::string& layerID, bool wholePage) {
  auto index = pageIndexForLayer(layerID);
  if (!index) return std::nullopt;
  std::string id = pageID(*index);
  if (wholePage || built_.contains(id)) {
    const ScenePage* page = scenePage(id);
    return page ? locateNode(*page, layerID) : std::nullopt;
  }
  auto topLevel = topLevelIndexForLayer(*index, layerID);
  if (!topLevel) return std::nullopt;
  auto key = std::make_pair(*index, *topLevel);
  auto it = partial_.find(key);
  if (it == partial_.end()) {
    detachTopLevelLayer(*index, *topLevel);
    const JsonValue& page = *pages_[*index].json;
    ScenePage scene;
    scene.id = id;
    scene.name = std::string(PXJsonTextFor(&page, "name").value_or(""));
    SceneBuilder builder(*images_, notes_, curveTolerance_);
    if (auto node = builder.buildLayer((*PXJsonArrayFor(&page, "layers"))[*topLevel]))
      scene.layers.push_back(std::move(node));
    it = partial_.emplace(key, std::move(scene)).first;
  }
  return locateNode(it->second, layerID);
}

std::optional<size_t> SketchDocument::topLevelIndexForLayer(size_t pageIndex, const std::string& layerID) {
  if (auto known = layerPages_.find(layerID); known != layerPages_.end() && known->second.first == pageIndex)
    return known->second.second;
  const JsonArray* layers = PXJsonArrayFor(jsonOf(pageIndex), "layers");
  for (size_t i = 0; layers && i < layers->size(); ++i)
    if (holdsLayer((*layers)[i], layerID)) return i;
  return std::nullopt;
}

std::optional<JsonValue> SketchDocument::metaJSON() const { return meta_; }

}  // namespace plexa::render
