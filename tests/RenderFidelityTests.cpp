// How close plexa-sketchtool's images come to the ones Sketch itself
// exported: every raster reference in the render-refs collection, and the
// page previews Sketch stores inside documents. Scores are SSIM (1 is
// identical); the floors below only ever rise as the renderer improves.

#include "ImageCompare.h"
#include "Json.h"
#include "PathString.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <sstream>

using namespace plexa;
using namespace plexa::test;
namespace fs = std::filesystem;

namespace {

const std::string kRefs = PLEXA_RENDER_REFS_DIR;
// PLEXA_TEST_SKETCHTOOL measures another build of the tool (a copy kept
// still while the build folder changes, or Sketch's own).
const std::string kTool = std::getenv("PLEXA_TEST_SKETCHTOOL") ? std::getenv("PLEXA_TEST_SKETCHTOOL") : PLEXA_SKETCHTOOL_PATH;

// Reached today; raise them when the renderer gets closer to Sketch. The
// sanitizer builds score a sample, whose mean may sit lower.
#ifdef PLEXA_SANITIZED
constexpr double kReferenceMeanFloor = 0.95;
constexpr double kPreviewMeanFloor = 0.85;
#else
constexpr double kReferenceMeanFloor = 0.98;
constexpr double kPreviewMeanFloor = 0.95;
#endif
constexpr double kReferenceMinFloor = 0.80;

struct Reference {
  std::string image, document, layerClass, layerID;
  double scale = 1;
  int width = 0, height = 0;  // pixel size of the reference
};

std::vector<std::string> splitTabs(const std::string& line) {
  std::vector<std::string> fields;
  std::stringstream stream(line);
  for (std::string field; std::getline(stream, field, '\t');) fields.push_back(field);
  return fields;
}

#ifdef PLEXA_SANITIZED
constexpr size_t kSampleEvery = 12;  // ten times slower: a spread of cases
#else
constexpr size_t kSampleEvery = 1;
#endif

std::vector<Reference> rasterReferences() {
  std::vector<Reference> references;
  size_t row = 0;
  std::ifstream manifest(kRefs + "/manifest.tsv");
  std::string line;
  std::getline(manifest, line);  // header
  while (std::getline(manifest, line)) {
    auto f = splitTabs(line);
    if (f.size() < 12 || PXPathExtension(f[0]) != "png" || row++ % kSampleEvery != 0) continue;
    Reference reference{f[0], f[1], f[4], f[6], std::stod(f[9])};
    if (std::sscanf(f[11].c_str(), "%dx%d", &reference.width, &reference.height) != 2) continue;
    references.push_back(reference);
  }
  return references;
}

std::string shellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string scaleText(double scale) {
  char buffer[32];
  auto end = std::to_chars(buffer, buffer + sizeof buffer, scale).ptr;
  return std::string(buffer, end);
}

// Runs the tool; its output goes to a log beside the images for failures.
void runTool(const std::vector<std::string>& arguments, const std::string& folder) {
  std::string command = shellQuoted(kTool);
  for (const auto& argument : arguments) command += " " + shellQuoted(argument);
  command += " >>" + shellQuoted(folder + "/tool.log") + " 2>&1";
  fs::create_directories(folder);
  (void)std::system(command.c_str());
}

std::vector<std::string> pngsUnder(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(folder, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec))
    if (it->path().extension() == ".png") files.push_back(it->path().string());
  return files;
}

struct Score {
  std::string image;
  Similarity similarity;
  std::string why;  // set when nothing was compared
};

void bestScore(const std::vector<std::string>& candidates, const RGBAImage& reference, Similarity* best) {
  double bestValue = -2;
  for (const auto& candidate : candidates) {
    auto rendered = readPNG(candidate);
    if (!rendered) continue;
    Similarity similarity = compareImages(*rendered, reference);
    if (similarity.score() > bestValue) bestValue = similarity.score(), *best = similarity;
  }
}

bool isBoard(const Reference& reference) {
  return reference.layerClass == "artboard" || reference.layerClass == "symbolMaster";
}

// Where a reference's render lands: artboards and symbol masters per
// document and scale, other layers (through their own export presets) per
// document.
std::string batchFolder(const Reference& reference, const std::string& work) {
  std::string key = reference.document + (isBoard(reference) ? "@" + scaleText(reference.scale) : "#layers");
  std::replace(key.begin(), key.end(), '/', '_');
  return work + "/" + key;
}

// One tool run per batch, so each document is parsed once per batch.
void renderAll(const std::vector<Reference>& references, const std::string& work) {
  std::map<std::string, std::pair<Reference, std::vector<std::string>>> batches;
  for (const auto& reference : references) {
    auto& batch = batches.try_emplace(batchFolder(reference, work), reference, std::vector<std::string>()).first->second;
    batch.second.push_back(reference.layerID);
  }
  for (const auto& [folder, batch] : batches) {
    const auto& [reference, ids] = batch;
    std::string items;
    for (const auto& id : ids) items += (items.empty() ? "" : ",") + id;
    std::string document = kRefs + "/" + reference.document;
    if (isBoard(reference))
      runTool({"export", "artboards", document, "--output=" + folder, "--items=" + items, "--save-for-web=NO",
               "--scale=" + scaleText(reference.scale), "--formats=png", "--compression=1", "--use-id-for-name=YES"},
              folder);
    else
      runTool({"export", "layers", document, "--output=" + folder, "--items=" + items, "--save-for-web=NO",
               "--compression=1", "--use-id-for-name=YES"},
              folder);
  }
}

// The rendered files that can stand for a reference: named after its layer
// and, for export presets, of the reference's size.
std::vector<std::string> candidatesFor(const Reference& reference, const std::string& work) {
  std::vector<std::string> files;
  for (const auto& file : pngsUnder(batchFolder(reference, work))) {
    if (fs::path(file).filename().string().find(reference.layerID) == std::string::npos) continue;
    if (!isBoard(reference)) {
      auto image = readPNG(file);
      if (!image || std::abs(image->width - reference.width) > 1 || std::abs(image->height - reference.height) > 1)
        continue;
    }
    files.push_back(file);
  }
  return files;
}

std::string folderOf(const std::string& image) { return image.substr(0, image.find('/')); }

void report(const std::string& title, const std::vector<Score>& scores, const std::string& tsvPath) {
  std::map<std::string, std::vector<double>> byFolder;
  std::ofstream tsv(tsvPath);
  tsv << "image\tover_white\tover_black\tscore\tnote\n";
  for (const auto& score : scores) {
    byFolder[folderOf(score.image)].push_back(score.similarity.score());
    tsv << score.image << '\t' << score.similarity.overWhite << '\t' << score.similarity.overBlack << '\t'
        << score.similarity.score() << '\t' << score.why << '\n';
  }
  std::printf("%s\n%-34s %5s %7s %7s\n", title.c_str(), "folder", "n", "mean", "min");
  for (const auto& [folder, values] : byFolder)
    std::printf("%-34s %5zu %7.4f %7.4f\n", folder.c_str(), values.size(),
                std::accumulate(values.begin(), values.end(), 0.0) / values.size(),
                *std::min_element(values.begin(), values.end()));
  auto sorted = scores;
  std::sort(sorted.begin(), sorted.end(),
            [](const Score& a, const Score& b) { return a.similarity.score() < b.similarity.score(); });
  for (size_t i = 0; i < std::min<size_t>(3, sorted.size()); ++i)
    std::printf("worst %zu: %.4f %s %s\n", i + 1, sorted[i].similarity.score(), sorted[i].image.c_str(),
                sorted[i].why.c_str());
  std::printf("details: %s\n", tsvPath.c_str());
}

double mean(const std::vector<Score>& scores) {
  double sum = 0;
  for (const auto& score : scores) sum += score.similarity.score();
  return scores.empty() ? 0 : sum / scores.size();
}

double minimum(const std::vector<Score>& scores) {
  double low = 1;
  for (const auto& score : scores) low = std::min(low, score.similarity.score());
  return low;
}

}  // namespace

TEST(RenderFidelity, EveryRasterReferenceMatchesSketchsOwnExport) {
  if (!fs::exists(kRefs + "/manifest.tsv")) GTEST_SKIP() << "no render references beside the checkout";
  ASSERT_TRUE(fs::exists(kTool)) << kTool;
  TempDir work;
  auto references = rasterReferences();
  renderAll(references, work.path());
  // Several layers may have written the same file; the last one exported won
  // there, so the closest of them is the one to compare with.
  std::map<std::string, Score> byImage;
  for (const auto& reference : references) {
    auto expected = readPNG(kRefs + "/" + reference.image);
    ASSERT_TRUE(expected) << reference.image;
    Similarity similarity;
    auto candidates = candidatesFor(reference, work.path());
    bestScore(candidates, *expected, &similarity);
    Score score{reference.image, similarity, candidates.empty() ? "nothing rendered" : ""};
    auto [entry, inserted] = byImage.emplace(reference.image, score);
    if (!inserted && score.similarity.score() > entry->second.similarity.score()) entry->second = score;
  }
  std::vector<Score> scores;
  for (auto& [image, score] : byImage) scores.push_back(score);
  ASSERT_GE(scores.size(), 150u / kSampleEvery);
  report("Sketch exports", scores, PLEXA_TEST_BINARY_DIR "/render-fidelity.tsv");
  EXPECT_GE(mean(scores), kReferenceMeanFloor);
  EXPECT_GE(minimum(scores), kReferenceMinFloor);
}

namespace {

struct PreviewCase {
  std::string document, pageID;
  double scale = 1;
};

// The current page of a document saved by Sketch 74 or earlier, with the
// scale Sketch used for its preview: min(1, 2048 / longest side).
std::optional<PreviewCase> previewCase(const std::string& path) {
  auto meta = PXZip::readEntry(path, "meta.json");
  auto document = PXZip::readEntry(path, "document.json");
  auto metaJSON = meta ? PXJsonParse(*meta) : std::nullopt;
  auto documentJSON = document ? PXJsonParse(*document) : std::nullopt;
  if (!metaJSON || !documentJSON) return std::nullopt;
  std::string version(PXJsonTextFor(&*metaJSON, "appVersion").value_or("0"));
  if (std::atof(version.c_str()) > 74.5) return std::nullopt;  // later previews show one artboard
  auto index = PXJsonInt64For(&*documentJSON, "currentPageIndex").value_or(0);
  const auto* pages = PXJsonArrayFor(&*documentJSON, "pages");
  if (!pages || index < 0 || size_t(index) >= pages->size()) return std::nullopt;
  std::string reference(PXJsonTextFor(&(*pages)[index], "_ref").value_or(""));
  auto pageText = PXZip::readEntry(path, reference + ".json");
  auto page = pageText ? PXJsonParse(*pageText) : std::nullopt;
  if (!page) return std::nullopt;
  double left = 1e300, top = 1e300, right = -1e300, bottom = -1e300;
  for (const auto& layer : PXJsonArrayFor(&*page, "layers") ? *PXJsonArrayFor(&*page, "layers") : JsonArray()) {
    const JsonValue* frame = PXJsonFind(&layer, "frame");
    double x = PXJsonDoubleFor(frame, "x").value_or(0), y = PXJsonDoubleFor(frame, "y").value_or(0);
    left = std::min(left, x), top = std::min(top, y);
    right = std::max(right, x + PXJsonDoubleFor(frame, "width").value_or(0));
    bottom = std::max(bottom, y + PXJsonDoubleFor(frame, "height").value_or(0));
  }
  if (right <= left || bottom <= top) return std::nullopt;
  std::string pageID(PXJsonTextFor(&*page, "do_objectID").value_or(""));
  return PreviewCase{path, pageID, std::min(1.0, 2048 / std::max(right - left, bottom - top))};
}

std::vector<std::string> previewDocuments() {
  std::vector<std::string> documents = corpusDocuments();
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(kRefs, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec))
    if (it->path().extension() == ".sketch") documents.push_back(it->path().string());
  // Its preview pads the page with a blank quarter that no page bound explains.
  // (The Stacks icons of Sketch 43 are in the corpus and in the references.)
  std::erase_if(documents, [](const std::string& d) {
    return d.find("stacks-icons-s43") != std::string::npos || d.find("stacks-icons-6804972") != std::string::npos;
  });
  std::vector<std::string> sampled;
  for (size_t i = 0; i < documents.size(); i += kSampleEvery / 4 + 1) sampled.push_back(documents[i]);
  return sampled;
}

}  // namespace

TEST(RenderFidelity, PagesMatchThePreviewsSketchStoredInTheDocuments) {
  ASSERT_TRUE(fs::exists(kTool)) << kTool;
  TempDir work;
  std::vector<Score> scores;
  for (const auto& path : previewDocuments()) {
    auto preview = previewCase(path);
    if (!preview) continue;
    std::string folder = work / std::to_string(scores.size());
    fs::create_directories(folder);
    test::writeText(folder + "/preview.png", PXZip::readEntry(path, "previews/preview.png").value_or(""));
    auto expected = readPNG(folder + "/preview.png");
    if (!expected) continue;
    std::string out = folder + "/out";
    runTool({"export", "pages", path, "--output=" + out, "--items=" + preview->pageID,
             "--scale=" + scaleText(preview->scale), "--formats=png"},
            folder);
    Similarity similarity;
    auto files = pngsUnder(out);
    bestScore(files, *expected, &similarity);
    // The preview is flattened on white, so only that comparison applies.
    similarity.overBlack = similarity.overWhite;
    std::string name = fs::path(path).parent_path().filename().string() + "/" + fs::path(path).filename().string();
    scores.push_back({name, similarity, files.empty() ? "nothing rendered" : ""});
  }
  ASSERT_GE(scores.size(), 15u / (kSampleEvery / 4 + 1));
  report("Document previews", scores, PLEXA_TEST_BINARY_DIR "/render-previews.tsv");
  EXPECT_GE(mean(scores), kPreviewMeanFloor);
}
