// The meta exporter over small documents: whole meta files against golden
// copies, ignored and missing artboards, the upload information, hostile
// identifiers and names, and a document full of malformed layers.
//
// Set PLEXA_UPDATE_GOLDEN=1 to rewrite the golden files after a deliberate
// change of the format (then read the difference before committing it).

#include "Files.h"
#include "NSString+MPSync.h"
#include "PXMetaExporter.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace plexa {
namespace {

using test::compactJson;
using test::frame;
using test::layer;
using test::parseJson;

std::string replacingAll(std::string text, const std::string& what, const std::string& with) {
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size()))
    text.replace(at, what.size(), with);
  return text;
}

// Compares a written file with tests/golden/<name>, the output folder's
// path standing as "$OUT".
void expectGolden(const std::string& path, const std::string& outputFolder, const std::string& name) {
  std::string actual = replacingAll(test::readText(path), outputFolder, "$OUT");
  std::string goldenPath = std::string(PLEXA_SOURCE_DIR) + "/tests/golden/" + name;
  if (const char* update = std::getenv("PLEXA_UPDATE_GOLDEN"); update && std::string(update) == "1") {
    test::writeText(goldenPath, actual);
    return;
  }
  auto golden = PXFileManager::readFile(goldenPath);
  ASSERT_TRUE(golden) << "missing golden file " << goldenPath;
  EXPECT_EQ(actual, *golden) << "meta file differs from " << goldenPath;
}

JsonObject withStyle(JsonObject l, std::string_view style) {
  l["style"] = parseJson(style);
  return l;
}

JsonObject withExports(JsonObject l, std::string_view formats) {
  l["exportOptions"] = parseJson(std::string(R"({"exportFormats": )") + std::string(formats) + "}");
  return l;
}

// A small, well-formed document: one screen with every kind of layer, an
// ignored scratch board and a page of symbols.
test::SketchFixture designDocument() {
  JsonObject rectangle = layer("rectangle", "RECT-PATH", "Path", frame(0, 0, 100, 40));
  rectangle["path"] = parseJson(R"({"points": [{"cornerRadius": 6, "point": "{0, 0}"}, {"cornerRadius": 6,
      "point": "{1, 0}"}, {"cornerRadius": 6, "point": "{1, 1}"}, {"cornerRadius": 6, "point": "{0, 1}"}]})");
  JsonObject button = withStyle(layer("shapeGroup", "RECT", "Button", frame(20, 600.125, 335, 44), {rectangle}),
                                R"({"fills": [{"isEnabled": true, "fillType": 0, "color": {"red": 0.2, "green": 0.4,
      "blue": 1, "alpha": 1}}, {"isEnabled": true, "fillType": 1, "gradient": {"gradientType": 0, "from": "{0.5, 0}",
      "to": "{0.5, 1}", "stops": [{"position": 0, "color": {"red": 1, "green": 1, "blue": 1, "alpha": 1}},
      {"position": 1, "color": {"red": 0, "green": 0, "blue": 0, "alpha": 1}}]}}],
      "borders": [{"isEnabled": true, "fillType": 0, "position": 1, "thickness": 1,
      "color": {"red": 0, "green": 0, "blue": 0, "alpha": 0.2}}], "borderOptions": {"dashPattern": [2, 2]},
      "shadows": [{"isEnabled": true, "offsetX": 0, "offsetY": 2, "blurRadius": 4, "spread": 0,
      "color": {"red": 0, "green": 0, "blue": 0, "alpha": 0.5}}],
      "contextSettings": {"opacity": 0.9}})");
  JsonObject logo = withExports(layer("bitmap", "LOGO", "logo", frame(16, 12, 32.5, 32)),
                                R"([{"fileFormat": "png", "name": "@2x", "namingScheme": 0, "scale": 2},
                                    {"fileFormat": "svg", "name": "icons/", "namingScheme": 1, "scale": 1}])");
  JsonObject title = layer("text", "TITLE", "Title", frame(60, 14, 200, 28));
  title["attributedString"] = parseJson(R"({"string": "Welcome", "attributes": [{"location": 0, "length": 7,
      "attributes": {"MSAttributedStringFontAttribute": {"attributes": {"name": "NotInstalled-Bold", "size": 24}},
      "MSAttributedStringColorAttribute": {"red": 0.1, "green": 0.1, "blue": 0.1, "alpha": 1}}}]})");
  JsonObject subtitle = title;  // same face: still one typeface
  subtitle["do_objectID"] = "SUBTITLE";
  JsonObject header = layer("group", "HEADER", "Header", frame(0, 20, 375, 64), {logo, title, subtitle});
  JsonObject linePath = layer("shapePath", "LINE-PATH", "Path", frame(0, 0, 375, 1));
  linePath["path"] = parseJson(R"({"points": [{"point": "{0, 0.5}"}, {"point": "{1, 0.5}"}]})");
  JsonObject divider = withStyle(layer("shapeGroup", "LINE", "Divider", frame(0, 84, 375, 1), {linePath}),
                                 R"({"borders": [{"isEnabled": true, "fillType": 0, "position": 0, "thickness": 1,
                                     "color": {"red": 0.8, "green": 0.8, "blue": 0.8, "alpha": 1}}]})");
  JsonObject instance = layer("symbolInstance", "BADGE-1", "Badge", frame(300, 30, 48, 24));
  instance["originalObjectID"] = "BADGE-MASTER";
  JsonObject slice = withExports(layer("slice", "SLICE", "Hero", frame(0, 100, 375, 200)),
                                 R"([{"fileFormat": "jpg", "name": "", "namingScheme": 0, "scale": 1}])");
  JsonObject home = test::artboard("HOME", "Home", frame(0, 0, 375, 667), {button, header, divider, instance, slice});
  home["backgroundColor"] = parseJson(R"({"red": 1, "green": 1, "blue": 1, "alpha": 1})");
  home["layout"] = parseJson(R"({"drawHorizontal": true, "drawVertical": true, "numberOfColumns": 4,
      "columnWidth": 78.75, "gutterWidth": 12, "totalWidth": 351, "horizontalOffset": 12, "guttersOutside": false})");
  home["horizontalRulerData"] = parseJson(R"({"base": 0, "guides": [16, 359]})");
  JsonObject scratch = test::artboard("SCRATCH", "-sketchpad", frame(500, 0, 100, 100),
                                      {layer("bitmap", "SCRATCH-IMG", "img", frame(0, 0, 10, 10))});

  JsonObject badgeDot = withStyle(layer("shapeGroup", "DOT", "Dot", frame(4, 4, 40, 16),
                                        {layer("oval", "DOT-OVAL", "Oval", frame(0, 0, 40, 16))}),
                                  R"({"fills": [{"isEnabled": true, "fillType": 0,
                                      "color": {"red": 1, "green": 0.231, "blue": 0.188, "alpha": 1}}]})");
  badgeDot["resizingConstraint"] = 63;
  JsonObject master = layer("symbolMaster", "BADGE-MASTER", "Badge", frame(0, 0, 48, 24), {badgeDot});

  test::SketchFixture fixture;
  fixture.addPage(test::page("PAGE-SCREENS", "Screens", JsonArray{home, scratch}))
      .addPage(test::page("PAGE-SYMBOLS", "Symbols", JsonArray{master}));
  JsonObject document = fixture.documentJSON();
  document["assets"] = parseJson(R"({"_class": "assetCollection", "colors": [{"red": 0.2, "green": 0.4,
      "blue": 1, "alpha": 1}, {"red": 1, "green": 0, "blue": 0}]})");
  fixture.setDocument(document);
  return fixture;
}

// Every kind of malformed layer in one artboard, with non-finite numbers
// that only hand-written JSON can hold, and two masters that show each other.
test::SketchFixture malformedDocument() {
  const char* page = R"({"_class": "page", "do_objectID": "PAGE-BAD", "name": "Broken", "layers": [
    {"_class": "artboard", "do_objectID": "BAD", "name": "Broken board", "isVisible": true,
     "frame": {"x": 0, "y": 0, "width": 1e400, "height": "tall"},
     "backgroundColor": {"red": 1}, "layout": [], "grid": "big", "horizontalRulerData": {"guides": "none"},
     "layers": [
      {"_class": "bitmap", "do_objectID": "B1", "name": "numbers as text", "isVisible": true,
       "frame": {"x": "12.5", "y": "7", "width": "abc", "height": 1e400}, "rotation": 1e400,
       "style": {"contextSettings": {"opacity": "0.5"}}},
      {"_class": "bitmap", "do_objectID": "B2", "name": "no frame", "isVisible": true},
      {"_class": "shapeGroup", "do_objectID": "B3", "name": "array style", "isVisible": true,
       "frame": {"x": 0, "y": 0, "width": 1, "height": 1}, "style": [1, 2], "layers": [{"_class": "rectangle"}]},
      {"_class": "bitmap", "do_objectID": "B4", "name": "colourless", "isVisible": true,
       "frame": {"x": 1, "y": 1, "width": 1, "height": 1},
       "style": {"fills": [{"fillType": 0, "isEnabled": true, "color": {"alpha": 1}}],
                 "borders": [{"isEnabled": true, "fillType": 0, "thickness": 2, "color": {}}],
                 "shadows": [{"color": "red", "offsetX": 1e400}], "innerShadows": {"not": "an array"}}},
      {"_class": "MSUnknownThing", "do_objectID": "B5", "name": "unknown", "isVisible": true,
       "frame": {"x": 2, "y": 2, "width": 2, "height": 2}},
      "a string instead of a layer", 42, null,
      {"_class": "symbolInstance", "do_objectID": "B6", "name": "cycle", "isVisible": true,
       "originalObjectID": "MASTER-A", "frame": {"x": 10, "y": 10, "width": 20, "height": 20}},
      {"_class": "group", "do_objectID": "B7", "name": {"nested": "name"}, "isVisible": "yes",
       "layers": "not an array", "frame": {}},
      {"_class": "text", "do_objectID": "B8", "name": "broken text", "isVisible": true, "frame": {},
       "attributedString": {"string": 5, "attributes": "x"}},
      {"_class": "bitmap", "do_objectID": "B9", "name": "../../../../escape", "isVisible": true,
       "frame": {"x": 0, "y": 0, "width": 8, "height": 8},
       "exportOptions": {"exportFormats": [{"fileFormat": "png/../../../x", "name": "../../../../etc",
                                            "namingScheme": 1, "scale": "2"}, "junk"]}}
     ]},
    {"_class": "symbolMaster", "do_objectID": "MASTER-A", "name": "A", "isVisible": true,
     "frame": {"x": 0, "y": 0, "width": 20, "height": 20}, "layers": [
      {"_class": "symbolInstance", "do_objectID": "IN-A", "name": "shows B", "isVisible": true,
       "originalObjectID": "MASTER-B", "frame": {"x": 0, "y": 0, "width": 20, "height": 20}}]},
    {"_class": "symbolMaster", "do_objectID": "MASTER-B", "name": "B", "isVisible": true,
     "frame": {"x": 0, "y": 0, "width": 20, "height": 20}, "layers": [
      {"_class": "symbolInstance", "do_objectID": "IN-B", "name": "shows A", "isVisible": true,
       "originalObjectID": "MASTER-A", "frame": {"x": 0, "y": 0, "width": 20, "height": 20}}]}
  ]})";
  test::SketchFixture fixture;
  fixture.setDocument(parseJson(R"({"_class": "document", "assets": {"colors": "none"},
      "pages": [{"_class": "MSJSONFileReference", "_ref": "pages/PAGE-BAD"}]})").as_object());
  fixture.setMeta(parseJson(R"({"pagesAndArtboards": {"PAGE-BAD": {"name": "Broken", "artboards": {
      "BAD": {"name": "Broken board"}, "MASTER-A": {"name": "A"}, "MASTER-B": {"name": "B"}}}}})").as_object());
  fixture.addEntry("pages/PAGE-BAD.json", page);
  return fixture;
}

struct ExportRun {
  test::TempDir temp;
  std::string folder = temp / "unzipped";
  std::string output = temp / "out";
  std::shared_ptr<PXMetaExporter> exporter;

  explicit ExportRun(const test::SketchFixture& fixture, const std::string& sketchPath = "/designs/Design File.sketch") {
    fixture.writeFolder(folder);
    exporter = PXMetaExporter::metaExporterWithSketchFilePath(sketchPath, folder);
  }
  std::string file(const std::string& name) const { return output + "/" + name; }
  bool exists(const std::string& name) const { return PXFileManager::fileExists(file(name)); }
};

TEST(PXMetaExporterFiles, ExportsASymbolMasterLikeAnArtboard) {
  ExportRun run(designDocument());
  ASSERT_EQ(run.exporter->formattedMetaJSONFileForArtboardID("BADGE-MASTER", true, run.output),
            run.file("BADGE-MASTER.json"));
  JsonValue master = test::readJson(run.file("BADGE-MASTER.json"));
  EXPECT_EQ(master.at("pageName"), "Symbols");
  EXPECT_EQ(master.at("pageIndex"), 1);
  EXPECT_TRUE(run.exists("BADGE-MASTER-paths.json"));
}

TEST(PXMetaExporterFiles, WritesTheMetaAndPathsFilesOfAScreenReplacingEarlierFilesWhole) {
  ExportRun run(designDocument());
  test::LogCapture logs;
  ASSERT_TRUE(PXFileManager::createDirectory(run.output, true));
  const std::string stale(1 << 20, 'x');  // longer than the new files: no tail may survive
  for (const char* name : {"HOME.json", "HOME-paths.json", "__uploadInfo.json"}) test::writeText(run.file(name), stale);
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    auto path = run.exporter->formattedMetaJSONFileForArtboardID("HOME", true, run.output);
    ASSERT_EQ(path, run.file("HOME.json"));
    expectGolden(*path, run.output, "design-HOME.json");
    EXPECT_EQ(test::readJson(run.file("HOME-paths.json")), test::readJson(*path).at("__exportedImagePaths"));
    run.exporter->formattedJSONFileForSelectedArtboardIDs({"HOME"}, {"HOME"}, 1, "/designs/Design File.sketch",
                                                          run.output);
    EXPECT_EQ(test::readJson(run.file("__uploadInfo.json")).at("syncInfo").as_object().size(), 1u);
    EXPECT_EQ(*PXFileManager::contentsOfDirectory(run.output),
              (std::vector<std::string>{"HOME-paths.json", "HOME.json", "__uploadInfo.json"}))
        << "no temporary file is left behind";
  }
  EXPECT_FALSE(logs.contains("crash find"));
}

TEST(PXMetaExporterFiles, AcceptsARelativeOutputFolder) {
  ExportRun run(designDocument());
  auto previous = std::filesystem::current_path();
  std::filesystem::current_path(run.temp.path());
  auto path = run.exporter->formattedMetaJSONFileForArtboardID("HOME", true, "relative/out");
  std::filesystem::current_path(previous);
  EXPECT_EQ(path, "relative/out/HOME.json");
  EXPECT_TRUE(PXFileManager::fileExists(run.temp / "relative/out/HOME.json"));
  EXPECT_TRUE(PXFileManager::fileExists(run.temp / "relative/out/HOME-paths.json"));
}

TEST(PXMetaExporterFiles, LeavesOutIgnoredAndMissingArtboards) {
  ExportRun run(designDocument());
  test::LogCapture logs;
  EXPECT_FALSE(run.exporter->formattedMetaJSONFileForArtboardID("SCRATCH", run.output));  // excluded by default
  EXPECT_FALSE(run.exporter->formattedMetaJSONFileForArtboardID("SCRATCH", true, run.output));
  EXPECT_FALSE(run.exists("SCRATCH.json"));
  EXPECT_EQ(logs.messages().size(), 0u) << "ignoring is silent";
  EXPECT_TRUE(run.exporter->formattedMetaJSONFileForArtboardID("SCRATCH", false, run.output));
  EXPECT_TRUE(run.exists("SCRATCH.json"));
  EXPECT_TRUE(run.exists("SCRATCH-paths.json"));

  EXPECT_FALSE(run.exporter->formattedMetaJSONFileForArtboardID("NO-SUCH-BOARD", false, run.output));
  EXPECT_TRUE(logs.contains("artboardJSON 0, pageID 0"));
  EXPECT_FALSE(run.exists("NO-SUCH-BOARD.json"));
}

TEST(PXMetaExporterFiles, ResolvesMastersOnlyWhileTheExporterLives) {
  ExportRun run(designDocument());
  auto handler = run.exporter->missingLayerHandler();
  auto found = handler("BADGE-MASTER");
  ASSERT_TRUE(found);
  ASSERT_TRUE(found->artboardJSON);
  EXPECT_EQ(found->artboardJSON->at("name"), "Badge");
  EXPECT_EQ(found->pageJSON->at("name"), "Symbols");
  EXPECT_FALSE(handler("NOWHERE"));
  run.exporter.reset();
  EXPECT_FALSE(handler("HOME"));
}

// --- Upload information -------------------------------------------------------

TEST(PXMetaExporterUploadInfo, DescribesEveryArtboard) {
  auto board = [](const std::string& id, const std::string& name, std::string_view formats = "[]") {
    return withExports(test::artboard(id, name, frame(0, 0, 10, 10)), formats);
  };
  test::SketchFixture fixture;
  fixture.addPage(test::page(
      "PG", "Page",
      JsonArray{board("bc", " \t \n"), board("SLASH", "/"), board("CTRL", "Ho\x01me\tScreen\n\xE2\x80\x8B "),
                board("JPG", "Photo", R"([{"fileFormat": "png"}, {"fileFormat": "jpg"}])"),
                board("PNG", "Icon", R"([{"fileFormat": "png"}])")}));
  ExportRun run(fixture, "/x/a");
  PXFileManager::createDirectory(run.output, true);
  run.exporter->formattedJSONFileForSelectedArtboardIDs({"JPG", "bc"}, {"bc", "SLASH", "CTRL", "JPG", "PNG", "GONE"},
                                                        2.0, "/designs/a", run.output);
  JsonValue info = test::readJson(run.file("__uploadInfo.json"));
  const JsonObject& sync = info.at("syncInfo").as_object();
  ASSERT_EQ(sync.size(), 6u);
  EXPECT_EQ(compactJson(sync.at("bc")), R"({"name":"Untitled screen.png","density":"2x","hash":)"
                                        R"("900150983cd24fb0d6963f7d28e17f72","UUID":"bc","isSyncing":1,"index":0})");
  EXPECT_EQ(sync.at("SLASH").at("name"), "_.png");
  EXPECT_EQ(sync.at("CTRL").at("name"), "HomeScreen.png");
  EXPECT_EQ(sync.at("JPG").at("name"), "Photo.jpg");
  EXPECT_EQ(sync.at("PNG").at("name"), "Icon.png");
  EXPECT_EQ(sync.at("GONE").at("name"), "Untitled screen.png");
  EXPECT_EQ(sync.at("PNG").at("isSyncing"), 0);
  EXPECT_EQ(sync.at("JPG").at("index"), 3) << "counted in all IDs, not in the selection";
  EXPECT_EQ(sync.at("GONE").at("index"), 5);

  for (double scale : {0.5, 1.5}) {
    run.exporter->formattedJSONFileForSelectedArtboardIDs({}, {"PNG"}, scale, "/designs/a", run.output);
    EXPECT_EQ(test::readJson(run.file("__uploadInfo.json")).at("syncInfo").at("PNG").at("density"),
              (scale == 0.5 ? "0.5x" : "1.5x"));
  }
}

TEST(PXMetaExporterUploadInfo, SanitizesNames) {
  EXPECT_EQ(PXMetaExporter::sanitizeArtboardName(std::nullopt), "Untitled screen");
  EXPECT_EQ(PXMetaExporter::sanitizeArtboardName("\x7F" "Card\xC2\x85 / x "), "Card / x");  // DEL and NEL
  EXPECT_EQ(PXMetaExporter::sanitizeArtboardName("Über ✓"), "Über ✓");
}

// --- Hostile and malformed documents -------------------------------------------

TEST(PXMetaExporterHostile, WritesNothingOutsideTheOutputFolder) {
  test::SketchFixture fixture;
  JsonObject evil = test::artboard("../../escaped", "../../../name", frame(0, 0, 10, 10),
                                   {withExports(layer("bitmap", "IMG", "../../../../x", frame(0, 0, 1, 1)),
                                                R"([{"fileFormat": "../png", "name": "/../../", "namingScheme": 1}])")});
  JsonObject nested = test::artboard("sub/board", "Nested", frame(0, 0, 10, 10));
  JsonObject fine = test::artboard("FINE", "../../../../tmp/evil", frame(0, 0, 10, 10), evil["layers"].as_array());
  fixture.addPage(test::page("PG", "../..", JsonArray{evil, nested, fine}));
  ExportRun run(fixture);
  test::LogCapture logs;
  EXPECT_FALSE(run.exporter->formattedMetaJSONFileForArtboardID("../../escaped", false, run.output));
  EXPECT_FALSE(run.exporter->formattedMetaJSONFileForArtboardID("sub/board", false, run.output));
  EXPECT_TRUE(logs.contains("PXMetaExporter refused artboard ID ../../escaped"));
  ASSERT_TRUE(run.exporter->formattedMetaJSONFileForArtboardID("FINE", false, run.output));
  JsonValue paths = test::readJson(run.file("FINE-paths.json"));
  EXPECT_EQ(paths.at(0).at("key"), "......./png") << "names are recorded, not followed";

  std::vector<std::string> written;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(run.temp.path()))
    if (std::string file = entry.path(); entry.is_regular_file() && file.rfind(run.folder, 0) != 0)
      written.push_back(file);
  std::sort(written.begin(), written.end());
  EXPECT_EQ(written, (std::vector<std::string>{run.file("FINE-paths.json"), run.file("FINE.json")}))
      << "only the two files of the one acceptable artboard";
}

TEST(PXMetaExporterHostile, ConvertsMalformedLayersAsFarAsTheyGo) {
  ExportRun run(malformedDocument());
  test::LogCapture logs;
  auto path = run.exporter->formattedMetaJSONFileForArtboardID("BAD", false, run.output);
  ASSERT_TRUE(path);
  expectGolden(*path, run.output, "malformed-BAD.json");
  EXPECT_FALSE(logs.contains("crash find")) << "non-finite numbers must not reach the writer";
  EXPECT_EQ(logs.count("PXMetaLayerFromJSON exception: layer is not a dictionary"), 3u);
  EXPECT_TRUE(logs.contains("PXMetaLayerFromJSON exception: symbol master MASTER-A shows itself"));
  EXPECT_TRUE(logs.contains("PXMetaLayerFromJSON stack: BAD > B6 > IN-A > [0] IN-B"));

  JsonValue meta = test::readJson(*path);
  std::vector<std::string> ids;
  for (const auto& record : meta.at("layers").as_array()) ids.emplace_back(record.at("id").as_string());
  EXPECT_EQ(ids, (std::vector<std::string>{"B9", "B8", "B7", "B6", "B5", "B4", "B2", "B1"}))
      << "only the array style (nothing to show) and the non-layers are left out";
  EXPECT_TRUE(test::readJson(run.file("BAD-paths.json")).is_array());
}

}  // namespace
}  // namespace plexa
