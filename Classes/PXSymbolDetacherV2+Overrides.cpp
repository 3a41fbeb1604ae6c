// The instance side of detaching: the override map, resizing copied layers by
// their resizing constraints, and applying one override to one layer.

#include "PXSymbolDetacherV2.h"

#include "KeyedArchive.h"
#include "Log.h"
#include "PXMetaText.h"
#include "TextLayout.h"

#include <cmath>
#include <stdexcept>

namespace plexa {

namespace {

std::atomic<bool> userInterfaceIsRightToLeft{false};

// Odd on purpose: the padding Sketch's own text container leaves at each end
// of a line, so refitted text measures as wide as Sketch measures it.
constexpr double kLineFragmentPadding = 8.65;

const JsonValue* member(const JsonObject& object, std::string_view key) {
  auto it = object.find(key);
  return it == object.end() ? nullptr : &it->value();
}

JsonObject* frameOf(JsonObject& node) {
  auto it = node.find("frame");
  return it != node.end() && it->value().is_object() ? &it->value().get_object() : nullptr;
}

float frameFloat(const JsonObject& node, std::string_view key) {
  return PXJsonFloat(PXJsonFind(member(node, "frame"), key)).value_or(0.0f);
}

unsigned resizingMask(const JsonObject& node) {
  return static_cast<unsigned>(PXJsonInt64(member(node, "resizingConstraint")).value_or(0));
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  for (;;) {
    std::size_t end = text.find(separator, start);
    pieces.push_back(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
    if (end == std::string_view::npos) return pieces;
    start = end + 1;
  }
}

// Stores `value` under the nested identifiers of `path` ("A/B/C": R[A][B][C]);
// when an identifier on the way holds something other than a map, under the
// whole path string instead.
void storeAlongPath(JsonObject& overrides, std::string_view path, JsonValue value) {
  auto ids = split(path, '/');
  JsonObject* current = &overrides;
  for (std::size_t i = 0; i + 1 < ids.size(); ++i) {
    auto it = current->find(ids[i]);
    if (it == current->end()) {
      current = &(*current)[ids[i]].emplace_object();
    } else if (it->value().is_object()) {
      current = &it->value().get_object();
    } else {
      overrides[path] = std::move(value);
      return;
    }
  }
  (*current)[ids.back()] = std::move(value);
}

// The layer's own archive with the text replaced, so that the first
// character's attributes stay exactly as archived (natural alignment, tab
// stops, text lists and whatever else the model does not read); absent when
// the layer has no archive that reads back.
std::optional<std::string> rearchivedText(const JsonObject& node, std::string_view text) {
  auto base64 =
      PXJsonTextFor(PXJsonFind(member(node, "attributedString"), "archivedAttributedString"), "_archive");
  if (!base64) return std::nullopt;
  auto bytes = PXBase64Decode(*base64);
  if (!bytes) return std::nullopt;
  auto archive = PXArchiveReplacingAttributedStringText(*bytes, text);
  if (!archive) return std::nullopt;
  return PXBase64Encode(*archive);
}

std::string describe(const JsonValue& value) {
  auto text = PXJsonSerialize(value, false);
  return text ? *text : std::string("<not printable>");
}

}  // namespace

void PXSymbolDetacherV2::setUserInterfaceRightToLeft(bool rightToLeft) { userInterfaceIsRightToLeft = rightToLeft; }
bool PXSymbolDetacherV2::userInterfaceRightToLeft() { return userInterfaceIsRightToLeft.load(); }

// ---- The override map

JsonObject PXSymbolDetacherV2::nodeOverrides(const JsonObject& instance) const {
  JsonObject overrides;
  if (const auto* values = member(instance, "overrideValues"); values && values->is_array()) {
    for (const auto& entry : values->get_array()) {
      auto name = PXJsonTextFor(&entry, "overrideName");
      const JsonValue* value = PXJsonFind(&entry, "value");
      if (!name) continue;
      auto pieces = split(*name, '_');
      std::string_view path = pieces.front();
      std::string_view property = pieces.back();
      if (path.empty() || !value) continue;

      JsonValue stored = *value;
      if (property == "symbolID" && stored.is_string()) stored = JsonObject{{"symbolID", std::move(stored)}};
      if (path.find('/') != std::string_view::npos)
        storeAlongPath(overrides, path, std::move(stored));
      else
        overrides[path] = std::move(stored);
    }
  }
  if (const auto* legacy = member(instance, "overrides"); legacy && legacy->is_object())
    for (const auto& kv : legacy->get_object()) overrides[kv.key()] = kv.value();
  return overrides;
}

// ---- Resizing

void PXSymbolDetacherV2::updateNode(JsonObject& node, const JsonObject& overrides, const JsonObject& parent,
                                    double ratioWidth, double ratioHeight) {
  // The count made before the walk misses symbols that overrides swap in and
  // cycles it cut differently; this one stops the walk (after this layer).
  if (++copiedLayers_ > maxCopiedLayers) refuse(copiedLayers_);
  const unsigned mask = resizingMask(node);
  const double ownWidthRatio = stretchNode(node, parent, false, mask, ratioWidth);
  const double ownHeightRatio = stretchNode(node, parent, true, mask, ratioHeight);

  if (auto it = node.find("layers"); it != node.end() && it->value().is_array())
    for (auto& child : it->value().get_array())
      if (child.is_object()) updateNode(child.get_object(), overrides, node, ownWidthRatio, ownHeightRatio);

  // Last, so that refitted text starts from the stretched frame.
  if (auto id = PXJsonText(member(node, "do_objectID")))
    if (auto it = overrides.find(*id); it != overrides.end()) overrideNode(node, it->value());
}

// What copying `source` and then updateNode on the copy would give, in one
// pass: each layer is copied, resized, filled with its copied children and
// then overridden, in updateNode's order. `node` is an empty object of the
// destination's storage.
void PXSymbolDetacherV2::copyUpdatedNode(const JsonObject& source, JsonObject& node, const JsonObject& overrides,
                                         const JsonObject& parent, double ratioWidth, double ratioHeight) {
  if (++copiedLayers_ > maxCopiedLayers) refuse(copiedLayers_);
  const boost::json::storage_ptr& storage = node.storage();
  const JsonArray* sourceLayers = nullptr;
  // Room for the keys the walk adds later ("in_original_objectID", and
  // "in_detachedSymbol" on groups): a table that grows in an arena leaves
  // its old self behind.
  node.reserve(source.size() + 2);
  for (const auto& kv : source) {
    if (kv.key() == "layers" && kv.value().is_array()) {
      sourceLayers = &kv.value().get_array();
      node.emplace(kv.key(), JsonArray(storage));
    } else {
      node.emplace(kv.key(), JsonValue(kv.value(), storage));
    }
  }
  const unsigned mask = resizingMask(node);
  const double ownWidthRatio = stretchNode(node, parent, false, mask, ratioWidth);
  const double ownHeightRatio = stretchNode(node, parent, true, mask, ratioHeight);

  if (sourceLayers) {
    auto& layers = node.find("layers")->value().get_array();
    layers.reserve(sourceLayers->size());
    for (const auto& child : *sourceLayers) {
      if (!child.is_object()) {
        layers.emplace_back(child);
        continue;
      }
      auto& copy = layers.emplace_back(JsonObject(storage)).get_object();
      copyUpdatedNode(child.get_object(), copy, overrides, node, ownWidthRatio, ownHeightRatio);
    }
  }

  if (overrides.empty()) return;
  if (auto id = PXJsonText(member(node, "do_objectID")))
    if (auto it = overrides.find(*id); it != overrides.end()) overrideNode(node, it->value());
}

double PXSymbolDetacherV2::stretchNode(JsonObject& node, const JsonObject& parent, bool vertical,
                                       unsigned resizing, double ratio) {
  if (ratio == 1.0) return 1.0;
  const unsigned startBit = vertical ? 32 : 4, sizeBit = vertical ? 16 : 2, endBit = vertical ? 8 : 1;
  const std::string_view positionKey = vertical ? "y" : "x";
  const std::string_view sizeKey = vertical ? "height" : "width";
  const bool startStretches = resizing & startBit, sizeStretches = resizing & sizeBit,
             endStretches = resizing & endBit;

  const double newParentSize = frameFloat(parent, sizeKey);
  const double position = frameFloat(node, positionKey);
  const double size = frameFloat(node, sizeKey);
  const double oldParentSize = newParentSize / ratio;
  const double endMargin = oldParentSize - position - size;

  double newPosition = position, newSize = size;
  const bool centred = startStretches && endStretches && !sizeStretches;
  if (centred) {
    newPosition = (position + size / 2) * ratio - size / 2;
  } else {
    // The room the flexible parts share, after and before the resize.
    double room = newParentSize, oldRoom = oldParentSize;
    auto keep = [&](double fixedPart) {
      room -= fixedPart;
      oldRoom -= fixedPart;
    };
    if (!startStretches) keep(position);
    if (!sizeStretches) keep(size);
    if (!endStretches) keep(endMargin);
    if (oldRoom > 0) {
      const double k = room / oldRoom;
      if (startStretches) newPosition = position * k;
      if (sizeStretches) newSize = size * k;
    } else {
      newSize = sizeStretches ? room : size;
      if (startStretches) {
        newPosition = room;
        newSize = size;
      }
    }
  }
  newPosition = fixNanValue(newPosition);
  newSize = fixNanValue(newSize);
  if (auto* frame = frameOf(node)) {
    (*frame)[positionKey] = newPosition;
    (*frame)[sizeKey] = newSize;
  }
  return centred ? 1.0 : newSize / size;
}

// ---- Applying one override

void PXSymbolDetacherV2::overrideNode(JsonObject& node, const JsonValue& override) {
  if (const auto* text = override.if_string(); text && overrideTextNode(node, *text)) return;
  if (const auto* dict = override.if_object()) {
    if (PXJsonTextFor(&override, "_ref_class") == std::optional<std::string_view>("MSImageData") &&
        overrideImageNode(node, *dict))
      return;
    if (auto symbolID = PXJsonTextFor(&override, "symbolID")) {
      // The swap wins; nested entries beside it are dropped.
      overrideSymbolIdNode(node, std::string(*symbolID));
      return;
    }
    if (auto cls = PXJsonText(member(node, "_class")); cls && *cls == "symbolInstance") {
      // Left for the walk, which applies it when it detaches this instance.
      auto& nested = node["overrides"];
      if (!nested.is_object()) nested.emplace_object();
      for (const auto& kv : *dict) nested.get_object()[kv.key()] = kv.value();
      return;
    }
  }
  PXLogVerbose("Could not update node with override");
  PXLogVerbose("node: {}", describe(node));
  PXLogVerbose("override: {}", describe(override));
}

bool PXSymbolDetacherV2::overrideTextNode(JsonObject& node, std::string_view text) {
  std::optional<PXAttributedString> original;
  try {
    original = PXAttributedStringFromJSON(node);
  } catch (const std::exception& e) {
    PXLogWarn("Could not read the text of {}: {}", PXJsonText(member(node, "do_objectID")).value_or(""), e.what());
  }
  if (!original) return false;

  PXAttributedString replaced = std::move(*original);
  replaced.replaceAllText(std::string(text));
  auto archive = rearchivedText(node, text);
  if (!archive) archive = PXArchiveAttributedStringToBase64(replaced);
  if (!archive) return false;
  node["attributedString"] = JsonObject{{"archivedAttributedString", JsonObject{{"_archive", std::move(*archive)}}}};

  try {
    fitTextToNode(node, replaced);
  } catch (const std::exception& e) {
    PXLogError("fitTextToNode exception: {}", e.what());
  }
  return true;
}

void PXSymbolDetacherV2::fitTextToNode(JsonObject& node, const PXAttributedString& attrStr) {
  const unsigned mask = resizingMask(node);
  if (!(mask & 2)) return;

  const PXTextAttributes* attributes = attrStr.attributesAtIndex(0);
  if (!attributes) throw std::out_of_range("no attributes at index 0 of an empty text");
  const uint64_t alignment =
      alignmentFromParagraph(attributes->paragraphStyle ? &*attributes->paragraphStyle : nullptr);

  // Grow only where the layer may grow on the side its alignment needs.
  bool mayGrow = true;
  if (alignment == PXTextAlignmentLeft || alignment == PXTextAlignmentNatural) mayGrow = mask & 1;
  else if (alignment == PXTextAlignmentRight) mayGrow = mask & 4;
  else if (alignment == PXTextAlignmentCenter || alignment == PXTextAlignmentJustified) mayGrow = (mask & 5) == 5;
  if (!mayGrow) return;

  const MPSSize size = fixNanSize({frameFloat(node, "width"), frameFloat(node, "height")});
  PXTextMeasureOptions options;
  options.lineFragmentPadding = kLineFragmentPadding;
  auto used = PXMeasureAttributedString(PXAttributedString(attrStr.string(), *attributes), options);
  if (!used) throw std::runtime_error("text layout failed");
  const double usedWidth = std::round(used->width * 10) / 10;
  const double usedHeight = std::round(used->height * 10) / 10;

  MPSRect rect = fixNanRect({{frameFloat(node, "x"), frameFloat(node, "y")},
                             {std::max(usedWidth, size.width), std::max(usedHeight, size.height)}});
  // The vertical shift follows the horizontal rule.
  if (alignment == PXTextAlignmentCenter || alignment == PXTextAlignmentJustified) {
    rect.origin.x += (size.width - rect.size.width) / 2;
    rect.origin.y += (size.height - rect.size.height) / 2;
  } else if (alignment == PXTextAlignmentRight) {
    rect.origin.x += size.width - rect.size.width;
    rect.origin.y += size.height - rect.size.height;
  }
  if (auto* frame = frameOf(node)) {
    (*frame)["x"] = rect.origin.x;
    (*frame)["y"] = rect.origin.y;
    (*frame)["width"] = rect.size.width;
    (*frame)["height"] = rect.size.height;
  }
}

uint64_t PXSymbolDetacherV2::alignmentFromParagraph(const PXParagraphStyle* paragraph) {
  if (!paragraph) return PXTextAlignmentLeft;
  const auto alignment = static_cast<uint64_t>(paragraph->alignmentOrDefault());
  if (alignment != PXTextAlignmentNatural) return alignment;
  return userInterfaceRightToLeft() ? PXTextAlignmentRight : PXTextAlignmentLeft;
}

bool PXSymbolDetacherV2::overrideImageNode(JsonObject& node, const JsonObject& override) {
  if (node.contains("image")) {
    node["image"] = deepCopyDictionary(override);
    return true;
  }
  // A shape whose fills carry the image is reached through its style.
  for (auto& kv : node) {
    if (kv.key() == "layer") continue;
    bool found = false;
    if (auto* dict = kv.value().if_object()) {
      found = overrideImageNode(*dict, override);
    } else if (auto* array = kv.value().if_array()) {
      for (auto& element : *array)
        if (auto* dict = element.if_object(); dict && overrideImageNode(*dict, override)) found = true;
    }
    if (found) return true;
  }
  return false;
}

bool PXSymbolDetacherV2::overrideSymbolIdNode(JsonObject& node, const std::string& symbolID) {
  node["symbolID"] = symbolID;
  // An empty swap hides the nested instance, and hidden instances stay.
  if (symbolID.empty()) node["isVisible"] = false;
  return true;
}

// ---- Numbers and archives

double PXSymbolDetacherV2::fixNanValue(double value) { return std::isfinite(value) ? value : 0; }

MPSSize PXSymbolDetacherV2::fixNanSize(MPSSize size) { return {fixNanValue(size.width), fixNanValue(size.height)}; }

MPSRect PXSymbolDetacherV2::fixNanRect(MPSRect rect) {
  return {{fixNanValue(rect.origin.x), fixNanValue(rect.origin.y)}, fixNanSize(rect.size)};
}

std::optional<PXUnarchivedObject> PXSymbolDetacherV2::unarchiveBase64String(const std::optional<std::string>& base64) {
  if (!base64) return std::nullopt;
  return PXKeyedUnarchiveBase64(*base64);
}

}  // namespace plexa
