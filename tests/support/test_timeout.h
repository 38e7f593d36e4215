// How long a test waits at most for something that is about to happen.
//
// Threads: any.
#pragma once

#include <chrono>

namespace support {

/// 20 s times XFER_TEST_TIMEOUT_FACTOR (a number, 1 when unset), which slow surroundings set: sanitizers, Wine.  Only
/// failing tests wait this long.
std::chrono::milliseconds testTimeout();

}  // namespace support
