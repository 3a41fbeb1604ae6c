#include "Json.h"

#include "JsonArenaPool.h"

#include <boost/container/small_vector.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/parser.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/stream_parser.hpp>

#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <new>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <limits>
#include <span>
#include <stdexcept>
#include <vector>

namespace plexa {

namespace {

struct NonFiniteNumber : std::runtime_error {
  NonFiniteNumber() : std::runtime_error("Invalid number value (NaN or infinity) in JSON write") {}
};

class Writer {
 public:
  explicit Writer(bool pretty) : pretty_(pretty) {}

  std::string take() { return std::move(out_); }

  // An object written where it lies: turning it into a value would copy it.
  void write(const JsonObject& o, int depth) { writeObject(o, depth); }

  void write(const JsonValue& v, int depth) {
    switch (v.kind()) {
      case boost::json::kind::null: out_ += "null"; break;
      case boost::json::kind::bool_: out_ += v.get_bool() ? "true" : "false"; break;
      case boost::json::kind::int64: appendInteger(v.get_int64()); break;
      case boost::json::kind::uint64: appendInteger(v.get_uint64()); break;
      case boost::json::kind::double_: appendDouble(v.get_double()); break;
      case boost::json::kind::string: appendString(v.get_string()); break;
      case boost::json::kind::array: writeArray(v.get_array(), depth); break;
      case boost::json::kind::object: writeObject(v.get_object(), depth); break;
    }
  }

 private:
  void newline(int depth) {
    if (!pretty_) return;
    out_ += '\n';
    out_.append(static_cast<size_t>(depth) * 2, ' ');
  }

  void writeArray(const JsonArray& a, int depth) {
    if (a.empty()) { out_ += "[]"; return; }
    out_ += '[';
    bool first = true;
    for (const auto& e : a) {
      if (!first) out_ += ',';
      first = false;
      newline(depth + 1);
      write(e, depth + 1);
    }
    newline(depth);
    out_ += ']';
  }

  void writeObject(const JsonObject& o, int depth) {
    if (o.empty()) { out_ += "{}"; return; }
    out_ += '{';
    bool first = true;
    for (const auto& kv : o) {
      if (!first) out_ += ',';
      first = false;
      newline(depth + 1);
      appendString(kv.key());
      out_ += pretty_ ? " : " : ":";
      write(kv.value(), depth + 1);
    }
    newline(depth);
    out_ += '}';
  }

  template <typename T>
  void appendInteger(T n) {
    std::array<char, 32> buf{};
    auto r = std::to_chars(buf.data(), buf.data() + buf.size(), n);
    out_.append(buf.data(), r.ptr);
  }

  void appendDouble(double d) {
    if (!std::isfinite(d)) throw NonFiniteNumber();
    if (d == std::trunc(d) && std::fabs(d) < 9.2e18) {
      appendInteger(static_cast<int64_t>(d));  // also turns -0.0 into 0
      return;
    }
    std::array<char, 64> buf{};
    auto r = std::to_chars(buf.data(), buf.data() + buf.size(), d);
    out_.append(buf.data(), r.ptr);
  }

  void appendString(std::string_view s) {
    out_ += '"';
    size_t plainStart = 0;
    for (size_t i = 0; i < s.size(); ++i) {
      auto c = static_cast<unsigned char>(s[i]);
      if (c >= 0x20 && c != '"' && c != '\\') continue;
      // Plain runs go in with one append; only escapes are built by hand.
      out_.append(s.data() + plainStart, i - plainStart);
      plainStart = i + 1;
      appendEscape(c);
    }
    out_.append(s.data() + plainStart, s.size() - plainStart);
    out_ += '"';
  }

  void appendEscape(unsigned char c) {
    switch (c) {
      case '"': out_ += "\\\""; break;
      case '\\': out_ += "\\\\"; break;
      case '\n': out_ += "\\n"; break;
      case '\r': out_ += "\\r"; break;
      case '\t': out_ += "\\t"; break;
      case '\b': out_ += "\\b"; break;
      case '\f': out_ += "\\f"; break;
      default: {
        static const char* hex = "0123456789abcdef";
        out_ += "\\u00";
        out_ += hex[c >> 4];
        out_ += hex[c & 0xF];
      }
    }
  }

  bool pretty_;
  std::string out_;
};

std::optional<double> leadingNumber(std::string_view s) {
  std::string copy(s);  // strtod needs a terminated buffer
  const char* begin = copy.c_str();
  char* end = nullptr;
  double d = std::strtod(begin, &end);
  if (end == begin || !std::isfinite(d)) return std::nullopt;
  return d;
}

bool caseInsensitiveStartsWith(std::string_view s, std::string_view prefix) {
  if (s.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(s[i])) != prefix[i]) return false;
  return true;
}

// One step of a key path: a plain key or one of the three operators.
bool isKeyPathOperator(std::string_view key) { return key == "@count" || key == "@firstObject" || key == "@max"; }

// Paths are a handful of keys; they are split into a buffer on the stack.
using KeyPathParts = boost::container::small_vector<std::string_view, 8>;

KeyPathParts splitKeyPath(std::string_view path) {
  KeyPathParts parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t dot = path.find('.', start);
    if (dot == std::string_view::npos) dot = path.size();
    parts.push_back(path.substr(start, dot - start));
    start = dot + 1;
  }
  return parts;
}

// A value reached by a key path: a part of the input while only objects
// were stepped through, a value of its own once an array was mapped or an
// operator computed something. Owned values use the default storage, never
// the (possibly arena) storage of the input.
class KeyPathCursor {
 public:
  KeyPathCursor() = default;
  explicit KeyPathCursor(const JsonValue* borrowed) : borrowed_(borrowed) {}
  explicit KeyPathCursor(JsonValue owned) : owned_(std::move(owned)) {}

  const JsonValue& get() const { return owned_ ? *owned_ : *borrowed_; }

  // Moves on to `part`, an element or member of the current value (the
  // const_cast reaches back into our own value, which is not const).
  void narrowTo(const JsonValue& part) {
    if (!owned_) {
      borrowed_ = &part;
      return;
    }
    JsonValue kept = std::move(const_cast<JsonValue&>(part));
    owned_ = std::move(kept);
  }

  // Moves on to a value found from the current one, which may lie inside
  // the value this cursor owns: that one is taken before it goes.
  void replaceWith(KeyPathCursor&& next) {
    if (owned_ && !next.owned_) {
      JsonValue kept = std::move(next).take();
      owned_ = std::move(kept);
      return;
    }
    *this = std::move(next);
  }

  JsonValue take() && {
    if (owned_) return std::move(*owned_);
    return JsonValue(*borrowed_, boost::json::storage_ptr());
  }

 private:
  const JsonValue* borrowed_ = nullptr;
  std::optional<JsonValue> owned_;
};

bool followKeys(KeyPathCursor& cursor, std::span<const std::string_view> keys);

// `keys` applied to every element of `array`, absent results left out.
JsonArray mappedOverArray(const JsonArray& array, std::span<const std::string_view> keys) {
  JsonArray mapped;
  for (const auto& element : array) {
    KeyPathCursor cursor(&element);
    if (followKeys(cursor, keys)) mapped.push_back(std::move(cursor).take());
  }
  return mapped;
}

// Plain keys only: objects are looked into, arrays mapped over. False when
// a key is missing or meets a value that is neither.
bool followKeys(KeyPathCursor& cursor, std::span<const std::string_view> keys) {
  for (size_t i = 0; i < keys.size(); ++i) {
    const JsonValue& current = cursor.get();
    if (const auto* o = current.if_object()) {
      auto it = o->find(keys[i]);
      if (it == o->end()) return false;
      cursor.narrowTo(it->value());
    } else if (const auto* a = current.if_array()) {
      cursor = KeyPathCursor(JsonValue(mappedOverArray(*a, keys.subspan(i))));
      return true;
    } else {
      return false;
    }
  }
  return true;
}

// Mapping `keys` over `array` and taking the first result, without building
// the results that follow it.
bool firstMapped(const JsonArray& array, std::span<const std::string_view> keys, KeyPathCursor& cursor) {
  for (const auto& element : array) {
    KeyPathCursor candidate(&element);
    if (followKeys(candidate, keys)) {
      cursor.replaceWith(std::move(candidate));
      return true;
    }
  }
  return false;
}

// "@max.<key>": the element with the largest numeric <key> (the first of
// equals), after mapping <key> over the array reached so far.
bool largestMapped(const JsonValue& current, std::string_view key, KeyPathCursor& cursor) {
  std::optional<double> best;
  KeyPathCursor bestCursor;
  auto consider = [&](KeyPathCursor candidate) {
    auto d = PXJsonDouble(&candidate.get());
    if (d && (!best || *d > *best)) {
      best = d;
      bestCursor = std::move(candidate);
    }
  };
  if (const auto* a = current.if_array()) {
    const std::string_view keys[] = {key};
    for (const auto& element : *a) {
      KeyPathCursor candidate(&element);
      if (followKeys(candidate, keys)) consider(std::move(candidate));
    }
  } else if (const auto* o = current.if_object()) {
    auto it = o->find(key);
    if (it == o->end() || !it->value().is_array()) return false;
    for (const auto& element : it->value().get_array()) consider(KeyPathCursor(&element));
  } else {
    return false;
  }
  if (!best) return false;
  cursor.replaceWith(std::move(bestCursor));
  return true;
}

constexpr size_t kMaxParseDepth = 1024;

// Upstream of the per-file arenas: large blocks come straight from the
// kernel in huge pages where it grants them, so that filling a tree of
// hundreds of megabytes takes a page fault per 2 MB instead of per 4 kB.
// Pages of a block that the tree never reaches are never made resident.
class LargeBlockResource final : public boost::json::memory_resource {
 public:
  static boost::json::memory_resource* shared() {
    static LargeBlockResource resource;  // stateless
    return &resource;
  }

 private:
  static constexpr size_t kHuge = size_t{2} << 20;
  static size_t roundUp(size_t n) { return (n + kHuge - 1) / kHuge * kHuge; }

  void* do_allocate(size_t n, size_t align) override {
    if (n < kHuge) return ::operator new(n, std::align_val_t(align));
    const size_t length = roundUp(n);
    // Map one huge page more and trim, so the block starts on a boundary.
    void* raw = ::mmap(nullptr, length + kHuge, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) throw std::bad_alloc();
    auto start = reinterpret_cast<uintptr_t>(raw);
    const uintptr_t aligned = (start + kHuge - 1) / kHuge * kHuge;
    if (aligned > start) ::munmap(raw, aligned - start);
    const uintptr_t end = start + length + kHuge;
    if (end > aligned + length) ::munmap(reinterpret_cast<void*>(aligned + length), end - (aligned + length));
    ::madvise(reinterpret_cast<void*>(aligned), length, MADV_HUGEPAGE);
    return reinterpret_cast<void*>(aligned);
  }

  void do_deallocate(void* p, size_t n, size_t align) override {
    if (n < kHuge)
      ::operator delete(p, std::align_val_t(align));
    else
      ::munmap(p, roundUp(n));
  }

  bool do_is_equal(const boost::json::memory_resource& other) const noexcept override { return this == &other; }
};

// A tree takes two to three times its text; the first block is sized for
// that at once (what it does not use costs address space only).
size_t initialArenaBlock(uint64_t textBytes) {
  return std::max<size_t>(64 << 10, static_cast<size_t>(std::min<uint64_t>(textBytes, 1ull << 32) * 3));
}

boost::json::storage_ptr arenaForText(uint64_t textBytes) {
  return boost::json::make_shared_resource<boost::json::monotonic_resource>(initialArenaBlock(textBytes),
                                                                            LargeBlockResource::shared());
}

// Detached symbols nest pages deeper than Boost's default of 32 allows; the
// limit still bounds what hostile input can make our recursive walkers do.
boost::json::parse_options parseOptions() {
  boost::json::parse_options options;
  options.max_depth = kMaxParseDepth;
  return options;
}

// The parser's reading of a number is not always the nearest double, so a
// written and re-read double is asked of the parser itself.
// A double's shortest form may be plain digits, which read back as an
// integer, so the whole value is what the parser makes of it.
JsonValue asReadBack(double d) {
  std::array<char, 64> text{};
  auto r = std::to_chars(text.data(), text.data() + text.size(), d);
  thread_local boost::json::parser parser;
  parser.reset();
  boost::system::error_code ec;
  parser.write(text.data(), static_cast<size_t>(r.ptr - text.data()), ec);
  if (ec) return d;
  return parser.release();
}

class RoundTripper {
 public:
  PXJsonRoundTrip result;

  void visit(JsonValue& v, size_t depth) {
    switch (v.kind()) {
      case boost::json::kind::double_: number(v); break;
      case boost::json::kind::object:
        if (!enter(depth)) return;
        for (auto& kv : v.get_object()) visit(kv.value(), depth + 1);
        break;
      case boost::json::kind::array:
        if (!enter(depth)) return;
        for (auto& e : v.get_array()) visit(e, depth + 1);
        break;
      default: break;
    }
  }

 private:
  bool enter(size_t depth) {
    if (depth >= kMaxParseDepth) result.readable = false;
    return result.readable;
  }

  void number(JsonValue& v) {
    double d = v.get_double();
    if (!std::isfinite(d)) {
      v = 0;
      ++result.nonFinite;
    } else if (d == std::trunc(d) && std::fabs(d) < 9.2e18) {
      v = static_cast<int64_t>(d);
    } else {
      v = asReadBack(d);  // a value of the default storage is copied into v's
    }
  }
};

}  // namespace

PXJsonRoundTrip PXJsonNormalizeAsWritten(JsonValue& value) {
  RoundTripper tripper;
  tripper.visit(value, 0);
  return tripper.result;
}

namespace {

template <typename Json>
std::optional<std::string> serialize(const Json& json, bool pretty, std::string* error) {
  try {
    Writer w(pretty);
    w.write(json, 0);
    return w.take();
  } catch (const std::exception& e) {
    if (error) *error = e.what();
    return std::nullopt;
  }
}

}  // namespace

std::optional<std::string> PXJsonSerialize(const JsonValue& value, bool pretty, std::string* error) {
  return serialize(value, pretty, error);
}

std::optional<std::string> PXJsonSerialize(const JsonObject& object, bool pretty, std::string* error) {
  return serialize(object, pretty, error);
}

std::optional<JsonValue> PXJsonParse(std::string_view text, std::string* error) {
  boost::system::error_code ec;
  JsonValue v = boost::json::parse(text, ec, {}, parseOptions());
  if (ec) {
    if (error) *error = ec.message();
    return std::nullopt;
  }
  return v;
}

std::optional<JsonValue> PXJsonParseIntoArena(std::string_view text, std::string* error) {
  boost::system::error_code ec;
  JsonValue v = boost::json::parse(text, ec, arenaForText(text.size()), parseOptions());
  if (ec) {
    if (error) *error = ec.message();
    return std::nullopt;
  }
  return v;
}

namespace {

// The arena outlives the tree in it: declared first, destroyed last. Nodes
// hold a plain pointer to it, so dropping the tree visits none of them.
struct OwnArenaTree {
  explicit OwnArenaTree(std::shared_ptr<PXJsonArenaPool> pool) : arena(std::move(pool)) {}
  PXJsonPooledArena arena;
  std::optional<JsonValue> root;
};

}  // namespace

std::shared_ptr<const JsonObject> PXJsonParseObjectIntoOwnArena(std::string_view text, std::string* error,
                                                                std::shared_ptr<PXJsonArenaPool> pool) {
  // Alone, a tree takes one region of about what it needs: three times its text.
  if (!pool) pool = std::make_shared<PXJsonArenaPool>(std::max<size_t>(64 << 10, text.size() * 3));
  auto tree = std::make_shared<OwnArenaTree>(std::move(pool));
  boost::system::error_code ec;
  // Built in place: assigning a value of another storage would copy it.
  tree->root.emplace(boost::json::parse(text, ec, boost::json::storage_ptr(&tree->arena), parseOptions()));
  tree->arena.finish();
  if (ec) {
    if (error) *error = ec.message();
    return nullptr;
  }
  if (!tree->root->is_object()) {
    if (error) *error = "top-level value is not an object";
    return nullptr;
  }
  return std::shared_ptr<const JsonObject>(tree, &tree->root->get_object());
}

namespace {

// The file in chunks, never its whole text, into the storage that
// `storageFor` gives for the file's size.
std::optional<JsonValue> parseFile(const std::string& path,
                                   const std::function<boost::json::storage_ptr(uint64_t)>& storageFor,
                                   std::string* error, bool* missing) {
  if (missing) *missing = false;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
  if (!file) {
    if (missing) *missing = true;
    if (error) *error = "cannot open " + path;
    return std::nullopt;
  }
  // The parser's own storage is scratch space; the tree goes where reset() says.
  boost::json::stream_parser parser({}, parseOptions());
  struct stat st {};
  parser.reset(storageFor(::fstat(::fileno(file.get()), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0));
  // Filled by fread before it is read: left uninitialized, it costs no pass to zero it.
  constexpr size_t kChunk = 1 << 20;
  std::unique_ptr<char[]> chunk(new char[kChunk]);
  boost::system::error_code ec;
  while (!ec) {
    size_t n = std::fread(chunk.get(), 1, kChunk, file.get());
    if (n == 0) break;
    parser.write(chunk.get(), n, ec);
  }
  if (!ec && std::ferror(file.get())) {
    if (error) *error = "read error in " + path;
    return std::nullopt;
  }
  if (!ec) parser.finish(ec);
  if (ec) {
    if (error) *error = ec.message();
    return std::nullopt;
  }
  return parser.release();
}

}  // namespace

std::optional<JsonValue> PXJsonParseFileIntoArena(const std::string& path, std::string* error, bool* missing) {
  return parseFile(path, arenaForText, error, missing);
}

std::optional<PXJsonOwnedTree> PXJsonParseFileIntoOwnArena(const std::string& path, std::string* error,
                                                           bool* missing) {
  std::shared_ptr<boost::json::monotonic_resource> arena;
  auto parsed = parseFile(
      path,
      [&](uint64_t size) {
        arena = std::make_shared<boost::json::monotonic_resource>(initialArenaBlock(size), LargeBlockResource::shared());
        return boost::json::storage_ptr(arena.get());
      },
      error, missing);
  if (!parsed) return std::nullopt;
  return PXJsonOwnedTree{std::move(*parsed), std::move(arena)};
}

const JsonValue* PXJsonFind(const JsonValue* object, std::string_view key) {
  if (!object) return nullptr;
  const auto* o = object->if_object();
  if (!o) return nullptr;
  auto it = o->find(key);
  return it == o->end() ? nullptr : &it->value();
}

JsonValue* PXJsonFindMutable(JsonValue* object, std::string_view key) {
  if (!object) return nullptr;
  auto* o = object->if_object();
  if (!o) return nullptr;
  auto it = o->find(key);
  return it == o->end() ? nullptr : &it->value();
}

const JsonObject* PXJsonObjectFor(const JsonValue* object, std::string_view key) {
  const auto* v = PXJsonFind(object, key);
  return v ? v->if_object() : nullptr;
}

const JsonArray* PXJsonArrayFor(const JsonValue* object, std::string_view key) {
  const auto* v = PXJsonFind(object, key);
  return v ? v->if_array() : nullptr;
}

const JsonString* PXJsonStringFor(const JsonValue* object, std::string_view key) {
  const auto* v = PXJsonFind(object, key);
  return v ? v->if_string() : nullptr;
}

std::optional<double> PXJsonDouble(const JsonValue* value) {
  if (!value) return std::nullopt;
  switch (value->kind()) {
    case boost::json::kind::bool_: return value->get_bool() ? 1.0 : 0.0;
    case boost::json::kind::int64: return static_cast<double>(value->get_int64());
    case boost::json::kind::uint64: return static_cast<double>(value->get_uint64());
    case boost::json::kind::double_: {
      double d = value->get_double();
      if (!std::isfinite(d)) return std::nullopt;
      return d;
    }
    case boost::json::kind::string: return leadingNumber(value->get_string());
    default: return std::nullopt;
  }
}

std::optional<float> PXJsonFloat(const JsonValue* value) {
  auto d = PXJsonDouble(value);
  if (!d) return std::nullopt;
  float f = static_cast<float>(*d);
  if (!std::isfinite(f)) return std::nullopt;
  return f;
}

std::optional<int64_t> PXJsonInt64(const JsonValue* value) {
  if (!value) return std::nullopt;
  if (value->is_int64()) return value->get_int64();
  if (value->is_uint64()) {
    uint64_t u = value->get_uint64();
    return u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
               ? std::numeric_limits<int64_t>::max()
               : static_cast<int64_t>(u);
  }
  auto d = PXJsonDouble(value);
  if (!d) return std::nullopt;
  if (*d >= 9.2233720368547758e18) return std::numeric_limits<int64_t>::max();
  if (*d <= -9.2233720368547758e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(*d);
}

std::optional<bool> PXJsonBool(const JsonValue* value) {
  if (!value) return std::nullopt;
  if (const auto* s = value->if_string()) {
    std::string_view t = *s;
    while (!t.empty() && std::isspace(static_cast<unsigned char>(t.front()))) t.remove_prefix(1);
    if (caseInsensitiveStartsWith(t, "true") || caseInsensitiveStartsWith(t, "yes")) return true;
    auto d = leadingNumber(t);
    return d && *d != 0;
  }
  auto d = PXJsonDouble(value);
  if (!d) return std::nullopt;
  return *d != 0;
}

std::optional<std::string_view> PXJsonText(const JsonValue* value) {
  if (!value || !value->is_string()) return std::nullopt;
  return std::string_view(value->get_string());
}

std::optional<double> PXJsonDoubleFor(const JsonValue* object, std::string_view key) {
  return PXJsonDouble(PXJsonFind(object, key));
}
std::optional<int64_t> PXJsonInt64For(const JsonValue* object, std::string_view key) {
  return PXJsonInt64(PXJsonFind(object, key));
}
std::optional<bool> PXJsonBoolFor(const JsonValue* object, std::string_view key) {
  return PXJsonBool(PXJsonFind(object, key));
}
std::optional<std::string_view> PXJsonTextFor(const JsonValue* object, std::string_view key) {
  return PXJsonText(PXJsonFind(object, key));
}

std::optional<JsonValue> PXValueForKeyPath(const JsonValue& root, std::string_view keyPath) {
  const KeyPathParts parts = splitKeyPath(keyPath);
  const std::span<const std::string_view> all(parts.data(), parts.size());
  // The input is only read: nothing is copied until an array is mapped, an
  // operator computes a value, or the result is handed out.
  KeyPathCursor cursor(&root);
  size_t i = 0;
  while (i < all.size()) {
    std::string_view key = all[i];
    const JsonValue& current = cursor.get();
    if (key == "@count") {
      const auto* a = current.if_array();
      if (!a) return std::nullopt;
      cursor = KeyPathCursor(JsonValue(static_cast<int64_t>(a->size())));
      ++i;
    } else if (key == "@firstObject") {
      const auto* a = current.if_array();
      if (!a || a->empty()) return std::nullopt;
      cursor.narrowTo((*a)[0]);
      ++i;
    } else if (key == "@max") {
      if (i + 1 >= all.size() || !largestMapped(current, all[i + 1], cursor)) return std::nullopt;
      i += 2;
    } else {
      // The plain keys up to the next operator go in one step.
      size_t end = i;
      while (end < all.size() && !isKeyPathOperator(all[end])) ++end;
      const auto keys = all.subspan(i, end - i);
      const auto* a = current.if_array();
      if (a && end < all.size() && all[end] == "@firstObject") {
        if (!firstMapped(*a, keys, cursor)) return std::nullopt;
        i = end + 1;
      } else {
        if (!followKeys(cursor, keys)) return std::nullopt;
        i = end;
      }
    }
  }
  return std::move(cursor).take();
}

}  // namespace plexa
