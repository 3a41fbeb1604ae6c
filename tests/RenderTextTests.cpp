// Text layers: reading both storage forms into runs, fonts and fallbacks,
// and where the drawn ink lands (alignment, line heights, wrapping, vertical
// alignment, stand-in faces). Bad input first.

#include "KeyedArchive.h"
#include "RenderFixtures.h"
#include "TestSupport.h"
#include "TextBlock.h"
#include "TextFonts.h"
#include "TextLayout.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace plexa;
using namespace plexa::render;
using plexa::test::LogCapture;

namespace {

const double kAny = std::numeric_limits<double>::quiet_NaN();

struct RunSpec {
  std::string text;
  std::string font = "Roboto-Regular";
  double size = 20;
  JsonObject extra = {};  // more attribute keys (kerning, paragraphStyle, ...)
};

JsonObject textLayer(JsonObject attributedString, int behaviour = 2, double width = 200, double height = 100) {
  JsonObject layer = test::layer("text", "T", "Text", test::frame(0, 0, width, height));
  layer["textBehaviour"] = behaviour;
  layer["attributedString"] = std::move(attributedString);
  return layer;
}

// The attribute-list form, one attribute entry per run.
JsonObject listTextLayer(const std::vector<RunSpec>& runs, int behaviour = 2, double width = 200, double height = 100) {
  std::string text;
  JsonArray attributes;
  for (const auto& run : runs) {
    JsonObject dictionary = run.extra;
    dictionary["MSAttributedStringFontAttribute"] = JsonObject{
        {"_class", "fontDescriptor"}, {"attributes", JsonObject{{"name", run.font}, {"size", run.size}}}};
    attributes.push_back(JsonObject{{"_class", "stringAttribute"},
                                    {"location", PXUTF16Length(text)},
                                    {"length", PXUTF16Length(run.text)},
                                    {"attributes", dictionary}});
    text += run.text;
  }
  return textLayer(JsonObject{{"_class", "attributedString"}, {"string", text}, {"attributes", attributes}}, behaviour,
                   width, height);
}

// The same runs in the keyed-archive form.
JsonObject archivedTextLayer(const std::vector<RunSpec>& runs, const std::vector<PXTextAttributes>& attributes) {
  std::string text;
  for (const auto& run : runs) text += run.text;
  PXAttributedString string(text);
  for (size_t i = 0, location = 0; i < runs.size(); location += PXUTF16Length(runs[i].text), ++i)
    string.setAttributes(attributes[i], {location, PXUTF16Length(runs[i].text)});
  const std::string archive = PXArchiveAttributedStringToBase64(string).value_or("");
  return textLayer(JsonObject{{"_class", "MSAttributedString"},
                              {"archivedAttributedString", JsonObject{{"_archive", archive}}}});
}

JsonObject paragraphStyle(std::initializer_list<std::pair<const char*, double>> fields) {
  JsonObject style{{"_class", "paragraphStyle"}};
  for (const auto& [key, value] : fields) style[key] = value;
  return style;
}

JsonObject lineHeight(double height) {
  return {{"paragraphStyle", paragraphStyle({{"minimumLineHeight", height}, {"maximumLineHeight", height}})}};
}

TextBlock build(const JsonValue& layer) {
  RenderNotes notes;
  return buildTextBlock(layer, notes);
}

struct Ink {
  bool any = false;
  double left = 1e9, top = 1e9, right = -1e9, bottom = -1e9;
};

// Where drawing the block into a clear surface leaves ink.
Ink inkOf(const TextBlock& block, const Rect& frame = {0, 0, 200, 100}, double scale = 1) {
  test::Canvas canvas(300, 200, CAIRO_FORMAT_A8);
  cairo_scale(canvas.cr(), scale, scale);
  drawTextBlock(canvas.cr(), block, frame);
  Ink ink;
  for (int y = 0; y < canvas.height(); ++y)
    for (int x = 0; x < canvas.width(); ++x)
      if (canvas.alpha(x, y) >= 128)
        ink = {true, std::min(ink.left, x + 0.0), std::min(ink.top, y + 0.0), std::max(ink.right, x + 1.0),
               std::max(ink.bottom, y + 1.0)};
  return ink;
}

Ink inkOfRuns(const std::vector<RunSpec>& runs, int behaviour = 0) { return inkOf(build(listTextLayer(runs, behaviour))); }

double measuredWidth(const std::vector<RunSpec>& runs) {
  return measureTextBlock(build(listTextLayer(runs, 0)), {0, 0, 200, 100}).width;
}

double lineHeightOf(const std::string& name, double size) {
  const auto font = PXFontWithName(name, size);
  return font ? PXDefaultLineHeightForFont(*font).value_or(0) : 0;
}

}  // namespace

// MARK: - Bad input

TEST(RenderTextMalformed, HostileAttributeListsDrawWithoutCrashing) {
  struct Case {
    const char* name;
    JsonValue location, length, size;
    bool visible = true;  // a 5000 pt line puts everything below the surface
  };
  const Case cases[] = {
      {"negative location", -5, 3, 12.0},  {"negative length", 0, -3, 12.0},       {"beyond the end", 2, 1000, 12.0},
      {"far beyond", 1LL << 40, 4, 12.0},  {"NaN size", 0, 4, kAny},               {"huge size", 0, 4, 1e300, false},
      {"negative size", 0, 4, -20.0},      {"size as text", 0, 4, "big"},          {"location as text", "x", 4, 12.0},
      {"null length", 0, nullptr, 12.0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    JsonObject layer = listTextLayer({{"Some text"}, {"more"}});
    JsonArray& attributes = layer["attributedString"].as_object()["attributes"].as_array();
    JsonObject& first = attributes[0].as_object();
    first["location"] = c.location;
    first["length"] = c.length;
    first["attributes"].as_object()["MSAttributedStringFontAttribute"].as_object()["attributes"].as_object()["size"] =
        c.size;
    attributes[1].as_object()["location"] = 2;  // overlaps the first
    const TextBlock block = build(layer);
    ASSERT_FALSE(block.paragraphs.empty());
    for (const auto& paragraph : block.paragraphs)
      for (const auto& run : paragraph.runs) EXPECT_TRUE(std::isfinite(run.font.size) && run.font.size > 0);
    EXPECT_EQ(inkOf(block).any, c.visible);
  }
}

TEST(RenderTextMalformed, BrokenStorageInvalidUTF8AndTextOnAPath) {
  const JsonObject invalid = listTextLayer({{"ok \xff\xfe bad \xc3"}});
  JsonObject junkList = listTextLayer({{"abc"}});
  junkList["attributedString"].as_object()["attributes"] = JsonArray{1, "x", nullptr, JsonArray{}};
  JsonObject onPath = listTextLayer({{"Curved"}});
  onPath["automaticallyDrawOnUnderlyingPath"] = true;
  struct Case {
    const char* name;
    JsonValue layer;
    bool drawable = true;
  };
  const Case cases[] = {
      {"invalid UTF-8", invalid},
      {"no attributed string", textLayer({})},
      {"garbage archive", textLayer({{"archivedAttributedString", JsonObject{{"_archive", "!!notbase64"}}}})},
      {"attribute list of junk", junkList},
      {"not an object", JsonValue(42)},
      {"text on a path", onPath, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    const TextBlock block = build(c.layer);
    ASSERT_EQ(block.paragraphs.size(), 1u);
    ASSERT_FALSE(block.paragraphs[0].runs.empty());
    for (const auto& run : block.paragraphs[0].runs)
      EXPECT_TRUE(g_utf8_validate(run.text.c_str(), static_cast<gssize>(run.text.size()), nullptr));
    EXPECT_EQ(block.drawable, c.drawable);
    EXPECT_EQ(log.count("text on a path"), c.drawable ? 0u : 1u);
    if (!c.drawable) EXPECT_FALSE(inkOf(block).any);
  }
  // Invalid bytes become replacement characters; the valid text survives.
  const std::string text = build(invalid).paragraphs[0].runs[0].text;
  EXPECT_EQ(text.rfind("ok \xEF\xBF\xBD", 0), 0u);
}

// MARK: - Reading

// One line per paragraph and per run, with every field the renderer reads.
std::vector<std::string> describe(const TextBlock& block) {
  std::vector<std::string> lines;
  for (const auto& p : block.paragraphs) {
    lines.push_back(testing::PrintToString(std::tuple(int(p.alignment), p.minimumLineHeight, p.maximumLineHeight)));
    for (const auto& r : p.runs)
      lines.push_back(testing::PrintToString(std::tuple(r.text, r.font.postScriptName, r.font.size, r.color.r,
                                                        r.color.a, r.kerning, r.underline)));
  }
  return lines;
}

TEST(RenderTextReading, BothStorageFormsParagraphsAndTransforms) {
  PXTextAttributes bold;
  bold.font = PXFontDescriptor{"Roboto-Bold", 18};
  bold.foregroundColor = PXColor::rgb(1, 0, 0, 0.5);
  bold.kerning = 1.5;
  PXTextAttributes plain;
  plain.font = PXFontDescriptor{"Roboto-Regular", 12};
  plain.paragraphStyle = PXParagraphStyle{.alignment = 2, .minimumLineHeight = 30, .maximumLineHeight = 30};
  const JsonObject boldJSON{
      {"MSAttributedStringColorAttribute", JsonObject{{"red", 1}, {"green", 0}, {"blue", 0}, {"alpha", 0.5}}},
      {"kerning", 1.5}};
  const JsonObject plainJSON{{"paragraphStyle", paragraphStyle({{"alignment", 2}, {"minimumLineHeight", 30},
                                                                {"maximumLineHeight", 30}})}};
  const std::vector<RunSpec> cases[] = {
      {{"Hello", "Roboto-Bold", 18, boldJSON}},
      {{"Bold ", "Roboto-Bold", 18, boldJSON}, {"plain", "Roboto-Regular", 12, plainJSON}},
      {{"A\nB", "Roboto-Bold", 18, boldJSON}, {"\nC\n", "Roboto-Regular", 12, plainJSON}},
  };
  for (const auto& runs : cases) {
    SCOPED_TRACE(runs.size());
    std::vector<PXTextAttributes> archived;
    for (const auto& run : runs) archived.push_back(run.font == "Roboto-Bold" ? bold : plain);
    EXPECT_EQ(describe(build(listTextLayer(runs))), describe(build(archivedTextLayer(runs, archived))));
  }
  // Breaks (\r\n as one) split paragraphs; a trailing one leaves an empty
  // line in its own font; transforms change the case.
  const TextBlock block = build(listTextLayer(
      {{"make it ", "Roboto-Regular", 20, {{"MSAttributedStringTextTransformAttribute", 1}}},
       {"LOUD\r\nQuiet", "Roboto-Regular", 20, {{"MSAttributedStringTextTransformAttribute", 2}, {"underlineStyle", 1}}},
       {"\n", "Roboto-Bold", 30}}));
  std::vector<std::string> texts;
  for (const auto& p : block.paragraphs)
    for (const auto& r : p.runs) texts.push_back(r.text + "|" + r.font.postScriptName + (r.underline ? "|u" : ""));
  EXPECT_EQ(texts, (std::vector<std::string>{"MAKE IT |Roboto-Regular", "loud|Roboto-Regular|u",
                                             "quiet|Roboto-Regular|u", "|Roboto-Bold"}));
  EXPECT_EQ(block.paragraphs.size(), 3u);
}

TEST(RenderTextReading, MissingFacesStandInAndAreNotedOnce) {
  struct Case {
    const char* requested;
    const char* family;  // installed stand-in (nullptr: any)
    int weight, slant;   // fontconfig values the name asks for
    double ascentEm;     // the missing face's own ascent, 0 when unknown
  };
  const Case cases[] = {
      {"HiraginoSans-W2", "DejaVu Sans", 50, 0, 0.88},    {"HiraKakuProN-W3", "DejaVu Sans", 80, 0, 0.88},
      {"HiraginoSans-W6", "DejaVu Sans", 180, 0, 0.88},   {"HiraginoSans-W9", "DejaVu Sans", 210, 0, 0.88},
      {"SFUIText-Semibold", "Open Sans", 180, 0, 0.952},  {"SFProText-RegularItalic", "Open Sans", 80, 100, 0.952},
      {"SFProDisplay-Thin", "Lato", 0, 0, 0.952},         {"SFProDisplay-Heavy", "Lato", 205, 0, 0.952},
      {"AvenirNext-DemiBoldItalic", "Open Sans", 180, 100, 1.0}, {"Athelas-Bold", "Lato", 200, 0, 0.857},
      {"Menlo-Italic", "DejaVu Sans Mono", 80, 100, 0.928}, {"Helvetica-LightOblique", nullptr, 50, 110, 0},
      {"NoSuchFont-Bold", nullptr, 200, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.requested);
    LogCapture log;
    RenderNotes notes;
    const auto layer = [&](const std::string& text) {
      return JsonValue(listTextLayer({{text, c.requested}, {"two", "Roboto-Regular"}, {"three", c.requested, 30}}));
    };
    const TextBlock block = buildTextBlock(layer("one"), notes);
    buildTextBlock(layer("again"), notes);
    const TextFace& face = block.paragraphs[0].runs[0].font;
    EXPECT_TRUE(face.substituted);
    EXPECT_FALSE(face.file.empty());
    if (c.family) EXPECT_EQ(face.family, c.family);
    EXPECT_EQ(face.weight, c.weight);
    EXPECT_EQ(face.slant, c.slant);
    EXPECT_DOUBLE_EQ(face.ascentEm, c.ascentEm);
    EXPECT_FALSE(block.paragraphs[0].runs[1].font.substituted);
    EXPECT_EQ(log.count(c.requested), 1u);
  }
  const auto families = fallbackFamiliesFor("HelveticaNeue-Bold");
  EXPECT_EQ(families.front(), "HelveticaNeue");
  EXPECT_NE(std::find(families.begin(), families.end(), "Helvetica Neue"), families.end());
  EXPECT_EQ(families.back(), "sans-serif");
  // Installed faces keep their own weight and metrics, also under another name.
  const TextFace roboto = resolveTextFace("Roboto-Medium", 12), play = resolveTextFace("Play-Regular", 12);
  EXPECT_FALSE(roboto.substituted || play.substituted);
  EXPECT_EQ(roboto.postScriptName, "Roboto-Medium");
  EXPECT_EQ(roboto.ascentEm, 0);
  EXPECT_EQ(play.family, "Play");
  EXPECT_TRUE(resolveTextFace("Play-Light", 12).substituted);
}

// MARK: - Layout

TEST(RenderTextLayout, LineHeightsParagraphSpacingAndGlyphPlacement) {
  const double natural = lineHeightOf("Roboto-Regular", 20);
  ASSERT_GT(natural, 20);
  const JsonObject spaced{{"paragraphStyle", paragraphStyle({{"paragraphSpacing", 10}})}};
  struct Case {
    RunSpec run;
    double height;     // of the whole block
    double shift = 0;  // of the first line's ink against the same text with no paragraph style
  };
  // Half the extra leading goes above the glyphs. A stand-in keeps the
  // missing face's line box; with a set line height Sketch also puts
  // Hiragino's half-em line gap above the glyphs, but keeps the baseline
  // inside the line box.
  const Case cases[] = {
      {{"H"}, natural},
      {{"H\nH"}, 2 * natural},
      {{"H\nH", "Roboto-Regular", 20, spaced}, 2 * natural + 10},
      {{"H\nH\n", "Roboto-Regular", 20, spaced}, 3 * natural + 20},
      {{"H\nH", "Roboto-Regular", 20, lineHeight(40)}, 80, (40 - natural) / 2},
      {{"A\nB", "SFProText-Regular", 10}, 2 * 11.93},
      {{"漢字", "HiraginoSans-W3", 20}, 20},
      {{"漢字", "HiraginoSans-W3", 20, lineHeight(40)}, 40, 10 + 10},
      {{"漢字", "HiraginoSans-W3", 20, lineHeight(24)}, 24, 24.3 - 0.88 * 20},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.run.text + " " + c.run.font);
    const TextBlock block = build(listTextLayer({c.run}, 0));
    EXPECT_NEAR(measureTextBlock(block, {0, 0, 200, 100}).height, c.height, 1e-6);
    const Ink plain = inkOfRuns({{c.run.text.substr(0, c.run.text.find('\n')), c.run.font, c.run.size}});
    const Ink ink = inkOf(block);
    ASSERT_TRUE(plain.any && ink.any);
    EXPECT_NEAR(ink.top - plain.top, c.shift, 1);
  }
  // The second line is drawn one line box below the first.
  const Ink one = inkOfRuns({{"H", "Roboto-Regular", 20, lineHeight(40)}});
  const Ink two = inkOfRuns({{"H\nH", "Roboto-Regular", 20, lineHeight(40)}});
  EXPECT_NEAR(two.bottom - one.bottom, 40, 0.51);
}

TEST(RenderTextLayout, AlignmentPlacesInk) {
  const double natural = lineHeightOf("Roboto-Regular", 20);
  struct Case {
    int alignment, vertical, behaviour;
    double left, center, right;  // NaN: not checked
    double shift;                // of the ink against top alignment
  };
  const Case cases[] = {
      {0, 0, 2, 0, kAny, kAny, 0},        {4, 0, 2, 0, kAny, kAny, 0},
      {2, 1, 2, kAny, 100, kAny, (120 - natural) / 2}, {1, 2, 2, kAny, kAny, 200, 120 - natural},
      {0, 1, 1, 0, kAny, kAny, 0},  // only fixed-size boxes align vertically
  };
  const Rect frame{0, 0, 200, 120};
  const Ink top = inkOf(build(listTextLayer({{"HIH"}}, 2, 200, 120)), frame);
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.alignment << c.vertical << c.behaviour);
    JsonObject layer = listTextLayer(
        {{"HIH", "Roboto-Regular", 20, {{"paragraphStyle", paragraphStyle({{"alignment", c.alignment}})}}}},
        c.behaviour, 200, 120);
    layer["style"] = JsonObject{{"textStyle", JsonObject{{"verticalAlignment", c.vertical}}}};
    const Ink ink = inkOf(build(layer), frame);
    ASSERT_TRUE(ink.any);
    // H's stems sit about 1.5 px inside its advance at 20 pt.
    if (!std::isnan(c.left)) EXPECT_NEAR(ink.left, c.left, 3);
    if (!std::isnan(c.center)) EXPECT_NEAR((ink.left + ink.right) / 2, c.center, 1.5);
    if (!std::isnan(c.right)) EXPECT_NEAR(ink.right, c.right, 3);
    EXPECT_NEAR(ink.top - top.top, c.shift, 1);
  }
}

TEST(RenderTextLayout, OutlineCoversTheInkAndKerningWidensIt) {
  const TextBlock block = build(listTextLayer({{"Outline", "Roboto-Bold", 30}}));
  const Rect frame{10, 5, 200, 100};
  const Ink ink = inkOf(block, frame);
  const Rect bounds = textOutline(block, frame).bounds();
  EXPECT_NEAR(bounds.x, ink.left, 1.5);
  EXPECT_NEAR(bounds.y, ink.top, 1.5);
  EXPECT_NEAR(bounds.x + bounds.width, ink.right, 1.5);
  EXPECT_NEAR(bounds.y + bounds.height, ink.bottom, 1.5);
  // One spacing per character (the last one's falls outside the ink).
  const Rect wide = textOutline(build(listTextLayer({{"Outline", "Roboto-Bold", 30, {{"kerning", 4}}}}, 0)), frame).bounds();
  EXPECT_NEAR(wide.width - bounds.width, 6 * 4, 0.5);
}

TEST(RenderTextLayout, UnrotatedBoxesStartOnTheNextWholePixel) {
  const TextBlock block = build(listTextLayer({{"H"}}));
  struct Case {
    double y, scale, equivalentY;  // drawing at y looks exactly like drawing at equivalentY
  };
  const Case cases[] = {{10.2, 1, 11}, {10.9, 1, 11}, {10.0, 1, 10}, {10.2, 2, 10.5}, {10.6, 2, 11}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.y << " at " << c.scale);
    const Ink ink = inkOf(block, {0, c.y, 100, 50}, c.scale), expected = inkOf(block, {0, c.equivalentY, 100, 50}, c.scale);
    EXPECT_EQ(ink.top, expected.top);
    EXPECT_EQ(ink.bottom, expected.bottom);
  }
  // The outline has no device to snap to and keeps the box top.
  const double top = textOutline(block, {0, 0, 100, 50}).bounds().y;
  EXPECT_NEAR(textOutline(block, {0, 10.2, 100, 50}).bounds().y - top, 10.2, 0.01);  // Cairo keeps 1/256 px
}

TEST(RenderTextLayout, StandInsTakeTheMissingFacesSizesButCJKKeepsItsEm) {
  // Hiragino's Latin: DejaVu Sans drawn 5% larger, spaced to 1% wider.
  const Ink dejaVu = inkOfRuns({{"H", "DejaVuSans-Bold", 100}});
  const Ink hiragino = inkOfRuns({{"H", "HiraginoSans-W7", 100}});
  ASSERT_TRUE(dejaVu.any && hiragino.any);
  EXPECT_NEAR((hiragino.bottom - hiragino.top) / (dejaVu.bottom - dejaVu.top), 1.05, 0.02);
  EXPECT_NEAR(measuredWidth({{"HHHHHHHHHH", "HiraginoSans-W7", 20}}) / measuredWidth({{"HHHHHHHHHH", "DejaVuSans-Bold", 20}}),
              1.01, 0.006);
  struct Case {
    const char* text;
    const char *font, *cjkFont;
    double width;  // NaN: not checked
  };
  const Case cases[] = {
      {"漢字かな", "HiraginoSans-W3", "NotoSansCJKjp-Regular", 4 * 20},
      {"漢", "Roboto-Regular", "NotoSansCJKjp-Regular", kAny},  // a missing glyph would be a box of another size
      {"、。ー", "HiraginoSans-W7", "NotoSansCJKjp-Bold", 3 * 20},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const Ink ink = inkOfRuns({{c.text, c.font, 40}}), cjk = inkOfRuns({{c.text, c.cjkFont, 40}});
    ASSERT_TRUE(ink.any && cjk.any);
    EXPECT_NEAR(ink.right - ink.left, cjk.right - cjk.left, 1);
    EXPECT_NEAR(ink.bottom - ink.top, cjk.bottom - cjk.top, 1);
    if (!std::isnan(c.width)) EXPECT_NEAR(measuredWidth({{c.text, c.font, 20}}), c.width, 0.05);
  }
}

TEST(RenderTextLayout, FixedWidthsWrapAndLinesMayBreakBeforeSmallKana) {
  // Five full-width characters fit a 100 pt box; Sketch breaks before small
  // kana and the prolonged sound mark, but never after an opening bracket.
  struct Case {
    const char* text;
    const char* font;
    int behaviour;
    double widest;  // line, in points
    int lines;
  };
  const Case cases[] = {
      {"wrap these words", "Roboto-Regular", 1, kAny, 2}, {"wrap these words", "Roboto-Regular", 0, kAny, 1},
      {"あいうえおっかき", "NotoSansCJKjp-Regular", 1, 100, 2}, {"あいうえおーかき", "NotoSansCJKjp-Regular", 1, 100, 2},
      {"あいうえおかきく", "NotoSansCJKjp-Regular", 1, 100, 2}, {"あいうえ「っかき", "NotoSansCJKjp-Regular", 1, 80, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.text << " " << c.behaviour);
    const Rect frame{0, 0, 100, 100};
    const TextBlock block = build(listTextLayer({{c.text, c.font, 20}}, c.behaviour, 100, 100));
    const TextExtent extent = measureTextBlock(block, frame);
    if (!std::isnan(c.widest)) EXPECT_NEAR(extent.width, c.widest, 0.5);
    EXPECT_EQ(c.behaviour == 0, extent.width > frame.width);
    EXPECT_NEAR(extent.height, c.lines * lineHeightOf(c.font, 20), 1e-6);
    EXPECT_LE(inkOf(block, frame).right, c.behaviour == 0 ? 300 : frame.width + 1);
  }
}

TEST(RenderTextLayout, StrikeThroughCrossesTheLowerCaseOnAWholePixel) {
  const Ink letters = inkOfRuns({{"xxxx"}});
  // Only the bar: drawn alone over spaces, it must sit mid x-height and be
  // whole pixels thick; an underline sits below the baseline.
  const Ink strike = inkOfRuns({{"    ", "Roboto-Regular", 20, {{"strikethroughStyle", 1}}}});
  const Ink under = inkOfRuns({{"    ", "Roboto-Regular", 20, {{"underlineStyle", 1}}}});
  ASSERT_TRUE(letters.any && strike.any && under.any);
  EXPECT_NEAR(strike.top + strike.bottom, letters.top + letters.bottom, 2);  // centres within a pixel
  EXPECT_GE(strike.bottom - strike.top, 1);
  EXPECT_LE(strike.bottom - strike.top, 2);
  EXPECT_GT(under.top, letters.bottom - 0.5);
  EXPECT_GT(strike.right - strike.left, 10);
}
