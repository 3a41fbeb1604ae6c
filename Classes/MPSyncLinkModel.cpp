#include "MPSyncLinkModel.h"

namespace plexa {

namespace {

const JsonValue* find(const JsonObject& dictionary, std::string_view key) {
  return dictionary.if_contains(key);
}

uint64_t unsignedValue(const JsonObject& dictionary, std::string_view key) {
  const JsonValue* value = find(dictionary, key);
  if (value && value->is_uint64()) return value->get_uint64();
  // Two's-complement wrap for negatives, as an unsigned read of a signed number gives.
  return static_cast<uint64_t>(PXJsonInt64(value).value_or(0));
}

bool boolValue(const JsonObject& dictionary, std::string_view key) {
  return PXJsonBool(find(dictionary, key)).value_or(false);
}

// Presence decides: a missing key is YES, a stored value (even NO) is kept.
bool boolValueDefaultingToYes(const JsonObject& dictionary, std::string_view key) {
  const JsonValue* value = find(dictionary, key);
  if (!value) return true;
  return PXJsonBool(value).value_or(false);
}

std::optional<std::string> stringValue(const JsonObject& dictionary, std::string_view key) {
  auto text = PXJsonText(find(dictionary, key));
  if (!text) return std::nullopt;
  return std::string(*text);
}

}  // namespace

std::shared_ptr<MPSyncLinkModel> MPSyncLinkModel::linkWithDictionary(const JsonObject& dictionary) {
  return std::make_shared<MPSyncLinkModel>(dictionary);
}

MPSyncLinkModel::MPSyncLinkModel(const JsonObject& dictionary)
    : linkType(unsignedValue(dictionary, "linkType")),
      gesture(unsignedValue(dictionary, "gesture")),
      transition(unsignedValue(dictionary, "transition")),
      maintainScrollPositionAfterGesture(boolValue(dictionary, "maintainScrollPositionAfterGesture")),
      stayOnTargetScreen(boolValue(dictionary, "stayOnTargetScreen")),
      overlayPosition(unsignedValue(dictionary, "overlayPosition")),
      overlayTransition(unsignedValue(dictionary, "overlayTransition")),
      backgroundOpacity(unsignedValue(dictionary, "backgroundOpacity")),
      reverseTransitionOnClose(boolValueDefaultingToYes(dictionary, "reverseTransitionOnClose")),
      closeOnClickOutside(boolValueDefaultingToYes(dictionary, "closeOnClickOutside")),
      fixOverlayPosition(boolValueDefaultingToYes(dictionary, "fixOverlayPosition")),
      scrollToPosition(unsignedValue(dictionary, "scrollToPosition")),
      smoothScrolling(boolValue(dictionary, "smoothScrolling")),
      externalURL(stringValue(dictionary, "externalURL")),
      openURLInNewWindow(boolValue(dictionary, "openURLInNewWindow")),
      redirectAfter(unsignedValue(dictionary, "redirectAfter")),
      maintainScrollPositionAfterRedirect(boolValue(dictionary, "maintainScrollPositionAfterRedirect")),
      targetArtboardID(stringValue(dictionary, "targetArtboardID")) {}

JsonObject MPSyncLinkModel::dictionaryValue() const {
  JsonObject d;
  d["linkType"] = linkType;
  d["gesture"] = gesture;
  d["transition"] = transition;
  d["maintainScrollPositionAfterGesture"] = maintainScrollPositionAfterGesture;
  d["stayOnTargetScreen"] = stayOnTargetScreen;
  d["overlayPosition"] = overlayPosition;
  d["overlayTransition"] = overlayTransition;
  d["backgroundOpacity"] = backgroundOpacity;
  d["reverseTransitionOnClose"] = reverseTransitionOnClose;
  d["closeOnClickOutside"] = closeOnClickOutside;
  d["fixOverlayPosition"] = fixOverlayPosition;
  d["scrollToPosition"] = scrollToPosition;
  d["smoothScrolling"] = smoothScrolling;
  if (externalURL) d["externalURL"] = *externalURL;
  d["openURLInNewWindow"] = openURLInNewWindow;
  d["redirectAfter"] = redirectAfter;
  d["maintainScrollPositionAfterRedirect"] = maintainScrollPositionAfterRedirect;
  if (targetArtboardID) d["targetArtboardID"] = *targetArtboardID;
  return d;
}

bool MPSyncLinkModel::shouldHaveArtboardAsTarget() const {
  return linkType == MPSyncLinkTypeScreen || linkType == MPSyncLinkTypeScreenAsOverlay ||
         linkType == MPSyncLinkTypeTimedRedirect;
}

}  // namespace plexa
