#include "TextBlock.h"

#include "Json.h"
#include "PXMetaText.h"
#include "TextFonts.h"
#include "TextLayout.h"

#include <hb-ot.h>
#include <hb.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>

namespace plexa::render {

namespace {

constexpr double kDefaultFontSize = 12;
// Pango works in 1/1024 points in 32-bit integers: keep sizes well inside.
constexpr double kMaxSize = 5000;
constexpr double kMaxSpacing = 10000;

double finiteIn(std::optional<double> value, double low, double high, double fallback) {
  if (!value || !std::isfinite(*value)) return fallback;
  return std::clamp(*value, low, high);
}

// MARK: - Reading the attributed string

// Attributes the attribute-list form carries beyond font, colour and
// paragraph style.
PXTextAttributes extraAttributesFromJSON(const JsonValue& attributes) {
  PXTextAttributes extra;
  extra.kerning = PXJsonDoubleFor(&attributes, "kerning");
  if (!extra.kerning) extra.kerning = PXJsonDoubleFor(&attributes, "NSKern");
  extra.underlineStyle = PXJsonInt64For(&attributes, "underlineStyle");
  extra.strikethroughStyle = PXJsonInt64For(&attributes, "strikethroughStyle");
  extra.textTransform = PXJsonInt64For(&attributes, "MSAttributedStringTextTransformAttribute");
  extra.baselineOffset = PXJsonDoubleFor(&attributes, "baselineOffset");
  return extra;
}

// Font, colour and paragraph style of a plain attribute dictionary, as the
// attribute-list form and its default text style write them.
PXTextAttributes attributesFromJSON(const JsonValue& attributes) {
  PXTextAttributes result = extraAttributesFromJSON(attributes);
  if (const JsonValue* font = PXJsonFind(&attributes, "MSAttributedStringFontAttribute")) {
    const JsonValue* fields = PXJsonFind(font, "attributes");
    if (auto name = PXJsonTextFor(fields, "name"))
      result.font = PXFontDescriptor{std::string(*name), PXJsonDoubleFor(fields, "size").value_or(0)};
  }
  if (const JsonValue* color = PXJsonFind(&attributes, "MSAttributedStringColorAttribute"); color && color->is_object()) {
    const auto part = [&](const char* key, double fallback) { return PXJsonDoubleFor(color, key).value_or(fallback); };
    result.foregroundColor = PXColor::rgb(part("red", 0), part("green", 0), part("blue", 0), part("alpha", 1));
  }
  if (const JsonValue* style = PXJsonFind(&attributes, "paragraphStyle"); style && style->is_object()) {
    PXParagraphStyle paragraph;
    paragraph.alignment = PXJsonInt64For(style, "alignment");
    paragraph.minimumLineHeight = PXJsonDoubleFor(style, "minimumLineHeight");
    paragraph.maximumLineHeight = PXJsonDoubleFor(style, "maximumLineHeight");
    paragraph.paragraphSpacing = PXJsonDoubleFor(style, "paragraphSpacing");
    result.paragraphStyle = paragraph;
  }
  return result;
}

// The attribute-list form: what the shared reader builds, plus kerning,
// decorations and transforms laid over the same ranges.
std::optional<PXAttributedString> attributeListString(const JsonObject& layer) {
  auto string = PXAttributedStringFromJSONAttributedString(layer);
  if (!string) return std::nullopt;
  const JsonArray* list = PXJsonArrayFor(layer.if_contains("attributedString"), "attributes");
  if (!list) return string;
  for (const JsonValue& entry : *list) {
    const auto location = PXJsonInt64For(&entry, "location");
    const auto length = PXJsonInt64For(&entry, "length");
    const JsonValue* attributes = PXJsonFind(&entry, "attributes");
    if (!location || !length || *location < 0 || *length <= 0 || !attributes || !attributes->is_object()) continue;
    string->addAttributes(extraAttributesFromJSON(*attributes),
                          PXUTF16Range{static_cast<size_t>(*location), static_cast<size_t>(*length)});
  }
  return string;
}

PXAttributedString attributedStringOf(const JsonObject& layer) {
  if (auto archived = PXAttributedStringFromJSONArchivedAttributedString(layer)) return std::move(*archived);
  if (auto listed = attributeListString(layer)) return std::move(*listed);
  return PXAttributedString{};
}

// The layer's default text style, for runs that name no font or colour.
PXTextAttributes defaultAttributesOf(const JsonValue& layer) {
  const JsonValue* encoded = PXJsonFind(PXJsonFind(PXJsonFind(&layer, "style"), "textStyle"), "encodedAttributes");
  if (!encoded || !encoded->is_object()) return {};
  return attributesFromJSON(*encoded);
}

// MARK: - Resolving runs

Color colorOf(const PXTextAttributes& attributes) {
  const auto unit = [](double value) { return std::isfinite(value) ? std::clamp(value, 0.0, 1.0) : 0.0; };
  if (attributes.foregroundColor) {
    const PXColor& color = *attributes.foregroundColor;
    auto rgb = color.rgbComponents();
    if (!rgb) rgb = color.convertedToRGB().rgbComponents();
    const PXRGBComponents parts = rgb.value_or(PXRGBComponents{});
    return {unit(parts.red), unit(parts.green), unit(parts.blue), std::isfinite(color.alpha) ? unit(color.alpha) : 1.0};
  }
  if (attributes.colorDictionary) {
    const PXColorDictionary& color = *attributes.colorDictionary;
    return {unit(color.red.value_or(0)), unit(color.green.value_or(0)), unit(color.blue.value_or(0)),
            unit(color.alpha.value_or(1))};
  }
  return {};
}

std::string transformed(const std::string& text, const std::optional<int64_t>& transform) {
  if (!transform || (*transform != 1 && *transform != 2) || text.empty()) return text;
  gchar* changed = *transform == 1 ? g_utf8_strup(text.c_str(), static_cast<gssize>(text.size()))
                                   : g_utf8_strdown(text.c_str(), static_cast<gssize>(text.size()));
  std::string result = changed ? changed : text;
  g_free(changed);
  return result;
}

TextRun runWithAttributes(const PXTextAttributes& attributes, RenderNotes& notes) {
  TextRun run;
  const std::string name = attributes.font ? attributes.font->name : std::string();
  double size = attributes.font ? attributes.font->size : kDefaultFontSize;
  // A size of zero asks for the default size, as font descriptors do.
  if (!std::isfinite(size) || size <= 0) size = kDefaultFontSize;
  run.font = resolveTextFace(name, std::min(size, kMaxSize));
  if (run.font.substituted) notes.missingFont(name, run.font.postScriptName.empty() ? run.font.family : run.font.postScriptName);
  run.color = colorOf(attributes);
  run.kerning = finiteIn(attributes.kerning, -kMaxSpacing, kMaxSpacing, 0);
  run.underline = attributes.underlineStyle && (*attributes.underlineStyle & 0xff) != 0;
  run.strikethrough = attributes.strikethroughStyle && (*attributes.strikethroughStyle & 0xff) != 0;
  run.baselineOffset = finiteIn(attributes.baselineOffset, -kMaxSpacing, kMaxSpacing, 0);
  return run;
}

TextAlignment alignmentOf(int64_t value) {
  if (value < 0 || value > static_cast<int64_t>(TextAlignment::Natural)) return TextAlignment::Natural;
  return static_cast<TextAlignment>(value);
}

void applyParagraphStyle(TextParagraph& paragraph, const PXTextAttributes& attributes) {
  if (!attributes.paragraphStyle) return;
  const PXParagraphStyle& style = *attributes.paragraphStyle;
  paragraph.alignment = alignmentOf(style.alignmentOrDefault());
  paragraph.minimumLineHeight = finiteIn(style.minimumLineHeight, 0, kMaxSpacing, 0);
  paragraph.maximumLineHeight = finiteIn(style.maximumLineHeight, 0, kMaxSpacing, 0);
  paragraph.paragraphSpacing = finiteIn(style.paragraphSpacing, 0, kMaxSpacing, 0);
}

// Splits runs into paragraphs at line feeds, carriage returns (alone or
// before a line feed) and paragraph separators. A paragraph takes its style
// from its first character, its break included.
class ParagraphBuilder {
 public:
  explicit ParagraphBuilder(RenderNotes& notes) : notes_(notes) {}

  void add(const std::string& text, const PXTextAttributes& attributes) {
    size_t start = 0;
    while (start <= text.size()) {
      const auto [breakAt, breakLength] = nextBreak(text, start);
      styleParagraph(attributes);
      if (breakAt > start) append(text.substr(start, breakAt - start), attributes);
      if (breakAt == std::string::npos || breakAt >= text.size()) break;
      finish(attributes);
      start = breakAt + breakLength;
      if (start >= text.size()) break;
    }
    last_ = attributes;
  }

  std::vector<TextParagraph> take() {
    styleParagraph(last_);
    finish(last_);
    return std::move(paragraphs_);
  }

 private:
  static std::pair<size_t, size_t> nextBreak(const std::string& text, size_t from) {
    for (size_t i = from; i < text.size(); ++i) {
      if (text[i] == '\n') return {i, 1};
      if (text[i] == '\r') return {i, i + 1 < text.size() && text[i + 1] == '\n' ? 2u : 1u};
      if (text.compare(i, 3, "\xE2\x80\xA9") == 0) return {i, 3};  // U+2029
    }
    return {text.size(), 0};
  }

  void styleParagraph(const PXTextAttributes& attributes) {
    if (styled_) return;
    applyParagraphStyle(current_, attributes);
    styled_ = true;
  }

  void append(const std::string& text, const PXTextAttributes& attributes) {
    TextRun run = runWithAttributes(attributes, notes_);
    run.text = transformed(text, attributes.textTransform);
    current_.runs.push_back(std::move(run));
  }

  void finish(const PXTextAttributes& lineAttributes) {
    if (current_.runs.empty()) current_.runs.push_back(runWithAttributes(lineAttributes, notes_));
    paragraphs_.push_back(std::move(current_));
    current_ = {};
    styled_ = false;
  }

  RenderNotes& notes_;
  std::vector<TextParagraph> paragraphs_;
  TextParagraph current_;
  bool styled_ = false;
  PXTextAttributes last_;
};

std::vector<TextParagraph> paragraphsOf(const PXAttributedString& string, const PXTextAttributes& defaults,
                                        RenderNotes& notes) {
  ParagraphBuilder builder(notes);
  bool any = false;
  for (const auto& run : string.runs()) {
    PXTextAttributes attributes = defaults;
    attributes.merge(run.attributes);
    // Invalid bytes become U+FFFD, one UTF-16 unit each, so ranges still hold.
    const std::string text = PXUTF8FromUTF16(PXUTF16FromUTF8(string.substring({run.location, run.length})));
    builder.add(text, attributes);
    any = true;
  }
  if (!any) builder.add("", defaults);
  return builder.take();
}

Rect frameOf(const JsonValue& layer) {
  const JsonValue* frame = PXJsonFind(&layer, "frame");
  const auto part = [&](const char* key) { return finiteIn(PXJsonDoubleFor(frame, key), -1e7, 1e7, 0); };
  return {part("x"), part("y"), std::max(0.0, part("width")), std::max(0.0, part("height"))};
}

TextVerticalAlignment verticalAlignmentOf(const JsonValue& layer) {
  const JsonValue* textStyle = PXJsonFind(PXJsonFind(&layer, "style"), "textStyle");
  auto value = PXJsonInt64For(textStyle, "verticalAlignment");
  if (!value) value = PXJsonInt64For(PXJsonFind(textStyle, "encodedAttributes"), "textStyleVerticalAlignmentKey");
  if (!value || *value < 0 || *value > 2) return TextVerticalAlignment::Top;
  return static_cast<TextVerticalAlignment>(*value);
}

TextBehaviour behaviourOf(const JsonValue& layer) {
  const auto value = PXJsonInt64For(&layer, "textBehaviour").value_or(0);
  if (value < 0 || value > 2) return TextBehaviour::AutoWidth;
  return static_cast<TextBehaviour>(value);
}

// MARK: - Layout

struct GObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
using LayoutPtr = std::unique_ptr<PangoLayout, GObjectUnref>;
using ContextPtr = std::unique_ptr<PangoContext, GObjectUnref>;

// Unhinted outlines at unrounded positions, so a layout is the same at every
// output scale.
ContextPtr layoutContext() {
  ContextPtr context(pango_font_map_create_context(pango_cairo_font_map_get_default()));
  cairo_font_options_t* options = cairo_font_options_create();
  cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_NONE);
  cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_OFF);
  cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY);
  pango_cairo_context_set_font_options(context.get(), options);
  cairo_font_options_destroy(options);
  pango_context_set_round_glyph_positions(context.get(), FALSE);
  return context;
}

guint16 channel16(double value) { return static_cast<guint16>(std::lround(std::clamp(value, 0.0, 1.0) * 65535)); }

void insertAttribute(PangoAttrList* list, PangoAttribute* attribute, guint start, guint end) {
  attribute->start_index = start;
  attribute->end_index = end;
  pango_attr_list_insert(list, attribute);
}

void insertFontAttribute(PangoAttrList* list, const TextFace& face, double scale, guint start, guint end) {
  TextFace sized = face;
  sized.size *= scale;
  PangoFontDescription* description = pangoDescriptionForFace(sized);
  insertAttribute(list, pango_attr_font_desc_new(description), start, end);
  pango_font_description_free(description);
}

void insertSpacing(PangoAttrList* list, double spacing, guint start, guint end) {
  if (spacing != 0)
    insertAttribute(list, pango_attr_letter_spacing_new(static_cast<int>(spacing * PANGO_SCALE)), start, end);
}

// Ideographs and kana keep their one-em size whatever stands in for a face;
// only the stand-in's own (proportional) glyphs take its glyph scale. The
// zero-width breaks put between kana stay with them.
bool isProportional(gunichar c) {
  if (g_unichar_iszerowidth(c)) return false;
  switch (g_unichar_get_script(c)) {
    case G_UNICODE_SCRIPT_HAN: case G_UNICODE_SCRIPT_HIRAGANA: case G_UNICODE_SCRIPT_KATAKANA:
    case G_UNICODE_SCRIPT_BOPOMOFO: case G_UNICODE_SCRIPT_HANGUL:
      return false;
    default: return !g_unichar_iswide(c);
  }
}

// Calls `segment(from, to, proportional)` for each stretch of [start, end)
// in `text` whose characters agree on isProportional.
template <typename Segment>
void forEachScriptSegment(const std::string& text, guint start, guint end, Segment segment) {
  const auto proportionalAt = [&](guint at) { return isProportional(g_utf8_get_char(text.c_str() + at)); };
  guint from = start;
  for (guint at = start; at < end;) {
    const guint next = std::min(end, static_cast<guint>(g_utf8_next_char(text.c_str() + at) - text.c_str()));
    if (next == end || proportionalAt(next) != proportionalAt(from)) {
      segment(from, next, proportionalAt(from));
      from = next;
    }
    at = next;
  }
}

// The characters take the missing face's advances, which the stand-in's own
// times `advanceScale` approximate: as one spacing over the stretch (on top
// of the run's kerning), since Pango spaces letters only within a run of
// equal spacing.
void insertAdvanceSpacing(PangoContext* context, PangoAttrList* list, const TextRun& run, const std::string& text,
                          guint start, guint end) {
  const TextFace& face = run.font;
  TextFace sized = face;
  sized.size *= face.glyphScale;
  PangoFontDescription* description = pangoDescriptionForFace(sized);
  PangoFont* font = pango_context_load_font(context, description);
  pango_font_description_free(description);
  hb_font_t* hbFont = font ? pango_font_get_hb_font(font) : nullptr;
  int xScale = 0, yScale = 0;
  if (hbFont) hb_font_get_scale(hbFont, &xScale, &yScale);
  double advancesEm = 0;
  int characters = 0;
  for (const char* p = text.c_str() + start; p < text.c_str() + end; p = g_utf8_next_char(p), ++characters) {
    hb_codepoint_t glyph = 0;
    if (xScale > 0 && hb_font_get_nominal_glyph(hbFont, g_utf8_get_char(p), &glyph))
      advancesEm += static_cast<double>(hb_font_get_glyph_h_advance(hbFont, glyph)) / xScale;
  }
  if (font) g_object_unref(font);
  const double meanAdvance = characters > 0 ? advancesEm / characters * face.size : 0;
  insertSpacing(list, run.kerning + meanAdvance * (face.advanceScale - face.glyphScale), start, end);
}

// Font and letter spacing; a stand-in with its own glyph and advance scales
// gets them on its proportional characters only.
void addFontAttributes(PangoContext* context, PangoAttrList* list, const TextRun& run, const std::string& text,
                       guint start, guint end) {
  const TextFace& face = run.font;
  if (face.glyphScale == 1 && face.advanceScale == 1) {
    insertFontAttribute(list, face, 1, start, end);
    return insertSpacing(list, run.kerning, start, end);
  }
  forEachScriptSegment(text, start, end, [&](guint from, guint to, bool proportional) {
    insertFontAttribute(list, face, proportional ? face.glyphScale : 1, from, to);
    if (proportional && face.advanceScale != face.glyphScale) insertAdvanceSpacing(context, list, run, text, from, to);
    else insertSpacing(list, run.kerning, from, to);
  });
}

void addRunAttributes(PangoContext* context, PangoAttrList* list, const TextRun& run, const std::string& text,
                      guint start, guint end) {
  addFontAttributes(context, list, run, text, start, end);
  insertAttribute(list, pango_attr_foreground_new(channel16(run.color.r), channel16(run.color.g), channel16(run.color.b)),
                  start, end);
  // Pango reads an alpha of 0 as "unset": the faintest it has stands in.
  insertAttribute(list, pango_attr_foreground_alpha_new(std::max<guint16>(1, channel16(run.color.a))), start, end);
  // Underlines and strike-throughs are drawn as bars of their own (see
  // decorationBars), where Macs put them.
  if (run.baselineOffset != 0)
    insertAttribute(list, pango_attr_rise_new(static_cast<int>(run.baselineOffset * PANGO_SCALE)), start, end);
}

struct RunSpan {
  size_t start = 0, end = 0;  // bytes in the paragraph's text
  const TextRun* run = nullptr;
};

// Small kana and the prolonged sound mark may start a line in Sketch, as in
// the usual (not strict) Japanese rules; Pango never breaks before them.
bool startsLineLoosely(gunichar c) {
  switch (c) {
    case 0x3041: case 0x3043: case 0x3045: case 0x3047: case 0x3049: case 0x3063: case 0x3083: case 0x3085:
    case 0x3087: case 0x308E: case 0x3095: case 0x3096: case 0x30A1: case 0x30A3: case 0x30A5: case 0x30A7:
    case 0x30A9: case 0x30C3: case 0x30E3: case 0x30E5: case 0x30E7: case 0x30EE: case 0x30F5: case 0x30F6:
    case 0x30FC: case 0xFF67: case 0xFF68: case 0xFF69: case 0xFF6A: case 0xFF6B: case 0xFF6C: case 0xFF6D:
    case 0xFF6E: case 0xFF6F: case 0xFF70:
      return true;
    default: return c >= 0x31F0 && c <= 0x31FF;
  }
}

bool opensBracket(gunichar c) { return g_unichar_type(c) == G_UNICODE_OPEN_PUNCTUATION; }

// Appends `text`, with a zero-width space before each such kana so that the
// line may break there. `previous` is the last character already in the
// paragraph (0 at its start).
void appendWithKanaBreaks(std::string& paragraph, const std::string& text, gunichar& previous) {
  for (const char* p = text.c_str(); *p; p = g_utf8_next_char(p)) {
    const gunichar c = g_utf8_get_char(p);
    if (startsLineLoosely(c) && previous != 0 && !startsLineLoosely(previous) && !opensBracket(previous) &&
        !g_unichar_isspace(previous))
      paragraph += "\u200B";
    paragraph.append(p, g_utf8_next_char(p) - p);
    previous = c;
  }
}

LayoutPtr paragraphLayout(PangoContext* context, const TextParagraph& paragraph, std::optional<double> wrapWidth,
                          std::vector<RunSpan>& spans) {
  LayoutPtr layout(pango_layout_new(context));
  std::string text;
  PangoAttrList* list = pango_attr_list_new();
  gunichar previous = 0;
  for (const auto& run : paragraph.runs) {
    const size_t start = text.size();
    // Letter spacing would space the inserted breaks too.
    if (wrapWidth && run.kerning == 0) appendWithKanaBreaks(text, run.text, previous);
    else text += run.text, previous = 0;
    spans.push_back({start, text.size(), &run});
    if (text.size() > start)
      addRunAttributes(context, list, run, text, static_cast<guint>(start), static_cast<guint>(text.size()));
  }
  // Empty lines take their height from this font.
  PangoFontDescription* description = pangoDescriptionForFace(paragraph.runs.front().font);
  pango_layout_set_font_description(layout.get(), description);
  pango_font_description_free(description);
  pango_layout_set_text(layout.get(), text.c_str(), static_cast<int>(text.size()));
  pango_layout_set_attributes(layout.get(), list);
  pango_attr_list_unref(list);
  if (wrapWidth) {
    pango_layout_set_width(layout.get(), static_cast<int>(std::clamp(*wrapWidth, 0.0, 1e6) * PANGO_SCALE));
    pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
    pango_layout_set_justify(layout.get(), paragraph.alignment == TextAlignment::Justified);
  }
  return layout;
}

struct LineBox {
  PangoLayoutLine* line = nullptr;  // owned by its layout
  double x = 0, baseline = 0;
};

// An underline or strike-through, in the coordinates of the line boxes.
struct DecorationBar {
  Rect rect;
  Color color;
};

struct LaidOutText {
  std::vector<LayoutPtr> layouts;
  std::vector<LineBox> lines;
  std::vector<DecorationBar> bars;
  double width = 0, height = 0;
};

// Runs that own at least part of the line's bytes (the run at its start for
// an empty line).
std::vector<const TextRun*> runsOnLine(const std::vector<RunSpan>& spans, size_t start, size_t end) {
  std::vector<const TextRun*> runs;
  for (const auto& span : spans) {
    if (span.start < end && span.end > start) runs.push_back(span.run);
  }
  if (runs.empty()) {
    for (const auto& span : spans) {
      if (span.start <= start) runs.assign(1, span.run);
    }
  }
  return runs;
}

// Where Macs put the baseline below the line top: the face's hhea ascender,
// even when the face asks for its typographic metrics as Pango honours them.
double hheaAscent(PangoContext* context, const TextRun& run, double pangoAscent) {
  if (run.font.ascentEm > 0) return run.font.ascentEm * run.font.size;
  PangoFontDescription* description = pangoDescriptionForFace(run.font);
  PangoFont* font = pango_context_load_font(context, description);
  pango_font_description_free(description);
  if (!font) return pangoAscent;
  double ascent = pangoAscent;
  hb_face_t* face = hb_font_get_face(pango_font_get_hb_font(font));
  hb_blob_t* hhea = hb_face_reference_table(face, HB_TAG('h', 'h', 'e', 'a'));
  unsigned int length = 0;
  const auto* data = reinterpret_cast<const unsigned char*>(hb_blob_get_data(hhea, &length));
  const unsigned int unitsPerEm = hb_face_get_upem(face);
  if (data && length >= 8 && unitsPerEm > 0) {
    const auto ascender = static_cast<int16_t>((data[4] << 8) | data[5]);
    if (ascender > 0) ascent = ascender * run.font.size / unitsPerEm;
  }
  hb_blob_destroy(hhea);
  g_object_unref(font);
  return ascent;
}

double defaultLineHeight(const TextRun& run) {
  const TextFace& face = run.font;
  if (face.ascentEm > 0) return (face.ascentEm + face.descentEm) * face.size;
  const PXFont font{face.family, face.postScriptName, "", face.size, face.file, face.faceIndex};
  return PXDefaultLineHeightForFont(font).value_or(face.size * 1.2);
}

// Macs add kerning after every character, the last one of a line too; Pango
// leaves that last one out.
double trailingKerning(const std::vector<const TextRun*>& runs) {
  for (auto it = runs.rbegin(); it != runs.rend(); ++it) {
    if (!(*it)->text.empty()) return (*it)->kerning;
  }
  return 0;
}

double alignedX(TextAlignment alignment, double boxWidth, double lineWidth) {
  switch (alignment) {
    case TextAlignment::Right: return boxWidth - lineWidth;
    case TextAlignment::Center: return (boxWidth - lineWidth) / 2;
    default: return 0;
  }
}

struct DecorationMetrics {
  double underlineTop = 0, underlineThickness = 0, strikeCenter = 0, strikeThickness = 0;  // points above baseline
};

// Underlines sit where the face says; strike-throughs cross the middle of
// its lower-case letters, half the x-height up, as Macs draw them.
DecorationMetrics decorationMetrics(PangoContext* context, const TextFace& face) {
  DecorationMetrics result;
  result.underlineTop = -0.1 * face.size;
  result.underlineThickness = result.strikeThickness = 0.05 * face.size;
  result.strikeCenter = 0.25 * face.size;
  PangoFontDescription* description = pangoDescriptionForFace(face);
  PangoFont* font = pango_context_load_font(context, description);
  pango_font_description_free(description);
  if (!font) return result;
  if (PangoFontMetrics* metrics = pango_font_get_metrics(font, nullptr)) {
    result.underlineTop = static_cast<double>(pango_font_metrics_get_underline_position(metrics)) / PANGO_SCALE;
    result.underlineThickness = static_cast<double>(pango_font_metrics_get_underline_thickness(metrics)) / PANGO_SCALE;
    result.strikeThickness = static_cast<double>(pango_font_metrics_get_strikethrough_thickness(metrics)) / PANGO_SCALE;
    pango_font_metrics_unref(metrics);
  }
  hb_font_t* hbFont = pango_font_get_hb_font(font);
  hb_position_t xHeight = 0;
  int xScale = 0, yScale = 0;
  hb_font_get_scale(hbFont, &xScale, &yScale);
  hb_ot_metrics_get_position_with_fallback(hbFont, HB_OT_METRICS_TAG_X_HEIGHT, &xHeight);
  if (yScale != 0 && xHeight > 0)
    result.strikeCenter = static_cast<double>(xHeight) / yScale * face.size / 2;
  g_object_unref(font);
  return result;
}

void addDecorationBars(LaidOutText& text, PangoContext* context, PangoLayoutLine* line,
                       const std::vector<RunSpan>& spans, double x, double baseline) {
  const size_t lineStart = static_cast<size_t>(line->start_index);
  const size_t lineEnd = lineStart + static_cast<size_t>(line->length);
  for (const auto& span : spans) {
    const TextRun& run = *span.run;
    const size_t start = std::max(span.start, lineStart), end = std::min(span.end, lineEnd);
    if ((!run.underline && !run.strikethrough) || start >= end) continue;
    const DecorationMetrics metrics = decorationMetrics(context, run.font);
    int* ranges = nullptr;
    int count = 0;
    pango_layout_line_get_x_ranges(line, static_cast<int>(start), static_cast<int>(end), &ranges, &count);
    const double runBaseline = baseline - run.baselineOffset;
    for (int i = 0; i < count; ++i) {
      const double left = x + static_cast<double>(ranges[2 * i]) / PANGO_SCALE;
      const double width = static_cast<double>(ranges[2 * i + 1] - ranges[2 * i]) / PANGO_SCALE;
      if (run.underline)
        text.bars.push_back({{left, runBaseline - metrics.underlineTop, width, metrics.underlineThickness}, run.color});
      if (run.strikethrough)
        text.bars.push_back({{left, runBaseline - metrics.strikeCenter - metrics.strikeThickness / 2, width,
                              metrics.strikeThickness},
                             run.color});
    }
    g_free(ranges);
  }
}

// Line boxes are the tallest default line height of the line's fonts,
// clamped by the paragraph's minimum and maximum. The glyphs sit in the
// middle of the box: half of the difference from the natural height goes
// above them (Sketch's exports put Play and Karla lines within a pixel of
// that; the bottom of the box minus the descent lands 2–8 px too low).
void layOutLines(LaidOutText& text, PangoContext* context, PangoLayout* layout, const TextParagraph& paragraph,
                 const std::vector<RunSpan>& spans, double boxWidth, double& top) {
  for (GSList* item = pango_layout_get_lines_readonly(layout); item; item = item->next) {
    auto* line = static_cast<PangoLayoutLine*>(item->data);
    PangoRectangle logical;
    pango_layout_line_get_extents(line, nullptr, &logical);
    const double pangoAscent = -static_cast<double>(logical.y) / PANGO_SCALE;
    const auto runs = runsOnLine(spans, static_cast<size_t>(line->start_index),
                                 static_cast<size_t>(line->start_index + line->length));
    const bool setHeight = paragraph.minimumLineHeight > 0 || paragraph.maximumLineHeight > 0;
    double natural = 0, ascent = 0, gap = 0;
    for (const TextRun* run : runs) {
      natural = std::max(natural, defaultLineHeight(*run));
      ascent = std::max(ascent, hheaAscent(context, *run, pangoAscent));
      if (setHeight) gap = std::max(gap, run->font.lineGapEm * run->font.size);
    }
    double height = natural;
    if (paragraph.minimumLineHeight > 0) height = std::max(height, paragraph.minimumLineHeight);
    if (paragraph.maximumLineHeight > 0) height = std::min(height, paragraph.maximumLineHeight);
    const double width = static_cast<double>(logical.width) / PANGO_SCALE + trailingKerning(runs);
    const double x = alignedX(paragraph.alignment, boxWidth, width) - static_cast<double>(logical.x) / PANGO_SCALE;
    double baseline = top + (height - natural) / 2 + ascent;
    // A line gap pushes the glyphs down, but (as Hiragino titles in tight
    // line heights show) the baseline stays within a third of a point of
    // the bottom of the line box.
    if (gap > 0) baseline = std::max(baseline, std::min(baseline + gap, top + height + 0.3));
    text.lines.push_back({line, x, baseline});
    addDecorationBars(text, context, line, spans, x, baseline);
    text.width = std::max(text.width, width);
    top += height;
  }
}

LaidOutText layOut(const TextBlock& block, const Rect& frame) {
  LaidOutText text;
  if (!block.drawable) return text;
  ContextPtr context = layoutContext();
  std::optional<double> wrapWidth;
  // A hair of slack keeps text that exactly filled its box in Sketch on one line.
  if (block.behaviour != TextBehaviour::AutoWidth) wrapWidth = frame.width + 0.5;
  double top = 0;
  for (size_t i = 0; i < block.paragraphs.size(); ++i) {
    const TextParagraph& paragraph = block.paragraphs[i];
    if (paragraph.runs.empty()) continue;
    std::vector<RunSpan> spans;
    LayoutPtr layout = paragraphLayout(context.get(), paragraph, wrapWidth, spans);
    layOutLines(text, context.get(), layout.get(), paragraph, spans, frame.width, top);
    text.layouts.push_back(std::move(layout));
    if (i + 1 < block.paragraphs.size()) top += paragraph.paragraphSpacing;
  }
  text.height = top;
  return text;
}

double verticalOffset(const TextBlock& block, const Rect& frame, double textHeight) {
  if (block.behaviour != TextBehaviour::FixedSize) return 0;
  switch (block.verticalAlignment) {
    case TextVerticalAlignment::Middle: return (frame.height - textHeight) / 2;
    case TextVerticalAlignment::Bottom: return frame.height - textHeight;
    case TextVerticalAlignment::Top: return 0;
  }
  return 0;
}

// Sketch draws a text box from a whole device pixel, the next one down when
// its top falls inside a pixel; only for unrotated boxes.
double snappedTop(cairo_t* cr, double x, double y) {
  cairo_matrix_t matrix;
  cairo_get_matrix(cr, &matrix);
  if (matrix.xy != 0 || matrix.yx != 0 || !(matrix.yy > 0)) return y;
  double deviceX = x, deviceY = y;
  cairo_user_to_device(cr, &deviceX, &deviceY);
  if (!std::isfinite(deviceY) || std::fabs(deviceY) > 1e9) return y;
  deviceY = std::ceil(deviceY - 1e-3);
  cairo_device_to_user(cr, &deviceX, &deviceY);
  return deviceY;
}

template <typename DrawLine, typename DrawBar>
void forEachLine(cairo_t* cr, const TextBlock& block, const Rect& frame, bool snap, DrawLine draw, DrawBar bar) {
  const LaidOutText text = layOut(block, frame);
  double dy = frame.y + verticalOffset(block, frame, text.height);
  if (snap) dy = snappedTop(cr, frame.x, dy);
  for (const auto& box : text.lines) {
    cairo_move_to(cr, frame.x + box.x, dy + box.baseline);
    draw(box.line);
  }
  for (const auto& decoration : text.bars) {
    const Rect& r = decoration.rect;
    bar(Rect{frame.x + r.x, dy + r.y, r.width, r.height}, decoration.color);
  }
}

// Macs draw decoration bars on whole device pixels, at least one thick;
// only for unrotated boxes.
Rect snappedBar(cairo_t* cr, Rect bar) {
  cairo_matrix_t matrix;
  cairo_get_matrix(cr, &matrix);
  if (matrix.xy != 0 || matrix.yx != 0 || !(matrix.yy > 0)) return bar;
  double x = bar.x, top = bar.y, bottom = bar.y + bar.height;
  cairo_user_to_device(cr, &x, &top);
  x = bar.x;
  cairo_user_to_device(cr, &x, &bottom);
  if (!std::isfinite(top) || !std::isfinite(bottom) || std::fabs(top) > 1e9 || std::fabs(bottom) > 1e9) return bar;
  const double thickness = std::max(1.0, std::round(bottom - top));
  top = std::round((top + bottom - thickness) / 2);
  bottom = top + thickness;
  x = bar.x;
  cairo_device_to_user(cr, &x, &top);
  x = bar.x;
  cairo_device_to_user(cr, &x, &bottom);
  return {bar.x, top, bar.width, bottom - top};
}

void appendBar(cairo_t* cr, const Rect& bar) {
  cairo_new_sub_path(cr);
  cairo_rectangle(cr, bar.x, bar.y, bar.width, bar.height);
}

}  // namespace

TextBlock buildTextBlock(const boost::json::value& textLayer, RenderNotes& notes) {
  TextBlock block;
  block.frame = frameOf(textLayer);
  block.behaviour = behaviourOf(textLayer);
  block.verticalAlignment = verticalAlignmentOf(textLayer);
  if (PXJsonBoolFor(&textLayer, "automaticallyDrawOnUnderlyingPath").value_or(false)) {
    notes.skipped("text", "text on a path");
    block.drawable = false;
  }
  const PXTextAttributes defaults = defaultAttributesOf(textLayer);
  const JsonObject* layer = textLayer.if_object();
  const PXAttributedString string = layer ? attributedStringOf(*layer) : PXAttributedString{};
  block.paragraphs = paragraphsOf(string, defaults, notes);
  return block;
}

void drawTextBlock(cairo_t* cr, const TextBlock& block, const Rect& frame) {
  cairo_save(cr);
  forEachLine(
      cr, block, frame, true, [&](PangoLayoutLine* line) { pango_cairo_show_layout_line(cr, line); },
      [&](const Rect& bar, const Color& color) {
        cairo_new_path(cr);
        appendBar(cr, snappedBar(cr, bar));
        cairo_set_source_rgba(cr, color.r, color.g, color.b, color.a);
        cairo_fill(cr);
      });
  cairo_new_path(cr);
  cairo_restore(cr);
}

void appendTextPath(cairo_t* cr, const TextBlock& block, const Rect& frame) {
  forEachLine(
      cr, block, frame, true, [&](PangoLayoutLine* line) { pango_cairo_layout_line_path(cr, line); },
      [&](const Rect& bar, const Color&) { appendBar(cr, snappedBar(cr, bar)); });
}

Path textOutline(const TextBlock& block, const Rect& frame) {
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_A8, 1, 1);
  cairo_t* cr = cairo_create(surface);
  // Device pixels are the caller's to know: the outline keeps the box top.
  forEachLine(
      cr, block, frame, false, [&](PangoLayoutLine* line) { pango_cairo_layout_line_path(cr, line); },
      [&](const Rect& bar, const Color&) { appendBar(cr, bar); });
  cairo_path_t* flat = cairo_copy_path(cr);
  Path path;
  Point move;  // a move only counts when a segment follows it
  bool movePending = false;
  for (int i = 0; flat && flat->status == CAIRO_STATUS_SUCCESS && i < flat->num_data; i += flat->data[i].header.length) {
    const cairo_path_data_t* data = &flat->data[i];
    const auto point = [&](int k) { return Point{data[k].point.x, data[k].point.y}; };
    switch (data->header.type) {
      case CAIRO_PATH_MOVE_TO: move = point(1), movePending = true; break;
      case CAIRO_PATH_LINE_TO:
      case CAIRO_PATH_CURVE_TO:
        if (movePending) path.moveTo(move), movePending = false;
        if (data->header.type == CAIRO_PATH_LINE_TO) path.lineTo(point(1));
        else path.cubicTo(point(1), point(2), point(3));
        break;
      case CAIRO_PATH_CLOSE_PATH: path.close(); break;
    }
  }
  cairo_path_destroy(flat);
  cairo_destroy(cr);
  cairo_surface_destroy(surface);
  return path;
}

TextExtent measureTextBlock(const TextBlock& block, const Rect& frame) {
  const LaidOutText text = layOut(block, frame);
  return {text.width, text.height};
}

}  // namespace plexa::render
