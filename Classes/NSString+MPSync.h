#pragma once
// String, version and date helpers.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace plexa {

// Trims blanks, tabs and line ends at both ends, Unicode spaces and line
// separators included.
std::string trimWhiteSpace_mps(std::string_view s);
// True for absent, "" or white space only.
bool stringIsEmpty_mps(const std::optional<std::string_view>& s);
bool stringIsEmpty_mps(const std::string* s);
// MD5 of the UTF-8 bytes up to the first NUL, 32 lower-case hex digits.
std::string md5_mps(std::string_view s);
// Trimmed, then every "/" replaced by "_".
std::string cleanFileName_mps(std::string_view s);
// The integer before the first ".", only when greater than 0.
std::optional<int64_t> majorVersion_mps(std::string_view s);
// -1, 0 or 1. A longer version is greater even when its extra components are 0.
int compareAsVersion_mps(std::string_view a, std::string_view b);
bool isLessThanVersion_mps(std::string_view a, std::string_view b);

// "yyyy-MM-dd'T'HH:mm:ssZZZZZ" in the local time zone ("Z" for UTC).
std::string iso_mps(std::chrono::system_clock::time_point date);

}  // namespace plexa
