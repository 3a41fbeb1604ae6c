// The README's main job: the shipped sample extracted with no flags on a
// machine without Sketch renders real images through the bundled renderer;
// and every real document of the corpus goes through the whole program.

#include "CliRun.h"
#include "Files.h"
#include "ImageCompare.h"
#include "Json.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>

using namespace plexa;
using namespace plexa::test;

namespace {

const std::string kSample = PLEXA_SOURCE_DIR "/samples/PlexaSample.sketch";

// Artboard and symbol master ID → frame size, from the document itself.
std::map<std::string, std::pair<double, double>> boardSizes() {
  std::map<std::string, std::pair<double, double>> sizes;
  for (const auto& name : PXZip::entryNames(kSample).value_or(std::vector<std::string>())) {
    if (name.rfind("pages/", 0) != 0) continue;
    auto page = PXJsonParse(PXZip::readEntry(kSample, name).value_or(""));
    const auto* layers = page ? PXJsonArrayFor(&*page, "layers") : nullptr;
    for (const auto& layer : layers ? *layers : JsonArray()) {
      const JsonValue* frame = PXJsonFind(&layer, "frame");
      sizes[std::string(PXJsonTextFor(&layer, "do_objectID").value_or(""))] = {
          PXJsonDoubleFor(frame, "width").value_or(0), PXJsonDoubleFor(frame, "height").value_or(0)};
    }
  }
  return sizes;
}

std::string head(const std::string& path, size_t bytes) { return readText(path).substr(0, bytes); }

}  // namespace

TEST(CliSample, ExtractsRealImagesAndAssetsWithoutSketch) {
  TempDir dir;
  std::string out = dir / "out";
  auto result = runCli({kSample, "-o", out, "--progress", "none"}, {{"sketchToolPath", ""}});
  ASSERT_EQ(result.exitCode, 0) << result.output;
  EXPECT_FALSE(contains(result.output, "sketchtool")) << result.output;

  auto sizes = boardSizes();
  ASSERT_EQ(sizes.size(), 4u);
  for (const auto& [id, size] : sizes) {
    std::string png = out + "/" + id + ".png";
    if (auto image = readPNG(png)) {
      EXPECT_EQ(image->width, int(size.first)) << id;
      EXPECT_EQ(image->height, int(size.second)) << id;
      // Drawn, not blank: some pixel is opaque.
      bool inked = false;
      for (size_t i = 3; i < image->pixels.size() && !inked; i += 4) inked = image->pixels[i] == 255;
      EXPECT_TRUE(inked) << id;
    } else {
      EXPECT_EQ(head(out + "/" + id + ".jpg", 2), "\xFF\xD8") << id << " has neither a PNG nor a JPEG image";
    }
  }
  // Its prototype links become hotspots: a screen link and a URL on Home.
  auto home = readJson(out + "/5E0B1A3C-1111-4A2B-9C3D-4E5F60718201-hotspots.json");
  EXPECT_EQ(home.is_array() ? home.as_array().size() : 0u, 2u);

  // The two exportable layers: an icon at 1× and 2× and as SVG, and a photo as JPEG.
  std::string icons = out + "/5E0B1A3C-1111-4A2B-9C3D-4E5F60718201/Screens/Home/Card/icons/";
  auto once = readPNG(icons + "Trip Icon.png"), twice = readPNG(icons + "Trip Icon@2x.png");
  ASSERT_TRUE(once && twice);
  EXPECT_EQ(twice->width, 2 * once->width);
  EXPECT_EQ(twice->height, 2 * once->height);
  EXPECT_NE(readText(icons + "Trip Icon.svg").find("<svg"), std::string::npos);
  EXPECT_EQ(head(out + "/5E0B1A3C-2222-4A2B-9C3D-4E5F60718202/Screens/Details/Photo.jpg", 2), "\xFF\xD8");
}

TEST(CliSample, ShippedSampleIsWhatTheGeneratorMakes) {
  TempDir dir;
  std::string fresh = makeSample(dir.path());
  auto names = PXZip::entryNames(fresh);
  ASSERT_TRUE(names);
  EXPECT_EQ(PXZip::entryNames(kSample), names);
  for (const auto& name : *names)
    EXPECT_EQ(PXZip::readEntry(kSample, name), PXZip::readEntry(fresh, name)) << name << ": regenerate the sample";
}

// What only the whole run shows on real documents: every stage copes, each
// listed artboard gets its image, and every written path exists.
TEST(CliCorpus, EveryDocumentExtractsWithAnImagePerArtboard) {
  auto documents = corpusDocuments();
  if (documents.empty()) GTEST_SKIP() << "corpus folder not present: " << PLEXA_CORPUS_DIR;
  for (const auto& document : documents) {
    SCOPED_TRACE(document);
    TempDir dir;
    std::string out = dir / "out";
    auto result = runCli({document, "-o", out, "--progress", "none", "--sketchtool", fakeSketchtoolPath()});
    EXPECT_EQ(result.exitCode, 0) << result.output.substr(0, 2000);
    std::istringstream listed(runCli({document, "--list-artboards"}).output);
    std::set<std::string> artboards;
    for (std::string line; std::getline(listed, line);) artboards.insert(line.substr(0, line.find('\t')));
    for (const auto& id : artboards) {
      SCOPED_TRACE(id);
      EXPECT_TRUE(PXFileManager::fileExists(out + "/" + id + ".png") || PXFileManager::fileExists(out + "/" + id + ".jpg"));
      if (!PXFileManager::fileExists(out + "/" + id + "-paths.json")) continue;
      JsonValue paths = readJson(out + "/" + id + "-paths.json");
      for (const auto& record : paths.as_array())
        EXPECT_TRUE(PXFileManager::fileExists(std::string(PXJsonTextFor(&record, "fullPath").value_or(""))))
            << compactJson(record);
    }
  }
}
