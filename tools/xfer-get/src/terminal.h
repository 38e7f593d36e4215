// Terminal, signals and standard output.  Each platform has its own implementation.
#pragma once

#include <atomic>

namespace xfer_get {

struct TerminalSize {
  unsigned columns = 0;  ///< the last one may wrap; 0: not a terminal
  unsigned rows = 0;     ///< 0 where the cursor cannot be moved up
};

/// Of the terminal on standard error.
TerminalSize terminalSize();

/// Set when the user interrupts the program.
const std::atomic<bool>& interrupted();

/// Makes Ctrl-C (and SIGTERM, or Ctrl-Break on Windows) set interrupted; a second one ends the program.
void watchInterrupts();

/// Makes standard output binary, and a closed pipe a write error instead of a signal.
void prepareStandardOutput();

/// Whether device names are reserved in every folder, as on Windows.
bool everyFolderHasDevices();

}  // namespace xfer_get
