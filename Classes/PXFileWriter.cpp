#include "PXFileWriter.h"

#include "Files.h"
#include "Log.h"

namespace plexa {

bool PXFileWriter::writeJSON(const JsonValue& value, bool prettyPrint, const std::string& filePath) {
  try {
    std::string error;
    auto text = PXJsonSerialize(value, prettyPrint, &error);
    if (!text) return false;
    if (!PXFileManager::writeFileAtomically(filePath, *text, &error))
      PXLogVerbose("PXFileWriter could not write {}: {}", filePath, error);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace plexa
