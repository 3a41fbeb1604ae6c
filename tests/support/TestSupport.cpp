#include "TestSupport.h"

#include <plist/plist.h>

#include "Files.h"
#include "MainQueue.h"
#include "PathString.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace plexa::test {

ScopedEnv::ScopedEnv(const char* name, const std::string& value) : name_(name) {
  if (const char* old = std::getenv(name)) old_ = old;
  ::setenv(name, value.c_str(), 1);
}

ScopedEnv::~ScopedEnv() {
  if (old_) {
    ::setenv(name_, old_->c_str(), 1);
  } else {
    ::unsetenv(name_);
  }
}

JsonValue parseJson(std::string_view text) {
  std::string error;
  auto value = PXJsonParse(text, &error);
  if (!value) ADD_FAILURE() << "not JSON (" << error << "): " << text;
  return value.value_or(JsonValue());
}

std::string compactJson(const JsonValue& value) { return PXJsonSerialize(value, false).value_or("<unwritable>"); }

TempDir::TempDir() : path_(PXFileManager::makeTemporaryDirectory("plexa-test")) {}
TempDir::~TempDir() { PXFileManager::removeItem(path_); }

LogCapture::LogCapture() {
  PXLogSetObserver([this](unsigned flag, const std::string& message) {
    std::lock_guard lock(mutex_);
    messages_.push_back(message);
    flags_.push_back(flag);
  });
}
LogCapture::~LogCapture() { PXLogSetObserver({}); }

std::vector<std::string> LogCapture::messages() const {
  std::lock_guard lock(mutex_);
  return messages_;
}

std::vector<std::string> LogCapture::at(unsigned flag) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (size_t i = 0; i < messages_.size(); ++i)
    if (flags_[i] == flag) out.push_back(messages_[i]);
  return out;
}

bool LogCapture::contains(const std::string& fragment) const { return count(fragment) > 0; }

size_t LogCapture::count(const std::string& fragment) const {
  std::lock_guard lock(mutex_);
  return static_cast<size_t>(std::count_if(messages_.begin(), messages_.end(), [&](const std::string& m) {
    return m.find(fragment) != std::string::npos;
  }));
}

bool pumpMainUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
  return PXMainQueue::shared().runUntil(pred, timeout);
}

std::string readText(const std::string& path) {
  auto text = PXFileManager::readFile(path);
  if (!text) ADD_FAILURE() << "cannot read " << path;
  return text.value_or("");
}

JsonValue readJson(const std::string& path) {
  std::string error;
  auto v = PXJsonParse(readText(path), &error);
  if (!v) ADD_FAILURE() << "not JSON: " << path << ": " << error;
  return v.value_or(JsonValue());
}

void writeText(const std::string& path, const std::string& text) {
  PXFileManager::createDirectory(PXDeletingLastPathComponent(path), true);
  std::ofstream(path, std::ios::binary) << text;
}

std::string writeScript(const std::string& path, const std::string& body) {
  writeText(path, "#!/bin/sh\n" + body + "\n");
  std::filesystem::permissions(path, std::filesystem::perms(0755));
  return path;
}

JsonObject frame(double x, double y, double w, double h) {
  return JsonObject{{"_class", "rect"}, {"constrainProportions", false}, {"x", x}, {"y", y}, {"width", w},
                    {"height", h}};
}

JsonObject layer(const std::string& cls, const std::string& id, const std::string& name, JsonObject f,
                 JsonArray children) {
  JsonObject l{{"_class", cls},
               {"do_objectID", id},
               {"name", name},
               {"isVisible", true},
               {"isLocked", false},
               {"resizingConstraint", 63},
               {"rotation", 0},
               {"frame", std::move(f)},
               {"exportOptions", JsonObject{{"_class", "exportOptions"}, {"exportFormats", JsonArray()}}},
               {"style", JsonObject{{"_class", "style"}}}};
  if (!children.empty() || cls == "group" || cls == "artboard" || cls == "symbolMaster" || cls == "shapeGroup")
    l["layers"] = std::move(children);
  return l;
}

JsonObject artboard(const std::string& id, const std::string& name, JsonObject f, JsonArray children) {
  return layer("artboard", id, name, std::move(f), std::move(children));
}

JsonObject page(const std::string& id, const std::string& name, JsonArray layers) {
  JsonObject p = layer("page", id, name, frame(0, 0, 0, 0));
  p["layers"] = std::move(layers);
  return p;
}

SketchFixture& SketchFixture::addPage(JsonObject p) {
  pages_.push_back(std::move(p));
  return *this;
}
SketchFixture& SketchFixture::setDocument(JsonObject d) {
  document_ = std::move(d);
  return *this;
}
SketchFixture& SketchFixture::setMeta(JsonObject m) {
  meta_ = std::move(m);
  return *this;
}
SketchFixture& SketchFixture::addEntry(std::string name, std::string bytes) {
  extra_.emplace_back(std::move(name), std::move(bytes));
  return *this;
}
SketchFixture& SketchFixture::omitEntry(std::string name) {
  omitted_.push_back(std::move(name));
  return *this;
}

JsonObject SketchFixture::documentJSON() const {
  if (document_) return *document_;
  JsonArray refs;
  for (const auto& p : pages_) {
    std::string id(p.at("do_objectID").as_string());
    refs.push_back(JsonObject{{"_class", "MSJSONFileReference"}, {"_ref_class", "MSImmutablePage"},
                              {"_ref", "pages/" + id}});
  }
  return JsonObject{{"_class", "document"},
                    {"do_objectID", "DOC-0000-FIXTURE"},
                    {"currentPageIndex", 0},
                    {"assets", JsonObject{{"_class", "assetCollection"}}},
                    {"layerStyles", JsonObject{{"_class", "sharedStyleContainer"}, {"objects", JsonArray()}}},
                    {"layerTextStyles", JsonObject{{"_class", "sharedTextStyleContainer"}, {"objects", JsonArray()}}},
                    {"foreignSymbols", JsonArray()},
                    {"pages", std::move(refs)}};
}

JsonObject SketchFixture::metaJSON() const {
  if (meta_) return *meta_;
  JsonObject pagesAndArtboards;
  for (const auto& p : pages_) {
    JsonObject artboards;
    if (const auto* layers = p.if_contains("layers"); layers && layers->is_array()) {
      for (const auto& l : layers->get_array()) {
        auto cls = PXJsonTextFor(&l, "_class");
        if (cls && (*cls == "artboard" || *cls == "symbolMaster"))
          artboards[l.at("do_objectID").as_string()] = JsonObject{{"name", l.at("name")}};
      }
    }
    pagesAndArtboards[p.at("do_objectID").as_string()] =
        JsonObject{{"name", p.at("name")}, {"artboards", std::move(artboards)}};
  }
  return JsonObject{{"commit", "fixture"},
                    {"pagesAndArtboards", std::move(pagesAndArtboards)},
                    {"version", 136},
                    {"compatibilityVersion", 99},
                    {"app", "com.bohemiancoding.sketch3"},
                    {"appVersion", "72.1"},
                    {"build", 117890},
                    {"created", JsonObject{{"app", "com.bohemiancoding.sketch3"}, {"build", 117890},
                                           {"appVersion", "72.1"}, {"version", 136}}}};
}

std::vector<std::pair<std::string, std::string>> SketchFixture::entries() const {
  std::vector<std::pair<std::string, std::string>> out;
  out.emplace_back("document.json", *PXJsonSerialize(documentJSON(), false));
  out.emplace_back("meta.json", *PXJsonSerialize(metaJSON(), false));
  out.emplace_back("user.json", *PXJsonSerialize(JsonObject{{"document", JsonObject{{"pageListHeight", 85}}}}, false));
  out.emplace_back("pages/", "");
  for (const auto& p : pages_)
    out.emplace_back("pages/" + std::string(p.at("do_objectID").as_string()) + ".json", *PXJsonSerialize(p, false));
  out.emplace_back("images/", "");
  out.emplace_back("previews/", "");
  out.emplace_back("previews/preview.png", "PNG");
  for (const auto& e : extra_) out.push_back(e);
  std::erase_if(out, [&](const auto& e) {
    return std::any_of(omitted_.begin(), omitted_.end(), [&](const std::string& o) {
      return e.first == o || e.first.rfind(o.back() == '/' ? o : o + "/", 0) == 0;
    });
  });
  return out;
}

std::string SketchFixture::writeSketch(const std::string& path) const {
  std::string error;
  if (!PXZip::zipEntries(entries(), path, &error)) ADD_FAILURE() << "cannot write fixture " << path << ": " << error;
  return path;
}

std::string SketchFixture::writeFolder(const std::string& folder) const {
  for (const auto& [name, bytes] : entries()) {
    std::string target = folder + "/" + name;
    if (name.back() == '/') {
      PXFileManager::createDirectory(target, true);
    } else {
      writeText(target, bytes);
    }
  }
  return folder;
}

void forEachLayer(const JsonObject& node, const std::function<void(const JsonObject&)>& visit) {
  visit(node);
  if (const auto* layers = node.if_contains("layers"); layers && layers->is_array())
    for (const auto& child : layers->get_array())
      if (child.is_object()) forEachLayer(child.get_object(), visit);
}

const JsonObject* findLayer(const JsonObject& node, const std::string& value, const char* key) {
  if (const auto* own = node.if_contains(key); own && *own == JsonValue(value)) return &node;
  if (const auto* layers = node.if_contains("layers"); layers && layers->is_array())
    for (const auto& child : layers->get_array())
      if (const auto* hit = child.is_object() ? findLayer(child.get_object(), value, key) : nullptr) return hit;
  return nullptr;
}

std::string writeButtonDocument(const std::string& path) {
  JsonObject master = layer("symbolMaster", "M1", "Button", frame(0, 0, 80, 30),
                            JsonArray{layer("text", "T1", "Label", frame(0, 0, 80, 30))});
  master["symbolID"] = "SYM-1";
  JsonObject instance = layer("symbolInstance", "I1", "Button", frame(10, 10, 80, 30));
  instance["symbolID"] = "SYM-1";
  instance["overrideValues"] = JsonArray();
  SketchFixture fixture;
  fixture.addPage(page("P1", "Page", JsonArray{artboard("A1", "Screen", frame(0, 0, 320, 480), JsonArray{instance})}));
  fixture.addPage(page("P2", "Symbols", JsonArray{master}));
  return fixture.writeSketch(path);
}

std::string plistXML(const std::string& binary) {
  plist_t parsed = nullptr;
  plist_from_bin(binary.data(), static_cast<uint32_t>(binary.size()), &parsed);
  char* xml = nullptr;
  uint32_t length = 0;
  if (parsed) plist_to_xml(parsed, &xml, &length);
  std::string text = xml ? std::string(xml, length) : "";
  if (xml) plist_to_xml_free(xml);
  plist_free(parsed);
  return text;
}

std::vector<ToolRun> toolRuns(const std::string& logPath) {
  std::vector<ToolRun> runs;
  std::istringstream lines(PXFileManager::readFile(logPath).value_or(""));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string event, kind, items;
    ToolRun run;
    fields >> event >> run.start >> run.pid >> kind >> items;
    run.items = items.empty() ? 0 : std::count(items.begin(), items.end(), ',') + 1;
    if (event == "start") runs.push_back(run);
    for (auto& started : runs)
      if (event == "end" && started.pid == run.pid) started.end = run.start;
  }
  return runs;
}

std::vector<std::string> corpusDocuments() {
  std::vector<std::string> docs;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(PLEXA_CORPUS_DIR, ec))
    if (e.path().extension() == ".sketch") docs.push_back(e.path().string());
  std::sort(docs.begin(), docs.end());
  return docs;
}

}  // namespace plexa::test
