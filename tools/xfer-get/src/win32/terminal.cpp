#include "terminal.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <atomic>
#include <cstdio>

namespace xfer_get {
namespace {

constexpr int kInterrupt = 2;  // SIGINT

std::atomic<int> g_signal{0};

BOOL WINAPI onControl(DWORD event) {
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) return FALSE;
  return g_signal.exchange(kInterrupt) != 0 ? FALSE : TRUE;
}

}  // namespace

TerminalSize terminalSize() {
  const HANDLE terminal = ::GetStdHandle(STD_ERROR_HANDLE);
  CONSOLE_SCREEN_BUFFER_INFO info{};
  if (::GetConsoleScreenBufferInfo(terminal, &info) == 0) return {};
  const int columns = info.srWindow.Right - info.srWindow.Left + 1;
  const int rows = info.srWindow.Bottom - info.srWindow.Top + 1;
  // Older consoles write a request to move up as it stands.
  DWORD mode = 0;
  const bool moves = ::GetConsoleMode(terminal, &mode) != 0 &&
                     ::SetConsoleMode(terminal, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
  return {columns > 0 ? static_cast<unsigned>(columns) : 80U, moves && rows > 0 ? static_cast<unsigned>(rows) : 0U};
}

int endingSignal() {
  return g_signal;
}

void watchSignals() {
  ::SetConsoleCtrlHandler(onControl, TRUE);
}

int endBySignal(int signal) {
  constexpr int kFirst = 128;  // as shells count them elsewhere
  return kFirst + signal;
}

void prepareStandardOutput() {
  static_cast<void>(_setmode(_fileno(stdout), _O_BINARY));
}

bool everyFolderHasDevices() {
  return true;
}

}  // namespace xfer_get
