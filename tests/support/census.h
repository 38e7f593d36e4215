// What this process holds of the operating system, to see that nothing stays behind.  One twin a platform.
//
// Some things come with the first use and stay: what the network keeps open with the first socket, the thread
// sanitizer's own thread with the first thread.  So do what is measured once before the first count.  The system may
// list a joined thread for a moment still: make the first count while the threads that came before it live (or before
// there were any), and wait until the last count is right.
//
// Threads: any.  What other threads start or open meanwhile is counted or not.
// Errors:  std::runtime_error when the platform does not tell.
#pragma once

#include <cstddef>

namespace support {

/// Threads of this process, with the caller's own.
std::size_t threadCount();

/// Open files, sockets and pipes.  On Windows that leaves out the events and semaphores that locks keep once a thread
/// had to wait for them.
std::size_t openFileCount();

}  // namespace support
