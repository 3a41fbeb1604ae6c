#pragma once
// Text layers, resolved and drawn. `buildTextBlock` reads a Sketch `text`
// layer (either storage form of its attributed string, its behaviour, its
// vertical alignment) into paragraphs of runs whose fonts are installed
// faces, so drawing needs no document and no look-up by name.
// `drawTextBlock` lays the block out the way Sketch's text box does: line
// boxes of the paragraph's line height (else the fonts' default height) with
// the glyphs centred in them, baselines at the faces' hhea ascent, paragraph
// spacing between paragraphs, wrapping at the box width for fixed-width
// texts, and vertical alignment in fixed-size boxes. As Sketch does, an
// unrotated box starts at a whole device pixel (the next one down).
//
// Coordinates: `frame` is the text box in the current user space of `cr`,
// normally {0, 0, layer width, layer height} once the painter has applied
// the layer's position, rotation and flips. Units are points.

#include "RenderTypes.h"

#include <boost/json/fwd.hpp>
#include <cairo.h>

#include <string>
#include <vector>

namespace plexa::render {

// `textBehaviour`: 0 auto width (never wraps), 1 fixed width (wraps, height
// follows the text), 2 fixed size (wraps, vertical alignment applies).
enum class TextBehaviour { AutoWidth = 0, FixedWidth = 1, FixedSize = 2 };
// `style.textStyle.verticalAlignment`.
enum class TextVerticalAlignment { Top = 0, Middle = 1, Bottom = 2 };
// Paragraph alignment as documents number it; Natural draws as Left.
enum class TextAlignment { Left = 0, Right = 1, Center = 2, Justified = 3, Natural = 4 };

// An installed face chosen for a run: the document's face when installed,
// else the closest face fontconfig offers (then `substituted` is true).
struct TextFace {
  std::string requestedName;   // as the document names it ("" when it names none)
  std::string family;          // installed family, e.g. "Roboto"
  std::string postScriptName;  // installed face, e.g. "Roboto-Medium"
  std::string file;            // font file of the face
  int faceIndex = 0;
  // Fontconfig weight (80 regular, 200 bold) and slant (0 roman, 100 italic,
  // 110 oblique): the face's own, or for a stand-in those the name asks for.
  int weight = 80;
  int slant = 0;
  int width = 100;  // fontconfig width (100 normal, 75 condensed)
  double size = 12;
  bool substituted = false;
  // A missing face's own ascent, descent and line gap in ems, which place
  // lines in place of the stand-in's; 0 when not known. The line gap is not
  // part of the default line height, but where the paragraph sets a line
  // height Sketch puts it above the glyphs.
  double ascentEm = 0, descentEm = 0, lineGapEm = 0;
  // How much larger than its point size a stand-in draws its proportional
  // (Latin, not CJK) glyphs so that they take the missing face's size and
  // advances; 1 for installed faces.
  double glyphScale = 1;
  // The missing face's advances over the stand-in's at the same size.
  double advanceScale = 1;
};

struct TextRun {
  std::string text;  // valid UTF-8 with the text transform applied; no paragraph breaks
  TextFace font;
  Color color;            // foreground colour; black when the document sets none
  double kerning = 0;     // extra advance after each character, points
  bool underline = false;
  bool strikethrough = false;
  double baselineOffset = 0;  // points, positive raises the glyphs
};

struct TextParagraph {
  // At least one once built: an empty line has one run with empty text that
  // carries the font (and so the height) of its line.
  std::vector<TextRun> runs;
  TextAlignment alignment = TextAlignment::Natural;
  double minimumLineHeight = 0;  // 0: unset
  double maximumLineHeight = 0;  // 0: unset
  double paragraphSpacing = 0;   // added after the paragraph when another follows
};

struct TextBlock {
  std::vector<TextParagraph> paragraphs;  // at least one once built
  TextBehaviour behaviour = TextBehaviour::FixedWidth;
  TextVerticalAlignment verticalAlignment = TextVerticalAlignment::Top;
  Rect frame;             // the layer's `frame` as the document gives it
  bool drawable = true;   // false for text the renderer does not draw (on a path)
};

// Never fails: missing or malformed parts of the layer fall back to defaults
// (empty text, system font at 12 pt, black). Notes each missing font once
// and text drawn on a path as skipped.
TextBlock buildTextBlock(const boost::json::value& textLayer, RenderNotes& notes);

// Draws the glyphs in their run colours, with underlines and strike-throughs.
// Leaves `cr`'s path and source as they were after the call's save/restore.
void drawTextBlock(cairo_t* cr, const TextBlock& block, const Rect& frame);

// Appends the glyph outlines (and underline / strike-through bars) to `cr`'s
// current path, for fills, gradients, borders and shadows shaped like the
// text. Does not clear the existing path.
void appendTextPath(cairo_t* cr, const TextBlock& block, const Rect& frame);
// The same outline as a Path in `frame`'s coordinates (non-zero winding),
// without the whole-pixel snap (no device is known).
Path textOutline(const TextBlock& block, const Rect& frame);

// The laid-out size of the text (widest line, sum of line boxes and
// paragraph spacing) for a box of `frame`'s width; useful for auto sizes.
struct TextExtent {
  double width = 0, height = 0;
};
TextExtent measureTextBlock(const TextBlock& block, const Rect& frame);

}  // namespace plexa::render
