#include "MPSyncLinkModel.h"
#include "MPSyncModelObjectMetaManager.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

using namespace plexa;
using namespace plexa::test;

namespace {

std::vector<std::string> keysOf(const JsonObject& o) {
  std::vector<std::string> keys;
  for (const auto& kv : o) keys.emplace_back(kv.key());
  return keys;
}

JsonObject parsedObject(const char* text) { return parseJson(text).as_object(); }

// A model object that counts how often its userInfo is replaced.
class RecordingObject : public MPSyncModelObject {
 public:
  std::optional<JsonObject> stored;
  int setCount = 0;
  const JsonObject* userInfo() const override { return stored ? &*stored : nullptr; }
  void setUserInfo(JsonObject userInfo) override {
    stored = std::move(userInfo);
    ++setCount;
  }
};

}  // namespace

TEST(MPSyncLinkModel, EmptyDictionaryGivesTheDocumentedDefaults) {
  // Three flags default to YES; absent strings leave their keys out; keys keep the table order.
  JsonObject d = MPSyncLinkModel::linkWithDictionary(JsonObject())->dictionaryValue();
  EXPECT_EQ(compactJson(d),
            R"({"linkType":0,"gesture":0,"transition":0,"maintainScrollPositionAfterGesture":false,)"
            R"("stayOnTargetScreen":false,"overlayPosition":0,"overlayTransition":0,"backgroundOpacity":0,)"
            R"("reverseTransitionOnClose":true,"closeOnClickOutside":true,"fixOverlayPosition":true,)"
            R"("scrollToPosition":0,"smoothScrolling":false,"openURLInNewWindow":false,"redirectAfter":0,)"
            R"("maintainScrollPositionAfterRedirect":false})");
  EXPECT_TRUE(d.at("linkType").is_number() && !d.at("linkType").is_double());
}

TEST(MPSyncLinkModel, StoredValuesAreReadAndWrittenBackInTableOrder) {
  auto d = parsedObject(R"({"targetArtboardID":"T-1","linkType":1,"gesture":3,"transition":12,
      "maintainScrollPositionAfterGesture":true,"stayOnTargetScreen":true,"overlayPosition":7,"overlayTransition":17,
      "backgroundOpacity":60,"reverseTransitionOnClose":false,"closeOnClickOutside":false,"fixOverlayPosition":false,
      "scrollToPosition":125,"smoothScrolling":true,"externalURL":"https://example.com/a?b=c","openURLInNewWindow":true,
      "redirectAfter":3,"maintainScrollPositionAfterRedirect":true})");
  // Every value survives, a stored NO included (it is not replaced by a YES default).
  JsonObject back = MPSyncLinkModel(d).dictionaryValue();
  EXPECT_EQ(JsonValue(back), JsonValue(d));
  EXPECT_EQ(keysOf(back).back(), "targetArtboardID");
  EXPECT_EQ(keysOf(back)[14], "openURLInNewWindow");
}

TEST(MPSyncLinkModel, LooseAndWrongTypedValuesReadWithoutFailing) {
  MPSyncLinkModel fraction(parsedObject(R"({"backgroundOpacity":0.6,"scrollToPosition":99.9})"));
  EXPECT_EQ(fraction.backgroundOpacity, 0u);
  EXPECT_EQ(fraction.scrollToPosition, 99u);

  MPSyncLinkModel strings(parsedObject(R"({"linkType":"2","gesture":"abc","smoothScrolling":"YES",
      "externalURL":42,"targetArtboardID":{"id":"X"},"closeOnClickOutside":{"x":1},"fixOverlayPosition":null})"));
  EXPECT_EQ(strings.linkType, 2u);
  EXPECT_EQ(strings.gesture, 0u);
  EXPECT_TRUE(strings.smoothScrolling);
  EXPECT_FALSE(strings.externalURL);  // not a string: treated as missing
  EXPECT_FALSE(strings.targetArtboardID);
  EXPECT_FALSE(strings.closeOnClickOutside);  // present, but no truth in it
  EXPECT_FALSE(strings.fixOverlayPosition);
  EXPECT_TRUE(strings.reverseTransitionOnClose);

  MPSyncLinkModel extreme(parsedObject(R"({"linkType":-1,"transition":1e300,"redirectAfter":18446744073709551615})"));
  EXPECT_EQ(extreme.linkType, std::numeric_limits<uint64_t>::max());  // wraps: stays out of every range
  EXPECT_FALSE(extreme.shouldHaveArtboardAsTarget());
  EXPECT_EQ(extreme.transition, static_cast<uint64_t>(std::numeric_limits<int64_t>::max()));
  EXPECT_EQ(extreme.redirectAfter, std::numeric_limits<uint64_t>::max());
}

TEST(MPSyncLinkModel, OnlyScreenOverlayAndRedirectLinksTargetAnArtboard) {
  std::vector<bool> expected{true, true, false, false, true, false, false};
  for (uint64_t type = 0; type < expected.size(); ++type) {
    MPSyncLinkModel link;
    link.linkType = type;
    EXPECT_EQ(link.shouldHaveArtboardAsTarget(), expected[type]) << "type " << type;
  }
}

TEST(MPSyncModelObjectMetaManager, SettingValuesBuildsAndMergesPluginEntries) {
  RecordingObject object;
  MPSyncModelObjectMetaManager::setValue(JsonValue(5), "count", &object);
  ASSERT_TRUE(object.stored);
  EXPECT_EQ(JsonValue(*object.stored), parseJson(R"({"com.morrow.prototype":{"count":5}})"));

  object.stored->emplace("com.other", JsonObject{{"keep", true}});
  MPSyncModelObjectMetaManager::setValue(JsonValue("a"), "name", &object);
  MPSyncModelObjectMetaManager::setValue(JsonValue(6), "count", &object);
  MPSyncModelObjectMetaManager::setValue(JsonValue(1), "count", &object, "com.third");
  EXPECT_EQ(JsonValue(*object.stored), parseJson(R"({"com.morrow.prototype":{"count":6,"name":"a"},
      "com.other":{"keep":true},"com.third":{"count":1}})"));
  EXPECT_EQ(MPSyncModelObjectMetaManager::valueForKey("name", &object), JsonValue("a"));
  EXPECT_EQ(MPSyncModelObjectMetaManager::valueForKey("count", &object, "com.third"), JsonValue(1));
  EXPECT_FALSE(MPSyncModelObjectMetaManager::valueForKey("missing", &object));
  EXPECT_FALSE(MPSyncModelObjectMetaManager::valueForKey("count", &object, "com.absent"));

  // An entry that is not a dictionary is replaced by one holding the new key.
  (*object.stored)["com.third"] = "text";
  MPSyncModelObjectMetaManager::setValue(JsonValue(2), "count", &object, "com.third");
  EXPECT_EQ(object.stored->at("com.third"), JsonValue(JsonObject{{"count", 2}}));
  EXPECT_FALSE(MPSyncModelObjectMetaManager::valueForKey("count", nullptr));
}

TEST(MPSyncModelObjectMetaManager, RemovingAndReplacingTouchOnlyTheDefaultEntry) {
  RecordingObject object;
  MPSyncModelObjectMetaManager::removeUserInfoFromObject(&object);
  MPSyncModelObjectMetaManager::removeValueForKey("count", &object);
  EXPECT_EQ(object.setCount, 0);  // nothing to remove: userInfo is never set

  object.stored = parsedObject(R"({"com.morrow.prototype":{"count":1,"name":"n"},"com.other":{"count":9}})");
  MPSyncModelObjectMetaManager::removeValueForKey("count", &object);
  EXPECT_EQ(JsonValue(*object.stored),
            parseJson(R"({"com.morrow.prototype":{"name":"n"},"com.other":{"count":9}})"));

  MPSyncModelObjectMetaManager::setValue(JsonValue(JsonArray{1, 2}), &object);
  EXPECT_EQ(object.stored->at("com.morrow.prototype"), JsonValue(JsonArray{1, 2}));
  MPSyncModelObjectMetaManager::setValueForPluginIdentifier(JsonValue("whole"), "com.other", &object);
  EXPECT_EQ(object.stored->at("com.other"), JsonValue("whole"));

  MPSyncModelObjectMetaManager::removeUserInfoFromObject(&object);
  EXPECT_EQ(JsonValue(*object.stored), parseJson(R"({"com.other":"whole"})"));
  int sets = object.setCount;
  MPSyncModelObjectMetaManager::removeUserInfoFromObject(&object);
  EXPECT_EQ(object.setCount, sets);

  MPSyncModelObjectMetaManager::setValue(JsonValue(1), "k", nullptr);  // no accessor: nothing happens
}

TEST(MPSyncModelObjectMetaManager, LayerViewStoresIntoTheLayerJson) {
  JsonObject layer{{"do_objectID", "L"}, {"userInfo", "not a dictionary"}};
  MPSyncLayerModelObject view(layer);
  EXPECT_EQ(view.userInfo(), nullptr);
  MPSyncModelObjectMetaManager::setValue(JsonValue("T"), "targetArtboardID", &view);
  EXPECT_EQ(JsonValue(layer), parseJson(R"({"do_objectID":"L",
      "userInfo":{"com.morrow.prototype":{"targetArtboardID":"T"}}})"));
  EXPECT_EQ(MPSyncModelObjectMetaManager::valueForKey("targetArtboardID", &view), JsonValue("T"));
}
