#include "terminal.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdio>

namespace xfer_get {
namespace {

std::atomic<bool> g_interrupted{false};

BOOL WINAPI onControl(DWORD event) {
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) return FALSE;
  return g_interrupted.exchange(true) ? FALSE : TRUE;
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

const std::atomic<bool>& interrupted() {
  return g_interrupted;
}

void watchInterrupts() {
  ::SetConsoleCtrlHandler(onControl, TRUE);
}

void prepareStandardOutput() {
  static_cast<void>(_setmode(_fileno(stdout), _O_BINARY));
}

bool everyFolderHasDevices() {
  return true;
}

}  // namespace xfer_get
