#pragma once
// Keyed archives (NSKeyedArchiver binary property lists) of the objects
// Sketch stores in documents: strings and attributed strings with their font
// descriptors, paragraph styles, colours and kerning. Decoding rebuilds them;
// encoding writes an attributed string in the same form so that both this
// decoder and Sketch read it back.
//
// Archives come from documents, so every decode is defensive: malformed
// property lists, wrong types, dangling or cyclic references and absurd sizes
// give an absent result and one log line, never a crash.

#include "AttributedString.h"

#include <optional>
#include <string>
#include <string_view>

namespace plexa {

// Base64 that skips every character outside the alphabet (line breaks,
// spaces, stray bytes) and stops at padding. Absent when the data bits do
// not form whole bytes (a lone trailing character).
std::optional<std::string> PXBase64Decode(std::string_view text);
// Standard alphabet, padded, no line breaks.
std::string PXBase64Encode(std::string_view bytes);

// The root object of an archive, as far as the system reads archives.
struct PXUnarchivedObject {
  // The archived class name ("NSString", "NSMutableAttributedString",
  // "NSDictionary", ...); property-list values stored inline get the class
  // the archiver would have used: "NSString", "NSNumber", "NSData".
  std::string className;
  std::optional<std::string> string;                   // string objects
  std::optional<PXAttributedString> attributedString;  // attributed strings
};

// `archive` is the binary property list (the decoded bytes).
std::optional<PXUnarchivedObject> PXKeyedUnarchiveRootObject(std::string_view archive);
std::optional<PXUnarchivedObject> PXKeyedUnarchiveBase64(std::string_view base64);

// The root object when it is an attributed string (or a plain string, which
// becomes an attributed string without attributes).
std::optional<PXAttributedString> PXUnarchiveAttributedString(std::string_view archive);
std::optional<PXAttributedString> PXUnarchiveAttributedStringFromBase64(std::string_view base64);

// A binary NSKeyedArchiver property list of an NSMutableAttributedString with
// every attribute the model carries (font descriptor, paragraph style,
// colour, colour dictionary, kerning and the raw style values). Absent only
// when the property-list writer fails (logged).
std::optional<std::string> PXArchiveAttributedString(const PXAttributedString& string);
// The same, base64 encoded without line breaks: the text Sketch keeps under
// "archivedAttributedString._archive".
std::optional<std::string> PXArchiveAttributedStringToBase64(const PXAttributedString& string);

// A new archive of an attributed string whose whole text is `text`, taking
// the attributes of the archived string's first character exactly as they
// were archived: every key is kept, those this model does not read (tab
// stops, text lists, ...) included, and a left-out alignment stays left out.
// Absent when `archive` (binary) holds no readable attributed string.
std::optional<std::string> PXArchiveReplacingAttributedStringText(std::string_view archive, std::string_view text);

}  // namespace plexa
