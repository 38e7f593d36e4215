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

unsigned terminalColumns() {
  CONSOLE_SCREEN_BUFFER_INFO info{};
  if (!::GetConsoleScreenBufferInfo(::GetStdHandle(STD_ERROR_HANDLE), &info)) return 0;
  const int columns = info.srWindow.Right - info.srWindow.Left;  // one less than the width: the last column would wrap
  return columns > 0 ? static_cast<unsigned>(columns) : 79;
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
