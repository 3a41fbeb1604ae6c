#pragma once
// A private D-Bus session bus for a whole test program, with a private
// folder for copies of test doubles and of the companion plug-in, so a
// rebuild of the shared ones mid-run cannot get in the way.

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace plexa {
class PXChildProcess;
}

namespace plexa::test {

class PrivateSessionEnvironment : public ::testing::Environment {
 public:
  // `doubles` are copied from the test binary folder; with
  // `withPluginResources` the plug-in is copied too and PLEXA_RESOURCES_DIR
  // points at the copy.
  PrivateSessionEnvironment(std::vector<std::string> doubles, bool withPluginResources);
  void SetUp() override;
  void TearDown() override;

  static const std::string& folder() { return folder_; }
  static std::string testDouble(const std::string& name) { return folder_ + "/" + name; }

 private:
  std::vector<std::string> doubles_;
  bool withPluginResources_;
  FILE* daemon_ = nullptr;
  pid_t pid_ = 0;
  static inline std::string folder_;
};

// Starts the fake Anima from the private folder and waits until it listens;
// null when it does not come up. It exits after answering one request and is
// killed if the pointer goes first.
std::shared_ptr<PXChildProcess> startFakeAnima(const std::vector<std::string>& options);

}  // namespace plexa::test
