// The README's main job: the shipped sample extracted with no flags on a
// machine without Sketch renders real images through the bundled renderer.

#include "CliRun.h"
#include "ImageCompare.h"
#include "Json.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <map>

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
  size_t images = 0;
  for (const auto& [id, size] : sizes) {
    std::string png = out + "/" + id + ".png";
    if (auto image = readPNG(png)) {
      EXPECT_EQ(image->width, int(size.first)) << id;
      EXPECT_EQ(image->height, int(size.second)) << id;
      // Drawn, not blank: some pixel is opaque.
      bool inked = false;
      for (size_t i = 3; i < image->pixels.size() && !inked; i += 4) inked = image->pixels[i] == 255;
      EXPECT_TRUE(inked) << id;
      ++images;
    } else {
      EXPECT_EQ(head(out + "/" + id + ".jpg", 2), "\xFF\xD8") << id << " has neither a PNG nor a JPEG image";
      ++images;
    }
  }
  EXPECT_EQ(images, 4u);

  // The two exportable layers: an icon at 1× and 2× and as SVG, and a photo as JPEG.
  std::string icons = out + "/5E0B1A3C-1111-4A2B-9C3D-4E5F60718201/Screens/Home/Card/icons/";
  auto once = readPNG(icons + "Trip Icon.png"), twice = readPNG(icons + "Trip Icon@2x.png");
  ASSERT_TRUE(once && twice);
  EXPECT_EQ(twice->width, 2 * once->width);
  EXPECT_EQ(twice->height, 2 * once->height);
  EXPECT_NE(readText(icons + "Trip Icon.svg").find("<svg"), std::string::npos);
  EXPECT_EQ(head(out + "/5E0B1A3C-2222-4A2B-9C3D-4E5F60718202/Screens/Details/Photo.jpg", 2), "\xFF\xD8");
}
