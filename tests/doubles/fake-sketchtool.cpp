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
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

using namespace plexa;

namespace {

// MARK: Images

uint32_t crc32(const std::string& bytes) {
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char byte : bytes) {
    crc ^= byte;
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

void putBigEndian(std::string& out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>((value >> shift) & 0xFF);
}

void putChunk(std::string& png, const std::string& type, const std::string& data) {
  putBigEndian(png, static_cast<uint32_t>(data.size()));
  png += type + data;
  putBigEndian(png, crc32(type + data));
}

// A 2×2 RGBA image, its pixels in one stored (uncompressed) deflate block.
std::string pngBytes() {
  std::string pixels;
  for (int row = 0; row < 2; ++row) {
    pixels += '\0';  // no filter
    for (int column = 0; column < 2; ++column) pixels += std::string("\xE8\x3E\x8C\xFF", 4);
  }
  uint32_t a = 1, b = 0;
  for (unsigned char byte : pixels) {
    a = (a + byte) % 65521;
    b = (b + a) % 65521;
  }
  std::string zlib("\x78\x01\x01", 3);
  uint16_t length = static_cast<uint16_t>(pixels.size());
  zlib += static_cast<char>(length & 0xFF);
  zlib += static_cast<char>(length >> 8);
  zlib += static_cast<char>(~length & 0xFF);
  zlib += static_cast<char>((~length >> 8) & 0xFF);
  zlib += pixels;
  putBigEndian(zlib, (b << 16) | a);

  std::string header;
  putBigEndian(header, 2);
  putBigEndian(header, 2);
  header += std::string("\x08\x06\x00\x00\x00", 5);  // 8 bits, RGBA, deflate, no filter, no interlace
  std::string png("\x89PNG\r\n\x1A\n", 8);
  putChunk(png, "IHDR", header);
  putChunk(png, "IDAT", zlib);
  putChunk(png, "IEND", "");
  return png;
}

// An 8×8 grey baseline JPEG: one block whose DC difference and AC run are
// both the only code of length 1, so the scan is the two bits "00".
std::string jpegBytes() {
  std::string jpeg("\xFF\xD8", 2);
  jpeg += std::string("\xFF\xE0\x00\x10JFIF\x00\x01\x01\x00\x00\x01\x00\x01\x00\x00", 18);
  jpeg += std::string("\xFF\xDB\x00\x43\x00", 5) + std::string(64, '\x01');
  jpeg += std::string("\xFF\xC0\x00\x0B\x08\x00\x08\x00\x08\x01\x01\x11\x00", 13);
  std::string oneCode = std::string("\x01", 1) + std::string(15, '\0') + std::string("\x00", 1);
  jpeg += std::string("\xFF\xC4\x00\x14\x00", 5) + oneCode;
  jpeg += std::string("\xFF\xC4\x00\x14\x10", 5) + oneCode;
  jpeg += std::string("\xFF\xDA\x00\x08\x01\x01\x00\x00\x3F\x00", 10);
  jpeg += std::string("\x3F", 1);
  jpeg += std::string("\xFF\xD9", 2);
  return jpeg;
}

std::optional<std::string> imageBytes(const std::string& format) {
  if (format == "png") return pngBytes();
  if (format == "jpg" || format == "jpeg") return jpegBytes();
  if (format == "svg") return std::string("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"2\" height=\"2\"/>\n");
  return std::nullopt;
}

// MARK: Helpers

std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> items;
  if (text.empty()) return items;
  std::stringstream stream(text);
  std::string item;
  while (std::getline(stream, item, ',')) items.push_back(item);
  return items;
}

long long monotonicNanoseconds() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

void appendLog(const std::string& line) {
  std::string path = env("PLEXA_FAKE_SKETCHTOOL_LOG");
  if (path.empty()) return;
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  std::string text = line + "\n";
  ssize_t ignored = ::write(fd, text.data(), text.size());
  (void)ignored;
  ::close(fd);
}

void say(const std::string& line) {
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

int fail(int code, const std::string& message) {
  std::fprintf(stderr, "fake-sketchtool: %s\n", message.c_str());
  return code;
}

bool staysInFolder(const std::string& name) {
  if (name.empty() || name[0] == '/') return false;
  for (const auto& part : std::filesystem::path(name))
    if (part == "..") return false;
  return true;
}

// Writes without following a link at the file name, as an exporter should.
bool writeImage(const std::string& folder, const std::string& name, const std::string& bytes) {
  if (!staysInFolder(name)) return false;
  std::filesystem::path path = std::filesystem::path(folder) / name;
  std::error_code ec;
  std::filesystem::create_directories(path.parent_path(), ec);
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  ::close(fd);
  return ok;
}

// MARK: Arguments

std::optional<std::string> option(const std::string& argument, const std::string& name) {
  std::string prefix = "--" + name + "=";
  if (argument.rfind(prefix, 0) != 0) return std::nullopt;
  return argument.substr(prefix.size());
}

std::optional<double> number(const std::string& text) {
  if (text.empty()) return std::nullopt;
  char* end = nullptr;
  double value = std::strtod(text.c_str(), &end);
  if (*end != '\0') return std::nullopt;
  return value;
}

bool isYesNo(const std::string& text) { return text == "YES" || text == "NO"; }

struct Request {
  std::string kind;
  std::string document;
  std::string output;
  std::vector<std::string> items;
  bool useIDForName = true;
  double scale = 1;
  std::string scaleText;
  std::string format;
};

// Checks each option in the order the library writes them; the message names the first that is wrong.
std::optional<std::string> parse(const std::vector<std::string>& args, Request& request) {
  request.kind = args[1];
  request.document = args[2];
  bool artboards = request.kind == "artboards";
  std::vector<std::string> names = artboards ? std::vector<std::string>{"output", "items", "save-for-web", "scale",
                                                                        "formats", "compression", "use-id-for-name"}
                                             : std::vector<std::string>{"output", "items", "save-for-web",
                                                                        "compression", "use-id-for-name"};
  if (args.size() != 3 + names.size())
    return "expected " + std::to_string(3 + names.size()) + " arguments, got " + std::to_string(args.size());
  for (size_t i = 0; i < names.size(); ++i) {
    auto value = option(args[3 + i], names[i]);
    if (!value) return "argument " + std::to_string(4 + i) + " should be --" + names[i] + "=…: " + args[3 + i];
    const std::string& name = names[i];
    bool ok = true;
    if (name == "output") {
      request.output = *value;
      ok = !value->empty();
    } else if (name == "items") {
      request.items = splitList(*value);
    } else if (name == "save-for-web") {
      ok = isYesNo(*value);
    } else if (name == "scale") {
      auto scale = number(*value);
      ok = scale && *scale > 0;
      request.scale = scale.value_or(1);
      request.scaleText = *value;
    } else if (name == "formats") {
      request.format = *value;
      ok = *value == "png" || *value == "jpg";
    } else if (name == "compression") {
      auto compression = number(*value);
      ok = compression && *compression >= 0 && *compression <= 1;
    } else if (name == "use-id-for-name") {
      ok = artboards ? *value == "YES" : isYesNo(*value);
      request.useIDForName = *value == "YES";
    }
    if (!ok) return "bad value for --" + name + ": " + *value;
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
    if (name.rfind("pages/", 0) != 0) continue;
    auto text = PXZip::readEntry(document, name);
    auto page = text ? PXJsonParse(*text) : std::nullopt;
    if (page) collectLayers(*page, byID);
  }
  return byID;
}

std::string withoutSlashes(std::string text) {
  std::erase(text, '/');
  return text;
}

// MARK: Exports

bool exportOne(const Request& request, const std::string& name, const std::string& format) {
  auto bytes = imageBytes(format);
  if (!bytes) {
    say("Warning: cannot render format " + format);
    return false;
  }
  if (!writeImage(request.output, name, *bytes)) {
    say("Error: could not write " + name);
    return false;
  }
  say("Exported " + name);
  return true;
}

void exportArtboards(const Request& request, const std::vector<std::string>& skipped) {
  std::string suffix = request.scale == 1 ? "" : "@" + request.scaleText + "x";
  for (const auto& id : request.items) {
    if (std::find(skipped.begin(), skipped.end(), id) != skipped.end()) continue;
    exportOne(request, id + suffix + "." + request.format, request.format);
  }
}

void exportLayers(const Request& request, const std::vector<std::string>& skipped) {
  auto layers = documentLayers(request.document);
  for (const auto& id : request.items) {
    if (std::find(skipped.begin(), skipped.end(), id) != skipped.end()) continue;
    auto layer = layers.find(id);
    if (layer == layers.end()) continue;
    auto formats = PXValueForKeyPath(layer->second, "exportOptions.exportFormats");
    if (!formats || !formats->is_array()) continue;
    std::string base = request.useIDForName ? id : std::string(PXJsonTextFor(&layer->second, "name").value_or(id));
    for (const auto& entry : formats->get_array()) {
      std::string format(PXJsonTextFor(&entry, "fileFormat").value_or("png"));
      std::string label = withoutSlashes(std::string(PXJsonTextFor(&entry, "name").value_or("")));
      bool asPrefix = PXJsonInt64For(&entry, "namingScheme").value_or(0) == 1;
      std::string name = (asPrefix ? label : "") + base + (asPrefix ? "" : label) + "." + format;
      exportOne(request, name, format);
    }
  }
}

int metadata(const std::string& document) {
  auto meta = PXZip::readEntry(document, "meta.json");
  if (!meta) return fail(1, "cannot read meta.json of " + document);
  std::fputs(meta->c_str(), stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 2 && args[0] == "metadata") return metadata(args[1]);
  if (args.size() < 3 || args[0] != "export" || (args[1] != "artboards" && args[1] != "layers"))
    return fail(64, "usage: export artboards|layers <file> options… | metadata <file>");
  Request request;
  if (auto problem = parse(args, request)) return fail(64, *problem);
  if (::access(request.document.c_str(), R_OK) != 0) return fail(1, "cannot open document " + request.document);

  appendLog("start " + std::to_string(monotonicNanoseconds()) + " " + std::to_string(::getpid()) + " " +
            request.kind + " " + args[4].substr(8));
  if (auto line = env("PLEXA_FAKE_SKETCHTOOL_PRINT"); !line.empty()) say(line);
  if (long pause = std::atol(env("PLEXA_FAKE_SKETCHTOOL_SLEEP_MS").c_str()); pause > 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(pause));

  auto skipped = splitList(env("PLEXA_FAKE_SKETCHTOOL_SKIP"));
  if (request.kind == "artboards") {
    exportArtboards(request, skipped);
  } else {
    exportLayers(request, skipped);
  }
  appendLog("end " + std::to_string(monotonicNanoseconds()) + " " + std::to_string(::getpid()));
  return 0;
}
