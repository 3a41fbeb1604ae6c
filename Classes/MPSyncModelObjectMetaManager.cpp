#include "MPSyncModelObjectMetaManager.h"

#include "NSDictionary+MPSync.h"

namespace plexa {

const JsonObject* MPSyncLayerModelObject::userInfo() const {
  const JsonValue* value = layer_.if_contains("userInfo");
  return value ? value->if_object() : nullptr;
}

void MPSyncLayerModelObject::setUserInfo(JsonObject userInfo) { layer_["userInfo"] = std::move(userInfo); }

namespace {

const std::string& defaultIdentifier() {
  static const std::string identifier(MPSyncModelObjectMetaManager::defaultPluginIdentifier);
  return identifier;
}

const JsonObject* pluginDictionary(const MPSyncModelObject& object, std::string_view pluginIdentifier) {
  const JsonObject* userInfo = object.userInfo();
  if (!userInfo) return nullptr;
  const JsonValue* entry = userInfo->if_contains(pluginIdentifier);
  return entry ? entry->if_object() : nullptr;
}

JsonObject userInfoOrEmpty(const MPSyncModelObject& object) {
  const JsonObject* userInfo = object.userInfo();
  return userInfo ? *userInfo : JsonObject();
}

}  // namespace

void MPSyncModelObjectMetaManager::setValue(const JsonValue& value, const std::string& key, MPSyncModelObject* object,
                                            const std::string& pluginIdentifier) {
  if (!object) return;
  JsonObject entry{{key, value}};
  if (const JsonObject* existing = pluginDictionary(*object, pluginIdentifier))
    entry = dictionaryByAddingDictionary_mps(*existing, entry);
  object->setUserInfo(
      dictionaryByAddingDictionary_mps(userInfoOrEmpty(*object), JsonObject{{pluginIdentifier, std::move(entry)}}));
}

void MPSyncModelObjectMetaManager::setValue(const JsonValue& value, const std::string& key,
                                            MPSyncModelObject* object) {
  setValue(value, key, object, defaultIdentifier());
}

std::optional<JsonValue> MPSyncModelObjectMetaManager::valueForKey(const std::string& key,
                                                                   const MPSyncModelObject* object,
                                                                   const std::string& pluginIdentifier) {
  if (!object) return std::nullopt;
  const JsonObject* entry = pluginDictionary(*object, pluginIdentifier);
  if (!entry) return std::nullopt;
  const JsonValue* value = entry->if_contains(key);
  if (!value) return std::nullopt;
  return *value;
}

std::optional<JsonValue> MPSyncModelObjectMetaManager::valueForKey(const std::string& key,
                                                                   const MPSyncModelObject* object) {
  return valueForKey(key, object, defaultIdentifier());
}

void MPSyncModelObjectMetaManager::removeValueForKey(const std::string& key, MPSyncModelObject* object) {
  if (!object) return;
  const JsonObject* existing = pluginDictionary(*object, defaultIdentifier());
  if (!existing) return;
  JsonObject entry = *existing;
  entry.erase(key);
  JsonObject userInfo = userInfoOrEmpty(*object);
  userInfo[defaultIdentifier()] = std::move(entry);
  object->setUserInfo(std::move(userInfo));
}

void MPSyncModelObjectMetaManager::removeUserInfoFromObject(MPSyncModelObject* object) {
  if (!object) return;
  const JsonObject* userInfo = object->userInfo();
  if (!userInfo || !userInfo->contains(defaultIdentifier())) return;
  JsonObject copy = *userInfo;
  copy.erase(defaultIdentifier());
  object->setUserInfo(std::move(copy));
}

void MPSyncModelObjectMetaManager::setValueForPluginIdentifier(const JsonValue& value,
                                                               const std::string& pluginIdentifier,
                                                               MPSyncModelObject* object) {
  if (!object) return;
  object->setUserInfo(
      dictionaryByAddingDictionary_mps(userInfoOrEmpty(*object), JsonObject{{pluginIdentifier, value}}));
}

void MPSyncModelObjectMetaManager::setValue(const JsonValue& value, MPSyncModelObject* object) {
  setValueForPluginIdentifier(value, defaultIdentifier(), object);
}

std::optional<JsonValue> MPSyncModelObjectMetaManager::instanceVariableNamed(const std::string&,
                                                                             const MPSyncModelObject*) {
  return std::nullopt;
}

}  // namespace plexa
