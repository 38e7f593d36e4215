#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace xfer_get {
namespace {

std::atomic<int> g_signal{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler sets it");

extern "C" void onSignal(int signal) {
  g_signal = signal;
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

int endingSignal() {
  return g_signal;
}

void watchSignals() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction now {};
    if (::sigaction(signal, nullptr, &now) == 0 && now.sa_handler != SIG_IGN) std::signal(signal, onSignal);
  }
}

int endBySignal(int signal) {
  std::signal(signal, SIG_DFL);
  std::raise(signal);
  constexpr int kFirst = 128;  // as shells count them
  return kFirst + signal;
}

void prepareStandardOutput() {
  std::signal(SIGPIPE, SIG_IGN);
}

bool everyFolderHasDevices() {
  return false;
}

}  // namespace xfer_get
