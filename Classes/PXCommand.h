#pragma once
// Runs an external program: synchronously, returning everything it printed,
// or streaming its standard output line by line to the main thread.

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace plexa {

class PXChildProcess;

class PXCommand : public std::enable_shared_from_this<PXCommand> {
 public:
  using DataHandler = std::function<void(const std::string& lines)>;
  using Completion = std::function<void()>;

  // Standard output and standard error together, as UTF-8 text; "" (and an
  // error log line) when the program cannot be launched, "" too when the
  // output is not UTF-8. Blocks until the program has ended.
  static std::string runCommand(const std::string& path, const std::vector<std::string>& arguments);
  static std::string runCommand(const std::string& path, const std::optional<std::string>& workingFolder,
                                const std::vector<std::string>& arguments);

  // Starts the program and returns at once. `didReceiveData` gets whole lines
  // (several per call, joined by "\n", without the last line end) and then
  // `completion` runs, all on the main thread. The command keeps itself
  // alive until its completion has run. Throws std::runtime_error when the
  // program cannot be launched.
  static std::shared_ptr<PXCommand> runCommand(const std::string& path, const std::vector<std::string>& arguments,
                                               DataHandler didReceiveData, Completion completion);

  static std::shared_ptr<PXCommand> make();
  // The instance form of the streaming run (the class-level one calls it).
  void start(const std::string& path, const std::vector<std::string>& arguments, DataHandler didReceiveData,
             Completion completion);

  // Terminates the program; the completion still comes.
  void cancel();
  bool isCancelled() const { return cancelled_; }
  // The command line as it could be pasted into a shell: the command and the
  // arguments, blanks inside an argument written as "\ ".
  std::string description() const;

  // Line assembly, main thread only: input is taken whole up to its last
  // "\n"; what follows is kept for the next call. Absent or empty input
  // stands for "\n", which flushes a kept partial line.
  void handleString(const std::optional<std::string>& text);

  ~PXCommand();
  PXCommand(const PXCommand&) = delete;
  PXCommand& operator=(const PXCommand&) = delete;

  DataHandler handler;
  std::string command;
  std::vector<std::string> args;
  const std::optional<std::string>& extraData() const { return extraData_; }

 private:
  PXCommand() = default;
  void receivedData(std::string_view bytes);
  void terminated();

  std::atomic<bool> cancelled_{false};
  std::optional<std::string> extraData_;
  // Bytes of a UTF-8 sequence cut by a read boundary, joined to the next read.
  std::string pendingBytes_;
  Completion completion_;
  mutable std::mutex taskLock_;
  std::shared_ptr<PXChildProcess> task_;
  std::shared_ptr<PXCommand> keepAlive_;
};

}  // namespace plexa
