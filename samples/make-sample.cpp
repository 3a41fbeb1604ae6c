// Writes the project's sample document: two pages, three artboards, a
// symbol master with an overridden instance, text in Roboto, styles of every
// kind the inspect data reads, export formats and prototype links.
// Usage: make-sample OUTPUT.sketch

#include "Json.h"
#include "Zip.h"

#include <fmt/format.h>

#include <string>
#include <utility>
#include <vector>

using namespace plexa;

namespace {

JsonObject color(double r, double g, double b, double a = 1) {
  return {{"_class", "color"}, {"alpha", a}, {"blue", b}, {"green", g}, {"red", r}};
}

JsonObject rect(double x, double y, double w, double h) {
  return {{"_class", "rect"}, {"constrainProportions", false}, {"height", h}, {"width", w}, {"x", x}, {"y", y}};
}

JsonObject fill(JsonObject c) {
  return {{"_class", "fill"}, {"isEnabled", true}, {"fillType", 0}, {"color", std::move(c)},
          {"noiseIndex", 0}, {"noiseIntensity", 0}, {"patternFillType", 1}, {"patternTileScale", 1}};
}

JsonObject gradientFill() {
  JsonObject gradient{{"_class", "gradient"}, {"elipseLength", 0}, {"from", "{0.5, 0}"}, {"to", "{0.5, 1}"},
                      {"gradientType", 0},
                      {"stops", JsonArray{JsonObject{{"_class", "gradientStop"}, {"position", 0}, {"color", color(0.2, 0.4, 0.9)}},
                                          JsonObject{{"_class", "gradientStop"}, {"position", 1}, {"color", color(0.5, 0.1, 0.7, 0.8)}}}}};
  JsonObject f = fill(color(0, 0, 0));
  f["fillType"] = 1;
  f["gradient"] = std::move(gradient);
  return f;
}

JsonObject border(JsonObject c, double thickness, int position) {
  return {{"_class", "border"}, {"isEnabled", true}, {"fillType", 0}, {"color", std::move(c)},
          {"position", position}, {"thickness", thickness}};
}

JsonObject shadow(double x, double y, double blur, double spread, JsonObject c, bool inner = false) {
  return {{"_class", inner ? "innerShadow" : "shadow"}, {"isEnabled", true}, {"blurRadius", blur},
          {"offsetX", x}, {"offsetY", y}, {"spread", spread}, {"color", std::move(c)},
          {"contextSettings", JsonObject{{"_class", "graphicsContextSettings"}, {"blendMode", 0}, {"opacity", 1}}}};
}

JsonObject style(JsonArray fills = {}, JsonArray borders = {}, JsonArray shadows = {}, JsonArray innerShadows = {}) {
  return {{"_class", "style"}, {"endMarkerType", 0}, {"miterLimit", 10}, {"startMarkerType", 0},
          {"windingRule", 1}, {"fills", std::move(fills)}, {"borders", std::move(borders)},
          {"borderOptions", JsonObject{{"_class", "borderOptions"}, {"isEnabled", true}, {"dashPattern", JsonArray()},
                                       {"lineCapStyle", 0}, {"lineJoinStyle", 0}}},
          {"shadows", std::move(shadows)}, {"innerShadows", std::move(innerShadows)},
          {"contextSettings", JsonObject{{"_class", "graphicsContextSettings"}, {"blendMode", 0}, {"opacity", 1}}}};
}

JsonObject exportFormat(const std::string& format, double scale, const std::string& name, int namingScheme = 0) {
  return {{"_class", "exportFormat"}, {"absoluteSize", 0}, {"fileFormat", format}, {"name", name},
          {"namingScheme", namingScheme}, {"scale", scale}, {"visibleScaling", 1}};
}

JsonObject layer(const std::string& cls, const std::string& id, const std::string& name, JsonObject frame,
                 JsonObject st = style(), JsonArray exports = {}) {
  return {{"_class", cls}, {"do_objectID", id}, {"booleanOperation", -1},
          {"exportOptions", JsonObject{{"_class", "exportOptions"}, {"exportFormats", std::move(exports)},
                                       {"includedLayerIds", JsonArray()}, {"layerOptions", 0}, {"shouldTrim", false}}},
          {"frame", std::move(frame)}, {"isFixedToViewport", false}, {"isFlippedHorizontal", false},
          {"isFlippedVertical", false}, {"isLocked", false}, {"isVisible", true}, {"layerListExpandedType", 0},
          {"name", name}, {"nameIsFixed", false}, {"resizingConstraint", 63}, {"resizingType", 0},
          {"rotation", 0}, {"shouldBreakMaskChain", false}, {"style", std::move(st)}};
}

JsonObject rectangle(const std::string& id, const std::string& name, JsonObject frame, JsonObject st,
                     double radius = 0, JsonArray exports = {}) {
  JsonObject l = layer("rectangle", id, name, std::move(frame), std::move(st), std::move(exports));
  l["fixedRadius"] = radius;
  l["hasConvertedToNewRoundCorners"] = true;
  l["isClosed"] = true;
  l["pointRadiusBehaviour"] = 1;
  JsonArray points;
  for (auto [x, y] : {std::pair{0, 0}, {1, 0}, {1, 1}, {0, 1}}) {
    std::string p = fmt::format("{{{}, {}}}", x, y);
    points.push_back(JsonObject{{"_class", "curvePoint"}, {"cornerRadius", radius}, {"curveFrom", p}, {"curveTo", p},
                                {"curveMode", 1}, {"hasCurveFrom", false}, {"hasCurveTo", false}, {"point", p}});
  }
  l["points"] = std::move(points);
  return l;
}

JsonObject line(const std::string& id, const std::string& name, JsonObject frame) {
  JsonObject l = layer("shapePath", id, name, std::move(frame), style({}, JsonArray{border(color(0.85, 0.85, 0.85), 1, 1)}));
  l["isClosed"] = false;
  l["points"] = JsonArray{
      JsonObject{{"_class", "curvePoint"}, {"cornerRadius", 0}, {"curveFrom", "{0, 0}"}, {"curveTo", "{0, 0}"},
                 {"curveMode", 1}, {"hasCurveFrom", false}, {"hasCurveTo", false}, {"point", "{0, 0.5}"}},
      JsonObject{{"_class", "curvePoint"}, {"cornerRadius", 0}, {"curveFrom", "{1, 1}"}, {"curveTo", "{1, 1}"},
                 {"curveMode", 1}, {"hasCurveFrom", false}, {"hasCurveTo", false}, {"point", "{1, 0.5}"}}};
  return l;
}

JsonObject text(const std::string& id, const std::string& name, JsonObject frame, const std::string& string,
                const std::string& font, double size, JsonObject c, int alignment = 0) {
  // Sketch counts string ranges in UTF-16 units; the sample keeps to ASCII.
  JsonObject attributes{
      {"MSAttributedStringFontAttribute",
       JsonObject{{"_class", "fontDescriptor"}, {"attributes", JsonObject{{"name", font}, {"size", size}}}}},
      {"MSAttributedStringColorAttribute", c},
      {"paragraphStyle", JsonObject{{"_class", "paragraphStyle"}, {"alignment", alignment},
                                    {"minimumLineHeight", size * 1.25}, {"maximumLineHeight", size * 1.25}}},
      {"kerning", 0.2}};
  JsonObject st = style();
  st["textStyle"] = JsonObject{{"_class", "textStyle"}, {"verticalAlignment", 0}, {"encodedAttributes", attributes}};
  JsonObject l = layer("text", id, name, std::move(frame), std::move(st));
  l["attributedString"] = JsonObject{
      {"_class", "attributedString"}, {"string", string},
      {"attributes", JsonArray{JsonObject{{"_class", "stringAttribute"}, {"location", 0},
                                          {"length", static_cast<int64_t>(string.size())},
                                          {"attributes", attributes}}}}};
  l["automaticallyDrawOnUnderlyingPath"] = false;
  l["dontSynchroniseWithSymbol"] = false;
  l["lineSpacingBehaviour"] = 2;
  l["textBehaviour"] = 1;
  l["glyphBounds"] = "{{0, 0}, {100, 20}}";
  return l;
}

JsonObject group(const std::string& id, const std::string& name, JsonObject frame, JsonArray children) {
  JsonObject l = layer("group", id, name, std::move(frame));
  l["hasClickThrough"] = false;
  l["layers"] = std::move(children);
  return l;
}

// The hotspot reader walks "userInfo.com.morrow.prototype" one dotted word
// per level, so the sample nests the link that way.
JsonObject prototypeLink(JsonObject link) {
  link["componentType"] = "SRLink";
  return {{"com", JsonObject{{"morrow", JsonObject{{"prototype", std::move(link)}}}}}};
}

JsonObject flowTo(const std::string& destination) {
  return {{"_class", "MSImmutableFlowConnection"}, {"animationType", 0}, {"destinationArtboardID", destination}};
}

JsonObject artboard(const std::string& id, const std::string& name, JsonObject frame, JsonArray children,
                    JsonArray exports, JsonObject background) {
  JsonObject l = layer("artboard", id, name, std::move(frame), style(), std::move(exports));
  l["hasBackgroundColor"] = true;
  l["backgroundColor"] = std::move(background);
  l["includeBackgroundColorInExport"] = true;
  l["hasClickThrough"] = true;
  l["horizontalRulerData"] = JsonObject{{"_class", "rulerData"}, {"base", 0}, {"guides", JsonArray{24, 351}}};
  l["verticalRulerData"] = JsonObject{{"_class", "rulerData"}, {"base", 0}, {"guides", JsonArray{88}}};
  l["layers"] = std::move(children);
  return l;
}

JsonObject buttonMaster() {
  JsonObject master = artboard(
      "3C1F0A2B-5D6E-4F70-8A91-B2C3D4E5F601", "Button/Primary", rect(0, 0, 200, 48),
      JsonArray{rectangle("3C1F0A2B-5D6E-4F70-8A91-B2C3D4E5F602", "Background", rect(0, 0, 200, 48),
                          style(JsonArray{fill(color(0.2, 0.45, 0.95))}, {},
                                JsonArray{shadow(0, 2, 6, 0, color(0, 0, 0, 0.25))}),
                          8),
                text("3C1F0A2B-5D6E-4F70-8A91-B2C3D4E5F603", "Label", rect(16, 14, 168, 20), "Button",
                     "Roboto-Medium", 16, color(1, 1, 1), 2)},
      {}, color(1, 1, 1, 0));
  master["_class"] = "symbolMaster";
  master["symbolID"] = "9A8B7C6D-0000-4000-8000-00000000B7A1";
  master["allowsOverrides"] = true;
  master["includeInCloudUpload"] = true;
  master["layers"].as_array()[0].as_object()["resizingConstraint"] = 18;  // stretch with the button
  master["layers"].as_array()[1].as_object()["resizingConstraint"] = 45;
  return master;
}

JsonObject buttonInstance(const std::string& id, const std::string& name, JsonObject frame, const std::string& label,
                          JsonObject userInfo) {
  JsonObject l = layer("symbolInstance", id, name, std::move(frame));
  l["symbolID"] = "9A8B7C6D-0000-4000-8000-00000000B7A1";
  l["overrideValues"] = JsonArray{JsonObject{{"_class", "overrideValue"},
                                             {"overrideName", "3C1F0A2B-5D6E-4F70-8A91-B2C3D4E5F603_stringValue"},
                                             {"value", label}}};
  l["scale"] = 1;
  l["verticalSpacing"] = 0;
  l["horizontalSpacing"] = 0;
  l["userInfo"] = std::move(userInfo);
  return l;
}

const char* kHome = "5E0B1A3C-1111-4A2B-9C3D-4E5F60718201";
const char* kDetails = "5E0B1A3C-2222-4A2B-9C3D-4E5F60718202";
const char* kSketchpad = "5E0B1A3C-3333-4A2B-9C3D-4E5F60718203";

JsonObject homeArtboard() {
  JsonObject background = color(0.98, 0.98, 0.99);
  JsonObject ab = artboard(
      kHome, "Home", rect(0, 0, 375, 812),
      JsonArray{
          rectangle("7D2E0001-0000-4000-8000-000000000001", "Header", rect(0, 0, 375, 120),
                    style(JsonArray{gradientFill()}, {}, JsonArray{shadow(0, 4, 12, 0, color(0, 0, 0, 0.15))})),
          text("7D2E0001-0000-4000-8000-000000000002", "Title", rect(24, 56, 280, 32), "Welcome home",
               "Roboto-Bold", 24, color(1, 1, 1)),
          group("7D2E0001-0000-4000-8000-000000000003", "Card", rect(24, 152, 327, 180),
                JsonArray{rectangle("7D2E0001-0000-4000-8000-000000000004", "Card Background", rect(0, 0, 327, 180),
                                    style(JsonArray{fill(color(1, 1, 1))}, JsonArray{border(color(0.88, 0.89, 0.92), 1, 1)},
                                          {}, JsonArray{shadow(0, 1, 2, 0, color(0, 0, 0, 0.1), true)}),
                                    12),
                          text("7D2E0001-0000-4000-8000-000000000005", "Card Text", rect(16, 16, 295, 60),
                               "Your next trip starts here.", "Roboto-Regular", 16, color(0.2, 0.22, 0.26)),
                          rectangle("7D2E0001-0000-4000-8000-000000000006", "icons/Trip Icon", rect(16, 116, 48, 48),
                                    style(JsonArray{fill(color(0.95, 0.6, 0.1))}), 24,
                                    JsonArray{exportFormat("png", 1, ""), exportFormat("png", 2, "@2x"),
                                              exportFormat("svg", 1, "")})}),
          line("7D2E0001-0000-4000-8000-000000000007", "Divider", rect(24, 360, 327, 1)),
          buttonInstance("7D2E0001-0000-4000-8000-000000000008", "Start Button", rect(24, 720, 327, 56), "Get started",
                         prototypeLink(JsonObject{{"linkType", 0}, {"gesture", 0}, {"transition", 1},
                                                  {"targetArtboardID", kDetails}})),
          rectangle("7D2E0001-0000-4000-8000-000000000009", "Help Link", rect(24, 390, 120, 24),
                    style(JsonArray{fill(color(0.9, 0.93, 1))})),
      },
      JsonArray{exportFormat("png", 1, ""), exportFormat("png", 2, "@2x")}, background);
  auto& layers = ab["layers"].as_array();
  layers[5].as_object()["userInfo"] = prototypeLink(
      JsonObject{{"linkType", 3}, {"externalURL", "https://example.com/help"}, {"openURLInNewWindow", true}});
  layers[4].as_object()["flow"] = flowTo(kDetails);
  ab["layout"] = JsonObject{{"_class", "layoutGrid"}, {"isEnabled", true}, {"columnWidth", 64}, {"gutterHeight", 24},
                            {"gutterWidth", 23}, {"horizontalOffset", 24}, {"numberOfColumns", 4},
                            {"rowHeightMultiplication", 3}, {"totalWidth", 327}, {"guttersOutside", false},
                            {"drawHorizontal", false}, {"drawHorizontalLines", false}, {"drawVertical", true}};
  ab["grid"] = JsonObject{{"_class", "simpleGrid"}, {"isEnabled", false}, {"gridSize", 8}, {"thickGridTimes", 10}};
  return ab;
}

JsonObject detailsArtboard() {
  JsonObject ab = artboard(
      kDetails, "Details", rect(475, 0, 375, 812),
      JsonArray{
          text("8E3F0002-0000-4000-8000-000000000001", "Heading", rect(24, 56, 327, 32), "Trip details",
               "Roboto-Bold", 24, color(0.1, 0.1, 0.12)),
          rectangle("8E3F0002-0000-4000-8000-000000000002", "Back", rect(16, 12, 32, 32),
                    style(JsonArray{fill(color(0.1, 0.1, 0.12, 0.08))}), 16),
          rectangle("8E3F0002-0000-4000-8000-000000000003", "Photo", rect(0, 120, 375, 240),
                    style(JsonArray{fill(color(0.75, 0.8, 0.85))}), 0, JsonArray{exportFormat("jpg", 1, "")}),
          buttonInstance("8E3F0002-0000-4000-8000-000000000004", "Book Button", rect(24, 720, 327, 56), "Book now",
                         prototypeLink(JsonObject{{"linkType", 1}, {"overlayPosition", 3}, {"overlayTransition", 2},
                                                  {"backgroundOpacity", 60}, {"targetArtboardID", kHome}})),
      },
      JsonArray{exportFormat("jpg", 1, "")}, color(1, 1, 1));
  ab["layers"].as_array()[1].as_object()["userInfo"] = prototypeLink(JsonObject{{"linkType", 5}});
  ab["layers"].as_array()[1].as_object()["flow"] = flowTo("back");
  return ab;
}

JsonObject sketchpadArtboard() {
  return artboard(kSketchpad, "-sketchpad", rect(950, 0, 200, 200),
                  JsonArray{text("9F400003-0000-4000-8000-000000000001", "Note", rect(10, 10, 180, 40),
                                 "Ideas, not for handoff", "Roboto-Italic", 14, color(0.4, 0.4, 0.4))},
                  {}, color(1, 1, 0.9));
}

JsonObject page(const std::string& id, const std::string& name, JsonArray layers) {
  JsonObject p = layer("page", id, name, rect(0, 0, 0, 0));
  p["layers"] = std::move(layers);
  p["horizontalRulerData"] = JsonObject{{"_class", "rulerData"}, {"base", 0}, {"guides", JsonArray()}};
  p["verticalRulerData"] = JsonObject{{"_class", "rulerData"}, {"base", 0}, {"guides", JsonArray()}};
  return p;
}

std::string json(const JsonValue& v) { return *PXJsonSerialize(v, false); }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fmt::print(stderr, "usage: make-sample OUTPUT.sketch\n");
    return 2;
  }
  const std::string screensID = "1A2B3C4D-0000-4000-8000-0000000000A1";
  const std::string symbolsID = "1A2B3C4D-0000-4000-8000-0000000000A2";
  JsonObject screens = page(screensID, "Screens", JsonArray{homeArtboard(), detailsArtboard(), sketchpadArtboard()});
  JsonObject symbols = page(symbolsID, "Symbols", JsonArray{buttonMaster()});

  JsonObject document{
      {"_class", "document"}, {"do_objectID", "0D0C0B0A-0000-4000-8000-00000000D0C1"},
      {"assets", JsonObject{{"_class", "assetCollection"},
                            {"colors", JsonArray{color(0.2, 0.45, 0.95), color(0.95, 0.6, 0.1), color(0.1, 0.1, 0.12)}},
                            {"gradients", JsonArray()}, {"images", JsonArray()}}},
      {"colorSpace", 1}, {"currentPageIndex", 0}, {"foreignLayerStyles", JsonArray()}, {"foreignSymbols", JsonArray()},
      {"foreignTextStyles", JsonArray()},
      {"layerStyles", JsonObject{{"_class", "sharedStyleContainer"}, {"objects", JsonArray()}}},
      {"layerTextStyles", JsonObject{{"_class", "sharedTextStyleContainer"}, {"objects", JsonArray()}}},
      {"pages", JsonArray{JsonObject{{"_class", "MSJSONFileReference"}, {"_ref_class", "MSImmutablePage"}, {"_ref", "pages/" + screensID}},
                          JsonObject{{"_class", "MSJSONFileReference"}, {"_ref_class", "MSImmutablePage"}, {"_ref", "pages/" + symbolsID}}}}};
  JsonObject meta{
      {"commit", "sample"}, {"appVersion", "72.1"}, {"build", 117890}, {"version", 136}, {"compatibilityVersion", 99},
      {"app", "com.bohemiancoding.sketch3"},
      {"created", JsonObject{{"commit", "sample"}, {"appVersion", "72.1"}, {"build", 117890}, {"app", "com.bohemiancoding.sketch3"},
                             {"compatibilityVersion", 99}, {"version", 136}, {"variant", "NONAPPSTORE"}}},
      {"pagesAndArtboards",
       JsonObject{{screensID, JsonObject{{"name", "Screens"},
                                        {"artboards", JsonObject{{kHome, JsonObject{{"name", "Home"}}},
                                                                 {kDetails, JsonObject{{"name", "Details"}}},
                                                                 {kSketchpad, JsonObject{{"name", "-sketchpad"}}}}}}},
                  {symbolsID, JsonObject{{"name", "Symbols"},
                                        {"artboards", JsonObject{{"3C1F0A2B-5D6E-4F70-8A91-B2C3D4E5F601",
                                                                  JsonObject{{"name", "Button/Primary"}}}}}}}}}};
  JsonObject user{{"document", JsonObject{{"pageListHeight", 110}, {"pageListCollapsed", 0}}}};

  std::vector<std::pair<std::string, std::string>> entries{
      {"document.json", json(document)}, {"meta.json", json(meta)}, {"user.json", json(user)},
      {"pages/" + screensID + ".json", json(screens)}, {"pages/" + symbolsID + ".json", json(symbols)},
      {"images/", ""}, {"previews/", ""}};
  std::string error;
  if (!PXZip::zipEntries(entries, argv[1], &error)) {
    fmt::print(stderr, "make-sample: {}: {}\n", argv[1], error);
    return 1;
  }
  return 0;
}
