#pragma once
// Running the plexa-extract program from tests: with arguments as a list
// (no shell), extra environment, output captured, and a handle for runs
// that a test signals while they work.

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace plexa::test {

using Environment = std::vector<std::pair<std::string, std::string>>;

struct CliResult {
  int exitCode = -1;   // 128 + N when signal N ended the program itself
  std::string output;  // stdout and stderr together
};

std::string cliPath();
std::string fakeSketchtoolPath();

// Runs the program to its end.
CliResult runCli(const std::vector<std::string>& arguments, const Environment& environment = {});

// A run in the background; its output goes to a file.
class CliProcess {
 public:
  CliProcess(const std::vector<std::string>& arguments, const Environment& environment, std::string outputFile);
  ~CliProcess();
  CliProcess(const CliProcess&) = delete;
  CliProcess& operator=(const CliProcess&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number) const;
  // The result once it ended within `timeout`; nothing (and the program
  // killed) otherwise.
  std::optional<CliResult> wait(std::chrono::milliseconds timeout);

 private:
  pid_t pid_ = -1;
  std::string outputFile_;
};

// The same through the shell, for tests that write their command line as
// one string; stdout and stderr together.
std::string runCliShell(const std::string& arguments, const std::string& environment = "");
// Any shell command line, run to its end; stdout and stderr together.
CliResult runShell(const std::string& command);

// An environment giving the program a temporary folder of its own,
// `folder`/tmp (made here), so that leftovers can be counted.
Environment withTemp(const std::string& folder, Environment more = {});

// A fresh copy of the sample document in `folder`, made by its generator.
std::string makeSample(const std::string& folder);

// Entry names of a folder, sorted; empty when it does not exist.
std::vector<std::string> entriesOf(const std::string& folder);
bool contains(const std::string& text, const std::string& part);

}  // namespace plexa::test
