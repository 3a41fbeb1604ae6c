#include "PathString.h"

#include <algorithm>

namespace plexa {

namespace {

// Collapses runs of "/" and drops a trailing "/" (except the root itself).
std::string collapsed(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  for (char c : path) {
    if (c == '/' && !out.empty() && out.back() == '/') continue;
    out += c;
  }
  if (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

}  // namespace

std::vector<std::string> PXPathComponents(std::string_view path) {
  std::vector<std::string> parts;
  if (path.empty()) return parts;
  size_t i = 0;
  if (path[0] == '/') {
    parts.emplace_back("/");
    while (i < path.size() && path[i] == '/') ++i;
  }
  while (i < path.size()) {
    size_t slash = path.find('/', i);
    if (slash == std::string_view::npos) {
      parts.emplace_back(path.substr(i));
      return parts;
    }
    parts.emplace_back(path.substr(i, slash - i));
    i = slash;
    while (i < path.size() && path[i] == '/') ++i;
    if (i == path.size()) parts.emplace_back("/");
  }
  return parts;
}

std::string PXPathWithComponents(const std::vector<std::string>& components) {
  std::string out;
  for (const auto& c : components) {
    if (c.empty()) continue;
    if (c == "/") {
      if (out.empty()) out = "/";
      continue;
    }
    if (!out.empty() && out.back() != '/') out += '/';
    out += c;
  }
  return out;
}

std::string PXLastPathComponent(std::string_view path) {
  std::string p = collapsed(path);
  if (p == "/") return p;
  size_t slash = p.rfind('/');
  return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string PXDeletingLastPathComponent(std::string_view path) {
  std::string p = collapsed(path);
  if (p == "/") return p;
  size_t slash = p.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  return p.substr(0, slash);
}

std::string PXAppendingPathComponent(std::string_view path, std::string_view component) {
  if (path.empty()) return collapsed(component);
  std::string joined(path);
  joined += '/';
  joined += component;
  return collapsed(joined);
}

std::string PXPathExtension(std::string_view path) {
  std::string last = PXLastPathComponent(path);
  size_t dot = last.rfind('.');
  if (dot == std::string::npos || dot == 0) return "";
  return last.substr(dot + 1);
}

std::string PXDeletingPathExtension(std::string_view path) {
  std::string p = collapsed(path);
  std::string ext = PXPathExtension(p);
  if (ext.empty()) return p;
  return p.substr(0, p.size() - ext.size() - 1);
}

std::string PXAppendingPathExtension(std::string_view path, std::string_view extension) {
  std::string p = collapsed(path);
  if (extension.empty()) return p;
  return p + "." + std::string(extension);
}

std::string PXStandardizingPath(std::string_view path) {
  auto parts = PXPathComponents(path);
  bool absolute = !parts.empty() && parts[0] == "/";
  std::vector<std::string> kept;
  for (size_t i = absolute ? 1 : 0; i < parts.size(); ++i) {
    const auto& c = parts[i];
    if (c == "." || c == "/") continue;
    if (c == "..") {
      if (!kept.empty() && kept.back() != "..") {
        kept.pop_back();
      } else if (!absolute) {
        kept.push_back(c);
      }
      continue;
    }
    kept.push_back(c);
  }
  if (absolute) kept.insert(kept.begin(), "/");
  std::string out = PXPathWithComponents(kept);
  return out.empty() && absolute ? "/" : out;
}

bool PXIsPlainFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

bool PXIsPlainRelativePath(std::string_view path) {
  for (size_t start = 0;;) {
    const size_t slash = std::min(path.find('/', start), path.size());
    if (!PXIsPlainFileName(path.substr(start, slash - start))) return false;
    if (slash == path.size()) return true;
    start = slash + 1;
  }
}

}  // namespace plexa
