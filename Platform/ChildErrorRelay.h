#pragma once
// Collects what child processes write to their error output and hands it to
// the host line by line, so that their messages can be shown like the
// program's own. While one exists, children started through Process.h write
// into it instead of the program's stderr.

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace plexa {

class PXChildErrorRelay {
 public:
  using LineHandler = std::function<void(const std::string& line)>;

  // Lines reach `onLine` on the relay's own thread.
  explicit PXChildErrorRelay(LineHandler onLine);
  // Children started later write to stderr again; what has arrived is still
  // handed over, but children that are still running are not waited for.
  ~PXChildErrorRelay();
  PXChildErrorRelay(const PXChildErrorRelay&) = delete;
  PXChildErrorRelay& operator=(const PXChildErrorRelay&) = delete;

 private:
  void run();
  void take(const char* data, size_t size);

  LineHandler onLine_;
  int readFd_ = -1, writeFd_ = -1;
  std::atomic<bool> stopping_{false};
  std::string partial_;
  std::thread thread_;
};

}  // namespace plexa
