// plexa-sketchtool as the pipeline runs it: command lines, file names,
// "Exported" lines, error lines for items it cannot draw, and safety.

#include "CliRun.h"
#include "ImageCompare.h"
#include "RenderFixtures.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

using namespace plexa;
using namespace plexa::test;

namespace {

// What the tool printed on its standard output, line by line.
struct ToolResult {
  int exitCode = -1;
  std::string text;
  std::vector<std::string> lines;
  bool has(const std::string& line) const { return std::find(lines.begin(), lines.end(), line) != lines.end(); }
  size_t errorLines() const {
    return std::count_if(lines.begin(), lines.end(), [](const auto& l) { return l.rfind("Exported ", 0) != 0; });
  }
};

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

ToolResult runTool(const std::vector<std::string>& args) {
  std::string command = quoted(PLEXA_SKETCHTOOL_PATH);
  for (const auto& arg : args) command += " " + quoted(arg);
  CliResult result = runShell("{ " + command + " 2>/dev/null; }");  // its log lines are not wanted
  ToolResult run{result.exitCode, result.output, {}};
  std::stringstream stream(result.output);
  for (std::string line; std::getline(stream, line);)
    if (!line.empty()) run.lines.push_back(line);
  return run;
}

JsonObject withFormats(JsonObject layer, JsonArray formats) {
  layer["exportOptions"].as_object()["exportFormats"] = std::move(formats);
  return layer;
}

JsonObject exportFormat(const std::string& name, double scale, int namingScheme = 0, const std::string& fileFormat = "png",
                        double absoluteSize = 0, int visibleScaleType = 0) {
  return JsonObject{{"_class", "exportFormat"},  {"name", name},         {"scale", scale},
                    {"namingScheme", namingScheme}, {"fileFormat", fileFormat}, {"absoluteSize", absoluteSize},
                    {"visibleScaleType", visibleScaleType}};
}

// Two artboards, a red and a blue square, plus layers with export presets.
class SketchToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    JsonObject red = artboard("AB-RED", "Screens/Red", frame(0, 0, 20, 10),
                              JsonArray{filledRect("R1", 0, 0, 20, 10, colorJSON(1, 0, 0))});
    JsonObject icon = withFormats(filledRect("ICON", 2, 2, 8, 4, colorJSON(0, 1, 0)),
                                  JsonArray{exportFormat("", 1), exportFormat("@2x", 2),
                                            exportFormat("res/mipmap-hdpi/", 1, 1),
                                            exportFormat("-abs", 1, 0, "png", 32, 1), exportFormat("", 1, 0, "jpg")});
    JsonObject blue = artboard("AB-BLUE", "Blue", frame(100, 0, 30, 30),
                               JsonArray{filledRect("B1", 0, 0, 30, 30, colorJSON(0, 0, 1)), icon});
    JsonObject hostile = withFormats(filledRect("HOSTILE", 0, 0, 4, 4, colorJSON(0, 0, 0)),
                                     JsonArray{exportFormat("", 1)});
    hostile["name"] = "../../escaped";
    JsonObject vector = withFormats(filledRect("VEC", 20, 20, 6, 3, colorJSON(0, 0, 0)),
                                    JsonArray{exportFormat("", 3, 0, "svg"), exportFormat("", 2, 0, "pdf"),
                                              exportFormat("", 1, 0, "tiff")});
    JsonObject huge = artboard("AB-HUGE", "Huge", frame(0, 100, 20000, 20000));
    JsonObject broken = artboard("AB-BROKEN", "Broken", frame(0, 0, 10, 10));
    broken["frame"].as_object()["height"] = "nan";
    SketchFixture fixture;
    fixture.addPage(page("P1", "Page One", JsonArray{red, blue, huge, broken}));
    fixture.addPage(page("P2", "Loose", JsonArray{filledRect("LOOSE", 10, 10, 5, 5, colorJSON(0, 0, 0)), hostile}));
    JsonObject half = withFormats(filledRect("HALF", 30.5, 20, 4, 4, colorJSON(0, 0, 0)), JsonArray{exportFormat("", 1)});
    fixture.addPage(page("P3", "Vectors", JsonArray{vector, half}));
    document = fixture.writeSketch(dir / "doc.sketch");
    output = dir / "out";
    std::filesystem::create_directories(output);
  }

  ToolResult exportArtboards(const std::string& items, const std::string& scale = "1", const std::string& format = "png",
                          const char* useID = "YES") {
    return runTool({"export", "artboards", document, "--output=" + output, "--items=" + items, "--save-for-web=YES",
                    "--scale=" + scale, "--formats=" + format, "--compression=0.7",
                    std::string("--use-id-for-name=") + useID});
  }
  ToolResult exportLayers(const std::string& items, bool useID = true) {
    return runTool({"export", "layers", document, "--output=" + output, "--items=" + items, "--save-for-web=NO",
                    "--compression=0.9", std::string("--use-id-for-name=") + (useID ? "YES" : "NO")});
  }
  std::optional<RGBAImage> image(const std::string& name) { return readPNG(output + "/" + name); }

  TempDir dir;
  std::string document, output;
};

}  // namespace

TEST_F(SketchToolTest, ArtboardsAreNamedAfterTheirIDsWithTheScale) {
  struct Case {
    const char* scale;
    const char* suffix;
    int width;
  } cases[] = {{"1", "", 20}, {"2", "@2x", 40}, {"0.5", "@0.5x", 10}};
  for (const auto& c : cases) {
    ToolResult run = exportArtboards("AB-RED,AB-BLUE", c.scale);
    EXPECT_EQ(run.exitCode, 0) << c.scale;
    ASSERT_EQ(run.lines.size(), 2u) << c.scale;
    EXPECT_EQ(run.lines[0], std::string("Exported AB-RED") + c.suffix + ".png");
    EXPECT_EQ(run.lines[1], std::string("Exported AB-BLUE") + c.suffix + ".png");
    auto red = image(std::string("AB-RED") + c.suffix + ".png");
    ASSERT_TRUE(red) << c.scale;
    EXPECT_EQ(red->width, c.width);
    EXPECT_EQ(red->pixels[0], 255);
    EXPECT_EQ(red->pixels[2], 0);
  }
}

TEST_F(SketchToolTest, UnknownAndUndrawableItemsGiveErrorLinesWhileOthersRender) {
  ToolResult run = exportArtboards("AB-RED,NO-SUCH-ID,AB-BROKEN,AB-HUGE,AB-BLUE");
  EXPECT_NE(run.exitCode, 0);
  EXPECT_TRUE(run.has("Exported AB-RED.png"));
  EXPECT_TRUE(run.has("Exported AB-BLUE.png"));
  EXPECT_EQ(run.errorLines(), 3u);
  EXPECT_FALSE(std::filesystem::exists(output + "/AB-HUGE.png"));  // 400 megapixels: refused
  EXPECT_FALSE(std::filesystem::exists(output + "/AB-BROKEN.png"));
}

TEST_F(SketchToolTest, WithoutItemsEveryBoardOrExportableLayerIsExported) {
  ToolResult boards = runTool({"export", "artboards", document, "--output=" + output, "--use-id-for-name=YES"});
  for (const char* id : {"AB-RED", "AB-BLUE"}) EXPECT_TRUE(boards.has(std::string("Exported ") + id + ".png")) << id;
  EXPECT_EQ(boards.errorLines(), 2u);  // the huge and the broken board
  ToolResult layers = runTool({"export", "layers", document, "--output=" + output, "--use-id-for-name=YES"});
  EXPECT_TRUE(layers.has("Exported ICON@2x.png"));
  EXPECT_TRUE(layers.has("Exported VEC.svg"));
  EXPECT_TRUE(layers.has("Exported HOSTILE.png"));  // named by ID, so it stays inside
}

TEST_F(SketchToolTest, JPEGArtboardsAndNamesWithSlashes) {
  ASSERT_TRUE(exportArtboards("AB-RED", "1", "jpg").has("Exported AB-RED.jpg"));
  EXPECT_EQ(readText(output + "/AB-RED.jpg").substr(0, 2), "\xFF\xD8");
  // Named after the board, whose slashes make folders.
  EXPECT_TRUE(exportArtboards("AB-RED", "1", "png", "NO").has("Exported Screens/Red.png"));
  EXPECT_TRUE(image("Screens/Red.png"));
}

TEST_F(SketchToolTest, LayersExportEveryPresetNamedAsThePipelineExpects) {
  ToolResult run = exportLayers("ICON");
  EXPECT_EQ(run.exitCode, 0);
  struct Expected {
    const char* name;
    int width, height;
  } expected[] = {{"ICON.png", 8, 4}, {"ICON@2x.png", 16, 8}, {"resmipmap-hdpiICON.png", 8, 4}, {"ICON-abs.png", 32, 16}};
  for (const auto& e : expected) {
    EXPECT_TRUE(run.has(std::string("Exported ") + e.name)) << e.name;
    auto png = image(e.name);
    ASSERT_TRUE(png) << e.name;
    EXPECT_EQ(png->width, e.width) << e.name;
    EXPECT_EQ(png->height, e.height) << e.name;
    EXPECT_EQ(png->pixels[1], 255) << e.name;  // green
  }
  EXPECT_TRUE(run.has("Exported ICON.jpg"));
  EXPECT_EQ(run.lines.size(), 5u);
}

TEST_F(SketchToolTest, VectorPresetsAreWrittenAndUnknownFormatsReported) {
  ToolResult run = exportLayers("VEC");
  EXPECT_TRUE(run.has("Exported VEC.svg"));
  EXPECT_TRUE(run.has("Exported VEC.pdf"));
  EXPECT_EQ(run.errorLines(), 1u);  // tiff
  std::string svg = readText(output + "/VEC.svg");
  EXPECT_NE(svg.find("<svg"), std::string::npos);
  EXPECT_NE(svg.find("width=\"6\""), std::string::npos) << svg.substr(0, 300);  // svg ignores the preset's scale
  EXPECT_EQ(readText(output + "/VEC.pdf").substr(0, 5), "%PDF-");
}

TEST_F(SketchToolTest, LayerImagesKeepTheLayerOnThePixelGrid) {
  ASSERT_TRUE(exportLayers("HALF").has("Exported HALF.png"));
  auto png = image("HALF.png");
  ASSERT_TRUE(png);
  EXPECT_EQ(png->width, 5);  // 30.5 … 34.5 covers five pixels
  EXPECT_NEAR(png->pixels[3], 128, 2);
  EXPECT_EQ(png->pixels[2 * 4 + 3], 255);
  EXPECT_NEAR(png->pixels[4 * 4 + 3], 128, 2);
}

TEST_F(SketchToolTest, LayerNamesNeverPlaceFilesOutsideTheOutput) {
  ToolResult run = exportLayers("HOSTILE,ICON", false);
  EXPECT_NE(run.exitCode, 0);
  EXPECT_EQ(run.errorLines(), 1u);
  EXPECT_TRUE(run.has("Exported ICON.png"));
  EXPECT_TRUE(run.has("Exported res/mipmap-hdpi/ICON.png"));
  EXPECT_FALSE(std::filesystem::exists(dir / "escaped.png"));
  EXPECT_FALSE(std::filesystem::exists(dir.path() + "/../escaped.png"));
}

TEST_F(SketchToolTest, PagesCoverTheirTopLevelLayers) {
  ToolResult run = runTool({"export", "pages", document, "--output=" + output, "--items=P2", "--scale=2", "--formats=png"});
  EXPECT_EQ(run.exitCode, 0);
  ASSERT_TRUE(run.has("Exported Loose@2x.png"));
  auto png = image("Loose@2x.png");
  ASSERT_TRUE(png);
  // LOOSE (10, 10, 5, 5) and HOSTILE (0, 0, 4, 4): 15 × 15 points.
  EXPECT_EQ(png->width, 30);
  EXPECT_EQ(png->height, 30);
  EXPECT_EQ(png->pixels[(29 * 30 + 29) * 4 + 3], 255);  // LOOSE's corner
  EXPECT_EQ(png->pixels[(15 * 30 + 2) * 4 + 3], 0);     // between the two
}

TEST_F(SketchToolTest, BadCommandLinesAndDocumentsAreRefused) {
  EXPECT_EQ(runTool({"export", "artboards", document, "--scale=zero", "--output=" + output}).exitCode, 64);
  EXPECT_EQ(runTool({"export", "sideways", document}).exitCode, 64);
  EXPECT_EQ(runTool({"frobnicate"}).exitCode, 64);
  writeText(dir / "junk.sketch", "junk");
  ToolResult junk = runTool({"export", "artboards", dir / "junk.sketch", "--output=" + output, "--items=A"});
  EXPECT_NE(junk.exitCode, 0);
  ASSERT_EQ(junk.lines.size(), 1u);
  EXPECT_NE(junk.lines[0].rfind("Exported", 0), 0u);
}

TEST_F(SketchToolTest, MetadataAndHelp) {
  ToolResult meta = runTool({"metadata", document});
  EXPECT_EQ(meta.exitCode, 0);
  auto json = PXJsonParse(meta.text);
  ASSERT_TRUE(json && json->is_object());
  ToolResult help = runTool({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  for (const char* command : {"export artboards", "export layers", "export pages", "metadata"})
    EXPECT_NE(help.text.find(command), std::string::npos) << command;
}
