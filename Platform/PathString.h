#pragma once
// Path strings handled by Foundation's rules: a leading "/" is its own
// component, repeated slashes collapse, a trailing "/" is kept as a last "/"
// component, and a leading dot does not start an extension.

#include <string>
#include <string_view>
#include <vector>

namespace plexa {

std::vector<std::string> PXPathComponents(std::string_view path);
// Joins components, treating a "/" component as the root.
std::string PXPathWithComponents(const std::vector<std::string>& components);
std::string PXLastPathComponent(std::string_view path);
std::string PXDeletingLastPathComponent(std::string_view path);
std::string PXAppendingPathComponent(std::string_view path, std::string_view component);
std::string PXPathExtension(std::string_view path);
std::string PXDeletingPathExtension(std::string_view path);
std::string PXAppendingPathExtension(std::string_view path, std::string_view extension);
// Removes "." components and folds ".." into the component before it (never
// above the root); does not touch the file system.
std::string PXStandardizingPath(std::string_view path);

// A name that stays in the folder it is looked up in: not empty, not "." or
// "..", and without "/" or NUL. IDs that name files must be such names.
bool PXIsPlainFileName(std::string_view name);
// A relative path made only of plain file names ("a/b.json", not "a//b",
// "./a", "a/../b" or "/a").
bool PXIsPlainRelativePath(std::string_view path);

}  // namespace plexa
