#pragma once

#include "Json.h"

#include <string>

namespace plexa {

class PXFileWriter {
 public:
  // Serialises `value` (pretty or compact) and writes it atomically. False
  // only when the value cannot be serialised; a failed write still reports
  // true, as callers expect, but is logged.
  static bool writeJSON(const JsonValue& value, bool prettyPrint, const std::string& filePath);
};

}  // namespace plexa
