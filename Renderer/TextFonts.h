#pragma once
// Choosing the installed face a text run is drawn with. A document names
// faces by PostScript name; when that face is not installed the closest one
// fontconfig offers stands in: the same family at the same weight and slant
// when some other face of it is installed, else a metric-similar family for
// the macOS faces documents commonly use, else the default sans-serif.

#include "TextBlock.h"

#include <pango/pango.h>

#include <string>

namespace plexa::render {

// `size` in points (already sanitised by the caller).
TextFace resolveTextFace(const std::string& requestedName, double size);

// A description Pango matches back to `face` (family, weight, slant, width)
// at `face.size` points. The caller frees it.
PangoFontDescription* pangoDescriptionForFace(const TextFace& face);

// The families to try for a missing face, best first: the requested family
// as named and with spaces between its words, then look-alikes.
std::vector<std::string> fallbackFamiliesFor(const std::string& requestedName);

}  // namespace plexa::render
