// Fonts and text layout over the faces the project's setup installs (Roboto,
// Open Sans): exact-name lookup, family members, line heights, measuring.

#include "TestSupport.h"
#include "TextLayout.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <fstream>
#include <iterator>
#include <thread>

using namespace plexa;

namespace {

#define REQUIRE_FONTS()                                                     \
  if (!PXFontWithName("Roboto-Regular", 12) || !PXFontWithName("OpenSans", 12)) \
    GTEST_SKIP() << "fonts-roboto and fonts-open-sans are not installed"

// Ascender − descender + line gap straight from the file's hhea table, a
// path independent of the one under test.
double hheaLineHeight(const std::string& file, double size) {
  std::ifstream in(file, std::ios::binary);
  const std::string d((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const auto u16 = [&](size_t at) { return (uint8_t(d.at(at)) << 8) | uint8_t(d.at(at + 1)); };
  const auto s16 = [&](size_t at) { return static_cast<int16_t>(u16(at)); };
  const auto u32 = [&](size_t at) { return (uint32_t(u16(at)) << 16) | u16(at + 2); };
  size_t hhea = 0, head = 0;
  for (size_t i = 0, n = u16(4); i < n; ++i) {
    const std::string tag = d.substr(12 + 16 * i, 4);
    if (tag == "hhea") hhea = u32(12 + 16 * i + 8);
    if (tag == "head") head = u32(12 + 16 * i + 8);
  }
  const double upem = u16(head + 18);
  return (s16(hhea + 4) - s16(hhea + 6) + s16(hhea + 8)) * size / upem;
}

// The line height of Roboto Regular at 12 points.
double robotoLine() { return hheaLineHeight(PXFontWithName("Roboto-Regular", 12)->file, 12); }

PXAttributedString text(const std::string& string, double size = 12, const std::string& font = "Roboto-Regular") {
  PXTextAttributes attributes;
  attributes.font = PXFontDescriptor{font, size};
  return PXAttributedString(string, attributes);
}

PXUsedRect measure(const PXAttributedString& string, PXTextMeasureOptions options = {}) {
  auto used = PXMeasureAttributedString(string, options);
  EXPECT_TRUE(used.has_value());
  return used.value_or(PXUsedRect{});
}

}  // namespace

TEST(TextLayoutFonts, FoundOnlyByExactPostScriptOrFullName) {
  REQUIRE_FONTS();
  // Requested name → PostScript name, family and face found ("" for none).
  const std::vector<std::array<std::string, 4>> lookups = {
      {"Roboto-Bold", "Roboto-Bold", "Roboto", "Bold"},
      {"Roboto Bold", "Roboto-Bold", "Roboto", "Bold"},  // a full name finds the same face
      {"Roboto", "Roboto-Regular", "Roboto", "Regular"},  // Regular's full name
      {"Roboto-Thin", "Roboto-Thin", "Roboto", "Thin"},  // a typographic family keeps its faces together
      {"OpenSans-Semibold", "OpenSans-Semibold", "Open Sans", "Semibold"},
      // No fallback substitution of any kind.
      {"roboto-bold", "", "", ""}, {"Roboto-Bol", "", "", ""}, {"Helvetica-Bold", "", "", ""},
      {"SourceSansPro-Bold", "", "", ""}, {"", "", "", ""}};
  for (const auto& [name, postScriptName, family, styleName] : lookups) {
    SCOPED_TRACE(name);
    const auto font = PXFontWithName(name, 14);
    EXPECT_EQ(font ? font->postScriptName : "", postScriptName);
    if (!font) continue;
    EXPECT_EQ(font->family, family);
    EXPECT_EQ(font->styleName, styleName);
    EXPECT_EQ(font->size, 14);
    EXPECT_FALSE(font->file.empty());
  }
}

TEST(TextLayoutFonts, FamilyMembersInAStableWeightOrder) {
  REQUIRE_FONTS();
  const auto members = PXAvailableMembersOfFontFamily("Roboto");
  ASSERT_GE(members.size(), 12u);
  EXPECT_EQ(members.front().postScriptName, "Roboto-Thin");
  EXPECT_EQ(members.front().styleName, "Thin");
  for (size_t i = 1; i < members.size(); ++i) {
    EXPECT_LE(members[i - 1].weight, members[i].weight) << i;
    EXPECT_NE(members[i - 1].postScriptName, members[i].postScriptName);
  }
  const auto regular = std::find_if(members.begin(), members.end(), [](auto& m) { return m.styleName == "Regular"; });
  const auto italic = std::find_if(members.begin(), members.end(), [](auto& m) { return m.styleName == "Italic"; });
  ASSERT_NE(regular, members.end());
  ASSERT_NE(italic, members.end());
  EXPECT_LT(regular, italic);
  // Condensed is a family of its own.
  for (const auto& member : members) EXPECT_EQ(member.postScriptName.find("Condensed"), std::string::npos);

  EXPECT_EQ(PXAvailableMembersOfFontFamily("Roboto").size(), members.size());
  EXPECT_TRUE(PXAvailableMembersOfFontFamily("No Such Family").empty());
  EXPECT_TRUE(PXAvailableMembersOfFontFamily("").empty());
}

TEST(TextLayoutFonts, SystemFontIsCachedPerSize) {
  const PXFont small = PXSystemFontOfSize(11);
  const PXFont large = PXSystemFontOfSize(30);
  EXPECT_EQ(small.size, 11);
  EXPECT_EQ(large.size, 30);
  EXPECT_EQ(small.postScriptName, large.postScriptName);
  EXPECT_EQ(PXSystemFontOfSize(11), small);
  if (small.file.empty()) GTEST_SKIP() << "no fonts installed";
  EXPECT_GT(PXDefaultLineHeightForFont(small).value_or(0), 11);

  // Concurrent first use from several threads gives one answer.
  std::vector<std::thread> threads;
  std::vector<PXFont> seen(8);
  for (size_t i = 0; i < seen.size(); ++i) threads.emplace_back([&, i] { seen[i] = PXSystemFontOfSize(17.5); });
  for (auto& thread : threads) thread.join();
  for (const auto& font : seen) EXPECT_EQ(font, seen.front());
}

TEST(TextLayoutLineHeights, AscenderDescenderAndGapOfTheFace) {
  REQUIRE_FONTS();
  for (const char* name : {"Roboto-Regular", "Roboto-Bold", "OpenSans", "OpenSans-Light"}) {
    PXFont font = PXFontWithName(name, 12).value();
    const auto height = PXDefaultLineHeightForFont(font);
    ASSERT_TRUE(height.has_value()) << name;
    EXPECT_DOUBLE_EQ(*height, hheaLineHeight(font.file, 12)) << name;
    font.size = 36;
    EXPECT_DOUBLE_EQ(PXDefaultLineHeightForFont(font).value(), *height * 3) << name;
  }
  EXPECT_NE(PXDefaultLineHeightForFont(PXFontWithName("Roboto-Regular", 12).value()),
            PXDefaultLineHeightForFont(PXFontWithName("OpenSans", 12).value()));

  PXFont missing{"Nothing", "Nothing", "Regular", 12, "/no/such/font.ttf", 0};
  test::LogCapture logs;
  EXPECT_FALSE(PXDefaultLineHeightForFont(missing).has_value());
  EXPECT_TRUE(logs.contains("Could not read font file"));
  missing.file = "";
  EXPECT_FALSE(PXDefaultLineHeightForFont(missing).has_value());
}

TEST(TextLayoutMeasure, WidthGrowsWithTextSizeKerningAndPadding) {
  REQUIRE_FONTS();
  const PXUsedRect hello = measure(text("Hello"));
  EXPECT_GT(hello.width, 20);
  EXPECT_LT(hello.width, 40);
  EXPECT_DOUBLE_EQ(hello.height, robotoLine());

  EXPECT_NEAR(measure(text("HelloHello")).width, 2 * hello.width, 0.5);
  EXPECT_NEAR(measure(text("Hello", 24)).width, 2 * hello.width, 0.5);
  EXPECT_GT(measure(text("Hello", 12, "Roboto-Black")).width, hello.width);

  const PXUsedRect padded = measure(text("Hello"), {8.65, std::nullopt});
  EXPECT_NEAR(padded.width, hello.width + 17.3, 1e-9);
  EXPECT_EQ(padded.height, hello.height);

  PXAttributedString kerned = text("Hello");
  PXTextAttributes kern;
  kern.kerning = 2;
  kerned.addAttributes(kern, {0, 5});
  EXPECT_NEAR(measure(kerned).width, hello.width + 10, 0.5);

  // A face that is not installed is laid out in the system font of its size.
  EXPECT_EQ(measure(text("Hello", 12, "Missing-Face")).width, measure(PXAttributedString("Hello")).width);
}

TEST(TextLayoutMeasure, LinesParagraphsAndWrapping) {
  REQUIRE_FONTS();
  const double line = robotoLine();
  // The empty last line counts; U+2028 separates lines too.
  for (const char* twoLines : {"one\ntwo", "one\n", "one\xE2\x80\xA8two"})
    EXPECT_DOUBLE_EQ(measure(text(twoLines)).height, 2 * line) << twoLines;

  // The tallest font on a line sets its height.
  PXAttributedString mixed = text("small BIG");
  mixed.addAttributes(text("BIG", 24).runs()[0].attributes, {6, 3});
  EXPECT_DOUBLE_EQ(measure(mixed).height, 2 * line);

  PXAttributedString styled = text("one\ntwo\nthree");
  PXTextAttributes paragraph;
  paragraph.paragraphStyle = PXParagraphStyle{};
  paragraph.paragraphStyle->minimumLineHeight = 30;
  paragraph.paragraphStyle->paragraphSpacing = 5;
  styled.addAttributes(paragraph, {0, styled.length()});
  EXPECT_DOUBLE_EQ(measure(styled).height, 3 * 30 + 2 * 5);  // no spacing after the last paragraph
  paragraph.paragraphStyle = PXParagraphStyle{};
  paragraph.paragraphStyle->maximumLineHeight = 10;
  styled.setAttributes(paragraph, {0, styled.length()});  // no font: the system font at 12
  EXPECT_DOUBLE_EQ(measure(styled).height, 3 * 10);

  const std::string sentence = "The quick brown fox jumps over the lazy dog again and again";
  const PXUsedRect unwrapped = measure(text(sentence));
  const PXUsedRect wrapped = measure(text(sentence), {8.65, 100.0});
  EXPECT_GT(wrapped.height, 2 * line);
  EXPECT_LE(wrapped.width, 100.0 + 1e-9);
  EXPECT_LT(wrapped.width, unwrapped.width);
  EXPECT_DOUBLE_EQ(unwrapped.height, line);
}

TEST(TextLayoutMeasure, OddInputMeasuresWithoutFailing) {
  const PXUsedRect empty = measure(PXAttributedString(""), {8.65, std::nullopt});
  EXPECT_DOUBLE_EQ(empty.width, 17.3);
  EXPECT_GE(empty.height, 0);
  EXPECT_GT(measure(PXAttributedString("\xF0\x9F\x98\x80 \xC3\xA9 \xFF\xFE bad bytes")).width, 0);
  EXPECT_GE(measure(text("x", 0)).width, 0);
  EXPECT_GT(measure(PXAttributedString(std::string(20000, 'w'))).width, 1000);
  EXPECT_GT(measure(PXAttributedString("wrap me"), {8.65, -5.0}).height, 0);
  EXPECT_TRUE(std::isfinite(measure(PXAttributedString("x"), {std::nan(""), std::nan("")}).width));
}
