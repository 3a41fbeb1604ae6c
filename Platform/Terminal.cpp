#include "Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <cstring>

namespace plexa {

namespace {

int descriptorOf(PXStandardStream stream) { return stream == PXStandardStream::output ? STDOUT_FILENO : STDERR_FILENO; }

}  // namespace

bool PXIsTerminal(PXStandardStream stream) { return ::isatty(descriptorOf(stream)) == 1; }

int PXTerminalColumns(PXStandardStream stream) {
  winsize size{};
  if (::ioctl(descriptorOf(stream), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  if (const char* columns = std::getenv("COLUMNS")) {
    int value = 0;
    auto [end, ec] = std::from_chars(columns, columns + std::strlen(columns), value);
    if (ec == std::errc() && value > 0) return value;
  }
  return 80;
}

}  // namespace plexa
