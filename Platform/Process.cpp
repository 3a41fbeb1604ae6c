#include "Process.h"

#include "MainQueue.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/readable_pipe.hpp>
#include <boost/process/v2.hpp>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace plexa {

namespace asio = boost::asio;
namespace bp = boost::process::v2;

namespace {

std::string errnoText(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

int exitCodeFromStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

void closeFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

struct PipeFds {
  int read = -1;
  int write = -1;
  ~PipeFds() {
    closeFd(read);
    closeFd(write);
  }
  bool open(std::string* error) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
      if (error) *error = errnoText("pipe");
      return false;
    }
    read = fds[0];
    write = fds[1];
    return true;
  }
};

std::atomic<int> gChildErrorFd{-1};

int childErrorFd() {
  int fd = gChildErrorFd;
  return fd >= 0 ? fd : STDERR_FILENO;
}

// Forks on a private context that nothing else runs, so the fork hooks in
// the child never touch the main loop's locks. The caller owns the child:
// it is detached here and must be reaped by the caller.
std::optional<int> launch(const std::string& path, const std::vector<std::string>& arguments,
                          const std::optional<std::string>& workingDirectory, int outFd, bool mergeStderr,
                          std::string* error) {
  try {
    asio::io_context launchContext;
    boost::system::error_code ec;
    bp::process_stdio stdio{{}, outFd, mergeStderr ? outFd : childErrorFd()};
    auto launcher = bp::default_process_launcher();
    auto child = workingDirectory
                     ? launcher(launchContext.get_executor(), ec, path, arguments, stdio,
                                bp::process_start_dir(*workingDirectory))
                     : launcher(launchContext.get_executor(), ec, path, arguments, stdio);
    if (ec) {
      if (error) *error = ec.message();
      return std::nullopt;
    }
    int pid = child.id();
    child.detach();
    return pid;
  } catch (const std::exception& e) {
    if (error) *error = e.what();
    return std::nullopt;
  }
}

asio::io_context& mainContext() {
  return *static_cast<asio::io_context*>(PXMainQueue::shared().nativeContext());
}

}  // namespace

void PXSetChildErrorDescriptor(int fd) { gChildErrorFd = fd; }

PXProcessOutput PXRunProcess(const std::string& path, const std::vector<std::string>& arguments,
                             const std::optional<std::string>& workingDirectory) {
  PXProcessOutput result;
  PipeFds pipe;
  if (!pipe.open(&result.error)) return result;
  auto pid = launch(path, arguments, workingDirectory, pipe.write, true, &result.error);
  closeFd(pipe.write);
  if (!pid) return result;
  result.launched = true;

  std::array<char, 16384> buffer;
  for (;;) {
    ssize_t n = ::read(pipe.read, buffer.data(), buffer.size());
    if (n > 0) {
      result.output.append(buffer.data(), static_cast<size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  int status = 0;
  while (::waitpid(*pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitCode = exitCodeFromStatus(status);
  return result;
}

struct PXChildProcess::Impl : std::enable_shared_from_this<Impl> {
  Impl() : pipe(mainContext()), process(mainContext().get_executor()) {}

  // Main-thread state: the reader and the exit watcher meet in finish().
  asio::readable_pipe pipe;
  bp::process process;
  ChunkHandler onChunk;
  ExitHandler onExit;
  std::array<char, 16384> buffer{};
  bool readerDone = false;
  bool exitSeen = false;
  bool delivered = false;
  int exitCode = -1;
  int pid = -1;

  // Any-thread state: a process descriptor that cannot name a recycled pid.
  std::mutex killLock;
  int killFd = -1;
  std::atomic<bool> running{true};

  void begin() {
    readMore();
    process.async_wait([self = shared_from_this()](boost::system::error_code ec, int code) {
      self->exited(ec, code);
    });
  }

  void readMore() {
    pipe.async_read_some(asio::buffer(buffer), [self = shared_from_this()](boost::system::error_code ec, size_t n) {
      self->didRead(ec, n);
    });
  }

  void didRead(boost::system::error_code ec, size_t n) {
    if (n > 0 && onChunk) onChunk(std::string_view(buffer.data(), n));
    if (!ec && !exitSeen) {
      readMore();
      return;
    }
    // The child is gone: take what it left in the pipe, but do not wait on
    // descendants that still hold the write end.
    if (exitSeen && (!ec || ec == asio::error::operation_aborted)) drainAvailable();
    readerDone = true;
    finish();
  }

  void drainAvailable() {
    if (!pipe.is_open()) return;
    int fd = pipe.native_handle();
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    for (;;) {
      ssize_t n = ::read(fd, buffer.data(), buffer.size());
      if (n > 0) {
        if (onChunk) onChunk(std::string_view(buffer.data(), static_cast<size_t>(n)));
      } else if (n == 0 || errno != EINTR) {
        return;
      }
    }
  }

  void exited(boost::system::error_code ec, int code) {
    exitSeen = true;
    exitCode = ec ? -1 : code;
    if (!readerDone) {
      boost::system::error_code ignored;
      pipe.cancel(ignored);
      return;
    }
    finish();
  }

  void finish() {
    if (!readerDone || !exitSeen || delivered) return;
    delivered = true;
    boost::system::error_code ignored;
    pipe.close(ignored);
    process.detach();
    {
      std::lock_guard lock(killLock);
      closeFd(killFd);
    }
    running = false;
    auto exitHandler = std::move(onExit);
    onChunk = nullptr;
    onExit = nullptr;
    if (exitHandler) exitHandler(exitCode);
  }

  void kill() {
    std::lock_guard lock(killLock);
    if (killFd >= 0) ::syscall(SYS_pidfd_send_signal, killFd, SIGKILL, nullptr, 0);
  }
};

PXChildProcess::PXChildProcess(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

PXChildProcess::~PXChildProcess() {
  if (impl_->running) impl_->kill();
}

std::shared_ptr<PXChildProcess> PXChildProcess::start(const std::string& path,
                                                      const std::vector<std::string>& arguments,
                                                      const std::optional<std::string>& workingDirectory,
                                                      ChunkHandler onChunk, ExitHandler onExit, std::string* error) {
  PipeFds pipe;
  if (!pipe.open(error)) return nullptr;
  auto pid = launch(path, arguments, workingDirectory, pipe.write, false, error);
  closeFd(pipe.write);
  if (!pid) return nullptr;

  auto impl = std::make_shared<Impl>();
  impl->pid = *pid;
  impl->onChunk = std::move(onChunk);
  impl->onExit = std::move(onExit);
  impl->killFd = static_cast<int>(::syscall(SYS_pidfd_open, *pid, 0));
  try {
    impl->pipe.assign(pipe.read);
    pipe.read = -1;
    impl->process = bp::process(mainContext().get_executor(), *pid);
  } catch (const std::exception& e) {
    if (error) *error = e.what();
    impl->kill();
    ::kill(*pid, SIGKILL);
    int status = 0;
    ::waitpid(*pid, &status, 0);
    std::lock_guard lock(impl->killLock);
    closeFd(impl->killFd);
    impl->running = false;
    return nullptr;
  }
  // The asynchronous operations are started on the main thread only, so the
  // pipe and the process handle are never used from two threads at once.
  PXMainQueue::shared().perform([impl] { impl->begin(); });
  return std::shared_ptr<PXChildProcess>(new PXChildProcess(impl));
}

void PXChildProcess::terminate() { impl_->kill(); }

int PXChildProcess::pid() const { return impl_->pid; }

bool PXChildProcess::isRunning() const { return impl_->running; }

}  // namespace plexa
