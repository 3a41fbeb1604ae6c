#include "PXCommand.h"

#include "Log.h"
#include "MainQueue.h"
#include "Process.h"

#include <stdexcept>

namespace plexa {

namespace {

// Length of the sequence a UTF-8 lead byte starts, 0 for a byte that cannot lead.
size_t sequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

bool isContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// Strict UTF-8: no overlong forms, no surrogates, nothing past U+10FFFF.
bool isValidUTF8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    auto lead = static_cast<unsigned char>(text[i]);
    size_t length = sequenceLength(lead);
    if (length == 0 || i + length > text.size()) return false;
    for (size_t k = 1; k < length; ++k)
      if (!isContinuation(static_cast<unsigned char>(text[i + k]))) return false;
    auto second = static_cast<unsigned char>(text[i + 1 < text.size() ? i + 1 : i]);
    if (lead == 0xE0 && second < 0xA0) return false;
    if (lead == 0xED && second > 0x9F) return false;
    if (lead == 0xF0 && second < 0x90) return false;
    if (lead == 0xF4 && second > 0x8F) return false;
    i += length;
  }
  return true;
}

// How many bytes at the end begin a sequence that the next read will finish.
size_t incompleteTail(std::string_view bytes) {
  size_t back = 0;
  while (back < bytes.size() && back < 3) {
    auto c = static_cast<unsigned char>(bytes[bytes.size() - 1 - back]);
    if (!isContinuation(c)) {
      size_t length = sequenceLength(c);
      return length > back + 1 ? back + 1 : 0;
    }
    ++back;
  }
  return 0;
}

}  // namespace

std::string PXCommand::runCommand(const std::string& path, const std::vector<std::string>& arguments) {
  return runCommand(path, std::nullopt, arguments);
}

std::string PXCommand::runCommand(const std::string& path, const std::optional<std::string>& workingFolder,
                                  const std::vector<std::string>& arguments) {
  PXProcessOutput result = PXRunProcess(path, arguments, workingFolder);
  if (!result.launched) {
    PXLogError("Caught exception trying to launch task at path: [{}]. Exception: [{}]", path, result.error);
    return "";
  }
  return isValidUTF8(result.output) ? result.output : "";
}

std::shared_ptr<PXCommand> PXCommand::runCommand(const std::string& path, const std::vector<std::string>& arguments,
                                                 DataHandler didReceiveData, Completion completion) {
  auto command = make();
  command->start(path, arguments, std::move(didReceiveData), std::move(completion));
  return command;
}

std::shared_ptr<PXCommand> PXCommand::make() { return std::shared_ptr<PXCommand>(new PXCommand()); }

void PXCommand::start(const std::string& path, const std::vector<std::string>& arguments,
                      DataHandler didReceiveData, Completion completion) {
  handler = std::move(didReceiveData);
  command = path;
  args = arguments;
  completion_ = std::move(completion);

  std::weak_ptr<PXCommand> weak = weak_from_this();
  keepAlive_ = shared_from_this();
  std::string error;
  auto task = PXChildProcess::start(
      path, arguments, std::nullopt,
      [weak](std::string_view bytes) {
        if (auto self = weak.lock()) self->receivedData(bytes);
      },
      [weak](int) {
        if (auto self = weak.lock()) self->terminated();
      },
      &error);
  if (!task) {
    keepAlive_.reset();
    throw std::runtime_error("cannot launch " + path + ": " + error);
  }
  std::lock_guard lock(taskLock_);
  task_ = std::move(task);
  if (cancelled_) task_->terminate();
}

void PXCommand::receivedData(std::string_view bytes) {
  std::string data = std::move(pendingBytes_);
  pendingBytes_.clear();
  data.append(bytes);
  size_t tail = incompleteTail(data);
  pendingBytes_ = data.substr(data.size() - tail);
  data.resize(data.size() - tail);
  // Output that is not UTF-8 reads as no text at all.
  if (!data.empty() && isValidUTF8(data)) handleString(data);
}

void PXCommand::handleString(const std::optional<std::string>& text) {
  std::string input = (!text || text->empty()) ? std::string("\n") : *text;
  if (extraData_ && !extraData_->empty()) {
    input = *extraData_ + input;
    extraData_.reset();
  }
  size_t lastBreak = input.rfind('\n');
  std::string rest = lastBreak == std::string::npos ? input : input.substr(lastBreak + 1);
  std::string lines = lastBreak == std::string::npos ? std::string() : input.substr(0, lastBreak);
  extraData_ = rest.empty() ? std::nullopt : std::optional<std::string>(std::move(rest));
  if (!lines.empty() && handler) handler(lines);
}

void PXCommand::terminated() {
  // A sequence still cut short at the very end is not text.
  pendingBytes_.clear();
  handleString(std::nullopt);
  auto completion = std::move(completion_);
  completion_ = nullptr;
  if (completion) completion();
  {
    std::lock_guard lock(taskLock_);
    task_.reset();
  }
  // Last: this may release the command itself.
  auto self = std::move(keepAlive_);
}

void PXCommand::cancel() {
  cancelled_ = true;
  std::lock_guard lock(taskLock_);
  if (task_) task_->terminate();
}

std::string PXCommand::description() const {
  std::string joined;
  for (size_t i = 0; i < args.size(); ++i) {
    if (i > 0) joined += ' ';
    for (char c : args[i]) {
      if (c == ' ') joined += '\\';
      joined += c;
    }
  }
  return command + " " + joined;
}

PXCommand::~PXCommand() {
  if (!cancelled_) cancel();
}

}  // namespace plexa
