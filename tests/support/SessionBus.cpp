#include "SessionBus.h"

#include "Files.h"
#include "Notifications.h"
#include "Process.h"
#include "TestSupport.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

namespace plexa::test {

PrivateSessionEnvironment::PrivateSessionEnvironment(std::vector<std::string> doubles, bool withPluginResources)
    : doubles_(std::move(doubles)), withPluginResources_(withPluginResources) {}

void PrivateSessionEnvironment::SetUp() {
  // setpriv: the bus ends with this program, even when a test crashes it.
  daemon_ = ::popen("exec setpriv --pdeathsig TERM dbus-daemon --session --nofork --print-address=1 --print-pid=1"
                    " 2>/dev/null",
                    "r");
  ASSERT_NE(nullptr, daemon_);
  char address[512] = {}, pid[32] = {};
  ASSERT_TRUE(std::fgets(address, sizeof address, daemon_) && std::fgets(pid, sizeof pid, daemon_));
  address[std::strcspn(address, "\n")] = 0;
  pid_ = std::atoi(pid);
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address, 1);

  folder_ = PXFileManager::makeTemporaryDirectory("plexa-session");
  if (withPluginResources_) {
    ASSERT_TRUE(PXFileManager::copyItem(std::string(PLEXA_SOURCE_DIR) + "/Resources/PXSketchLauncher.sketchplugin",
                                        folder_ + "/PXSketchLauncher.sketchplugin"));
    ::setenv("PLEXA_RESOURCES_DIR", folder_.c_str(), 1);
  }
  for (const auto& name : doubles_)
    ASSERT_TRUE(PXFileManager::copyItem(std::string(PLEXA_TEST_BINARY_DIR) + "/" + name, testDouble(name)));
}

void PrivateSessionEnvironment::TearDown() {
  if (pid_ > 0) ::kill(pid_, SIGTERM);
  if (daemon_) ::pclose(daemon_);
  PXFileManager::removeItem(folder_);
}

std::shared_ptr<PXChildProcess> startFakeAnima(const std::vector<std::string>& options) {
  bool ready = false;
  auto token = PXDistributedNotificationCenter::defaultCenter()->addObserver(
      "PXFakeAnimaReady", std::string("fake-anima"), [&](const PXNotification&) { ready = true; });
  auto anima = PXChildProcess::start(PrivateSessionEnvironment::testDouble("fake-anima"), options, std::nullopt,
                                     nullptr, nullptr);
  return anima && pumpMainUntil([&] { return ready; }) ? anima : nullptr;
}

}  // namespace plexa::test
