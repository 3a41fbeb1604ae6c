#include "SketchToolCommand.h"

#include "ImageWriter.h"
#include "Json.h"
#include "Log.h"
#include "Painter.h"
#include "SceneBuilder.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>
#include <sstream>

namespace plexa::render {

namespace {

std::vector<std::string> splitItems(const std::string& text) {
  std::vector<std::string> items;
  std::stringstream stream(text);
  for (std::string item; std::getline(stream, item, ',');)
    if (!item.empty()) items.push_back(item);
  return items;
}

std::optional<double> parseNumber(const std::string& text) {
  char* end = nullptr;
  double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(value)) return std::nullopt;
  return value;
}

std::optional<bool> parseYesNo(const std::string& text) {
  if (text == "YES" || text == "yes" || text == "true") return true;
  if (text == "NO" || text == "no" || text == "false") return false;
  return std::nullopt;
}

bool applyOption(ExportRequest& request, const std::string& name, const std::string& value, std::string* error) {
  auto bad = [&] {
    if (error) *error = "bad value for --" + name + ": " + value;
    return false;
  };
  if (name == "output") {
    if (value.empty()) return bad();
    request.output = value;
  } else if (name == "items") {
    request.items = splitItems(value);
  } else if (name == "save-for-web") {
    auto flag = parseYesNo(value);
    if (!flag) return bad();
    request.saveForWeb = *flag;
  } else if (name == "use-id-for-name") {
    auto flag = parseYesNo(value);
    if (!flag) return bad();
    request.useIDForName = *flag;
  } else if (name == "scale") {
    auto number = parseNumber(value);
    if (!number || *number <= 0 || *number > 100) return bad();
    request.scale = *number;
  } else if (name == "compression") {
    auto number = parseNumber(value);
    if (!number || *number < 0 || *number > 1) return bad();
    request.compression = *number;
  } else if (name == "formats") {
    std::string format = value.substr(0, value.find(','));
    if (!isRasterFormat(format)) return bad();
    request.format = format == "jpeg" ? "jpg" : format;
  } else {
    if (error) *error = "unknown option --" + name;
    return false;
  }
  return true;
}

// A layer's drawn bounds grown to whole pixels, so its edges land on the
// pixel grid as they do on the board.
Rect snappedToPixels(const Rect& region, double scale) {
  if (!isSaneFrame(region) || region.isEmpty()) return region;
  double left = std::floor(region.x * scale + 0.01) / scale, top = std::floor(region.y * scale + 0.01) / scale;
  double right = std::ceil((region.x + region.width) * scale - 0.01) / scale;
  double bottom = std::ceil((region.y + region.height) * scale - 0.01) / scale;
  return {left, top, right - left, bottom - top};
}

// What one run shares: the document, its notes, and the output.
class Exporter {
 public:
  Exporter(const ExportRequest& request, const std::function<void(const std::string&)>& say)
      : request_(request), say_(say) {}

  int run();
  std::unique_ptr<SketchDocument> takeDocument() { return std::move(document_); }

 private:
  void exportArtboard(const std::string& id);
  void exportLayer(const std::string& id);
  void exportPage(const std::string& pageID, const std::string& pageName);
  std::optional<NodeLocation> locate(const std::string& id);
  void writeImage(const std::string& name, const SurfaceRef& image, const std::string& format);
  void writeBytes(const std::string& name, const std::string& bytes);
  void exportVector(const std::string& name, const NodeLocation& location, const Rect& region, double scale,
                    const std::string& format);
  bool checkSize(const std::string& what, const Rect& region, double scale);
  void error(const std::string& message) {
    failures_++;
    say_("Error: " + message);
  }
  std::vector<std::string> itemsOr(const std::function<std::vector<std::string>()>& all) const {
    return request_.items ? *request_.items : all();
  }

  const ExportRequest& request_;
  const std::function<void(const std::string&)>& say_;
  RenderNotes notes_;
  std::unique_ptr<SketchDocument> document_;
  int failures_ = 0;
};

int Exporter::run() {
  std::string why;
  document_ = SketchDocument::open(request_.document, notes_, &why);
  if (!document_) {
    error("cannot open document " + request_.document + ": " + why);
    return 1;
  }
  double largest = request_.kind == ExportKind::Layers ? 4 : request_.scale;
  document_->setCurveTolerance(0.1 / std::max(1.0, largest));
  switch (request_.kind) {
    case ExportKind::Artboards:
      for (const auto& id : itemsOr([&] { return document_->boardIDs(); })) exportArtboard(id);
      break;
    case ExportKind::Layers:
      for (const auto& id : itemsOr([&] { return document_->exportableLayerIDs(); })) exportLayer(id);
      break;
    case ExportKind::Pages: {
      auto pages = document_->pages();
      auto ids = itemsOr([&] {
        std::vector<std::string> all;
        for (const auto& page : pages) all.push_back(page.id);
        return all;
      });
      for (const auto& id : ids) {
        auto page = std::find_if(pages.begin(), pages.end(), [&](const auto& p) { return p.id == id; });
        if (page == pages.end()) error("no page with id " + id);
        else exportPage(page->id, page->name);
      }
      break;
    }
  }
  return failures_ == 0 ? 0 : 1;
}

// Only the top-level layer that holds the item is built, unless the item is
// a slice: slices draw everything on the page beneath them.
std::optional<NodeLocation> Exporter::locate(const std::string& id) {
  auto location = document_->locate(id);
  if (location && location->node->kind == NodeKind::Slice)
    location = document_->locate(id, true);
  return location;
}

bool Exporter::checkSize(const std::string& what, const Rect& region, double scale) {
  if (!isSaneFrame(region) || region.isEmpty()) {
    error(what + " has no drawable frame");
    return false;
  }
  PixelSize size = pixelSizeFor(region, scale);
  if (size.area() > kMaxImagePixels) {
    error(fmt::format("{} would be {}×{} pixels, more than the limit of {} megapixels", what, size.width, size.height,
                      kMaxImagePixels / 1'000'000));
    return false;
  }
  return true;
}

void Exporter::writeImage(const std::string& name, const SurfaceRef& image, const std::string& format) {
  if (!image) {
    error("could not draw " + name);
    return;
  }
  auto bytes = encodeImage(image.get(), format, request_.compression);
  if (!bytes) {
    error("could not encode " + name + " as " + format);
    return;
  }
  writeBytes(name, *bytes);
}

void Exporter::writeBytes(const std::string& name, const std::string& bytes) {
  std::string why;
  if (!writeInside(request_.output, name, bytes, &why)) {
    error("could not write " + name + ": " + why);
    return;
  }
  say_("Exported " + name);
}

void Exporter::exportArtboard(const std::string& id) {
  auto location = locate(id);
  if (!location) {
    error("no artboard with id " + id);
    return;
  }
  const Node& node = *location->node;
  std::string name = (request_.useIDForName ? id : node.name) + scaleSuffix(request_.scale) + "." + request_.format;
  Rect frame = node.placement.frame;
  if (!checkSize("artboard " + id, {0, 0, frame.width, frame.height}, request_.scale)) return;
  if (node.isBoard()) {
    writeImage(name, renderBoard(node, request_.scale, notes_), request_.format);
  } else {
    Rect region = transformedBounds(drawnBounds(node), location->toPage);
    writeImage(name, renderLayer(*location, region, request_.scale, notes_), request_.format);
  }
}

void Exporter::exportLayer(const std::string& id) {
  auto location = locate(id);
  if (!location) {
    error("no layer with id " + id);
    return;
  }
  const Node& node = *location->node;
  const Rect& frame = node.placement.frame;
  if (!isSaneFrame(frame)) {
    error("layer " + id + " has no drawable frame");
    return;
  }
  std::string base = request_.useIDForName ? id : node.name;
  for (const auto& format : node.exportFormats) {
    std::string name = layerFileName(base, format, request_.useIDForName);
    bool vector = isVectorFormat(format.fileFormat);
    if (!isRasterFormat(format.fileFormat) && !vector) {
      error("cannot export " + name + ": the " + format.fileFormat + " format is not supported");
      continue;
    }
    // Vector files keep the layer's own size, whatever the preset's scale.
    double scale = format.fileFormat == "svg" ? 1 : format.effectiveScale(frame.width, frame.height);
    bool framed = node.isBoard() || node.kind == NodeKind::Slice;
    Rect region = transformedBounds(framed ? Rect{0, 0, frame.width, frame.height} : drawnBounds(node),
                                    location->toPage);
    if (!framed) region = snappedToPixels(region, scale);
    if (!checkSize("layer " + id, region, scale)) continue;
    if (vector) {
      exportVector(name, *location, region, scale, format.fileFormat);
      continue;
    }
    SurfaceRef image = node.kind == NodeKind::Slice ? renderRegion(*location->page, region, scale, notes_)
                                                    : renderLayer(*location, region, scale, notes_);
    writeImage(name, image, format.fileFormat == "jpeg" ? "jpg" : format.fileFormat);
  }
}

void Exporter::exportVector(const std::string& name, const NodeLocation& location, const Rect& region, double scale,
                            const std::string& format) {
  bool slice = location.node->kind == NodeKind::Slice;
  auto bytes = renderVectorImage(format, region.x, region.y, region.width, region.height, scale, [&](cairo_t* cr) {
    if (slice) paintRegionExport(cr, *location.page, notes_);
    else paintLayerExport(cr, location, notes_);
  });
  if (!bytes) {
    error("could not draw " + name);
    return;
  }
  writeBytes(name, *bytes);
}

void Exporter::exportPage(const std::string& pageID, const std::string& pageName) {
  const ScenePage* page = document_->scenePage(pageID);
  std::string name = (request_.useIDForName ? pageID : pageName) + scaleSuffix(request_.scale) + "." + request_.format;
  if (!page) {
    error("no page with id " + pageID);
    return;
  }
  Rect bounds = page->drawnBounds();
  if (!checkSize("page " + pageID, bounds, request_.scale)) return;
  writeImage(name, renderRegion(*page, bounds, request_.scale, notes_), request_.format);
}

}  // namespace

std::optional<ExportRequest> parseExportArguments(const std::vector<std::string>& args, std::string* error) {
  auto fail = [&](std::string message) -> std::optional<ExportRequest> {
    if (error) *error = std::move(message);
    return std::nullopt;
  };
  if (args.size() < 2) return fail("export needs a kind (artboards, layers, pages) and a document");
  static const std::map<std::string, ExportKind> kinds = {
      {"artboards", ExportKind::Artboards}, {"layers", ExportKind::Layers}, {"pages", ExportKind::Pages}};
  auto kind = kinds.find(args[0]);
  if (kind == kinds.end()) return fail("unknown export kind " + args[0]);
  ExportRequest request;
  request.kind = kind->second;
  request.useIDForName = false;
  bool haveDocument = false;
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg.rfind("--", 0) == 0) {
      size_t equals = arg.find('=');
      if (equals == std::string::npos) return fail("option without a value: " + arg);
      std::string why;
      if (!applyOption(request, arg.substr(2, equals - 2), arg.substr(equals + 1), &why)) return fail(why);
    } else if (!haveDocument) {
      request.document = arg;
      haveDocument = true;
    } else {
      return fail("unexpected argument " + arg);
    }
  }
  if (!haveDocument) return fail("no document given");
  if (request.output.empty()) request.output = ".";
  return request;
}

int runExport(const ExportRequest& request, const std::function<void(const std::string&)>& say) {
  Exporter exporter(request, say);
  return exporter.run();
}

int runExport(const ExportRequest& request, const std::function<void(const std::string&)>& say,
              std::unique_ptr<SketchDocument>& keep) {
  Exporter exporter(request, say);
  int status = exporter.run();
  keep = exporter.takeDocument();
  return status;
}

std::optional<std::string> documentMetadata(const std::string& document, std::string* error) {
  RenderNotes notes;
  auto opened = SketchDocument::open(document, notes, error);
  if (!opened) return std::nullopt;
  auto meta = opened->metaJSON();
  if (!meta) {
    if (error) *error = "meta.json is missing or malformed";
    return std::nullopt;
  }
  return PXJsonSerialize(*meta, true, error);
}

std::string scaleSuffix(double scale) {
  if (scale == 1) return "";
  char buffer[64];
  auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, scale);
  return "@" + std::string(buffer, ec == std::errc() ? end : buffer) + "x";
}

std::string layerFileName(const std::string& base, const ExportFormat& format, bool useIDForName) {
  std::string label = format.name;
  if (useIDForName) std::erase(label, '/');
  std::string stem = format.nameIsPrefix ? label + base : base + label;
  return stem + "." + format.fileFormat;
}

}  // namespace plexa::render
