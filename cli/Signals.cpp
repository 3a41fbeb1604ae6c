#include "Signals.h"

#include "RunFootprint.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace plexa::cli {

namespace {

// Everything below runs while other threads may be stopped inside malloc or
// holding a lock, so it uses system calls and fixed buffers only.

constexpr int kMaxProcesses = 256;
constexpr int kMaxPasses = 8;

std::atomic<int> gStoppedThreads{0};

int stopSignal() { return SIGRTMIN + 6; }

// A thread that receives this stays here until the process exits.
void holdThread(int) {
  gStoppedThreads.fetch_add(1);
  for (;;) ::pause();
}

long millisecondsSince(const timespec& start) {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
}

void sleepMilliseconds(long ms) {
  timespec pause{0, ms * 1000000};
  ::nanosleep(&pause, nullptr);
}

// Calls `visit` with every numeric entry of a /proc folder.
template <typename Visit>
void forEachNumericEntry(const char* folder, Visit visit) {
  int fd = ::open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  alignas(8) char buffer[8192];
  for (;;) {
    long n = ::syscall(SYS_getdents64, fd, buffer, sizeof buffer);
    if (n <= 0) break;
    for (long offset = 0; offset < n;) {
      auto* entry = reinterpret_cast<struct dirent64*>(buffer + offset);
      offset += entry->d_reclen;
      long value = 0;
      const char* c = entry->d_name;
      if (*c < '0' || *c > '9') continue;
      for (; *c >= '0' && *c <= '9'; ++c) value = value * 10 + (*c - '0');
      if (*c == '\0') visit(static_cast<pid_t>(value));
    }
  }
  ::close(fd);
}

void appendNumber(char*& out, long value) {
  char digits[24];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value > 0 && n < 23);
  while (n > 0) *out++ = digits[--n];
}

void appendText(char*& out, const char* text) {
  while (*text) *out++ = *text++;
}

// The parent of `pid` from /proc/<pid>/stat; -1 when it cannot be read.
pid_t parentOf(pid_t pid) {
  char path[64];
  char* end = path;
  appendText(end, "/proc/");
  appendNumber(end, pid);
  appendText(end, "/stat");
  *end = '\0';
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  char buffer[512];
  ssize_t n = ::read(fd, buffer, sizeof buffer - 1);
  ::close(fd);
  if (n <= 0) return -1;
  buffer[n] = '\0';
  // "pid (name) state ppid ...": the name may hold anything, the last ')' ends it.
  char* close = std::strrchr(buffer, ')');
  if (!close || close[1] != ' ' || close[2] == '\0' || close[3] != ' ') return -1;
  long ppid = 0;
  for (const char* c = close + 4; *c >= '0' && *c <= '9'; ++c) ppid = ppid * 10 + (*c - '0');
  return static_cast<pid_t>(ppid);
}

bool contains(const pid_t* pids, int count, pid_t pid) {
  for (int i = 0; i < count; ++i)
    if (pids[i] == pid) return true;
  return false;
}

// This process's children, their children and so on.
int collectDescendants(pid_t root, pid_t* found) {
  int count = 0;
  for (int pass = 0; pass < kMaxPasses; ++pass) {
    int before = count;
    forEachNumericEntry("/proc", [&](pid_t pid) {
      if (count >= kMaxProcesses || pid == root || contains(found, count, pid)) return;
      pid_t parent = parentOf(pid);
      if (parent == root || (parent > 0 && contains(found, count, parent))) found[count++] = pid;
    });
    if (count == before) break;
  }
  return count;
}

// Kills every descendant and waits (briefly) until each has ended, so that
// none is still working when the program's exit is seen.
void killDescendants() {
  pid_t pids[kMaxProcesses];
  int count = collectDescendants(::getpid(), pids);
  struct pollfd waits[kMaxProcesses];
  int waiting = 0;
  for (int i = 0; i < count; ++i) {
    int fd = static_cast<int>(::syscall(SYS_pidfd_open, pids[i], 0));
    if (fd < 0) {
      ::kill(pids[i], SIGKILL);
      continue;
    }
    ::syscall(SYS_pidfd_send_signal, fd, SIGKILL, nullptr, 0);
    waits[waiting++] = pollfd{fd, POLLIN, 0};
  }
  timespec start{};
  ::clock_gettime(CLOCK_MONOTONIC, &start);
  for (int i = 0; i < waiting; ++i) {
    long left = 300 - millisecondsSince(start);
    if (left > 0) ::poll(&waits[i], 1, static_cast<int>(left));
    ::close(waits[i].fd);
  }
}

// Stops every other thread of this process where it is, so nothing writes
// after the footprint is removed.
void stopOtherThreads() {
  pid_t self = static_cast<pid_t>(::syscall(SYS_gettid));
  pid_t process = ::getpid();
  int signalled = 0;
  forEachNumericEntry("/proc/self/task", [&](pid_t tid) {
    if (tid == self) return;
    if (::syscall(SYS_tgkill, process, tid, stopSignal()) == 0) ++signalled;
  });
  timespec start{};
  ::clock_gettime(CLOCK_MONOTONIC, &start);
  while (gStoppedThreads.load() < signalled && millisecondsSince(start) < 300) sleepMilliseconds(1);
}

void writeAll(const char* text, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(STDERR_FILENO, text, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    text += n;
    size -= static_cast<size_t>(n);
  }
}

void sayStopped(const char* signalName) {
  char line[256];
  char* out = line;
  // A progress bar may be on the line: start a fresh one.
  if (::isatty(STDERR_FILENO)) appendText(out, "\r\033[K");
  appendText(out, "plexa-extract: stopped by ");
  appendText(out, signalName);
  appendText(out, "; what this run had written is removed\n");
  writeAll(line, static_cast<size_t>(out - line));
}

void takeSignals(sigset_t set) {
  int signal = 0;
  while (::sigwait(&set, &signal) != 0) {
  }
  // Worked out before the other threads stop: they may hold the allocator.
  const std::string name = SignalGuard::nameOf(signal);
  SignalGuard::stopRun();
  sayStopped(name.c_str());
  ::_exit(128 + signal);
}

void unblockInChild() {
  sigset_t set;
  ::sigemptyset(&set);
  for (int signal : SignalGuard::endingSignals()) ::sigaddset(&set, signal);
  ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  ::signal(SIGPIPE, SIG_DFL);
}

}  // namespace

const std::vector<int>& SignalGuard::endingSignals() {
  static const std::vector<int> signals{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};
  return signals;
}

std::string SignalGuard::nameOf(int signal) {
  switch (signal) {
    case SIGINT: return "SIGINT";
    case SIGTERM: return "SIGTERM";
    case SIGHUP: return "SIGHUP";
    case SIGQUIT: return "SIGQUIT";
    case SIGUSR1: return "SIGUSR1";
    case SIGUSR2: return "SIGUSR2";
    default: return "signal " + std::to_string(signal);
  }
}

void SignalGuard::install() {
  sigset_t set;
  ::sigemptyset(&set);
  for (int signal : endingSignals()) ::sigaddset(&set, signal);
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  ::signal(SIGPIPE, SIG_IGN);

  struct sigaction hold {};
  hold.sa_handler = holdThread;
  ::sigfillset(&hold.sa_mask);
  ::sigaction(stopSignal(), &hold, nullptr);

  ::pthread_atfork(nullptr, nullptr, unblockInChild);
  std::thread(takeSignals, set).detach();
}

void SignalGuard::stopRun() noexcept {
  // Threads first: a thread that saw its child die would otherwise carry on
  // and deliver a run that is being stopped.
  stopOtherThreads();
  killDescendants();
  RunFootprint::shared().removeAll();
}

}  // namespace plexa::cli
