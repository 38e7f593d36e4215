// Terminal, signals and standard output.  Each platform has its own implementation.
#pragma once

namespace xfer_get {

struct TerminalSize {
  unsigned columns = 0;  ///< the last one may wrap; 0: not a terminal
  unsigned rows = 0;     ///< 0 where the cursor cannot be moved up
};

/// Of the terminal on standard error.
TerminalSize terminalSize();

/// The number of the signal that asked the program to end; 0: none did.
int endingSignal();

/// Makes SIGINT, SIGTERM and SIGHUP (Ctrl-C and Ctrl-Break on Windows, as SIGINT) set endingSignal; a second one ends
/// the program.  One that whoever started the program ignores stays ignored.
void watchSignals();

/// Ends the program as the signal would have, so that whoever started it sees that; where there is no such thing it
/// returns the exit code that stands for it.
int endBySignal(int signal);

/// Makes standard output binary, and a closed pipe a write error instead of a signal.
void prepareStandardOutput();

/// Whether device names are reserved in every folder, as on Windows.
bool everyFolderHasDevices();

}  // namespace xfer_get
