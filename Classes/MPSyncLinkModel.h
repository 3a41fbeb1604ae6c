#pragma once
// A prototype link as a prototyping plug-in stores it on a layer: typed
// fields read from the link dictionary, and the dictionary written back.

#include "Json.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace plexa {

// Link type codes; 4 (timed redirect) exists but is not exported as a hotspot.
enum MPSyncLinkType : uint64_t {
  MPSyncLinkTypeScreen = 0,
  MPSyncLinkTypeScreenAsOverlay = 1,
  MPSyncLinkTypeScrollToPosition = 2,
  MPSyncLinkTypeExternalURL = 3,
  MPSyncLinkTypeTimedRedirect = 4,
  MPSyncLinkTypeBackClose = 5,
};

class MPSyncLinkModel {
 public:
  static std::shared_ptr<MPSyncLinkModel> linkWithDictionary(const JsonObject& dictionary);

  MPSyncLinkModel() = default;
  // Integer fields take the value's unsigned integer reading: fractions are
  // truncated toward zero and a negative number wraps, as an unsigned machine
  // integer does, so a bad code stays out of every defined range. A value that
  // is not a number (or numeric string) reads as a missing key. The two strings
  // are taken only when the stored value is a string.
  explicit MPSyncLinkModel(const JsonObject& dictionary);

  uint64_t linkType = 0;
  uint64_t gesture = 0;
  uint64_t transition = 0;
  bool maintainScrollPositionAfterGesture = false;
  bool stayOnTargetScreen = false;
  uint64_t overlayPosition = 0;
  uint64_t overlayTransition = 0;
  uint64_t backgroundOpacity = 0;
  bool reverseTransitionOnClose = true;
  bool closeOnClickOutside = true;
  bool fixOverlayPosition = true;
  uint64_t scrollToPosition = 0;  // points; scaled by the export scale in the hotspot
  bool smoothScrolling = false;
  std::optional<std::string> externalURL;
  bool openURLInNewWindow = false;
  uint64_t redirectAfter = 0;
  bool maintainScrollPositionAfterRedirect = false;
  std::optional<std::string> targetArtboardID;

  // All keys in declaration order; an absent string leaves its key out.
  JsonObject dictionaryValue() const;
  // Types 0, 1 and 4 point at an artboard.
  bool shouldHaveArtboardAsTarget() const;
};

}  // namespace plexa
