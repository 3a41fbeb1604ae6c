// Text layers: reading both storage forms into runs, fonts and fallbacks,
// and where the drawn ink lands (alignment, line heights, wrapping, vertical
// alignment). Bad input first.

#include "KeyedArchive.h"
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

struct RunSpec {
  std::string text;
  std::string font = "Roboto-Regular";
  double size = 20;
  JsonObject extra = {};  // more attribute keys (kerning, paragraphStyle, ...)
};

JsonObject fontAttribute(const std::string& name, double size) {
  return {{"_class", "fontDescriptor"}, {"attributes", JsonObject{{"name", name}, {"size", size}}}};
}

// A text layer in the attribute-list form, one attribute entry per run.
JsonObject listTextLayer(const std::vector<RunSpec>& runs, int behaviour = 2, double width = 200, double height = 100) {
  std::string text;
  JsonArray attributes;
  for (const auto& run : runs) {
    JsonObject dictionary = run.extra;
    dictionary["MSAttributedStringFontAttribute"] = fontAttribute(run.font, run.size);
    const size_t location = PXUTF16Length(text);
    text += run.text;
    attributes.push_back(JsonObject{{"_class", "stringAttribute"},
                                    {"location", location},
                                    {"length", PXUTF16Length(run.text)},
                                    {"attributes", dictionary}});
  }
  JsonObject layer = test::layer("text", "T", "Text", test::frame(0, 0, width, height));
  layer["textBehaviour"] = behaviour;
  layer["attributedString"] = JsonObject{{"_class", "attributedString"}, {"string", text}, {"attributes", attributes}};
  return layer;
}

JsonObject paragraphStyle(std::initializer_list<std::pair<const char*, double>> fields) {
  JsonObject style{{"_class", "paragraphStyle"}};
  for (const auto& [key, value] : fields) style[key] = value;
  return style;
}

// The same runs in the keyed-archive form.
JsonObject archivedTextLayer(const std::vector<RunSpec>& runs, const std::vector<PXTextAttributes>& attributes) {
  std::string text;
  for (const auto& run : runs) text += run.text;
  PXAttributedString string(text);
  size_t location = 0;
  for (size_t i = 0; i < runs.size(); ++i) {
    const size_t length = PXUTF16Length(runs[i].text);
    string.setAttributes(attributes[i], {location, length});
    location += length;
  }
  JsonObject layer = test::layer("text", "T", "Text", test::frame(0, 0, 200, 100));
  layer["textBehaviour"] = 2;
  layer["attributedString"] = JsonObject{
      {"_class", "MSAttributedString"},
      {"archivedAttributedString", JsonObject{{"_archive", PXArchiveAttributedStringToBase64(string).value_or("")}}}};
  return layer;
}

TextBlock build(const JsonObject& layer) {
  RenderNotes notes;
  return buildTextBlock(JsonValue(layer), notes);
}

struct Ink {
  bool any = false;
  double left = 0, top = 0, right = 0, bottom = 0;
  double centerX() const { return (left + right) / 2; }
  double centerY() const { return (top + bottom) / 2; }
};

// Where drawing the block into a clear surface leaves ink.
Ink inkOf(const TextBlock& block, const Rect& frame, int width = 300, int height = 200, double scale = 1) {
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_A8, width, height);
  cairo_t* cr = cairo_create(surface);
  cairo_scale(cr, scale, scale);
  drawTextBlock(cr, block, frame);
  cairo_destroy(cr);
  cairo_surface_flush(surface);
  const unsigned char* data = cairo_image_surface_get_data(surface);
  const int stride = cairo_image_surface_get_stride(surface);
  Ink ink;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (data[y * stride + x] < 128) continue;
      if (!ink.any) ink = {true, double(x), double(y), double(x + 1), double(y + 1)};
      ink.left = std::min(ink.left, double(x)), ink.right = std::max(ink.right, double(x + 1));
      ink.top = std::min(ink.top, double(y)), ink.bottom = std::max(ink.bottom, double(y + 1));
    }
  }
  cairo_surface_destroy(surface);
  return ink;
}

double robotoLineHeight(double size) {
  const auto font = PXFontWithName("Roboto-Regular", size);
  return font ? PXDefaultLineHeightForFont(*font).value_or(0) : 0;
}

}  // namespace

// MARK: - Bad input

TEST(RenderTextMalformed, HostileAttributeListsDrawWithoutCrashing) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    const char* name;
    JsonValue location, length, size;
    bool visible = true;  // a 5000 pt line puts everything below the surface
  };
  const Case cases[] = {
      {"negative location", -5, 3, 12.0},       {"negative length", 0, -3, 12.0},
      {"beyond the end", 2, 1000, 12.0},        {"far beyond", 1LL << 40, 4, 12.0},
      {"NaN size", 0, 4, nan},                  {"huge size", 0, 4, 1e300, false},
      {"negative size", 0, 4, -20.0},           {"size as text", 0, 4, "big"},
      {"location as text", "x", 4, 12.0},       {"null length", 0, nullptr, 12.0},
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
    // Overlapping second entry.
    attributes[1].as_object()["location"] = 2;
    const TextBlock block = build(layer);
    ASSERT_FALSE(block.paragraphs.empty());
    for (const auto& paragraph : block.paragraphs) {
      for (const auto& run : paragraph.runs) EXPECT_TRUE(std::isfinite(run.font.size) && run.font.size > 0);
    }
    EXPECT_EQ(inkOf(block, {0, 0, 200, 100}).any, c.visible);
  }
}

TEST(RenderTextMalformed, BrokenStorageAndInvalidUTF8) {
  JsonObject invalid = listTextLayer({{"ok \xff\xfe bad \xc3"}});
  JsonObject noString = test::layer("text", "T", "Text", test::frame(0, 0, 100, 40));
  JsonObject garbageArchive = noString;
  garbageArchive["attributedString"] = JsonObject{{"archivedAttributedString", JsonObject{{"_archive", "!!notbase64"}}}};
  JsonObject attributesNotObjects = listTextLayer({{"abc"}});
  attributesNotObjects["attributedString"].as_object()["attributes"] = JsonArray{1, "x", nullptr, JsonArray{}};

  const std::pair<const char*, JsonValue> cases[] = {
      {"invalid UTF-8", invalid},     {"no attributed string", noString}, {"garbage archive", garbageArchive},
      {"attribute list of junk", attributesNotObjects}, {"not an object", JsonValue(42)},
  };
  for (const auto& [name, layer] : cases) {
    SCOPED_TRACE(name);
    RenderNotes notes;
    const TextBlock block = buildTextBlock(layer, notes);
    ASSERT_EQ(block.paragraphs.size(), 1u);
    ASSERT_FALSE(block.paragraphs[0].runs.empty());
    for (const auto& run : block.paragraphs[0].runs)
      EXPECT_TRUE(g_utf8_validate(run.text.c_str(), static_cast<gssize>(run.text.size()), nullptr));
    inkOf(block, {0, 0, 100, 40});
  }
  // Invalid bytes become replacement characters; the valid text survives.
  EXPECT_NE(build(invalid).paragraphs[0].runs[0].text.find("ok "), std::string::npos);
  EXPECT_NE(build(invalid).paragraphs[0].runs[0].text.find("\xEF\xBF\xBD"), std::string::npos);
}

TEST(RenderTextMalformed, TextOnAPathIsNotedAndNotDrawn) {
  JsonObject layer = listTextLayer({{"Curved"}});
  layer["automaticallyDrawOnUnderlyingPath"] = true;
  LogCapture log;
  const TextBlock block = build(layer);
  EXPECT_FALSE(block.drawable);
  EXPECT_FALSE(inkOf(block, {0, 0, 200, 100}).any);
  EXPECT_EQ(log.count("text on a path"), 1u);
}

// MARK: - Reading

TEST(RenderTextReading, BothStorageFormsGiveTheSameRuns) {
  struct Case {
    const char* name;
    std::vector<RunSpec> runs;
  };
  PXTextAttributes red;
  red.font = PXFontDescriptor{"Roboto-Bold", 18};
  red.foregroundColor = PXColor::rgb(1, 0, 0, 0.5);
  red.kerning = 1.5;
  PXTextAttributes plain;
  plain.font = PXFontDescriptor{"Roboto-Regular", 12};
  plain.paragraphStyle = PXParagraphStyle{.alignment = 2, .minimumLineHeight = 30, .maximumLineHeight = 30};
  const JsonObject redJSON{{"MSAttributedStringColorAttribute", JsonObject{{"red", 1}, {"green", 0}, {"blue", 0}, {"alpha", 0.5}}},
                           {"kerning", 1.5}};
  const JsonObject plainJSON{{"paragraphStyle", paragraphStyle({{"alignment", 2}, {"minimumLineHeight", 30}, {"maximumLineHeight", 30}})}};
  const Case cases[] = {
      {"one run", {{"Hello", "Roboto-Bold", 18, redJSON}}},
      {"two runs", {{"Bold ", "Roboto-Bold", 18, redJSON}, {"plain", "Roboto-Regular", 12, plainJSON}}},
      {"paragraphs", {{"A\nB", "Roboto-Bold", 18, redJSON}, {"\nC\n", "Roboto-Regular", 12, plainJSON}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<PXTextAttributes> archived;
    for (const auto& run : c.runs) archived.push_back(run.font == "Roboto-Bold" ? red : plain);
    const TextBlock listed = build(listTextLayer(c.runs));
    const TextBlock fromArchive = build(archivedTextLayer(c.runs, archived));
    ASSERT_EQ(listed.paragraphs.size(), fromArchive.paragraphs.size());
    for (size_t p = 0; p < listed.paragraphs.size(); ++p) {
      const auto& a = listed.paragraphs[p];
      const auto& b = fromArchive.paragraphs[p];
      EXPECT_EQ(a.alignment, b.alignment);
      EXPECT_EQ(a.minimumLineHeight, b.minimumLineHeight);
      ASSERT_EQ(a.runs.size(), b.runs.size());
      for (size_t r = 0; r < a.runs.size(); ++r) {
        EXPECT_EQ(a.runs[r].text, b.runs[r].text);
        EXPECT_EQ(a.runs[r].font.postScriptName, b.runs[r].font.postScriptName);
        EXPECT_DOUBLE_EQ(a.runs[r].font.size, b.runs[r].font.size);
        EXPECT_NEAR(a.runs[r].color.r, b.runs[r].color.r, 1e-6);
        EXPECT_NEAR(a.runs[r].color.a, b.runs[r].color.a, 1e-6);
        EXPECT_DOUBLE_EQ(a.runs[r].kerning, b.runs[r].kerning);
      }
    }
  }
}

TEST(RenderTextReading, ParagraphsRunsAndTransforms) {
  const TextBlock block = build(listTextLayer(
      {{"make it ", "Roboto-Regular", 20, {{"MSAttributedStringTextTransformAttribute", 1}}},
       {"LOUD\r\nQuiet", "Roboto-Regular", 20, {{"MSAttributedStringTextTransformAttribute", 2}, {"underlineStyle", 1}}},
       {"\n", "Roboto-Bold", 30}}));
  ASSERT_EQ(block.paragraphs.size(), 3u);
  ASSERT_EQ(block.paragraphs[0].runs.size(), 2u);
  EXPECT_EQ(block.paragraphs[0].runs[0].text, "MAKE IT ");
  EXPECT_EQ(block.paragraphs[0].runs[1].text, "loud");
  EXPECT_TRUE(block.paragraphs[0].runs[1].underline);
  EXPECT_EQ(block.paragraphs[1].runs[0].text, "quiet");
  // The trailing break leaves an empty last line in the break's font.
  ASSERT_EQ(block.paragraphs[2].runs.size(), 1u);
  EXPECT_EQ(block.paragraphs[2].runs[0].text, "");
  EXPECT_EQ(block.paragraphs[2].runs[0].font.postScriptName, "Roboto-Bold");
}

TEST(RenderTextReading, MissingFontsFallBackAndAreNotedOnce) {
  struct Case {
    const char* requested;
    int minimumWeight;  // fontconfig weight the stand-in has at least
  };
  const Case cases[] = {{"NoSuchFont-Bold", 200}, {"HelveticaNeue-Light", 0}, {"SFUIText-Regular", 80}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.requested);
    LogCapture log;
    RenderNotes notes;
    const TextBlock block = buildTextBlock(
        JsonValue(listTextLayer({{"one ", c.requested}, {"two", "Roboto-Regular"}, {"three", c.requested, 30}})), notes);
    buildTextBlock(JsonValue(listTextLayer({{"again", c.requested}})), notes);
    const TextRun& run = block.paragraphs[0].runs[0];
    EXPECT_TRUE(run.font.substituted);
    EXPECT_FALSE(run.font.file.empty());
    EXPECT_GE(run.font.weight, c.minimumWeight);
    EXPECT_FALSE(block.paragraphs[0].runs[1].font.substituted);
    EXPECT_EQ(log.count(c.requested), 1u);
  }
  const auto families = fallbackFamiliesFor("HelveticaNeue-Bold");
  EXPECT_EQ(families.front(), "HelveticaNeue");
  EXPECT_NE(std::find(families.begin(), families.end(), "Helvetica Neue"), families.end());
  EXPECT_EQ(families.back(), "sans-serif");
}

TEST(RenderTextReading, MissingFacesStandInByFamilyWeightAndSlant) {
  struct Case {
    const char* requested;
    const char* family;  // installed stand-in
    int weight, slant;   // fontconfig values the name asks for
    double ascentEm;     // the missing face's own ascent, 0 when unknown
  };
  const Case cases[] = {
      {"HiraginoSans-W2", "DejaVu Sans", 50, 0, 0.88},
      {"HiraginoSans-W3", "DejaVu Sans", 80, 0, 0.88},
      {"HiraKakuProN-W3", "DejaVu Sans", 80, 0, 0.88},
      {"HiraginoSans-W5", "DejaVu Sans", 100, 0, 0.88},
      {"HiraginoSans-W6", "DejaVu Sans", 180, 0, 0.88},
      {"HiraginoSans-W7", "DejaVu Sans", 200, 0, 0.88},
      {"HiraginoSans-W9", "DejaVu Sans", 210, 0, 0.88},
      {"SFProText-Semibold", "Open Sans", 180, 0, 0.952},
      {"SFUIText-Semibold", "Open Sans", 180, 0, 0.952},
      {"SFProText-RegularItalic", "Open Sans", 80, 100, 0.952},
      {"SFProDisplay-Ultralight", "Lato", 40, 0, 0.952},
      {"SFProDisplay-Thin", "Lato", 0, 0, 0.952},
      {"SFProDisplay-Heavy", "Lato", 205, 0, 0.952},
      {"SFProDisplay-Black", "Lato", 210, 0, 0.952},
      {"AvenirNext-Medium", "Open Sans", 100, 0, 1.0},
      {"AvenirNext-DemiBoldItalic", "Open Sans", 180, 100, 1.0},
      {"Athelas-Bold", "Lato", 200, 0, 0.857},
      {"Menlo-Italic", "DejaVu Sans Mono", 80, 100, 0.928},
      {"Helvetica-LightOblique", "Roboto", 50, 110, 0},
      {"NoSuchFont-Light", nullptr, 50, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.requested);
    const TextFace face = resolveTextFace(c.requested, 12);
    EXPECT_TRUE(face.substituted);
    EXPECT_FALSE(face.file.empty());
    if (c.family) EXPECT_EQ(face.family, c.family);
    EXPECT_EQ(face.weight, c.weight);
    EXPECT_EQ(face.slant, c.slant);
    EXPECT_DOUBLE_EQ(face.ascentEm, c.ascentEm);
  }
  // Installed faces keep their own weight and metrics.
  const TextFace roboto = resolveTextFace("Roboto-Medium", 12);
  EXPECT_FALSE(roboto.substituted);
  EXPECT_EQ(roboto.postScriptName, "Roboto-Medium");
  EXPECT_EQ(roboto.ascentEm, 0);
  // A face installed under another name ("Play" for Play's regular) is no stand-in.
  const TextFace play = resolveTextFace("Play-Regular", 12);
  EXPECT_FALSE(play.substituted);
  EXPECT_EQ(play.family, "Play");
  EXPECT_TRUE(resolveTextFace("Play-Light", 12).substituted);
}

// MARK: - Layout

TEST(RenderTextLayout, HorizontalAlignmentPlacesInk) {
  struct Case {
    int alignment;
    double expectedLeft, expectedCenter, expectedRight;  // NaN: not checked
  };
  const double any = std::numeric_limits<double>::quiet_NaN();
  const Case cases[] = {{0, 0, any, any}, {4, 0, any, any}, {2, any, 100, any}, {1, any, any, 200}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.alignment);
    const TextBlock block = build(listTextLayer(
        {{"HIH", "Roboto-Regular", 20, {{"paragraphStyle", paragraphStyle({{"alignment", c.alignment}})}}}}));
    const Ink ink = inkOf(block, {0, 0, 200, 100});
    ASSERT_TRUE(ink.any);
    // H's stems sit about 1.5 px inside its advance at 20 pt.
    if (!std::isnan(c.expectedLeft)) EXPECT_NEAR(ink.left, c.expectedLeft, 3);
    if (!std::isnan(c.expectedCenter)) EXPECT_NEAR(ink.centerX(), c.expectedCenter, 1.5);
    if (!std::isnan(c.expectedRight)) EXPECT_NEAR(ink.right, c.expectedRight, 3);
  }
}

TEST(RenderTextLayout, FixedLineHeightSpacesLinesAndCentresGlyphs) {
  const JsonObject fixed{{"paragraphStyle", paragraphStyle({{"minimumLineHeight", 40}, {"maximumLineHeight", 40}})}};
  const TextBlock natural = build(listTextLayer({{"H"}}));
  const TextBlock one = build(listTextLayer({{"H", "Roboto-Regular", 20, fixed}}));
  const TextBlock two = build(listTextLayer({{"H\nH", "Roboto-Regular", 20, fixed}}));
  const Ink plain = inkOf(natural, {0, 0, 200, 120});
  const Ink first = inkOf(one, {0, 0, 200, 120});
  const Ink both = inkOf(two, {0, 0, 200, 120});
  ASSERT_TRUE(plain.any && first.any && both.any);
  EXPECT_NEAR(both.bottom - first.bottom, 40, 0.51);
  EXPECT_NEAR(measureTextBlock(two, {0, 0, 200, 120}).height, 80, 1e-6);
  // Half the extra leading goes above the glyphs.
  EXPECT_NEAR(first.top - plain.top, (40 - robotoLineHeight(20)) / 2, 0.51);
}

TEST(RenderTextLayout, DefaultLineHeightAndParagraphSpacing) {
  const double natural = robotoLineHeight(20);
  ASSERT_GT(natural, 20);
  const JsonObject spaced{{"paragraphStyle", paragraphStyle({{"paragraphSpacing", 10}})}};
  struct Case {
    const char* text;
    JsonObject extra;
    double expected;
  };
  const Case cases[] = {
      {"H", {}, natural},
      {"H\nH", {}, 2 * natural},
      {"H\nH", spaced, 2 * natural + 10},
      {"H\nH\n", spaced, 3 * natural + 20},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const TextBlock block = build(listTextLayer({{c.text, "Roboto-Regular", 20, c.extra}}));
    EXPECT_NEAR(measureTextBlock(block, {0, 0, 200, 100}).height, c.expected, 1e-6);
  }
}

TEST(RenderTextLayout, VerticalAlignmentInAFixedSizeBox) {
  const double natural = robotoLineHeight(20);
  struct Case {
    int vertical;
    int behaviour;
    double shift;  // expected ink shift against top alignment
  };
  const Case cases[] = {{1, 2, (120 - natural) / 2}, {2, 2, 120 - natural}, {1, 1, 0}, {0, 2, 0}};
  JsonObject top = listTextLayer({{"H"}}, 2, 200, 120);
  const Ink reference = inkOf(build(top), {0, 0, 200, 120});
  for (const auto& c : cases) {
    SCOPED_TRACE(c.vertical * 10 + c.behaviour);
    JsonObject layer = listTextLayer({{"H"}}, c.behaviour, 200, 120);
    layer["style"] = JsonObject{{"textStyle", JsonObject{{"verticalAlignment", c.vertical}}}};
    const Ink ink = inkOf(build(layer), {0, 0, 200, 120});
    EXPECT_NEAR(ink.top - reference.top, c.shift, 1);
  }
}

TEST(RenderTextLayout, FixedWidthWrapsAndAutoWidthDoesNot) {
  const std::string text = "wrap these words";
  const Ink wrapped = inkOf(build(listTextLayer({{text}}, 1, 60, 100)), {0, 0, 60, 100});
  const Ink single = inkOf(build(listTextLayer({{text}}, 0, 60, 100)), {0, 0, 60, 100});
  ASSERT_TRUE(wrapped.any && single.any);
  EXPECT_LE(wrapped.right, 61);
  EXPECT_GT(wrapped.bottom - wrapped.top, 2 * robotoLineHeight(20));
  EXPECT_GT(single.right, 100);
  EXPECT_LT(single.bottom - single.top, robotoLineHeight(20));
}

TEST(RenderTextLayout, OutlineCoversTheInk) {
  const TextBlock block = build(listTextLayer({{"Outline", "Roboto-Bold", 30}}));
  const Rect frame{10, 5, 200, 100};
  const Ink ink = inkOf(block, frame);
  const Path outline = textOutline(block, frame);
  ASSERT_FALSE(outline.isEmpty());
  const Rect bounds = outline.bounds();
  EXPECT_NEAR(bounds.x, ink.left, 1.5);
  EXPECT_NEAR(bounds.y, ink.top, 1.5);
  EXPECT_NEAR(bounds.x + bounds.width, ink.right, 1.5);
  EXPECT_NEAR(bounds.y + bounds.height, ink.bottom, 1.5);
  // Kerning widens the line by one spacing per character.
  JsonObject kerned = listTextLayer({{"Outline", "Roboto-Bold", 30, {{"kerning", 4}}}}, 0);
  const Rect wide = textOutline(build(kerned), frame).bounds();
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
    const Ink ink = inkOf(block, {0, c.y, 100, 50}, 300, 200, c.scale);
    const Ink expected = inkOf(block, {0, c.equivalentY, 100, 50}, 300, 200, c.scale);
    EXPECT_EQ(ink.top, expected.top);
    EXPECT_EQ(ink.bottom, expected.bottom);
  }
  // The outline has no device to snap to and keeps the box top.
  const double top = textOutline(block, {0, 0, 100, 50}).bounds().y;
  EXPECT_NEAR(textOutline(block, {0, 10.2, 100, 50}).bounds().y - top, 10.2, 0.01);  // Cairo keeps 1/256 px
}

TEST(RenderTextLayout, StandInsKeepTheMissingFacesLineBoxes) {
  const TextBlock natural = build(listTextLayer({{"漢字", "HiraginoSans-W3", 20}}, 0));
  EXPECT_NEAR(measureTextBlock(natural, {0, 0, 200, 100}).height, 20, 1e-9);  // Hiragino lines are one em
  EXPECT_NEAR(measureTextBlock(build(listTextLayer({{"A\nB", "SFProText-Regular", 10}}, 0)), {0, 0, 200, 100}).height,
              2 * 11.93, 1e-9);
  const Ink plain = inkOf(natural, {0, 0, 200, 100});
  ASSERT_TRUE(plain.any);
  struct Case {
    double lineHeight, shift;  // ink shift against the natural line
  };
  // With a set line height Sketch puts Hiragino's half-em line gap above the
  // glyphs as well as half the extra leading, but keeps the baseline inside
  // the line box.
  const Case cases[] = {{40, (40 - 20) / 2 + 10}, {36, (36 - 20) / 2 + 10}, {24, 24.3 - 0.88 * 20}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lineHeight);
    const JsonObject fixed{{"paragraphStyle", paragraphStyle({{"minimumLineHeight", c.lineHeight},
                                                              {"maximumLineHeight", c.lineHeight}})}};
    const Ink shifted = inkOf(build(listTextLayer({{"漢字", "HiraginoSans-W3", 20, fixed}}, 0)), {0, 0, 200, 100});
    ASSERT_TRUE(shifted.any);
    EXPECT_NEAR(shifted.top - plain.top, c.shift, 1);
  }
}

TEST(RenderTextLayout, JapaneseInALatinFaceDrawsFromTheCJKFace) {
  // A box for a missing glyph would be a hollow rectangle of another size.
  const Ink latin = inkOf(build(listTextLayer({{"漢", "Roboto-Regular", 40}}, 0)), {0, 0, 200, 100});
  const Ink cjk = inkOf(build(listTextLayer({{"漢", "NotoSansCJKjp-Regular", 40}}, 0)), {0, 0, 200, 100});
  ASSERT_TRUE(latin.any && cjk.any);
  EXPECT_NEAR(latin.right - latin.left, cjk.right - cjk.left, 1);
  EXPECT_NEAR(latin.bottom - latin.top, cjk.bottom - cjk.top, 1);
}

TEST(RenderTextLayout, LinesMayBreakBeforeSmallKana) {
  struct Case {
    const char* text;
    double widestLine;  // in ems of the 20 pt face
  };
  // Five full-width characters fit the box; Sketch breaks before small kana
  // and the prolonged sound mark, but never after an opening bracket.
  const Case cases[] = {
      {"あいうえおっかき", 5},
      {"あいうえおーかき", 5},
      {"あいうえおかきく", 5},
      {"あいうえ「っかき", 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const TextBlock block = build(listTextLayer({{c.text, "NotoSansCJKjp-Regular", 20}}, 1, 100, 100));
    EXPECT_NEAR(measureTextBlock(block, {0, 0, 100, 100}).width, c.widestLine * 20, 0.5);
  }
}

TEST(RenderTextLayout, StrikeThroughCrossesTheLowerCaseOnAWholePixel) {
  const JsonObject struck{{"strikethroughStyle", 1}};
  const JsonObject underlined{{"underlineStyle", 1}};
  const Ink letters = inkOf(build(listTextLayer({{"xxxx", "Roboto-Regular", 20}}, 0)), {0, 0, 200, 100});
  ASSERT_TRUE(letters.any);
  // Only the bar: drawn alone over spaces, it must sit mid x-height and be
  // whole pixels thick; an underline sits below the baseline.
  const Ink strike = inkOf(build(listTextLayer({{"    ", "Roboto-Regular", 20, struck}}, 0)), {0, 0, 200, 100});
  const Ink under = inkOf(build(listTextLayer({{"    ", "Roboto-Regular", 20, underlined}}, 0)), {0, 0, 200, 100});
  ASSERT_TRUE(strike.any && under.any);
  EXPECT_NEAR(strike.centerY(), letters.centerY(), 1);
  EXPECT_GE(strike.bottom - strike.top, 1);
  EXPECT_LE(strike.bottom - strike.top, 2);
  EXPECT_GT(under.top, letters.bottom - 0.5);
  EXPECT_GT(strike.right - strike.left, 10);
}
