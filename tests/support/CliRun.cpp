#include "CliRun.h"

#include "Files.h"

#include <cerrno>
#include <cstdio>
#include <csignal>
#include <cstdlib>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace plexa::test {

namespace {

// Everything exec needs, made before fork: the child only calls exec.
struct Launch {
  std::vector<std::string> strings, environmentStrings;
  std::vector<char*> argv, envp;

  Launch(const std::vector<std::string>& arguments, const Environment& environment) {
    strings.push_back(cliPath());
    strings.insert(strings.end(), arguments.begin(), arguments.end());
    for (char** e = environ; *e; ++e) {
      std::string entry(*e);
      bool replaced = false;
      for (const auto& [name, value] : environment) replaced = replaced || entry.rfind(name + "=", 0) == 0;
      if (!replaced) environmentStrings.push_back(entry);
    }
    for (const auto& [name, value] : environment) environmentStrings.push_back(name + "=" + value);
    for (auto& s : strings) argv.push_back(s.data());
    argv.push_back(nullptr);
    for (auto& s : environmentStrings) envp.push_back(s.data());
    envp.push_back(nullptr);
  }

  [[noreturn]] void exec(int outputFd, int devNull) {
    ::dup2(outputFd, STDOUT_FILENO);
    ::dup2(outputFd, STDERR_FILENO);
    if (devNull >= 0) ::dup2(devNull, STDIN_FILENO);
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
};

int exitCodeOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 1000 + WTERMSIG(status);  // died without handling it
  return -1;
}

}  // namespace

std::string cliPath() { return PLEXA_CLI_PATH; }

std::string fakeSketchtoolPath() { return std::string(PLEXA_TEST_BINARY_DIR) + "/fake-sketchtool"; }

CliResult runCli(const std::vector<std::string>& arguments, const Environment& environment) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return {};
  Launch launch(arguments, environment);
  int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  pid_t pid = ::fork();
  if (pid == 0) launch.exec(fds[1], devNull);
  ::close(fds[1]);
  ::close(devNull);
  CliResult result;
  char buffer[4096];
  for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) != 0;) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    result.output.append(buffer, static_cast<size_t>(n));
  }
  ::close(fds[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  result.exitCode = exitCodeOf(status);
  return result;
}

CliProcess::CliProcess(const std::vector<std::string>& arguments, const Environment& environment,
                       std::string outputFile)
    : outputFile_(std::move(outputFile)) {
  int fd = ::open(outputFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  Launch launch(arguments, environment);
  int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  pid_ = ::fork();
  if (pid_ == 0) launch.exec(fd, devNull);
  ::close(fd);
  ::close(devNull);
}

CliProcess::~CliProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
}

void CliProcess::signal(int number) const { ::kill(pid_, number); }

std::optional<CliResult> CliProcess::wait(std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  int status = 0;
  while (::waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
      pid_ = -1;
      return std::nullopt;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  pid_ = -1;
  return CliResult{exitCodeOf(status), PXFileManager::readFile(outputFile_).value_or("")};
}

std::vector<std::string> entriesOf(const std::string& folder) {
  return PXFileManager::contentsOfDirectory(folder).value_or(std::vector<std::string>{});
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::string runCliShell(const std::string& arguments, const std::string& environment) {
  return runShell(environment + " '" + cliPath() + "' " + arguments).output;
}

CliResult runShell(const std::string& command) {
  CliResult result;
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return result;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.output.append(buffer, n);
  result.exitCode = exitCodeOf(::pclose(pipe));
  return result;
}

Environment withTemp(const std::string& folder, Environment more) {
  PXFileManager::createDirectory(folder + "/tmp", true);
  more.emplace_back("TMPDIR", folder + "/tmp");
  return more;
}

std::string makeSample(const std::string& folder) {
  std::string path = folder + "/Sample.sketch";
  std::string command = std::string("'") + PLEXA_MAKE_SAMPLE_PATH + "' '" + path + "' >/dev/null";
  return std::system(command.c_str()) == 0 ? path : std::string();
}

}  // namespace plexa::test
