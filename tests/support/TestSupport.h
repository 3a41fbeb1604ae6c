#pragma once
// Shared test support: temporary folders, log capture, main-queue pumping
// and a builder for small .sketch documents described in JSON.

#include "Json.h"
#include "Log.h"

#include <boost/json/serialize.hpp>

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace boost::json {
// Readable failure messages for JSON values in gtest assertions.
inline void PrintTo(const value& v, std::ostream* os) { *os << serialize(v); }
inline void PrintTo(const object& o, std::ostream* os) { *os << serialize(o); }
inline void PrintTo(const array& a, std::ostream* os) { *os << serialize(a); }
}  // namespace boost::json

namespace plexa::test {

// Sets an environment variable for the lifetime of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// Parses JSON text written in a test; a parse failure fails the test.
JsonValue parseJson(std::string_view text);
// The compact form of a value, for comparing whole records at once.
std::string compactJson(const JsonValue& value);

// A fresh folder, removed with everything in it when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Records every log message for the lifetime of the object.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::vector<std::string> messages() const;
  bool contains(const std::string& fragment) const;
  size_t count(const std::string& fragment) const;
  // The messages logged with this flag, to tell errors from warnings.
  std::vector<std::string> at(unsigned flag) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
  std::vector<unsigned> flags_;
};

// Runs the main queue until `pred` holds (true) or `timeout` passes (false).
bool pumpMainUntil(const std::function<bool()>& pred,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10));

std::string readText(const std::string& path);
JsonValue readJson(const std::string& path);
void writeText(const std::string& path, const std::string& text);
// An executable shell script with this body; returns its path.
std::string writeScript(const std::string& path, const std::string& body);

// Layer builders with the keys Sketch always writes.
JsonObject frame(double x, double y, double w, double h);
JsonObject layer(const std::string& cls, const std::string& id, const std::string& name, JsonObject frame,
                 JsonArray children = {});
JsonObject artboard(const std::string& id, const std::string& name, JsonObject frame, JsonArray children = {});
JsonObject page(const std::string& id, const std::string& name, JsonArray layers);

// A .sketch document in memory. meta.json's "pagesAndArtboards" is derived
// from the pages' top-level artboards unless `meta` is set explicitly.
class SketchFixture {
 public:
  SketchFixture& addPage(JsonObject page);
  SketchFixture& setDocument(JsonObject document);
  SketchFixture& setMeta(JsonObject meta);
  // Extra raw entries (name → bytes), e.g. images or deliberately bad files.
  SketchFixture& addEntry(std::string name, std::string bytes);
  SketchFixture& omitEntry(std::string name);

  JsonObject documentJSON() const;
  JsonObject metaJSON() const;
  // Writes the archive; returns the path for chaining.
  std::string writeSketch(const std::string& path) const;
  // Writes the unzipped folder layout instead.
  std::string writeFolder(const std::string& folder) const;

 private:
  std::vector<std::pair<std::string, std::string>> entries() const;

  std::vector<JsonObject> pages_;
  std::optional<JsonObject> document_;
  std::optional<JsonObject> meta_;
  std::vector<std::pair<std::string, std::string>> extra_;
  std::vector<std::string> omitted_;
};

// Visits `node` and every layer below it, depth first.
void forEachLayer(const JsonObject& node, const std::function<void(const JsonObject&)>& visit);
// The first layer, depth first, whose `key` is `value`; null when none.
const JsonObject* findLayer(const JsonObject& node, const std::string& value, const char* key = "do_objectID");

// One artboard "A1" holding an instance "I1" of the master "M1" (symbol
// "SYM-1", a text "T1") that sits on a second page; returns the path.
std::string writeButtonDocument(const std::string& path);

// A binary property list (a keyed archive) as XML text, to check the keys
// and classes it holds; "" when it does not parse.
std::string plistXML(const std::string& binary);

// One run the fake sketchtool logged (PLEXA_FAKE_SKETCHTOOL_LOG): when it
// started and ended (0: never), its pid, and how many items it got.
struct ToolRun {
  long long start = 0;
  long long end = 0;
  int pid = 0;
  size_t items = 0;
};
std::vector<ToolRun> toolRuns(const std::string& logPath);

// The corpus of real documents, or empty when the folder is absent.
std::vector<std::string> corpusDocuments();

}  // namespace plexa::test
