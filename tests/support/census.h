// What this process holds of the operating system, to see that nothing stays behind.  One twin a platform.
//
// Threads: any.  What other threads start or open meanwhile is counted or not.
// Errors:  std::runtime_error when the platform does not tell.
#pragma once

#include <cstddef>

namespace support {

/// Threads of this process, with the caller's own.
std::size_t threadCount();

/// Open descriptors; on Windows, open handles of any kind.
std::size_t openHandleCount();

}  // namespace support
