#pragma once
// Shared test support: temporary folders, log capture, main-queue pumping
// and a builder for small .sketch documents described in JSON.

#include "Json.h"
#include "Log.h"

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace plexa::test {

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

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
};

// Runs the main queue until `pred` holds (true) or `timeout` passes (false).
bool pumpMainUntil(const std::function<bool()>& pred,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10));

std::string readText(const std::string& path);
JsonValue readJson(const std::string& path);
void writeText(const std::string& path, const std::string& text);

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

// The corpus of real documents, or empty when the folder is absent.
std::vector<std::string> corpusDocuments();

}  // namespace plexa::test
