#pragma once
// Child processes: a blocking run that collects standard output and standard
// error together, and a running child whose standard output is read on the
// main queue while it runs.
//
// Programs are started by path, as given: no shell and no PATH search. The
// child inherits the environment; standard input is inherited too.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plexa {

struct PXProcessOutput {
  // False when the program could not be started; `error` says why.
  bool launched = false;
  std::string error;
  // Standard output and standard error, interleaved as the program wrote them.
  std::string output;
  // The exit status, or 128 + signal number when a signal ended it.
  int exitCode = -1;
};

// Where the children started from now on write their error output: the
// program's own stderr (-1, the default), or this descriptor, for a host that
// shows their messages itself.
void PXSetChildErrorDescriptor(int fd);

// Starts the program and blocks the calling thread until it has closed its
// output and exited. Safe on any thread, several at once.
PXProcessOutput PXRunProcess(const std::string& path, const std::vector<std::string>& arguments,
                             const std::optional<std::string>& workingDirectory = std::nullopt);

// A running child. Its standard output is read asynchronously on the main
// queue; standard error is inherited. Every handler runs on the main thread:
// `onChunk` once per piece of output, in order, then `onExit` exactly once,
// after the last piece, with the exit status (or the number of the signal
// that ended the program; -1 when it could not be learnt). Output that a left-over grandchild writes after the
// child itself has ended is not waited for.
class PXChildProcess {
 public:
  using ChunkHandler = std::function<void(std::string_view bytes)>;
  using ExitHandler = std::function<void(int exitCode)>;

  // Launches the program; nullptr, with the reason in `error`, when it cannot
  // be started (no such file, not executable). May be called on any thread.
  static std::shared_ptr<PXChildProcess> start(const std::string& path, const std::vector<std::string>& arguments,
                                               const std::optional<std::string>& workingDirectory,
                                               ChunkHandler onChunk, ExitHandler onExit, std::string* error = nullptr);

  // Kills the program and anything it started in its process group. Any
  // thread; harmless once it has ended. `onExit` still comes.
  void terminate();
  int pid() const;
  // False once the exit has been delivered.
  bool isRunning() const;

  // Destroying a running child terminates it; its handlers still run once.
  ~PXChildProcess();
  PXChildProcess(const PXChildProcess&) = delete;
  PXChildProcess& operator=(const PXChildProcess&) = delete;

  struct Impl;

 private:
  explicit PXChildProcess(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> impl_;
};

}  // namespace plexa
