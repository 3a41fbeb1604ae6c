#include "PXSymbolDetacherV2.h"

#include "Files.h"
#include "Log.h"
#include "Parallel.h"
#include "PathString.h"
#include "Zip.h"

#include <boost/json/monotonic_resource.hpp>
#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_hash.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>

namespace plexa {

namespace {

// Fixed, so that derived identifiers are the same in every run.
const boost::uuids::uuid kStableIdentifierNamespace{
    {0xae, 0xd8, 0xbc, 0x4f, 0x26, 0xae, 0x49, 0x02, 0xa1, 0x14, 0x0d, 0xc5, 0x30, 0x4a, 0xbb, 0xdd}};

}  // namespace

struct PXSymbolDetacherV2::IdentifierSource {
  boost::uuids::random_generator_mt19937 random;
  boost::uuids::name_generator_sha1 derive{kStableIdentifierNamespace};
  // Derived identifiers of this run, and how often each colliding path has
  // been seen: equal paths come from duplicate identifiers in the document.
  std::unordered_set<boost::uuids::uuid, boost::hash<boost::uuids::uuid>> issued;
  std::unordered_map<std::string, std::size_t> collisions;

  void reset() {
    issued.clear();
    collisions.clear();
  }
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

bool isHidden(const JsonObject& node) {
  auto visible = PXJsonBool(member(node, "isVisible"));
  return visible && !*visible;
}

// Counts of copied layers grow geometrically in hostile documents.
std::size_t saturatingAdd(std::size_t a, std::size_t b) {
  return a > std::numeric_limits<std::size_t>::max() - b ? std::numeric_limits<std::size_t>::max() : a + b;
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

// ---- The masters' map

const JsonObject& PXSymbolDetacherV2::SymbolMap::at(std::string_view symbolID) const {
  if (const auto* master = find(symbolID)) return *master;
  throw std::out_of_range("no symbol master " + std::string(symbolID));
}

const JsonObject* PXSymbolDetacherV2::SymbolMap::find(std::string_view symbolID) const {
  auto it = masters_.find(symbolID);
  return it == masters_.end() ? nullptr : it->second;
}

void PXSymbolDetacherV2::SymbolMap::refer(const std::string& symbolID, const JsonObject& master) {
  if (auto old = masters_.find(symbolID); old != masters_.end()) lyingAt_.erase(old->second);
  masters_.insert_or_assign(symbolID, &master);
  lyingAt_.insert_or_assign(&master, symbolID);
}

void PXSymbolDetacherV2::SymbolMap::insert_or_assign(const std::string& symbolID, JsonObject master) {
  if (auto old = masters_.find(symbolID); old != masters_.end()) lyingAt_.erase(old->second);
  owned_.push_back(std::move(master));
  masters_.insert_or_assign(symbolID, &owned_.back());
}

void PXSymbolDetacherV2::SymbolMap::keepCopyOf(const JsonObject& node, const boost::json::storage_ptr& storage) {
  auto lying = lyingAt_.find(&node);
  if (lying == lyingAt_.end()) return;
  owned_.emplace_back(node, storage);
  masters_.insert_or_assign(lying->second, &owned_.back());
  lyingAt_.erase(lying);
}

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

  const JsonArray* refs = nullptr;
  if (document)
    if (const auto* v = member(*document, "pages"); v && v->is_array()) refs = &v->get_array();
  // Pages are read and parsed several at once, then taken in the document's order.
  struct Pending {
    std::size_t index;
    std::string path;
    std::optional<PXJsonOwnedTree> parsed;
    std::string error;
    bool read = false;
  };
  std::vector<Pending> pending;
  for (std::size_t i = 0; refs && i < refs->size(); ++i) {
    auto ref = PXJsonTextFor(&(*refs)[i], "_ref");
    if (!ref) continue;
    if (auto path = pagePathForRef(*ref)) pending.push_back(Pending{i, std::move(*path), std::nullopt, {}, false});
  }
  // Each page parses into an arena of its own: the tree takes less memory
  // and is freed at once, and the detached copies later go into it too.
  PXParallelFor(pending.size(), [&](std::size_t k) {
    auto& page = pending[k];
    try {
      bool missing = false;
      page.parsed = PXJsonParseFileIntoOwnArena(page.path, &page.error, &missing);
      page.read = !missing;
    } catch (const std::exception& e) {
      page.read = true;
      page.error = e.what();
    }
  });
  std::vector<Page> loaded;
  std::map<std::string, std::size_t> loadedIndex;
  for (auto& page : pending) {
    if (!page.read) continue;
    if (!page.parsed || !page.parsed->root.is_object()) {
      PXLogVerbose("Page skipped, not a JSON object: {} {}", page.path, page.error);
      continue;
    }
    // A file named twice is one page; its later parse is the same tree.
    if (!loadedIndex.contains(page.path)) {
      loadedIndex.emplace(page.path, loaded.size());
      loaded.push_back(Page{page.path, std::move(page.parsed->root), std::move(page.parsed->arena)});
    }
    report(progress, page.index, 0);
  }
  pages = std::move(loaded);
  report(progress, 0, 0);
  return true;
}

// ---- Collecting masters

void PXSymbolDetacherV2::findSymbols(const Progress& progress) {
  if (!document) loadDocument();
  // Copies the walk keeps of masters share one arena, released with them.
  symbolStorage_ = boost::json::make_shared_resource<boost::json::monotonic_resource>();
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
    found.refer(std::string(symbolID->get_string()), node);
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
  expansions_.clear();
  identifiers_->reset();
  failureReason.reset();
  refused_ = false;
  const std::size_t total = pages.size();
  report(progress, 0, total);
  // Counted before anything is copied, so that a document that expands
  // past the limit costs neither the memory nor the time.
  std::size_t copies = 0;
  for (std::size_t i = 0; i < pages.size() && copies <= maxCopiedLayers; ++i)
    copies = saturatingAdd(copies, copiesBelow(pages[i].json.get_object()));
  if (copies > maxCopiedLayers) refuse(copies);
  // Everything but the masters first, copying them as they lie; then the
  // masters, each once nothing is left to copy it.
  std::vector<JsonObject*> masters = mastersOnPages();
  mastersInOrder_ = !masters.empty();
  outermost_.clear();
  walkPages(progress);
  if (mastersInOrder_) {
    detachMastersInOrder(std::move(masters));
    // Overrides match the copied layers' original identifiers, so they are
    // renewed once every copy is complete, in the order of the pages.
    if (!isCancelled())
      for (auto& page : pages) renewIdentifiersBelow(page.json.get_object());
    mastersInOrder_ = false;
    outermost_.clear();
  }
  report(progress, total, total);
}

namespace {

// Visits every string inside `value`.
template <typename Visit>
void forEachString(const JsonValue& value, const Visit& visit) {
  if (const auto* text = value.if_string()) visit(std::string_view(*text));
  if (const auto* o = value.if_object())
    for (const auto& kv : *o) forEachString(kv.value(), visit);
  if (const auto* a = value.if_array())
    for (const auto& e : *a) forEachString(e, visit);
}

}  // namespace

std::vector<JsonObject*> PXSymbolDetacherV2::mastersOnPages() {
  std::vector<JsonObject*> found;
  if (!symbols || symbols->empty()) return found;
  bool insideInstance = false;
  // As findSymbolsInNode looks: not into artboards.
  auto visit = [&](auto& self, JsonObject& node, bool underInstance) -> void {
    if (symbols->liesAt(node)) {
      found.push_back(&node);
      insideInstance = insideInstance || underInstance;
    }
    const std::string cls = textOf(node, "_class");
    if (cls == "artboard") return;
    if (auto* layers = childLayers(node))
      for (auto& child : *layers)
        if (child.is_object()) self(self, child.get_object(), underInstance || cls == "symbolInstance");
  };
  for (auto& page : pages) visit(visit, page.json.get_object(), false);
  if (insideInstance) found.clear();
  return found;
}

// While masters wait for their turn and identifiers are renewed at the end,
// pages share nothing the walk changes (each copies into its own arena), so
// they are walked several at once; otherwise identifiers are drawn as the
// walk goes, in the pages' order.
void PXSymbolDetacherV2::walkPages(const Progress& progress) {
  const std::size_t total = pages.size();
  std::exception_ptr failure;
  auto walk = [&](std::size_t i) {
    if (stopped()) return;
    try {
      std::vector<std::string> detachedSymbols;
      detachSymbolsForNode(pages[i].json.get_object(), detachedSymbols);
    } catch (...) {
      std::lock_guard lock(walkLock_);
      if (!failure) failure = std::current_exception();
      return;
    }
    std::lock_guard lock(walkLock_);
    report(progress, i, total);
  };
  if (mastersInOrder_) {
    PXParallelFor(total, walk);
  } else {
    for (std::size_t i = 0; i < total && !failure; ++i) walk(i);
  }
  if (failure) std::rethrow_exception(failure);
}

std::unordered_set<const JsonObject*> PXSymbolDetacherV2::mastersUsedBy(
    const JsonObject& master, const std::unordered_set<const JsonObject*>& onPages) const {
  std::unordered_set<const JsonObject*> used;
  // Masters that are not on the pages (foreign ones) are never walked, but
  // their copies copy what they use in turn.
  std::unordered_set<const JsonObject*> throughCopies{&master};
  std::function<void(const JsonObject&)> visit;
  auto use = [&](std::string_view symbolID) {
    const auto* m = symbols->find(symbolID);
    if (!m) return;
    if (onPages.contains(m)) used.insert(m);
    else if (throughCopies.insert(m).second) visit(*m);
  };
  // Instances, their swaps (any string of an override may be one) and
  // masters held inside.
  visit = [&](const JsonObject& node) {
    if (&node != &master) {
      if (onPages.contains(&node)) used.insert(&node);
      if (const auto* id = member(node, "symbolID"); id && id->is_string()) use(id->get_string());
    }
    if (const auto* values = member(node, "overrideValues"); values && values->is_array())
      for (const auto& entry : values->get_array())
        if (const auto* value = PXJsonFind(&entry, "value")) forEachString(*value, use);
    if (const auto* overrides = member(node, "overrides")) forEachString(*overrides, use);
    if (const auto* layers = childLayers(node))
      for (const auto& child : *layers)
        if (child.is_object()) visit(child.get_object());
  };
  visit(master);
  return used;
}

void PXSymbolDetacherV2::detachMastersInOrder(std::vector<JsonObject*> masters) {
  const std::size_t count = masters.size();
  std::unordered_set<const JsonObject*> onPages(masters.begin(), masters.end());
  std::unordered_map<const JsonObject*, std::size_t> indexOf;
  for (std::size_t i = 0; i < count; ++i) indexOf.emplace(masters[i], i);
  // uses[i]: the masters that copies of master i copy; waitingUsers[j]: the
  // masters not yet walked that copy master j.
  std::vector<std::vector<std::size_t>> uses(count);
  std::vector<std::size_t> waitingUsers(count, 0);
  for (std::size_t i = 0; i < count; ++i)
    for (const JsonObject* used : mastersUsedBy(*masters[i], onPages)) {
      const std::size_t j = indexOf.at(used);
      uses[i].push_back(j);
      ++waitingUsers[j];
    }
  std::set<std::size_t> ready;
  for (std::size_t i = 0; i < count; ++i)
    if (waitingUsers[i] == 0) ready.insert(i);
  // A master whose users have all been walked, each of them in turn after
  // all of its own, is copied by nothing any more: it is walked in place.
  // Once only cycles (and what they use) are left, every master left is
  // kept as found before it is walked, in the pages' order.
  std::vector<bool> walked(count, false);
  std::size_t earliest = 0;
  bool keepingAll = false;
  for (std::size_t left = count; left > 0 && !stopped(); --left) {
    std::size_t i;
    if (!keepingAll && !ready.empty()) {
      i = *ready.begin();
      ready.erase(ready.begin());
      symbols->letGo(*masters[i]);
    } else {
      keepingAll = true;
      while (walked[earliest]) ++earliest;
      i = earliest;
      symbols->keepCopyOf(*masters[i], symbolStorage_);
    }
    walked[i] = true;
    std::vector<std::string> detachedSymbols;
    detachSymbolsForNode(*masters[i], detachedSymbols);
    for (std::size_t j : uses[i])
      if (--waitingUsers[j] == 0 && !walked[j]) ready.insert(j);
  }
}

void PXSymbolDetacherV2::renewIdentifiersBelow(JsonObject& node) {
  if (outermost_.contains(&node)) {
    std::string path = textOf(node, "do_objectID");
    if (auto* layers = childLayers(node))
      for (auto& child : *layers)
        if (child.is_object()) updateIdForNode(child.get_object(), path);
    return;
  }
  if (auto* layers = childLayers(node))
    for (auto& child : *layers)
      if (child.is_object()) renewIdentifiersBelow(child.get_object());
}

// What the walk would copy below `node`, counted without copying. Exact
// unless overrides swap nested symbols or symbols nest in cycles; the walk
// counts the copies it makes as well.
std::size_t PXSymbolDetacherV2::copiesBelow(const JsonObject& node) {
  const std::string cls = textOf(node, "_class");
  if (!detachingArtboardIds_.empty() && cls == "artboard" &&
      !detachingArtboardIds_.contains(textOf(node, "do_objectID")))
    return 0;
  const std::string symbolID = textOf(node, "symbolID");
  if (cls == "symbolInstance" && !symbolID.empty() && !isHidden(node)) {
    std::vector<std::string> symbolStack;
    return expansionOf(symbolID, symbolStack);
  }
  std::size_t copies = 0;
  if (const auto* layers = childLayers(node))
    for (const auto& child : *layers)
      if (child.is_object()) copies = saturatingAdd(copies, copiesBelow(child.get_object()));
  return copies;
}

std::size_t PXSymbolDetacherV2::expansionOf(const std::string& symbolID, std::vector<std::string>& symbolStack) {
  if (auto known = expansions_.find(symbolID); known != expansions_.end()) return known->second;
  const JsonObject* master = symbols ? symbols->find(symbolID) : nullptr;
  if (!master) return 0;
  symbolStack.push_back(symbolID);
  std::size_t copies = 0;
  if (const auto* layers = childLayers(*master))
    for (const auto& child : *layers)
      if (child.is_object()) copies = saturatingAdd(copies, expansionOfLayers(child.get_object(), symbolStack));
  symbolStack.pop_back();
  expansions_.emplace(symbolID, copies);
  return copies;
}

// The layer itself and everything below it, nested instances expanded as
// the walk would expand them.
std::size_t PXSymbolDetacherV2::expansionOfLayers(const JsonObject& node, std::vector<std::string>& symbolStack) {
  std::size_t copies = 1;
  const std::string symbolID = textOf(node, "symbolID");
  if (textOf(node, "_class") == "symbolInstance" && !symbolID.empty() && !isHidden(node) &&
      symbolStack.size() < maxNestingDepth &&
      std::find(symbolStack.begin(), symbolStack.end(), symbolID) == symbolStack.end())
    copies = saturatingAdd(copies, expansionOf(symbolID, symbolStack));
  if (const auto* layers = childLayers(node))
    for (const auto& child : *layers)
      if (child.is_object()) copies = saturatingAdd(copies, expansionOfLayers(child.get_object(), symbolStack));
  return copies;
}

void PXSymbolDetacherV2::refuse(std::size_t copies) {
  std::lock_guard lock(walkLock_);
  if (failureReason) return;
  const std::string atLeast = copies == std::numeric_limits<std::size_t>::max() ? "an unbounded number of"
                                                                                : fmt::format("at least {}", copies);
  failureReason = fmt::format(
      "Symbol detachment refused: the document's symbol instances expand to {} layers, more than the limit of {}",
      atLeast, maxCopiedLayers);
  PXLogError("{}", *failureReason);
  refused_ = true;
}

bool PXSymbolDetacherV2::mayDetachMore(const JsonObject& instance, const std::string& symbolID,
                                       const std::vector<std::string>& detachedSymbols) {
  if (detachedSymbols.size() < maxNestingDepth) return true;
  // A hostile document can hit the limit many times: warn once per run.
  if (!limitWarned_.exchange(true))
    PXLogWarn("Symbol nesting too deep, instance kept: {}[{}]", textOf(instance, "name"), symbolID);
  else
    PXLogVerbose("Symbol nesting too deep, instance kept: {}[{}]", textOf(instance, "name"), symbolID);
  return false;
}

void PXSymbolDetacherV2::detachSymbolsForNode(JsonObject& node, std::vector<std::string>& detachedSymbols) {
  // A master others copy: walked on its own turn, or kept before it changes.
  if (symbols && symbols->liesAt(node)) {
    if (mastersInOrder_) return;
    symbols->keepCopyOf(node, symbolStorage_);
  }
  const std::string symbolID = textOf(node, "symbolID");
  const std::string cls = textOf(node, "_class");

  if (!detachingArtboardIds_.empty() && cls == "artboard" &&
      !detachingArtboardIds_.contains(textOf(node, "do_objectID")))
    return;

  bool detached = false;
  if (cls == "symbolInstance" && !symbolID.empty()) {
    const JsonObject* master = symbols ? symbols->find(symbolID) : nullptr;
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
      if (stopped()) return;
      if (child.is_object()) detachSymbolsForNode(child.get_object(), detachedSymbols);
    }
  }

  if (!detached) return;
  detachedSymbols.pop_back();
  // Overrides are matched by the identifiers the master's layers carry, so
  // they are renewed only once the outermost instance is complete.
  if (detachedSymbols.empty() && mastersInOrder_) {
    std::lock_guard lock(walkLock_);
    outermost_.insert(&node);
  } else if (detachedSymbols.empty()) {
    std::string path = textOf(node, "do_objectID");
    if (auto* layers = childLayers(node))
      for (auto& child : *layers)
        if (child.is_object()) updateIdForNode(child.get_object(), path);
  }
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
  // The master's layers are copied later, straight into their place, and
  // resized and overridden on the way.
  const boost::json::storage_ptr storage = instance.storage();
  const JsonArray* masterLayers = nullptr;
  JsonObject group(storage);
  group.reserve(symbol.size() + instance.size() + 2);
  for (const auto& kv : symbol) {
    if (auto own = instance.find(kv.key()); own != instance.end()) {
      group.emplace(kv.key(), std::move(own->value()));
    } else if (kv.key() == "layers" && kv.value().is_array()) {
      masterLayers = &kv.value().get_array();
      group.emplace(kv.key(), JsonArray(storage));
    } else {
      group.emplace(kv.key(), JsonValue(kv.value(), storage));
    }
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
  auto* layers = childLayers(instance);
  if (!layers) return;
  if (!masterLayers) {  // the instance brought layers of its own
    for (auto& child : *layers)
      if (child.is_object()) updateNode(child.get_object(), overrides, instance, ratioWidth, ratioHeight);
    return;
  }
  layers->reserve(masterLayers->size());
  for (const auto& child : *masterLayers) {
    if (!child.is_object()) {
      layers->emplace_back(child);
      continue;
    }
    auto& copy = layers->emplace_back(JsonObject(storage)).get_object();
    copyUpdatedNode(child.get_object(), copy, overrides, instance, ratioWidth, ratioHeight);
  }
}

// Stable identifiers are name-based UUIDs (version 5) of the layer's path of
// original identifiers; a path met again is told apart by the order in
// which the walk meets it.
std::string PXSymbolDetacherV2::newIdentifier(const std::string& path) {
  boost::uuids::uuid id = stableIdentifiers ? identifiers_->derive(path) : identifiers_->random();
  if (stableIdentifiers) {
    if (!identifiers_->issued.insert(id).second) {
      std::size_t& seen = identifiers_->collisions[path];
      do id = identifiers_->derive(fmt::format("{}#{}", path, ++seen));
      while (!identifiers_->issued.insert(id).second);
    }
  }
  std::string text = boost::uuids::to_string(id);
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

void PXSymbolDetacherV2::updateIdForNode(JsonObject& node) {
  std::string path;
  updateIdForNode(node, path);
}

void PXSymbolDetacherV2::updateIdForNode(JsonObject& node, std::string& path) {
  const std::size_t parentLength = path.size();
  if (std::string original = textOf(node, "do_objectID"); !original.empty()) {
    path.append("/").append(original);
    node["in_original_objectID"] = original;
    node["do_objectID"] = newIdentifier(path);
  }
  if (auto* layers = childLayers(node))
    for (auto& child : *layers)
      if (child.is_object()) updateIdForNode(child.get_object(), path);
  path.resize(parentLength);
}

// ---- Saving

void PXSymbolDetacherV2::savePages() {
  if (isCancelled()) return;
  // Pages are independent: several are serialised and written at once.
  PXParallelFor(pages.size(), [this](std::size_t i) {
    auto& page = pages[i];
    if (isCancelled()) return;
    std::string error;
    auto text = PXJsonSerialize(page.json, prettyPages, &error);
    if (!text) {
      std::size_t replaced = replaceNonFiniteNumbers(page.json);
      PXLogWarn("Replaced {} non-finite numbers in {}", replaced, page.url);
      text = PXJsonSerialize(page.json, prettyPages, &error);
    }
    if (!text) {
      PXLogError("Could not serialise page {}: {}", page.url, error);
      return;
    }
    if (!PXFileManager::writeFileAtomically(page.url, *text, &error))
      PXLogVerbose("Could not write page {}: {}", page.url, error);
  });
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
