#include "ArchiveBuilder.h"

#include "KeyedArchive.h"

namespace plexa::test {

plist_t plistDict(PlistItems items) {
  plist_t node = plist_new_dict();
  for (const auto& [key, value] : items) plist_dict_set_item(node, key, value);
  return node;
}

std::string binaryPlist(plist_t node) {
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(node, &bytes, &length);
  std::string out(bytes, length);
  plist_to_bin_free(bytes);
  plist_free(node);
  return out;
}

ArchiveBuilder::ArchiveBuilder() : objects_(plist_new_array()) { add(plist_new_string("$null")); }
ArchiveBuilder::~ArchiveBuilder() { plist_free(objects_); }

uint64_t ArchiveBuilder::add(plist_t node) {
  plist_array_append_item(objects_, node);
  return plist_array_get_size(objects_) - 1;
}

plist_t ArchiveBuilder::object(const char* className, PlistItems members) {
  plist_t node = plistDict(members);
  plist_t chain = plist_new_array();
  plist_array_append_item(chain, plist_new_string(className));
  plist_t cls = plistDict({{"$classname", plist_new_string(className)}, {"$classes", chain}});
  plist_dict_set_item(node, "$class", ref(cls));
  return node;
}

uint64_t ArchiveBuilder::dictionary(const std::vector<std::pair<std::string, uint64_t>>& entries) {
  plist_t keys = plist_new_array();
  plist_t values = plist_new_array();
  for (const auto& [key, uid] : entries) {
    plist_array_append_item(keys, ref(plist_new_string(key.c_str())));
    plist_array_append_item(values, plist_new_uid(uid));
  }
  return add(object("NSDictionary", {{"NS.keys", keys}, {"NS.objects", values}}));
}

plist_t ArchiveBuilder::uids(std::initializer_list<uint64_t> list) {
  plist_t array = plist_new_array();
  for (uint64_t uid : list) plist_array_append_item(array, plist_new_uid(uid));
  return array;
}

std::string ArchiveBuilder::finish(uint64_t root) const {
  return binaryPlist(plistDict({{"$archiver", plist_new_string("NSKeyedArchiver")},
                                {"$version", plist_new_uint(100000)},
                                {"$top", plistDict({{"root", plist_new_uid(root)}})},
                                {"$objects", plist_copy(objects_)}}));
}

std::string ArchiveBuilder::base64(uint64_t root) const { return PXBase64Encode(finish(root)); }

}  // namespace plexa::test
