#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

namespace xfer_get {
namespace {

std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

extern "C" void onSignal(int signal) {
  g_interrupted = true;
  std::signal(signal, SIG_DFL);
}

}  // namespace

TerminalSize terminalSize() {
  if (::isatty(STDERR_FILENO) == 0) return {};
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0) size = {};
  // What a terminal of no name, or a dumb one, does with a request to move up is unknown.
  const char* const name = std::getenv("TERM");
  const bool moves = name != nullptr && *name != '\0' && std::strcmp(name, "dumb") != 0;
  return {size.ws_col > 0 ? size.ws_col : 80U, moves ? size.ws_row : 0U};
}

const std::atomic<bool>& interrupted() {
  return g_interrupted;
}

void watchInterrupts() {
  std::signal(SIGINT, onSignal);
  std::signal(SIGTERM, onSignal);
}

void prepareStandardOutput() {
  std::signal(SIGPIPE, SIG_IGN);
}

bool everyFolderHasDevices() {
  return false;
}

}  // namespace xfer_get
