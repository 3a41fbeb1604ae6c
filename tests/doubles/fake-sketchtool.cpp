// A stand-in for Sketch's command-line tool. It accepts exactly the command
// lines the library sends, writes tiny valid images named as the real tool
// names them, and prints one "Exported <name>" line per file.
//
//   metadata <file>
//   export artboards <file> --output=D --items=A,B --save-for-web=YES|NO --scale=S
//          --formats=png|jpg --compression=C --use-id-for-name=YES
//   export layers <file> --output=D --items=A,B --save-for-web=YES|NO
//          --compression=C --use-id-for-name=YES|NO
//
// Environment, so that tests reach every branch:
//   PLEXA_FAKE_SKETCHTOOL_PRINT     one line printed before the exports (a warning, an odd file name)
//   PLEXA_FAKE_SKETCHTOOL_SLEEP_MS  pause before the first file, per run
//   PLEXA_FAKE_SKETCHTOOL_SKIP      IDs (comma-separated) that are not exported
//   PLEXA_FAKE_SKETCHTOOL_LOG       file that gets "start <ns> <pid> <kind> <items>" and "end <ns> <pid>"

#include "Json.h"
#include "Zip.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

using namespace plexa;
using namespace std::string_literals;

namespace {

// MARK: Images

// A 2×2 RGBA PNG, its pixels in one stored (uncompressed) deflate block; the
// chunk CRCs and the Adler-32 sum are worked out already.
const std::string kPNG =
    "\x89PNG\r\n\x1A\n"
    "\x00\x00\x00\x0DIHDR\x00\x00\x00\x02\x00\x00\x00\x02\x08\x06\x00\x00\x00\x72\xB6\x0D\x24"
    "\x00\x00\x00\x1DIDAT\x78\x01\x01\x12\x00\xED\xFF\x00\xE8\x3E\x8C\xFF\xE8\x3E\x8C\xFF"
    "\x00\xE8\x3E\x8C\xFF\xE8\x3E\x8C\xFF\x5F\xD0\x0A\xC5\xD2\xB6\xBA\x54"
    "\x00\x00\x00\x00IEND\xAE\x42\x60\x82"s;

// An 8×8 grey baseline JPEG: one block whose DC difference and AC run are
// both the only code of length 1, so the scan is the two bits "00".
std::string jpegBytes() {
  std::string oneCode = "\x01"s + std::string(16, '\0');
  return "\xFF\xD8\xFF\xE0\x00\x10JFIF\x00\x01\x01\x00\x00\x01\x00\x01\x00\x00"s +
         "\xFF\xDB\x00\x43\x00"s + std::string(64, '\x01') +
         "\xFF\xC0\x00\x0B\x08\x00\x08\x00\x08\x01\x01\x11\x00"s +
         "\xFF\xC4\x00\x14\x00"s + oneCode + "\xFF\xC4\x00\x14\x10"s + oneCode +
         "\xFF\xDA\x00\x08\x01\x01\x00\x00\x3F\x00\x3F\xFF\xD9"s;
}

std::optional<std::string> imageBytes(const std::string& format) {
  if (format == "png") return kPNG;
  if (format == "jpg" || format == "jpeg") return jpegBytes();
  if (format == "svg") return "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"2\" height=\"2\"/>\n"s;
  return std::nullopt;
}

// MARK: Helpers

std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> items;
  std::stringstream stream(text);
  for (std::string item; std::getline(stream, item, ',');) items.push_back(item);
  return items;
}

// Nanoseconds on the system-wide monotonic clock, comparable between runs.
std::string now() {
  return std::to_string(std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count());
}

// One line in one appending write, so that runs at once do not mix their lines.
void appendLog(const std::string& line) {
  std::string path = env("PLEXA_FAKE_SKETCHTOOL_LOG");
  if (!path.empty()) std::ofstream(path, std::ios::app) << line + "\n";
}

void say(const std::string& line) {
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

int fail(int code, const std::string& message) {
  std::fprintf(stderr, "fake-sketchtool: %s\n", message.c_str());
  return code;
}

// Writes inside the folder only, and without following a link at the file name, as an exporter should.
bool writeImage(const std::string& folder, const std::string& name, const std::string& bytes) {
  std::filesystem::path relative(name);
  if (name.empty() || relative.is_absolute() || std::find(relative.begin(), relative.end(), "..") != relative.end())
    return false;
  std::filesystem::path path = std::filesystem::path(folder) / relative;
  std::error_code ec;
  std::filesystem::create_directories(path.parent_path(), ec);
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  ::close(fd);
  return ok;
}

// MARK: Arguments

std::optional<double> number(const std::string& text) {
  char* end = nullptr;
  double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0') return std::nullopt;
  return value;
}

bool isYesNo(const std::string& text) { return text == "YES" || text == "NO"; }

bool isValid(const std::string& name, const std::string& value, bool artboards) {
  auto n = number(value);
  if (name == "output") return !value.empty();
  if (name == "save-for-web") return isYesNo(value);
  if (name == "scale") return n && *n > 0;
  if (name == "formats") return value == "png" || value == "jpg";
  if (name == "compression") return n && *n >= 0 && *n <= 1;
  if (name == "use-id-for-name") return artboards ? value == "YES" : isYesNo(value);
  return true;  // items
}

// Option name → value. Checks each option in the order the library writes
// them; the message names the first that is wrong.
std::optional<std::string> parse(const std::vector<std::string>& args, std::map<std::string, std::string>& options) {
  bool artboards = args[1] == "artboards";
  std::vector<std::string> names{"output",  "items",       "save-for-web",   "scale",
                                 "formats", "compression", "use-id-for-name"};
  if (!artboards) names.erase(names.begin() + 3, names.begin() + 5);
  if (args.size() != 3 + names.size())
    return "expected " + std::to_string(3 + names.size()) + " arguments, got " + std::to_string(args.size());
  for (size_t i = 0; i < names.size(); ++i) {
    std::string prefix = "--" + names[i] + "=";
    if (args[3 + i].rfind(prefix, 0) != 0)
      return "argument " + std::to_string(4 + i) + " should be " + prefix + "…: " + args[3 + i];
    std::string value = args[3 + i].substr(prefix.size());
    if (!isValid(names[i], value, artboards)) return "bad value for --" + names[i] + ": " + value;
    options[names[i]] = value;
  }
  return std::nullopt;
}

// MARK: Document

void collectLayers(const JsonValue& layer, std::map<std::string, JsonValue>& byID) {
  if (auto id = PXJsonTextFor(&layer, "do_objectID")) byID.emplace(std::string(*id), layer);
  if (const auto* children = PXJsonArrayFor(&layer, "layers"))
    for (const auto& child : *children) collectLayers(child, byID);
}

std::map<std::string, JsonValue> documentLayers(const std::string& document) {
  std::map<std::string, JsonValue> byID;
  for (const auto& name : PXZip::entryNames(document).value_or(std::vector<std::string>())) {
    auto text = name.rfind("pages/", 0) == 0 ? PXZip::readEntry(document, name) : std::nullopt;
    if (auto page = text ? PXJsonParse(*text) : std::nullopt) collectLayers(*page, byID);
  }
  return byID;
}

// MARK: Exports

void exportOne(const std::string& folder, const std::string& name, const std::string& format) {
  if (auto bytes = imageBytes(format); !bytes)
    say("Warning: cannot render format " + format);
  else
    say(writeImage(folder, name, *bytes) ? "Exported " + name : "Error: could not write " + name);
}

// File names: "<ID>[@<scale>x].<format>".
void exportArtboards(std::map<std::string, std::string>& options, const std::vector<std::string>& IDs) {
  std::string suffix = number(options["scale"]) == 1 ? "" : "@" + options["scale"] + "x";
  for (const auto& id : IDs) exportOne(options["output"], id + suffix + "." + options["formats"], options["formats"]);
}

// File names: the ID (or the layer's name) with each export format's name
// (slashes dropped) after it, or before it when its naming scheme is 1.
void exportLayers(const std::string& document, std::map<std::string, std::string>& options,
                  const std::vector<std::string>& IDs) {
  auto layers = documentLayers(document);
  for (const auto& id : IDs) {
    auto layer = layers.find(id);
    if (layer == layers.end()) continue;
    auto formats = PXValueForKeyPath(layer->second, "exportOptions.exportFormats");
    if (!formats || !formats->is_array()) continue;
    std::string name(PXJsonTextFor(&layer->second, "name").value_or(id));
    std::string base = options["use-id-for-name"] == "YES" ? id : name;
    for (const auto& entry : formats->get_array()) {
      std::string format(PXJsonTextFor(&entry, "fileFormat").value_or("png"));
      std::string label(PXJsonTextFor(&entry, "name").value_or(""));
      std::erase(label, '/');
      bool asPrefix = PXJsonInt64For(&entry, "namingScheme").value_or(0) == 1;
      exportOne(options["output"], (asPrefix ? label + base : base + label) + "." + format, format);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 2 && args[0] == "metadata") {
    auto meta = PXZip::readEntry(args[1], "meta.json");
    if (!meta) return fail(1, "cannot read meta.json of " + args[1]);
    std::fputs(meta->c_str(), stdout);
    return 0;
  }
  if (args.size() < 3 || args[0] != "export" || (args[1] != "artboards" && args[1] != "layers"))
    return fail(64, "usage: export artboards|layers <file> options… | metadata <file>");
  std::map<std::string, std::string> options;
  if (auto problem = parse(args, options)) return fail(64, *problem);
  if (::access(args[2].c_str(), R_OK) != 0) return fail(1, "cannot open document " + args[2]);

  std::string pid = std::to_string(::getpid());
  appendLog("start " + now() + " " + pid + " " + args[1] + " " + options["items"]);
  if (auto line = env("PLEXA_FAKE_SKETCHTOOL_PRINT"); !line.empty()) say(line);
  if (long pause = std::atol(env("PLEXA_FAKE_SKETCHTOOL_SLEEP_MS").c_str()); pause > 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(pause));

  std::vector<std::string> IDs, skipped = splitList(env("PLEXA_FAKE_SKETCHTOOL_SKIP"));
  for (const auto& id : splitList(options["items"]))
    if (std::find(skipped.begin(), skipped.end(), id) == skipped.end()) IDs.push_back(id);
  if (args[1] == "artboards") {
    exportArtboards(options, IDs);
  } else {
    exportLayers(args[2], options, IDs);
  }
  appendLog("end " + now() + " " + pid);
  return 0;
}
