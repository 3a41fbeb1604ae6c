// Detaching every symbol of every real document in the corpus: nothing
// detachable is left, no document is refused, and derived identifiers are
// unique and trace back to masters.

#include "PXSymbolDetacherV2.h"

#include "PathString.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>

using namespace plexa;
using namespace plexa::test;

namespace {

std::string text(const JsonObject& l, const char* key) {
  return std::string(PXJsonText(l.if_contains(key)).value_or(""));
}

class CorpusDetach : public ::testing::TestWithParam<std::string> {};

}  // namespace

TEST_P(CorpusDetach, DetachesEverythingItCan) {
  const std::string& sketch = GetParam();
  TempDir dir;
  const std::string folder = dir / "doc";
  auto unzipped = PXZip::extractAll(sketch, folder);
  ASSERT_TRUE(unzipped.ok) << unzipped.error;

  auto d = PXSymbolDetacherV2::detacherWithUrl(folder);
  d->stableIdentifiers = true;
  ASSERT_TRUE(d->loadDocument());
  ASSERT_FALSE(d->pages.empty());
  d->findSymbols();
  std::set<std::string> masterLayerIDs;
  for (const auto& [symbolID, master] : *d->symbols)
    forEachLayer(master, [&](const JsonObject& l) { masterLayerIDs.insert(text(l, "do_objectID")); });

  d->detachSymbols();
  ASSERT_FALSE(d->failureReason.has_value()) << *d->failureReason;

  size_t detachedGroups = 0, keptInstances = 0;
  std::set<std::string> renewed;
  for (const auto& page : d->pages) {
    forEachLayer(page.json.get_object(), [&](const JsonObject& l) {
      if (l.contains("in_original_objectID")) {
        EXPECT_TRUE(masterLayerIDs.contains(text(l, "in_original_objectID"))) << text(l, "in_original_objectID");
        // Derived identifiers are unique within the document as well.
        EXPECT_TRUE(renewed.insert(text(l, "do_objectID")).second) << text(l, "do_objectID");
      }
      if (const auto* mark = l.if_contains("in_detachedSymbol"); mark && *mark == true) ++detachedGroups;
      if (text(l, "_class") != "symbolInstance" || !PXJsonBool(l.if_contains("isVisible")).value_or(true)) return;
      const std::string symbolID = text(l, "symbolID");
      const bool masterMissing = symbolID.empty() || !d->symbols->contains(symbolID);
      EXPECT_TRUE(masterMissing || l.contains("in_infinitNestedSymbol"))
          << "instance " << text(l, "do_objectID") << " of " << symbolID << " left attached";
      ++keptInstances;
    });
  }
  if (!d->symbols->empty()) {
    EXPECT_GT(detachedGroups, 0u);
  }
  RecordProperty("detachedGroups", static_cast<int>(detachedGroups));
  RecordProperty("keptInstances", static_cast<int>(keptInstances));
}

static std::string documentName(const ::testing::TestParamInfo<std::string>& info) {
  std::string name = PXDeletingPathExtension(PXLastPathComponent(info.param));
  for (char& c : name)
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  return name;
}

INSTANTIATE_TEST_SUITE_P(Corpus, CorpusDetach, ::testing::ValuesIn(corpusDocuments()), documentName);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(CorpusDetach);
