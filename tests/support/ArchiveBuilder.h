#pragma once
// Keyed archives (NSKeyedArchiver property lists) built by hand, for the
// archives our own encoder would never write.

#include <plist/plist.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace plexa::test {

using PlistItems = std::initializer_list<std::pair<const char*, plist_t>>;

// A dictionary node holding `items` (which it takes over).
plist_t plistDict(PlistItems items);
// The binary form of a property list, which is freed.
std::string binaryPlist(plist_t node);

class ArchiveBuilder {
 public:
  ArchiveBuilder();
  ~ArchiveBuilder();
  ArchiveBuilder(const ArchiveBuilder&) = delete;
  ArchiveBuilder& operator=(const ArchiveBuilder&) = delete;

  // Appends to the object table; returns the new object's UID.
  uint64_t add(plist_t node);
  // A reference to `node`, which is appended.
  plist_t ref(plist_t node) { return plist_new_uid(add(node)); }
  // An archived object, not yet appended: its members, then a reference to its class.
  plist_t object(const char* className, PlistItems members = {});
  // An NSDictionary of these keys and object UIDs; returns its UID.
  uint64_t dictionary(const std::vector<std::pair<std::string, uint64_t>>& entries);
  plist_t uids(std::initializer_list<uint64_t> list);
  // The UID the next add() returns.
  uint64_t nextUID() const { return plist_array_get_size(objects_); }

  std::string finish(uint64_t root) const;
  std::string base64(uint64_t root) const;

 private:
  plist_t objects_;
};

}  // namespace plexa::test
