#include "NSString+MPSync.h"

#include <openssl/evp.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

namespace plexa {

namespace {

bool isTrimmable(unsigned char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Leading integer after optional white space and sign; no digits gives 0.
int64_t leadingInteger(std::string_view s) {
  size_t i = 0;
  while (i < s.size() && isTrimmable(static_cast<unsigned char>(s[i]))) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  int64_t value = 0;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
    if (value < 922337203685477580) value = value * 10 + (s[i] - '0');
  }
  return negative ? -value : value;
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
  while (b < e && isTrimmable(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && isTrimmable(static_cast<unsigned char>(s[e - 1]))) --e;
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
  std::time_t t = std::chrono::system_clock::to_time_t(date);
  std::tm local{};
  localtime_r(&t, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &local);
  long offset = local.tm_gmtoff;
  if (offset == 0) return std::string(stamp) + "Z";
  char zone[32];
  long magnitude = std::labs(offset);
  std::snprintf(zone, sizeof zone, "%c%02ld:%02ld", offset < 0 ? '-' : '+', magnitude / 3600,
                (magnitude % 3600) / 60);
  return std::string(stamp) + zone;
}

}  // namespace plexa
