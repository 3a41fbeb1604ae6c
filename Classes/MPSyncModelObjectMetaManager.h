#pragma once
// Plug-in values kept in a model object's userInfo, namespaced by plug-in
// identifier: userInfo → identifier → { key → value }.

#include "Json.h"

#include <optional>
#include <string>
#include <string_view>

namespace plexa {

// Anything whose userInfo can be read and replaced as a whole. The meta
// manager never edits the stored dictionaries in place.
class MPSyncModelObject {
 public:
  virtual ~MPSyncModelObject() = default;
  // nullptr when the object has no userInfo.
  virtual const JsonObject* userInfo() const = 0;
  virtual void setUserInfo(JsonObject userInfo) = 0;
};

// A layer (or any model dictionary) of the document JSON: its "userInfo"
// member. A "userInfo" that is not a dictionary counts as none. The layer must
// outlive this view.
class MPSyncLayerModelObject : public MPSyncModelObject {
 public:
  explicit MPSyncLayerModelObject(JsonObject& layer) : layer_(layer) {}
  const JsonObject* userInfo() const override;
  void setUserInfo(JsonObject userInfo) override;

 private:
  JsonObject& layer_;
};

// Class methods only. A null object is one that has no userInfo accessor:
// every method does nothing and getters give nothing.
class MPSyncModelObjectMetaManager {
 public:
  static constexpr std::string_view defaultPluginIdentifier = "com.morrow.prototype";

  static void setValue(const JsonValue& value, const std::string& key, MPSyncModelObject* object,
                       const std::string& pluginIdentifier);
  static void setValue(const JsonValue& value, const std::string& key, MPSyncModelObject* object);

  static std::optional<JsonValue> valueForKey(const std::string& key, const MPSyncModelObject* object,
                                              const std::string& pluginIdentifier);
  static std::optional<JsonValue> valueForKey(const std::string& key, const MPSyncModelObject* object);

  // Default identifier only.
  static void removeValueForKey(const std::string& key, MPSyncModelObject* object);
  // Drops the default identifier's entry; other plug-ins' entries stay.
  static void removeUserInfoFromObject(MPSyncModelObject* object);

  // Replaces the identifier's whole entry. (Named apart from the keyed
  // setValue, whose parameters have the same types.)
  static void setValueForPluginIdentifier(const JsonValue& value, const std::string& pluginIdentifier,
                                          MPSyncModelObject* object);
  static void setValue(const JsonValue& value, MPSyncModelObject* object);

  // Kept for callers of the older interface; model objects here expose no
  // instance variables, so there is never a value.
  static std::optional<JsonValue> instanceVariableNamed(const std::string& name, const MPSyncModelObject* object);
};

}  // namespace plexa
