#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>

namespace xfer_get {
namespace {

std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

extern "C" void onSignal(int signal) {
  g_interrupted = true;
  std::signal(signal, SIG_DFL);
}

}  // namespace

unsigned terminalColumns() {
  if (::isatty(STDERR_FILENO) == 0) return 0;
  winsize size{};
  return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
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
