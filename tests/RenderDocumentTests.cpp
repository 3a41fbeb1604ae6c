// Opening documents for drawing: only the pages that hold the requested
// layers are read, masters come from wherever they are (and their page can
// still be drawn afterwards), and bad pages or references cost only
// themselves.

#include "Effects.h"
#include "ImageWriter.h"
#include "RenderFixtures.h"
#include "SketchDocument.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace plexa;
using namespace plexa::render;
using namespace plexa::test;

namespace {

struct Opened {
  RenderNotes notes;
  std::unique_ptr<SketchDocument> document;
};

std::unique_ptr<Opened> openFixture(const SketchFixture& fixture, const TempDir& dir, bool asFolder = false) {
  auto opened = std::make_unique<Opened>();
  std::string path = asFolder ? fixture.writeFolder(dir / "doc") : fixture.writeSketch(dir / "doc.sketch");
  std::string error;
  opened->document = SketchDocument::open(path, opened->notes, &error);
  EXPECT_TRUE(opened->document) << error;
  return opened;
}

JsonObject board(const std::string& id, double x) {
  return artboard(id, id, frame(x, 0, 100, 100), JsonArray{filledRect(id + "-r", 0, 0, 10, 10, colorJSON(1, 0, 0))});
}

}  // namespace

TEST(RenderDocument, DrawsOnlyTheTopLevelLayerThatHoldsTheItemUntilTheWholePageIsAsked) {
  SketchFixture fixture;
  fixture.addPage(page("P1", "One", JsonArray{board("A", 0), board("B", 200)}));
  TempDir dir;
  for (bool asFolder : {false, true}) {
    auto opened = openFixture(fixture, dir, asFolder);
    auto inner = opened->document->locate("B-r");
    ASSERT_TRUE(inner) << asFolder;
    EXPECT_EQ(inner->page->layers.size(), 1u) << asFolder;
    EXPECT_EQ(inner->ancestors.size(), 1u) << asFolder;
    EXPECT_EQ(inner->page->id, "P1") << asFolder;

    const ScenePage* whole = opened->document->scenePage("P1");
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->layers.size(), 2u) << asFolder;
    // Once built, the whole page serves every later request.
    auto again = opened->document->locate("A");
    ASSERT_TRUE(again);
    EXPECT_EQ(again->page, whole) << asFolder;
    EXPECT_FALSE(opened->document->locate("missing")) << asFolder;
  }
}

// A corrupt or missing page stops only the items on it; references that
// leave the document are never followed.
TEST(RenderDocument, BadPagesAndReferencesCostOnlyThemselves) {
  SketchFixture fixture;
  fixture.addPage(page("P1", "One", JsonArray{board("A", 0)}));
  fixture.addPage(page("P2", "Two", JsonArray{board("B", 0)}));
  JsonObject document = fixture.documentJSON();
  JsonArray& pages = document["pages"].as_array();
  for (const char* ref : {"pages/BROKEN", "pages/ABSENT", "../../outside", "/etc/passwd", "pages/../../x"})
    pages.push_back(JsonObject{{"_class", "MSJSONFileReference"}, {"_ref", ref}});
  fixture.setDocument(document).addEntry("pages/BROKEN.json", "{\"layers\": [ {\"do_objectID\": \"C\"");
  TempDir dir;
  auto opened = openFixture(fixture, dir);
  EXPECT_TRUE(opened->document->locate("B"));
  EXPECT_FALSE(opened->document->locate("C"));
  auto listed = opened->document->pages();
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].id, "P1");
  EXPECT_EQ(listed[1].id, "P2");
  EXPECT_EQ(opened->document->boardIDs(), (std::vector<std::string>{"A", "B"}));
}

// The page list is read without parsing the rest of document.json: strings
// that look like structure must not mislead it, and what it cannot walk is
// parsed in full.
TEST(RenderDocument, PageListIsFoundPastAnyOtherMembers) {
  SketchFixture fixture;
  fixture.addPage(page("P1", "One", JsonArray{board("A", 0)}));
  fixture.addPage(page("P2", "Two", JsonArray{board("B", 0)}));
  const std::string pages = boost::json::serialize(fixture.documentJSON()["pages"]);
  struct Case {
    const char* what;
    std::string text;
    size_t expected;
  } cases[] = {
      {"pages first", R"({"pages": )" + pages + R"(, "x": 1})", 2},
      {"after tricky strings",
       R"({"foreignSymbols": [{"name": "a \" ] } { [ \\", "pages": []}], "n": -1.5e3,
          "t": true, "pages": )" + pages + "}",
       2},
      {"nested pages are not the document's", R"({"pages": )" + pages + R"(, "f": [{"pages": []}, {"pages": {}}]})", 2},
      {"key repeated: the last one", R"({"pages": [], "pages": )" + pages + "}", 2},
      {"not an object", "[" + pages + "]", 0},
      {"truncated", R"({"pages": )" + pages, 0},
  };
  TempDir dir;
  for (const auto& c : cases) {
    std::string path = fixture.writeFolder(dir / c.what);
    writeText(path + "/document.json", c.text);
    RenderNotes notes;
    std::string error;
    auto document = SketchDocument::open(path, notes, &error);
    ASSERT_TRUE(document) << c.what << ": " << error;
    EXPECT_EQ(document->pages().size(), c.expected) << c.what;
  }
}

// The instance's master lies on another page, which gives it up to the
// detacher; that page can still be drawn afterwards, master and all.
TEST(RenderDocument, MastersOnOtherPagesDetachAndTheirPageStaysDrawable) {
  TempDir dir;
  std::string path = writeButtonDocument(dir / "button.sketch");
  for (bool masterFirst : {false, true}) {
    RenderNotes notes;
    std::string error;
    auto document = SketchDocument::open(path, notes, &error);
    ASSERT_TRUE(document) << error;
    auto readMaster = [&] {
      auto master = document->locate("M1");
      ASSERT_TRUE(master) << masterFirst;
      EXPECT_EQ(master->node->children.size(), 1u) << masterFirst;
    };
    if (masterFirst) readMaster();
    auto board = document->locate("A1");
    ASSERT_TRUE(board);
    ASSERT_EQ(board->node->children.size(), 1u);
    const Node& instance = *board->node->children[0];
    EXPECT_TRUE(instance.isSymbolInstance) << masterFirst;
    EXPECT_EQ(instance.kind, NodeKind::Group) << masterFirst;
    ASSERT_EQ(instance.children.size(), 1u) << masterFirst;
    EXPECT_EQ(instance.children[0]->kind, NodeKind::Text) << masterFirst;
    if (!masterFirst) readMaster();
    EXPECT_EQ(document->pageIDForLayer("M1"), std::optional<std::string>("P2"));
    EXPECT_FALSE(document->pageIDForLayer("no-such-layer"));
    EXPECT_EQ(document->scenePage("no-such-page"), nullptr);
  }
}

// ---- PNG: what is written reads back as the pixels drawn.

TEST(RenderDocument, PngReadsBackAsDrawn) {
  struct Case {
    const char* what;
    int width, height;
    double r, g, b, a;
  } cases[] = {
      {"opaque", 37, 11, 0.2, 0.4, 0.6, 1},  {"half clear", 5, 3, 1, 0.5, 0, 0.5},
      {"clear", 4, 4, 0, 0, 0, 0},           {"one pixel", 1, 1, 0, 1, 0, 1},
      {"faint", 64, 2, 0.9, 0.1, 0.3, 0.02},
  };
  TempDir dir;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Canvas drawn(c.width, c.height);
    cairo_set_source_rgba(drawn.cr(), c.r, c.g, c.b, c.a);
    cairo_paint(drawn.cr());
    // A white stripe so that rows differ and both filters are used.
    cairo_set_source_rgba(drawn.cr(), 1, 1, 1, 1);
    cairo_rectangle(drawn.cr(), 0, 0, std::max(1, c.width / 3), c.height);
    cairo_fill(drawn.cr());
    auto bytes = encodePNG(drawn.surface());
    ASSERT_TRUE(bytes);
    writeText(dir / "out.png", *bytes);
    std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> read(
        cairo_image_surface_create_from_png((dir / "out.png").c_str()), cairo_surface_destroy);
    ASSERT_EQ(cairo_surface_status(read.get()), CAIRO_STATUS_SUCCESS);
    ASSERT_EQ(cairo_image_surface_get_width(read.get()), c.width);
    ASSERT_EQ(cairo_image_surface_get_height(read.get()), c.height);
    // Straight alpha and back may round a partly clear pixel by a step; opaque ones are exact.
    const int tolerance = c.a < 0.1 ? 40 : 1;
    for (int y = 0; y < c.height; ++y)
      for (int x = 0; x < c.width; ++x) {
        RGBA8 p = drawn.at(x, y);
        EXPECT_TRUE(near(pixelAt(read.get(), x, y), p, p.a == 255 ? 0 : tolerance)) << x << "," << y;
      }
  }
}

// ---- Small blurs skip flat runs; the result must not change for that.

namespace {

// The blur done the plain way: every output is the weighted sum of its
// window, rounded between the column and the row pass as the renderer does.
std::vector<double> plainBlur(const std::vector<uint8_t>& pixels, int width, int height, int channels, double sigma) {
  const int reach = static_cast<int>(std::ceil(3 * sigma));
  std::vector<double> weights;
  double total = 0;
  for (int k = -reach; k <= reach; ++k) total += weights.emplace_back(std::exp(-(k * k) / (2 * sigma * sigma)));
  for (double& w : weights) w /= total;
  auto pass = [&](const std::vector<double>& in, int dx, int dy) {
    std::vector<double> out(in.size());
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x)
        for (int c = 0; c < channels; ++c) {
          double sum = 0;
          for (int k = -reach; k <= reach; ++k)
            if (int sx = x + k * dx, sy = y + k * dy; sx >= 0 && sy >= 0 && sx < width && sy < height)
              sum += weights[k + reach] * in[(static_cast<size_t>(sy) * width + sx) * channels + c];
          out[(static_cast<size_t>(y) * width + x) * channels + c] = std::floor(sum + 0.5);
        }
    return out;
  };
  return pass(pass(std::vector<double>(pixels.begin(), pixels.end()), 0, 1), 1, 0);
}

}  // namespace

TEST(RenderDocument, SmallBlursMatchThePlainSumAcrossFlatAndEdgeRegions) {
  const int width = 40, height = 30;
  for (cairo_format_t format : {CAIRO_FORMAT_A8, CAIRO_FORMAT_ARGB32})
    for (double radius : {0.4, 1.0, 2.5, 5.8}) {
      SCOPED_TRACE(::testing::Message() << "format " << format << " radius " << radius);
      Canvas image(width, height, format);
      // Flat inside and outside, edges at the image's border and inside it.
      cairo_set_source_rgba(image.cr(), 0.2, 0.5, 0.9, 1);
      cairo_rectangle(image.cr(), 0, 0, 12, height);
      cairo_rectangle(image.cr(), 18, 6, 15, 9);
      cairo_fill(image.cr());
      cairo_set_source_rgba(image.cr(), 1, 0, 0, 0.5);
      cairo_rectangle(image.cr(), 25, 20, 15, 10);
      cairo_fill(image.cr());
      auto bytes = [&] {
        cairo_surface_flush(image.surface());
        std::vector<uint8_t> packed;
        const int rowBytes = width * (format == CAIRO_FORMAT_A8 ? 1 : 4);
        for (int y = 0; y < height; ++y) {
          const uint8_t* row = cairo_image_surface_get_data(image.surface()) + y * cairo_image_surface_get_stride(image.surface());
          packed.insert(packed.end(), row, row + rowBytes);
        }
        return packed;
      };
      const auto expected = plainBlur(bytes(), width, height, format == CAIRO_FORMAT_A8 ? 1 : 4, radius / 2);
      gaussianBlur(image.surface(), radius);
      const auto got = bytes();
      int worst = 0;
      for (size_t i = 0; i < got.size(); ++i) worst = std::max(worst, std::abs(got[i] - static_cast<int>(expected[i])));
      EXPECT_LE(worst, 1);
    }
}
