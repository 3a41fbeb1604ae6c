#pragma once
// Notifications that cross process boundaries, for every process of the
// user's session: the stand-in for the distributed notification centre.
//
// Wire format, on the D-Bus session bus:
//   object path  /org/plexa/DistributedNotifications
//   interface    org.plexa.DistributedNotifications
//   signal       Notification, signature "sss":
//                  name      the notification name
//                  object    the object string; "" means no object
//                  userInfo  the user-info dictionary as compact JSON text;
//                            "" means no user info
// Signals are broadcast (no destination), so every connection of the session
// that listens on this interface, including the poster's own, receives them.
//
// Observers are called on the main queue (PXMainQueue). With no session bus,
// the first use logs one error and posting and observing then do nothing.

#include "Json.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace plexa {

struct PXNotification {
  std::string name;
  std::optional<std::string> object;
  std::optional<JsonObject> userInfo;
};

using PXNotificationBlock = std::function<void(const PXNotification&)>;

class PXDistributedNotificationCenter;

// Owns one observation: it ends when the token is destroyed or `remove` is
// called, so an owner that keeps its tokens as fields stops observing when it
// goes. An empty token observes nothing.
class PXNotificationObserver {
 public:
  PXNotificationObserver() = default;
  PXNotificationObserver(PXNotificationObserver&& other) noexcept;
  PXNotificationObserver& operator=(PXNotificationObserver&& other) noexcept;
  PXNotificationObserver(const PXNotificationObserver&) = delete;
  PXNotificationObserver& operator=(const PXNotificationObserver&) = delete;
  ~PXNotificationObserver();

  void remove();
  explicit operator bool() const { return id_ != 0; }

 private:
  friend class PXDistributedNotificationCenter;
  PXNotificationObserver(std::weak_ptr<PXDistributedNotificationCenter> center, uint64_t id)
      : center_(std::move(center)), id_(id) {}

  std::weak_ptr<PXDistributedNotificationCenter> center_;
  uint64_t id_ = 0;
};

class PXDistributedNotificationCenter : public std::enable_shared_from_this<PXDistributedNotificationCenter> {
 public:
  // The process-wide centre on the session bus named by the environment
  // (DBUS_SESSION_BUS_ADDRESS). It connects on first use.
  static std::shared_ptr<PXDistributedNotificationCenter> defaultCenter();
  // A centre of its own on the bus at `busAddress` (a D-Bus address such as
  // "unix:path=/run/user/1000/bus"), or on the session bus when absent.
  static std::shared_ptr<PXDistributedNotificationCenter> make(std::optional<std::string> busAddress = std::nullopt);

  ~PXDistributedNotificationCenter();
  PXDistributedNotificationCenter(const PXDistributedNotificationCenter&) = delete;
  PXDistributedNotificationCenter& operator=(const PXDistributedNotificationCenter&) = delete;

  // Broadcasts the notification; returns at once. False when it was not
  // sent (no bus, or user info that cannot be written as JSON).
  bool postNotificationName(const std::string& name, const std::optional<std::string>& object = std::nullopt,
                            const std::optional<JsonObject>& userInfo = std::nullopt);

  // Calls `block` on the main queue for every notification called `name`
  // whose object equals `object` (any object when absent). The token is
  // empty when there is no bus.
  [[nodiscard]] PXNotificationObserver addObserver(const std::string& name, const std::optional<std::string>& object,
                                                   PXNotificationBlock block);

  // Connects when not yet tried; true while the bus connection is usable.
  bool isConnected();

 private:
  friend class PXNotificationObserver;
  struct Impl;

  explicit PXDistributedNotificationCenter(std::optional<std::string> busAddress);
  void removeObserver(uint64_t id);
  void deliver(const PXNotification& note);

  std::unique_ptr<Impl> impl_;
};

}  // namespace plexa
