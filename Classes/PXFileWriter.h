#pragma once

#include "Json.h"

#include <string>

namespace plexa {

class PXFileWriter {
 public:
  // How the file reaches its place: `atomic` through a temporary file and a
  // rename, for files that others may read while they are written; `direct`
  // straight into a new file, for results in a folder the run owns (see
  // PXFileManager::writeNewFile).
  enum class Placement { atomic, direct };

  // Serialises `value` (pretty or compact) and writes it. False only when
  // the value cannot be serialised; a failed write still reports true, as
  // callers expect, but is logged.
  static bool writeJSON(const JsonValue& value, bool prettyPrint, const std::string& filePath,
                        Placement placement = Placement::atomic);
};

}  // namespace plexa
