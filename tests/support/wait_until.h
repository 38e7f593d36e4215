// Bounded polling, for conditions that nobody announces.
//
// Threads: any; the predicate runs on the caller's thread.
#pragma once

#include <chrono>
#include <thread>

#include "support/test_timeout.h"

namespace support {

/// Whether predicate() came true before the time was over.  It is asked at least once.
template <class Predicate>
[[nodiscard]] bool waitUntil(Predicate predicate, std::chrono::milliseconds timeout = testTimeout()) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace support
