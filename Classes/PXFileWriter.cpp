#include "PXFileWriter.h"

#include "Files.h"
#include "Log.h"

namespace plexa {

bool PXFileWriter::writeJSON(const JsonValue& value, bool prettyPrint, const std::string& filePath,
                             Placement placement) {
  try {
    std::string error;
    auto text = PXJsonSerialize(value, prettyPrint, &error);
    if (!text) return false;
    bool written = placement == Placement::direct ? PXFileManager::writeNewFile(filePath, *text, &error)
                                                  : PXFileManager::writeFileAtomically(filePath, *text, &error);
    if (!written) PXLogVerbose("PXFileWriter could not write {}: {}", filePath, error);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace plexa
