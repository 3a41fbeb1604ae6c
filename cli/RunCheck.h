#pragma once
// Checks made before a run starts, so that a mistake is reported at once,
// in terms of what the user gave: the document, the artboard IDs and the
// sketchtool to run.

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace plexa::cli {

// What is wrong with the file as a Sketch document ("not a Sketch
// document: document.json is missing"), or nothing. Reads the archive's
// directory only.
std::optional<std::string> sketchDocumentProblem(const std::string& path);

// The artboards the document lists (meta.json), in its order, with names.
struct DocumentArtboards {
  std::vector<std::string> ids;
  std::map<std::string, std::string> names;
};
DocumentArtboards readDocumentArtboards(const std::string& path);

// The IDs the user asked for, blanks trimmed, repeats dropped; or the
// problem: an empty list, or IDs the document does not have (named).
struct ArtboardSelection {
  std::vector<std::string> ids;
  std::string problem;
};
ArtboardSelection selectArtboards(const std::vector<std::string>& requested, const DocumentArtboards& document);

// A sketchtool that cannot be run, named as the user gave it: the
// --sketchtool path always, the sketchToolPath environment value when the
// run needs a sketchtool. `code` is the exit code to end with.
struct ToolProblem {
  int code = 0;
  std::string text;
};
std::optional<ToolProblem> sketchToolProblem(const std::string& givenPath, const char* environmentValue,
                                             bool runNeedsTool);

// What is wrong with `path` as a program to run, or nothing.
std::optional<std::string> programProblem(const std::string& path);

}  // namespace plexa::cli
