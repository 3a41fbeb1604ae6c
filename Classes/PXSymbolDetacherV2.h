#pragma once
// Detaches the symbol instances of an unzipped Sketch document by rewriting
// its JSON: every instance becomes a group holding its own copy of the
// master's layers, resized to the instance, with the instance's overrides
// applied. Changed pages are written back and the folder can be zipped into
// a new .sketch file.

#include "AttributedString.h"
#include "Json.h"
#include "KeyedArchive.h"
#include "MPSGeometry.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace plexa {

class PXSymbolDetacherV2 {
 public:
  // (index, total) of the step in progress.
  using Progress = std::function<void(std::size_t index, std::size_t total)>;
  // symbolID → a master as found on disk. A master is read where it lies in
  // the document, not copied: the walk copies it only when it is about to
  // change it while something may still need the original.
  class SymbolMap {
   public:
    class const_iterator {
     public:
      using Base = std::map<std::string, const JsonObject*, std::less<>>::const_iterator;
      using value_type = std::pair<const std::string&, const JsonObject&>;
      using reference = value_type;
      using pointer = void;
      using difference_type = std::ptrdiff_t;
      using iterator_category = std::forward_iterator_tag;
      const_iterator() = default;
      explicit const_iterator(Base it) : it_(it) {}
      value_type operator*() const { return {it_->first, *it_->second}; }
      const_iterator& operator++() {
        ++it_;
        return *this;
      }
      const_iterator operator++(int) {
        auto before = *this;
        ++it_;
        return before;
      }
      bool operator==(const const_iterator&) const = default;

     private:
      Base it_;
    };

    SymbolMap() = default;
    SymbolMap(SymbolMap&&) = default;
    SymbolMap& operator=(SymbolMap&&) = default;
    SymbolMap(const SymbolMap&) = delete;
    SymbolMap& operator=(const SymbolMap&) = delete;

    bool empty() const { return masters_.empty(); }
    std::size_t size() const { return masters_.size(); }
    bool contains(std::string_view symbolID) const { return masters_.find(symbolID) != masters_.end(); }
    // Throws std::out_of_range when absent.
    const JsonObject& at(std::string_view symbolID) const;
    // nullptr when absent.
    const JsonObject* find(std::string_view symbolID) const;
    const_iterator begin() const { return const_iterator(masters_.begin()); }
    const_iterator end() const { return const_iterator(masters_.end()); }

    // The master lying at `master`, which must stay where it is while the
    // map reads it.
    void refer(const std::string& symbolID, const JsonObject& master);
    // A master of the map's own.
    void insert_or_assign(const std::string& symbolID, JsonObject master);
    // Whether a master of the map lies at `node` (and not a copy of it).
    bool liesAt(const JsonObject& node) const { return lyingAt_.contains(&node); }
    // The master lying at `node` is copied into `storage` and read from the
    // copy from now on.
    void keepCopyOf(const JsonObject& node, const boost::json::storage_ptr& storage);
    // The master lying at `node` is read there from now on, even once the
    // walk has changed it: nothing needs the original any more.
    void letGo(const JsonObject& node) { lyingAt_.erase(&node); }

   private:
    std::map<std::string, const JsonObject*, std::less<>> masters_;
    std::unordered_map<const JsonObject*, std::string> lyingAt_;
    std::deque<JsonObject> owned_;
  };

  struct Page {
    std::string url;  // the page file, inside the working folder
    JsonValue json;   // always holds an object
    // The arena `json` lives in when its nodes do not count it (pages as
    // loaded): whoever takes `json` over takes this too.
    std::shared_ptr<void> arena;
  };

  static std::shared_ptr<PXSymbolDetacherV2> detacherWithUrl(const std::string& workingUrl);
  explicit PXSymbolDetacherV2(std::string workingUrl);
  ~PXSymbolDetacherV2();
  PXSymbolDetacherV2(const PXSymbolDetacherV2&) = delete;
  PXSymbolDetacherV2& operator=(const PXSymbolDetacherV2&) = delete;

  // The unzipped document folder; empty means none.
  std::string workingUrl;
  // document.json; absent until loaded or when it is not a JSON object.
  std::optional<JsonObject> document;
  // The pages of the document, in the document's order.
  std::vector<Page> pages;
  // Absent until findSymbols has run. While pages are detached one by one
  // (detachSymbolsForNode) masters read as found on disk; after
  // detachSymbols, a master that nothing needed any more reads as detached
  // on its page.
  std::optional<SymbolMap> symbols;
  // Pages in memory differ from the files.
  bool isDirty = true;
  // Pages are saved indented; compact when only a program reads them.
  bool prettyPages = true;

  // Guards against hostile documents: instances in a chain of distinct
  // symbols nested deeper than this stay as they are (logged); a document
  // whose detaching would copy more than this many layers is refused before
  // they are copied, and the walk stops (see failureReason).
  std::size_t maxNestingDepth = 128;
  std::size_t maxCopiedLayers = 1'000'000;  // about 1.5 GB of layers
  // Copied layers get identifiers derived from their original identifiers
  // and the instances that led to them, unique within the document, so that
  // detaching the same document twice writes the same pages. Otherwise they
  // are random, unique across documents and runs.
  bool stableIdentifiers = false;
  // Why the last detachSymbols refused the document; absent when it did not.
  std::optional<std::string> failureReason;

  // Artboards whose contents are detached; empty means all.
  void setDetachingArtboardIds(std::set<std::string> artboardIds);
  const std::set<std::string>& detachingArtboardIds() const { return detachingArtboardIds_; }

  // Natural text alignment follows the host's user-interface direction,
  // which is process-wide; left to right unless the host says otherwise.
  static void setUserInterfaceRightToLeft(bool rightToLeft);
  static bool userInterfaceRightToLeft();

  // ---- Loading, collecting and detaching

  bool loadDocument(const Progress& progress = {});
  void findSymbols(const Progress& progress = {});
  // Masters are referred to where they lie: `node` must outlive `found`.
  void findSymbolsInNode(const JsonObject& node, SymbolMap& found) const;
  void detachSymbols(const Progress& progress = {});
  void detachSymbolsForNode(JsonObject& node, std::vector<std::string>& detachedSymbols);
  void detachInstance(JsonObject& instance, const JsonObject& symbol);
  void updateIdForNode(JsonObject& node);

  // ---- Saving

  void savePages();
  // Saves the pages when dirty, then zips the working folder into
  // `sketchFilePath`. False only when the working folder is missing.
  bool saveToUrl(const std::string& sketchFilePath);
  // The folder's contents at the root of a new archive; returns what a zip
  // tool would print (a summary, or the reason it failed).
  static std::string zipFolderAtPath(const std::string& folderPath, const std::string& destinationPath);
  static JsonObject deepCopyDictionary(const JsonObject& dictionary);

  void cancel();
  bool isCancelled() const { return cancelled_.load(); }

  // ---- Overrides and resizing

  JsonObject nodeOverrides(const JsonObject& instance) const;
  void updateNode(JsonObject& node, const JsonObject& overrides, const JsonObject& parent, double ratioWidth,
                  double ratioHeight);
  // Resizes one axis of `node` inside its already resized `parent`; returns
  // the node's own ratio on that axis, for its children.
  double stretchNode(JsonObject& node, const JsonObject& parent, bool vertical, unsigned resizing, double ratio);
  void overrideNode(JsonObject& node, const JsonValue& override);
  bool overrideTextNode(JsonObject& node, std::string_view text);
  // Throws when the text has no attributes to measure with or cannot be laid out.
  void fitTextToNode(JsonObject& node, const PXAttributedString& attrStr);
  // nullptr: no paragraph style (left).
  static uint64_t alignmentFromParagraph(const PXParagraphStyle* paragraph);
  bool overrideImageNode(JsonObject& node, const JsonObject& override);
  bool overrideSymbolIdNode(JsonObject& node, const std::string& symbolID);
  static double fixNanValue(double value);
  static MPSSize fixNanSize(MPSSize size);
  static MPSRect fixNanRect(MPSRect rect);
  static std::optional<PXUnarchivedObject> unarchiveBase64String(const std::optional<std::string>& base64);

  // ---- Debugging aids

  const JsonObject* searchForNodeWithQuery(const JsonObject& query);
  static const JsonObject* searchNode(const JsonObject& node, const JsonObject& query);
  const JsonObject* searchForSymbolWithQuery(const JsonObject& query);
  const JsonObject* searchForDetachedSymbol(const std::string& name);
  // Logs (and returns) the path to every dictionary whose `key` holds `value`.
  std::vector<std::string> printStackForNode(const JsonValue& node, std::string_view key, const JsonValue& value);
  void printStackForNode(const JsonValue& node, std::string_view key, const JsonValue& value,
                         std::vector<std::string>& path, std::vector<std::string>& found);

 private:
  struct IdentifierSource;

  // `path`: the original identifiers from the outermost detached instance
  // down to the node's parent (stable identifiers only).
  void updateIdForNode(JsonObject& node, std::string& path);
  std::string newIdentifier(const std::string& path);
  void copyUpdatedNode(const JsonObject& source, JsonObject& node, const JsonObject& overrides,
                       const JsonObject& parent, double ratioWidth, double ratioHeight);
  std::optional<std::string> pagePathForRef(std::string_view ref) const;
  bool mayDetachMore(const JsonObject& instance, const std::string& symbolID,
                     const std::vector<std::string>& detachedSymbols);
  // Layers the walk would copy below a page's node, counted without copying.
  std::size_t copiesBelow(const JsonObject& node);
  // Layers that detaching one instance of the symbol copies, nested
  // instances included; saturating, memoised per symbol for the run.
  std::size_t expansionOf(const std::string& symbolID, std::vector<std::string>& symbolStack);
  std::size_t expansionOfLayers(const JsonObject& node, std::vector<std::string>& symbolStack);
  void refuse(std::size_t copies);
  // The masters lying on the pages, in the walk's order; empty when one lies
  // inside an instance, where walking it on its own would differ.
  std::vector<JsonObject*> mastersOnPages();
  // Masters walked after every master that copies them, so that no master
  // is copied before it changes unless symbols nest in a cycle.
  void detachMastersInOrder(std::vector<JsonObject*> masters);
  // Masters whose copies copy `master`: those its layers instantiate, swap
  // in or hold.
  std::unordered_set<const JsonObject*> mastersUsedBy(const JsonObject& master,
                                                      const std::unordered_set<const JsonObject*>& onPages) const;
  void renewIdentifiersBelow(JsonObject& node);
  // Every page's own layers (masters wait for their turn when they do).
  void walkPages(const Progress& progress);
  bool stopped() const { return isCancelled() || refused_.load(); }

  std::set<std::string> detachingArtboardIds_;
  std::atomic<bool> cancelled_{false};
  std::unique_ptr<IdentifierSource> identifiers_;
  std::atomic<std::size_t> copiedLayers_{0};
  std::atomic<bool> refused_{false};
  std::mutex walkLock_;  // the walk's shared records, while pages are walked at once
  std::map<std::string, std::size_t> expansions_;
  boost::json::storage_ptr symbolStorage_;
  // During detachSymbols: masters on pages are left for their own turn, and
  // identifiers are renewed at the end below these outermost instances.
  bool mastersInOrder_ = false;
  std::unordered_set<const JsonObject*> outermost_;
  std::atomic<bool> limitWarned_{false};
};

}  // namespace plexa
