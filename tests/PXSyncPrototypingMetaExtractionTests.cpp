#include "NSString+MPSync.h"
#include "PXSyncPrototypingMetaExtraction.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

using namespace plexa;
using namespace plexa::test;

namespace {

// A layer carrying a link where the extraction looks for it: every dot of
// the plug-in identifier is one dictionary level.
JsonObject linkLayer(const std::string& id, JsonObject f, JsonObject link) {
  link["componentType"] = "SRLink";
  JsonObject l = layer("shapePath", id, id, std::move(f));
  l["userInfo"] = JsonObject{{"com", JsonObject{{"morrow", JsonObject{{"prototype", std::move(link)}}}}}};
  return l;
}

JsonObject board(JsonArray children, double w = 375, double h = 812) {
  // The artboard's own page position must not move its hotspots.
  return artboard("AB", "Board", frame(500, 300, w, h), std::move(children));
}

JsonArray extract(JsonObject artboardJson, double scale = 1) {
  PXSyncPrototypingMetaExtraction extraction(std::move(artboardJson), scale, "/docs/My File.sketch");
  return extraction.extract();
}

JsonObject only(const JsonArray& records) {
  EXPECT_EQ(records.size(), 1u);
  return records.empty() ? JsonObject() : records[0].as_object();
}

std::vector<double> rectOf(const JsonValue& record) {
  std::vector<double> r;
  for (const char* key : {"x", "y", "width", "height"}) r.push_back(record.at(key).to_number<double>());
  return r;
}

const JsonObject& metaData(const JsonObject& record) { return record.at("metaData").as_object(); }

class PageMap : public PXSyncPrototypingMetaExtractionDelegate {
 public:
  std::map<std::string, std::string> pages;
  std::vector<std::string> asked;
  std::optional<bool> prototypingMetaExtraction(const PXSyncPrototypingMetaExtraction&,
                                                const std::optional<std::string>& artboardID,
                                                const std::optional<std::string>& targetID) override {
    asked.push_back(targetID.value_or("(absent)"));
    if (!artboardID || !targetID || !pages.count(*artboardID) || !pages.count(*targetID)) return false;
    return pages[*artboardID] == pages[*targetID];
  }
};

class SilentDelegate : public PXSyncPrototypingMetaExtractionDelegate {};

}  // namespace

TEST(PrototypeHotspotRectangles, ScaledRoundedClippedAndPlacedByAncestors) {
  auto scaled = extract(board({linkLayer("L", frame(10.25, 3.5, 20.5, 7.25), {})}), 2);
  EXPECT_EQ(rectOf(only(scaled)), (std::vector<double>{21, 7, 41, 15}));
  EXPECT_TRUE(only(scaled).at("x").is_double());
  // Each value rounds on its own; rounding the edges would give a width of 2.
  auto small = extract(board({linkLayer("S", frame(0.4, 0.4, 1.2, 1.2), {})}));
  EXPECT_EQ(rectOf(only(small)), (std::vector<double>{0, 0, 1, 1}));

  auto clipped = extract(board({linkLayer("half", frame(-50, 800, 100, 40), {}),
                                linkLayer("out", frame(400, 10, 20, 20), {}),
                                linkLayer("below", frame(10, 900, 20, 20), {})}));
  EXPECT_EQ(rectOf(only(clipped)), (std::vector<double>{0, 800, 50, 12}));

  JsonObject inner = layer("group", "G2", "inner", frame(5, 7, 100, 100),
                           {linkLayer("deep", frame(1, 2, 10, 10), {})});
  JsonObject outerLink = linkLayer("outer", frame(100, 200, 50, 50), {{"linkType", 5}});
  outerLink["layers"] = JsonArray{inner};
  auto nested = extract(board({outerLink}));
  ASSERT_EQ(nested.size(), 2u);
  EXPECT_EQ(rectOf(nested[0]), (std::vector<double>{106, 209, 10, 10}));  // children before the group
  EXPECT_EQ(rectOf(nested[1]), (std::vector<double>{100, 200, 50, 50}));
  EXPECT_EQ(nested[1].at("targetTypeID"), JsonValue(2));
}

TEST(PrototypeHotspotRecords, FieldsPerLinkTypeKeepIntegersAndBooleansApart) {
  auto screen = only(extract(board({linkLayer("s", frame(0, 0, 10, 10),
      {{"linkType", 0}, {"targetArtboardID", "T"}, {"gesture", 7}, {"transition", 4},
       {"maintainScrollPositionAfterGesture", true}, {"stayOnTargetScreen", true}})})));
  EXPECT_EQ(screen.at("targetScreenHash"), JsonValue(md5_mps("My File.sketchT")));
  EXPECT_EQ(screen.at("eventTypeID"), JsonValue(1));  // gestures 0 and 7 both mean a click
  EXPECT_EQ(screen.at("transitionTypeID"), JsonValue(11));
  EXPECT_EQ(screen.at("isScrollTo"), JsonValue(true));
  EXPECT_EQ(metaData(screen).at("stayOnScreen"), JsonValue(true));

  auto overlay = only(extract(board({linkLayer("o", frame(0, 0, 10, 10),
      {{"linkType", 1}, {"targetArtboardID", "T"}, {"overlayPosition", 5}, {"overlayTransition", 3},
       {"backgroundOpacity", 40}, {"closeOnClickOutside", false}})})));
  EXPECT_EQ(compactJson(metaData(overlay)),
            R"({"overlay":{"bgOpacity":40,"closeOnOutsideClick":false,"isFixedPosition":true,"positionID":8,)"
            R"("positionOffset":{"x":0,"y":0},"reverseTransitionOnClose":true,"transitionID":18},"stayOnScreen":false})");
  EXPECT_EQ(overlay.at("targetTypeID"), JsonValue(7));

  auto scroll = only(extract(board({linkLayer("sc", frame(0, 0, 10, 10),
      {{"linkType", 2}, {"scrollToPosition", 125}, {"smoothScrolling", true}})}), 1.5));
  EXPECT_EQ(metaData(scroll).at("scrollOffset"), JsonValue(187));
  EXPECT_TRUE(metaData(scroll).at("scrollOffset").is_int64());
  EXPECT_EQ(metaData(scroll).at("isSmothScroll"), JsonValue(true));

  auto url = extract(board({linkLayer("u1", frame(0, 0, 5, 5), {{"linkType", 3}, {"externalURL", "https://x.io"}}),
                            linkLayer("u2", frame(0, 0, 5, 5), {{"linkType", 3}, {"externalURL", 12}})}));
  ASSERT_EQ(url.size(), 2u);
  EXPECT_EQ(metaData(url[0].as_object()).at("isOpenInNewWindow"), JsonValue(false));
  EXPECT_FALSE(metaData(url[1].as_object()).contains("url"));  // not a string: no URL at all

  LogCapture log;
  EXPECT_TRUE(extract(board({linkLayer("r", frame(0, 0, 5, 5), {{"linkType", 4}, {"targetArtboardID", "T"}})}))
                  .empty());
  EXPECT_TRUE(log.contains("Timed rederect option isn't supported yet!"));
}

TEST(PrototypeHotspotRecords, UndefinedLinkTypesUseTheGenericShape) {
  // The server expects this shape as it stands: "isFixedPosition" is an integer, the
  // transition keys sit in metaData, and the rectangle replaces its keys in place.
  auto generic = only(extract(board({linkLayer("g", frame(3, 4, 5, 6), {{"linkType", 9}, {"transition", 99}})})));
  EXPECT_EQ(compactJson(generic),
            R"({"eventTypeID":1,"targetTypeID":1,"x":3,"y":4,"width":5,"height":6,"isBottomAligned":false,)"
            R"("isScrollTo":false,"targetScreenHash":"","transitionTypeID":-1,"metaData":{"stayOnScreen":false,)"
            R"("scrollOffset":0,"isSmothScroll":false,"url":"","isOpenInNewWindow":false,"overlay":{"bgOpacity":0,)"
            R"("closeOnOutsideClick":false,"isFixedPosition":0,"positionID":2,"positionOffset":{"x":0,"y":0}},)"
            R"("reverseTransitionOnClose":true,"transitionID":1}})");

  using X = PXSyncPrototypingMetaExtraction;
  EXPECT_EQ(X::linkTypeToBackendRepresentation(4), -1000);
  EXPECT_EQ(X::linkTypeToBackendRepresentation(6), -1);
  EXPECT_EQ(X::linkGestureToBackendRepresentation(8), -1);
  EXPECT_EQ(X::linkTransitionTypeToBackendRepresentation(12), 13);
  EXPECT_EQ(X::linkOverlayTransitionTypeToBackendRepresentation(17), 13);
  EXPECT_EQ(X::linkOverlayPositionToBackendRepresentation(UINT64_MAX), -1);
}

TEST(PrototypeHotspotLinks, OnlyDottedUserInfoLinksCountAndThePageCheckDecides) {
  JsonObject flat = layer("shapePath", "flat", "flat", frame(0, 0, 5, 5));
  flat["userInfo"] = JsonObject{{"com.morrow.prototype", JsonObject{{"componentType", "SRLink"}}}};
  JsonObject flow = layer("shapePath", "flow", "flow", frame(0, 0, 5, 5));
  flow["flow"] = JsonObject{{"_class", "MSImmutableFlowConnection"}, {"destinationArtboardID", "T"}};
  JsonObject notLink = linkLayer("n", frame(0, 0, 5, 5), {});
  notLink["userInfo"].as_object()["com"].as_object()["morrow"].as_object()["prototype"].as_object()["componentType"] =
      "SRButton";
  EXPECT_TRUE(extract(board({flat, flow, notLink})).empty());

  JsonObject doc = board({linkLayer("same", frame(0, 0, 5, 5), {{"targetArtboardID", "AB2"}}),
                          linkLayer("other", frame(0, 0, 5, 5), {{"linkType", 1}, {"targetArtboardID", "C"}}),
                          linkLayer("lost", frame(0, 0, 5, 5), {{"targetArtboardID", "nowhere"}}),
                          linkLayer("back", frame(0, 0, 5, 5), {{"linkType", 5}})});
  auto pages = std::make_shared<PageMap>();
  pages->pages = {{"AB", "P1"}, {"AB2", "P1"}, {"C", "P2"}};
  PXSyncPrototypingMetaExtraction checked(doc, 1, "f.sketch");
  checked.delegate = pages;
  auto kept = checked.extract();
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0].at("targetTypeID"), JsonValue(1));
  EXPECT_EQ(kept[1].at("targetTypeID"), JsonValue(2));
  EXPECT_EQ(pages->asked, (std::vector<std::string>{"AB2", "C", "nowhere"}));  // back links are not asked

  PXSyncPrototypingMetaExtraction unchecked(doc, 1, "f.sketch");
  EXPECT_EQ(unchecked.extract().size(), 4u);
  auto silent = std::make_shared<SilentDelegate>();  // answers nothing: links kept
  unchecked.delegate = silent;
  EXPECT_EQ(unchecked.extract().size(), 4u);
}

TEST(PrototypeHotspotBadInput, WrongTypesAndBrokenFramesNeverBreakTheWalk) {
  JsonObject noFrame = linkLayer("noFrame", frame(0, 0, 0, 0), {{"linkType", "2"}, {"scrollToPosition", "abc"}});
  noFrame.erase("frame");
  JsonObject stringFrame = linkLayer("strings", JsonObject{{"x", "12"}, {"y", true}, {"width", "8px"}, {"height", -4}},
                                     {{"linkType", -3}, {"gesture", 1e300}});
  JsonObject huge = linkLayer("huge", frame(1e39, 0, 10, 10), {});
  JsonObject hugeScroll = linkLayer("hugeScroll", frame(0, 0, 1, 1), {{"linkType", 2}, {"scrollToPosition", 1e30}});
  JsonObject group = layer("group", "G", "G", JsonObject{{"x", "bad"}}, {});
  group["layers"] = JsonArray{42, "text", nullptr, linkLayer("inGroup", frame(1, 1, 1, 1), {})};
  JsonObject oddLayers = layer("group", "odd", "odd", frame(0, 0, 1, 1));
  oddLayers["layers"] = JsonObject{{"not", "an array"}};

  LogCapture log;
  auto records = extract(board({noFrame, stringFrame, huge, hugeScroll, group, oddLayers}), 3);
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(rectOf(records[0]), (std::vector<double>{0, 0, 0, 0}));
  EXPECT_EQ(metaData(records[0].as_object()).at("scrollOffset"), JsonValue(0));
  EXPECT_EQ(rectOf(records[1]), (std::vector<double>{36, 0, 24, 3}));  // "y" true is 1; height -4 reaches up past the top
  EXPECT_EQ(records[1].at("eventTypeID"), JsonValue(-1));
  EXPECT_EQ(records[1].at("targetScreenHash"), JsonValue(""));  // undefined type: generic shape
  EXPECT_EQ(metaData(records[2].as_object()).at("scrollOffset"), JsonValue(INT64_MAX));
  EXPECT_EQ(rectOf(records[3]), (std::vector<double>{3, 3, 3, 3}));
  EXPECT_TRUE(log.contains("skipped the link of layer huge"));

  EXPECT_TRUE(extract(board({linkLayer("nan", frame(0, 0, 10, 10), {})}), std::nan("")).empty());
  EXPECT_TRUE(PXJsonSerialize(JsonValue(records), true).has_value());  // nothing non-finite was written
  auto zeroBoard = extract(board({linkLayer("z", frame(1, 1, 5, 5), {})}, 0, 0));
  EXPECT_TRUE(zeroBoard.empty());
}

TEST(PrototypeHotspotLinks, ASharedArtboardIsReadInPlaceAndKeptAlive) {
  // A page as a reader holds it: the extraction gets the artboard inside it.
  auto page = std::make_shared<JsonObject>(JsonObject{
      {"layers", JsonArray{board({linkLayer("L", frame(10, 20, 30, 40), {{"linkType", 5}})})}}});
  const JsonObject& layerInPage = page->at("layers").as_array()[0].as_object();
  std::shared_ptr<const JsonObject> shared(std::shared_ptr<const JsonObject>(page), &layerInPage);
  PXSyncPrototypingMetaExtraction extraction(shared, 2, "/docs/My File.sketch");
  EXPECT_EQ(extraction.artboard.get(), &layerInPage) << "the artboard is not copied";

  const JsonObject& linked = layerInPage.at("layers").as_array()[0].as_object();
  const JsonObject* link = PXSyncPrototypingMetaExtraction::metaForLayer(linked);
  const JsonValue& stored = linked.at("userInfo").at("com").at("morrow").at("prototype");
  EXPECT_EQ(link, &stored.as_object()) << "the link dictionary is the layer's own, not a copy";

  page.reset();
  shared.reset();  // the extraction alone now keeps the page
  auto record = only(extraction.extract());
  EXPECT_EQ(rectOf(record), (std::vector<double>{20, 40, 60, 80}));
  EXPECT_EQ(record.at("targetScreenHash"), JsonValue(md5_mps("My File.sketchAB")));
  EXPECT_EQ(extraction.extract(), extract(board({linkLayer("L", frame(10, 20, 30, 40), {{"linkType", 5}})}), 2))
      << "in place or copied, the records are the same";
}
