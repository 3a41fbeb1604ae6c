#pragma once
// Whole-entry inflation shared by the archive extractor and the archive
// reader: one libdeflate call instead of libzip's stream, checked against
// the entry's CRC since the directory does not show damaged data.

#include <libdeflate.h>
#include <zip.h>

#include <cstdint>

namespace plexa::zipinflate {

// Deflated, unencrypted, with every size and the CRC known, and within `limit`.
inline bool isWholeDeflated(const zip_stat_t& st, uint64_t limit) {
  const auto needed = ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE | ZIP_STAT_COMP_METHOD | ZIP_STAT_CRC | ZIP_STAT_ENCRYPTION_METHOD;
  return (st.valid & needed) == needed && st.comp_method == ZIP_CM_DEFLATE && st.encryption_method == ZIP_EM_NONE &&
         st.size <= limit && st.comp_size <= limit;
}

// Inflates the entry's `st.comp_size` packed bytes into exactly `st.size`
// bytes at `out`; false when the data or its CRC is wrong.
inline bool inflateWhole(libdeflate_decompressor* inflater, const char* packed, const zip_stat_t& st, char* out) {
  size_t produced = 0;
  return libdeflate_deflate_decompress(inflater, packed, st.comp_size, out, st.size, &produced) == LIBDEFLATE_SUCCESS &&
         produced == st.size && libdeflate_crc32(0, out, st.size) == st.crc;
}

}  // namespace plexa::zipinflate
