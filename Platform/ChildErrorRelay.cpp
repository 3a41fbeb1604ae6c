#include "ChildErrorRelay.h"

#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>

namespace plexa {

namespace {

constexpr int kPollMilliseconds = 50;

}  // namespace

PXChildErrorRelay::PXChildErrorRelay(LineHandler onLine) : onLine_(std::move(onLine)) {
  int fds[2];
  // Without a pipe the children keep the program's stderr: nothing is lost.
  if (::pipe2(fds, O_CLOEXEC) != 0) return;
  readFd_ = fds[0];
  writeFd_ = fds[1];
  PXSetChildErrorDescriptor(writeFd_);
  thread_ = std::thread([this] { run(); });
}

PXChildErrorRelay::~PXChildErrorRelay() {
  if (readFd_ < 0) return;
  PXSetChildErrorDescriptor(-1);
  ::close(writeFd_);
  stopping_ = true;
  thread_.join();
  ::close(readFd_);
}

// Reads until every writer is gone, or, once stopping, until nothing more is
// waiting (a child still running must not hold the program up).
void PXChildErrorRelay::run() {
  std::array<char, 4096> buffer{};
  for (;;) {
    pollfd readable{readFd_, POLLIN, 0};
    int ready = ::poll(&readable, 1, kPollMilliseconds);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      if (stopping_) break;
      continue;
    }
    ssize_t n = ::read(readFd_, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    take(buffer.data(), static_cast<size_t>(n));
  }
  if (!partial_.empty()) onLine_(partial_);
}

void PXChildErrorRelay::take(const char* data, size_t size) {
  partial_.append(data, size);
  size_t start = 0;
  for (size_t end = partial_.find('\n'); end != std::string::npos; end = partial_.find('\n', start)) {
    std::string line = partial_.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) onLine_(line);
    start = end + 1;
  }
  partial_.erase(0, start);
}

}  // namespace plexa
