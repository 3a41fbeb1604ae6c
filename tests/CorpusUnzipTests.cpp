// Real documents nobody here wrote: every one must unzip, read and keep its
// values through pretty printing.

#include "PXSketchOpenFormatReader.h"
#include "PXSketchUnzipper.h"

#include "Files.h"
#include "PathString.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <set>

using namespace plexa;
using namespace plexa::test;

namespace {

// Counts from the corpus README (made with other tools): pages, artboards,
// symbol masters. meta.json lists both kinds of top-level layer.
struct Expected {
  size_t pages, artboards, masters;
};
const std::map<std::string, Expected> kReadmeCounts = {
    {"stacks-icons-s43.sketch", {1, 70, 0}},
    {"sberbank-prototype-s43.sketch", {1, 20, 56}},
    {"audio-weather-prototype-s44.sketch", {4, 6, 158}},
    {"pdm-pdua-diagram-s45.sketch", {1, 11, 0}},
    {"bulldog-dash-shadows-s46.sketch", {1, 5, 0}},
    {"infor-ids-design-kit-s48.sketch", {8, 33, 674}},
    {"githawk-app-s52.sketch", {5, 15, 238}},
    {"infor-ids-design-kit-s53.sketch", {9, 34, 696}},
    {"sketchhq-ref-prototypes-s57.sketch", {1, 2, 0}},
    {"hci-prototype-flows-s61.sketch", {3, 20, 94}},
    {"tailwindcss-kit-s70.sketch", {2, 10, 474}},
    {"noya-symbols-nocanoverride-s72.sketch", {3, 0, 8}},
    {"noya-slices-s74.sketch", {1, 1, 0}},
    {"hotosm-design-system-s101.sketch", {6, 6, 179}},
};

// Validity as the archive's own listing implies it: a folder exists once
// any entry lies in it.
bool archiveHasEverythingAReaderNeeds(const std::vector<std::string>& names) {
  auto has = [&](const std::string& part) {
    return std::any_of(names.begin(), names.end(),
                       [&](const std::string& n) { return n == part || n.rfind(part + "/", 0) == 0; });
  };
  return has("meta.json") && has("user.json") && has("document.json") && has("images") && has("previews") &&
         has("pages");
}

std::string pageIDOf(std::string_view ref) {
  std::string id(ref);
  if (id.rfind("pages/", 0) == 0) id.erase(0, 6);
  return id;
}

// The first place where two JSON values differ, or empty when they are the
// same. Whole doubles are written as integers, so numbers compare by value.
// Boost.JSON 1.81 does not round every long decimal correctly, so reading
// back our shortest form of a number can land one unit in the last place
// away from the first read (corpus: 3.552713678800502e-14). Anything further
// is a writer fault.
std::string firstDifference(const JsonValue& a, const JsonValue& b, const std::string& path = "$") {
  if (a.is_number() && b.is_number()) {
    double x = a.to_number<double>(), y = b.to_number<double>();
    return x == y || std::nextafter(x, y) == y ? "" : fmt::format("{}: {} became {}", path, x, y);
  }
  if (a.kind() != b.kind()) return path + ": kind changed";
  if (a.is_object()) {
    const auto& ao = a.get_object();
    const auto& bo = b.get_object();
    if (ao.size() != bo.size()) return path + ": member count changed";
    for (auto ai = ao.begin(), bi = bo.begin(); ai != ao.end(); ++ai, ++bi) {
      if (ai->key() != bi->key()) return path + ": key order changed at " + std::string(ai->key());
      if (auto d = firstDifference(ai->value(), bi->value(), path + "." + std::string(ai->key())); !d.empty()) return d;
    }
    return "";
  }
  if (a.is_array()) {
    const auto& aa = a.get_array();
    const auto& ba = b.get_array();
    if (aa.size() != ba.size()) return path + ": length changed";
    for (size_t i = 0; i < aa.size(); ++i)
      if (auto d = firstDifference(aa[i], ba[i], path + "[" + std::to_string(i) + "]"); !d.empty()) return d;
    return "";
  }
  return a == b ? "" : path + ": value changed";
}

}  // namespace

// One pretty-printing unzip per document: the plain extraction it starts
// with is what the corpus meta run reads as well.
TEST(CorpusUnzip, EveryDocumentUnzipsReadsAndKeepsEveryValueWhenPrettyPrinted) {
  auto documents = corpusDocuments();
  if (documents.empty()) GTEST_SKIP() << "no corpus at " << PLEXA_CORPUS_DIR;

  for (const auto& sketch : documents) {
    std::string file = PXLastPathComponent(sketch);
    SCOPED_TRACE(file);
    TempDir dir;
    auto unzipped = PXSketchUnzipper::unzip(sketch, dir.path(), true);
    ASSERT_TRUE(unzipped.success) << unzipped.output;
    auto names = PXZip::entryNames(sketch);
    ASSERT_TRUE(names);

    for (const auto& name : *names) {
      if (PXPathExtension(name) != "json") continue;
      auto original = PXJsonParse(*PXZip::readEntry(sketch, name));
      ASSERT_TRUE(original) << name;
      auto rewritten = readText(dir / name);
      EXPECT_NE(rewritten.find("\n  \""), std::string::npos) << name << " is not indented";
      auto reparsed = PXJsonParse(rewritten);
      ASSERT_TRUE(reparsed) << name;
      EXPECT_EQ(firstDifference(*original, *reparsed), "") << name;
    }

    auto reader = PXSketchOpenFormatReader::folderReaderWithUnzippedSketchFolder(dir.path());
    EXPECT_EQ(reader->isValid(), archiveHasEverythingAReaderNeeds(*names));
    auto ids = reader->artboardIDs();
    auto sorted = reader->sortedArtboardIDs();
    std::set<std::string> idSet(ids.begin(), ids.end());
    EXPECT_EQ(sorted.size(), ids.size());
    EXPECT_EQ(std::set<std::string>(sorted.begin(), sorted.end()), idSet);

    auto document = reader->documentJSON();
    ASSERT_NE(document, nullptr);
    const auto* pages = document->if_contains("pages");
    const JsonArray* refs = pages ? pages->if_array() : nullptr;
    ASSERT_NE(refs, nullptr);
    for (const auto& ref : *refs) {
      auto text = PXJsonTextFor(&ref, "_ref");
      ASSERT_TRUE(text);
      auto page = reader->pageJSONByID(pageIDOf(*text));
      ASSERT_NE(page, nullptr) << *text;
      EXPECT_TRUE(page->contains("layers") && page->at("layers").is_array()) << *text;
      EXPECT_LT(reader->pageIndexByPageID(pageIDOf(*text)), static_cast<int64_t>(refs->size()));
    }

    std::map<std::string, size_t> classes;
    for (const auto& id : sorted) {
      auto layer = reader->artboardJSONByID(id);
      ASSERT_TRUE(layer) << id;
      const auto* cls = layer->if_contains("_class");
      ++classes[cls && cls->is_string() ? std::string(cls->as_string()) : std::string("?")];
      EXPECT_TRUE(reader->pageIDByArtboardID(id));
    }
    if (auto expected = kReadmeCounts.find(file); expected != kReadmeCounts.end()) {
      EXPECT_EQ(refs->size(), expected->second.pages);
      EXPECT_EQ(classes["artboard"], expected->second.artboards);
      EXPECT_EQ(classes["symbolMaster"], expected->second.masters);
    }
  }
}
