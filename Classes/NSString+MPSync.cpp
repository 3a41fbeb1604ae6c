#include "NSString+MPSync.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <vector>

namespace plexa {

namespace {

bool isAsciiWhiteSpace(unsigned char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Byte length of the white-space or line-end character that starts at `pos`,
// 0 when there is none. Besides ASCII this covers the Unicode separators
// (NEL, no-break and typographic spaces, line and paragraph separators) that
// the platform's trimming removes too.
size_t whiteSpaceAt(std::string_view s, size_t pos) {
  auto byte = [&](size_t i) { return pos + i < s.size() ? static_cast<unsigned char>(s[pos + i]) : 0u; };
  const unsigned char b0 = byte(0);
  if (isAsciiWhiteSpace(b0)) return 1;
  if (b0 == 0xC2) return byte(1) == 0x85 || byte(1) == 0xA0 ? 2 : 0;
  if (b0 == 0xE1) return byte(1) == 0x9A && byte(2) == 0x80 ? 3 : 0;
  if (b0 == 0xE2 && byte(1) == 0x80) {
    const unsigned char b2 = byte(2);
    return (b2 >= 0x80 && b2 <= 0x8A) || b2 == 0xA8 || b2 == 0xA9 || b2 == 0xAF ? 3 : 0;
  }
  if (b0 == 0xE2) return byte(1) == 0x81 && byte(2) == 0x9F ? 3 : 0;
  if (b0 == 0xE3) return byte(1) == 0x80 && byte(2) == 0x80 ? 3 : 0;
  return 0;
}

// Byte length of the white-space character that ends just before `end`.
size_t whiteSpaceEndingAt(std::string_view s, size_t end) {
  for (size_t length = 1; length <= 3 && length <= end; ++length)
    if (whiteSpaceAt(s, end - length) == length) return length;
  return 0;
}

// Leading integer after optional white space and sign; no digits gives 0.
// Out-of-range values saturate, as NSString's integerValue does.
int64_t leadingInteger(std::string_view s) {
  size_t i = 0;
  while (i < s.size() && isAsciiWhiteSpace(static_cast<unsigned char>(s[i]))) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  constexpr uint64_t limit = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  uint64_t value = 0;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
    const uint64_t digit = static_cast<uint64_t>(s[i] - '0');
    value = value > (limit + 1 - digit) / 10 ? limit + 1 : value * 10 + digit;
  }
  if (negative) return value > limit ? std::numeric_limits<int64_t>::min() : -static_cast<int64_t>(value);
  return value > limit ? std::numeric_limits<int64_t>::max() : static_cast<int64_t>(value);
}

std::vector<std::string_view> splitDots(std::string_view s) {
  std::vector<std::string_view> parts;
  size_t start = 0;
  while (true) {
    size_t dot = s.find('.', start);
    if (dot == std::string_view::npos) {
      parts.push_back(s.substr(start));
      return parts;
    }
    parts.push_back(s.substr(start, dot - start));
    start = dot + 1;
  }
}

}  // namespace

std::string trimWhiteSpace_mps(std::string_view s) {
  size_t b = 0, e = s.size();
  while (b < e) {
    const size_t length = whiteSpaceAt(s.substr(0, e), b);
    if (length == 0) break;
    b += length;
  }
  while (e > b) {
    const size_t length = whiteSpaceEndingAt(s.substr(b, e - b), e - b);
    if (length == 0) break;
    e -= length;
  }
  return std::string(s.substr(b, e - b));
}

bool stringIsEmpty_mps(const std::optional<std::string_view>& s) {
  return !s || s->empty() || trimWhiteSpace_mps(*s).empty();
}

bool stringIsEmpty_mps(const std::string* s) {
  return !s || stringIsEmpty_mps(std::optional<std::string_view>(*s));
}

std::string md5_mps(std::string_view s) {
  size_t nul = s.find('\0');
  if (nul != std::string_view::npos) s = s.substr(0, nul);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(s.data(), s.size(), digest, &length, EVP_md5(), nullptr);
  std::string hex;
  hex.reserve(length * 2);
  char buf[3];
  for (unsigned int i = 0; i < length; ++i) {
    std::snprintf(buf, sizeof buf, "%02x", digest[i]);
    hex += buf;
  }
  return hex;
}

std::string cleanFileName_mps(std::string_view s) {
  std::string out = trimWhiteSpace_mps(s);
  for (auto& c : out)
    if (c == '/') c = '_';
  return out;
}

std::optional<int64_t> majorVersion_mps(std::string_view s) {
  auto first = splitDots(s).front();
  if (first.empty()) return std::nullopt;
  int64_t v = leadingInteger(first);
  if (v <= 0) return std::nullopt;
  return v;
}

int compareAsVersion_mps(std::string_view a, std::string_view b) {
  if (a == b) return 0;
  auto pa = splitDots(a), pb = splitDots(b);
  size_t n = std::min(pa.size(), pb.size());
  for (size_t i = 0; i < n; ++i) {
    int64_t x = leadingInteger(pa[i]), y = leadingInteger(pb[i]);
    if (x < y) return -1;
    if (x > y) return 1;
  }
  if (pa.size() < pb.size()) return -1;
  if (pa.size() > pb.size()) return 1;
  return 0;
}

bool isLessThanVersion_mps(std::string_view a, std::string_view b) { return compareAsVersion_mps(a, b) == -1; }

std::string iso_mps(std::chrono::system_clock::time_point date) {
  // Whole seconds counted downwards, so a moment before 1970 with a fraction
  // keeps its own second.
  std::time_t t = std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(date));
  std::tm local{};
  if (!localtime_r(&t, &local)) return "";
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  long offset = local.tm_gmtoff;
  if (offset == 0) return std::string(stamp) + "Z";
  char zone[32];
  long magnitude = std::labs(offset);
  std::snprintf(zone, sizeof zone, "%c%02ld:%02ld", offset < 0 ? '-' : '+', magnitude / 3600, (magnitude % 3600) / 60);
  std::string out = std::string(stamp) + zone;
  // Historical zones may be off by seconds; the extended form then shows them.
  if (magnitude % 60 != 0) {
    std::snprintf(zone, sizeof zone, ":%02ld", magnitude % 60);
    out += zone;
  }
  return out;
}

}  // namespace plexa
