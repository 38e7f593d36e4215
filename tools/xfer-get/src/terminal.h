// What the program needs of the terminal and the operating system.  One twin a platform implements it.
#pragma once

#include <atomic>

namespace xfer_get {

/// Columns of the terminal that standard error is; 0 when it is none.
unsigned terminalColumns();

/// Set once the user asked the program to end.
const std::atomic<bool>& interrupted();

/// Makes Ctrl-C (and a polite request to end) set interrupted instead of ending the program; a second one ends it.
void watchInterrupts();

/// Bytes written to standard output come out as they are, and a reader that goes away is an error and not a signal.
void prepareStandardOutput();

/// Whether some names are those of devices in every folder.
bool everyFolderHasDevices();

}  // namespace xfer_get
