#include "Notifications.h"

#include "Log.h"
#include "MainQueue.h"

#include <sdbus-c++/sdbus-c++.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace plexa {

namespace {

constexpr const char* kObjectPath = "/org/plexa/DistributedNotifications";
constexpr const char* kInterface = "org.plexa.DistributedNotifications";
constexpr const char* kMember = "Notification";
constexpr const char* kMatchRule =
    "type='signal',interface='org.plexa.DistributedNotifications',member='Notification',"
    "path='/org/plexa/DistributedNotifications'";

// sd-bus gives an absolute monotonic deadline; poll wants milliseconds from now.
int pollTimeoutMs(const sdbus::IConnection::PollData& data) {
  auto relative = data.getRelativeTimeout();
  if (!relative) return -1;
  auto ms = std::chrono::ceil<std::chrono::milliseconds>(*relative).count();
  return static_cast<int>(std::clamp<long long>(ms, 0, 60'000));
}

std::optional<PXNotification> notificationFromSignal(sdbus::Message& message) {
  std::string name, object, userInfoText;
  std::string problem;
  try {
    message >> name >> object >> userInfoText;
    // Running out of arguments is not an exception, only a failed state.
    if (!message) problem = "fewer than three strings";
  } catch (const std::exception& e) {
    problem = e.what();
  }
  if (!problem.empty()) {
    PXLogWarn("Ignoring a distributed notification with an unexpected signature: {}", problem);
    return std::nullopt;
  }
  PXNotification note{std::move(name), std::nullopt, std::nullopt};
  if (!object.empty()) note.object = std::move(object);
  if (userInfoText.empty()) return note;
  std::string error;
  auto parsed = PXJsonParse(userInfoText, &error);
  if (!parsed || !parsed->is_object()) {
    PXLogWarn("Ignoring distributed notification {}: its user info is not a JSON dictionary ({})", note.name,
              parsed ? "not a dictionary" : error);
    return std::nullopt;
  }
  note.userInfo = std::move(parsed->as_object());
  return note;
}

}  // namespace

struct PXDistributedNotificationCenter::Impl {
  enum class State { NotTried, Connected, Failed, Lost };

  std::optional<std::string> busAddress;
  std::weak_ptr<PXDistributedNotificationCenter> self;

  // Everything touching the connection holds busMutex: sd-bus is not thread-safe.
  std::mutex busMutex;
  State state = State::NotTried;
  std::unique_ptr<sdbus::IConnection> connection;
  std::unique_ptr<sdbus::IObject> object;
  sdbus::Slot matchSlot;
  int wakeFd = -1;
  std::atomic<bool> stopping{false};
  std::thread loopThread;

  struct Observer {
    std::string name;
    std::optional<std::string> object;
    PXNotificationBlock block;
  };
  std::mutex observersMutex;
  std::map<uint64_t, Observer> observers;
  uint64_t nextObserverID = 1;

  bool connectLocked();
  void loop();
  void wake();
  void flushLocked(std::chrono::milliseconds limit);
  void onSignal(sdbus::Message& message);
};

bool PXDistributedNotificationCenter::Impl::connectLocked() {
  if (state == State::Connected) return true;
  if (state != State::NotTried) return false;
  try {
    connection = busAddress ? sdbus::createSessionBusConnectionWithAddress(*busAddress)
                            : sdbus::createSessionBusConnection();
    object = sdbus::createObject(*connection, kObjectPath);
    matchSlot = connection->addMatch(kMatchRule, [this](sdbus::Message& message) { onSignal(message); });
    wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd < 0) throw std::runtime_error("eventfd failed");
  } catch (const std::exception& e) {
    state = State::Failed;
    matchSlot.reset();
    object.reset();
    connection.reset();
    PXLogError("No D-Bus session bus ({}); distributed notifications are off", e.what());
    return false;
  }
  state = State::Connected;
  loopThread = std::thread([this] { loop(); });
  return true;
}

void PXDistributedNotificationCenter::Impl::wake() {
  uint64_t one = 1;
  if (wakeFd >= 0) [[maybe_unused]] auto written = ::write(wakeFd, &one, sizeof one);
}

// Our own event loop rather than sdbus-c++'s, so that posting from any thread
// and dispatching here share one lock.
void PXDistributedNotificationCenter::Impl::loop() {
  while (!stopping) {
    sdbus::IConnection::PollData data{};
    {
      std::lock_guard lock(busMutex);
      try {
        while (connection->processPendingRequest()) {
        }
        data = connection->getEventLoopPollData();
      } catch (const std::exception& e) {
        PXLogError("Lost the D-Bus session bus: {}", e.what());
        state = State::Lost;
        return;
      }
    }
    pollfd fds[2] = {{data.fd, data.events, 0}, {wakeFd, POLLIN, 0}};
    if (::poll(fds, 2, pollTimeoutMs(data)) < 0 && errno != EINTR) {
      PXLogError("Polling the D-Bus session bus failed: {}", std::strerror(errno));
      std::lock_guard lock(busMutex);
      state = State::Lost;
      return;
    }
    if (fds[1].revents & POLLIN) {
      uint64_t count;
      [[maybe_unused]] auto got = ::read(wakeFd, &count, sizeof count);
    }
    // A hang-up with nothing left to read would otherwise spin: give sd-bus one
    // more round to report it, then stop.
    if (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) {
      std::lock_guard lock(busMutex);
      try {
        while (connection->processPendingRequest()) {
        }
      } catch (const std::exception&) {
      }
      PXLogError("Lost the D-Bus session bus");
      state = State::Lost;
      return;
    }
  }
}

// Gives queued outgoing signals a bounded chance to reach the bus, so that a
// process that posts and then exits is still heard.
void PXDistributedNotificationCenter::Impl::flushLocked(std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  try {
    while (std::chrono::steady_clock::now() < deadline) {
      while (connection->processPendingRequest()) {
      }
      auto data = connection->getEventLoopPollData();
      if (!(data.events & POLLOUT)) return;
      pollfd fd{data.fd, POLLOUT, 0};
      ::poll(&fd, 1, 20);
    }
  } catch (const std::exception&) {
  }
}

void PXDistributedNotificationCenter::Impl::onSignal(sdbus::Message& message) {
  auto note = notificationFromSignal(message);
  if (!note) return;
  PXMainQueue::shared().async([weak = self, note = std::move(*note)] {
    if (auto center = weak.lock()) center->deliver(note);
  });
}

// ---------------------------------------------------------------------------

PXNotificationObserver::PXNotificationObserver(PXNotificationObserver&& other) noexcept
    : center_(std::move(other.center_)), id_(std::exchange(other.id_, 0)) {}

PXNotificationObserver& PXNotificationObserver::operator=(PXNotificationObserver&& other) noexcept {
  if (this != &other) {
    remove();
    center_ = std::move(other.center_);
    id_ = std::exchange(other.id_, 0);
  }
  return *this;
}

PXNotificationObserver::~PXNotificationObserver() { remove(); }

void PXNotificationObserver::remove() {
  if (id_ == 0) return;
  if (auto center = center_.lock()) center->removeObserver(id_);
  id_ = 0;
  center_.reset();
}

// ---------------------------------------------------------------------------

std::shared_ptr<PXDistributedNotificationCenter> PXDistributedNotificationCenter::defaultCenter() {
  static std::shared_ptr<PXDistributedNotificationCenter> center = make();
  return center;
}

std::shared_ptr<PXDistributedNotificationCenter> PXDistributedNotificationCenter::make(
    std::optional<std::string> busAddress) {
  std::shared_ptr<PXDistributedNotificationCenter> center(new PXDistributedNotificationCenter(std::move(busAddress)));
  center->impl_->self = center;
  return center;
}

PXDistributedNotificationCenter::PXDistributedNotificationCenter(std::optional<std::string> busAddress)
    : impl_(std::make_unique<Impl>()) {
  impl_->busAddress = std::move(busAddress);
}

PXDistributedNotificationCenter::~PXDistributedNotificationCenter() {
  {
    std::lock_guard lock(impl_->busMutex);
    if (impl_->state == Impl::State::Connected) impl_->flushLocked(std::chrono::milliseconds(1000));
  }
  impl_->stopping = true;
  impl_->wake();
  if (impl_->loopThread.joinable()) impl_->loopThread.join();
  impl_->matchSlot.reset();
  impl_->object.reset();
  impl_->connection.reset();
  if (impl_->wakeFd >= 0) ::close(impl_->wakeFd);
}

bool PXDistributedNotificationCenter::isConnected() {
  std::lock_guard lock(impl_->busMutex);
  return impl_->connectLocked();
}

bool PXDistributedNotificationCenter::postNotificationName(const std::string& name,
                                                           const std::optional<std::string>& object,
                                                           const std::optional<JsonObject>& userInfo) {
  std::string userInfoText;
  if (userInfo) {
    std::string error;
    auto text = PXJsonSerialize(JsonValue(*userInfo), false, &error);
    if (!text) {
      PXLogError("Cannot post distributed notification {}: its user info is not JSON ({})", name, error);
      return false;
    }
    userInfoText = std::move(*text);
  }
  {
    std::lock_guard lock(impl_->busMutex);
    if (!impl_->connectLocked()) {
      PXLogVerbose("Distributed notification {} not posted: no session bus", name);
      return false;
    }
    try {
      auto signal = impl_->object->createSignal(kInterface, kMember);
      signal << name << object.value_or(std::string()) << userInfoText;
      impl_->object->emitSignal(signal);
    } catch (const std::exception& e) {
      PXLogError("Cannot post distributed notification {}: {}", name, e.what());
      return false;
    }
  }
  // The loop may need to wait for the socket to take the rest of the message.
  impl_->wake();
  return true;
}

PXNotificationObserver PXDistributedNotificationCenter::addObserver(const std::string& name,
                                                                    const std::optional<std::string>& object,
                                                                    PXNotificationBlock block) {
  if (!block || !isConnected()) return {};
  std::lock_guard lock(impl_->observersMutex);
  uint64_t id = impl_->nextObserverID++;
  impl_->observers.emplace(id, Impl::Observer{name, object, std::move(block)});
  return PXNotificationObserver(weak_from_this(), id);
}

void PXDistributedNotificationCenter::removeObserver(uint64_t id) {
  std::lock_guard lock(impl_->observersMutex);
  impl_->observers.erase(id);
}

// On the main queue. Observers may add or remove observers (their own too)
// from inside their block, so each one is looked up again just before it runs.
void PXDistributedNotificationCenter::deliver(const PXNotification& note) {
  std::vector<uint64_t> matching;
  {
    std::lock_guard lock(impl_->observersMutex);
    for (const auto& [id, observer] : impl_->observers) {
      if (observer.name != note.name) continue;
      if (observer.object && observer.object != note.object) continue;
      matching.push_back(id);
    }
  }
  for (uint64_t id : matching) {
    PXNotificationBlock block;
    {
      std::lock_guard lock(impl_->observersMutex);
      auto it = impl_->observers.find(id);
      if (it == impl_->observers.end()) continue;
      block = it->second.block;
    }
    block(note);
  }
}

}  // namespace plexa
