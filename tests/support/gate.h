// A door that a test opens once, and that others wait at.
//
//   closed --open--> open      (open is final)
//
// A Gate is a handle: copies stand for the same door, which lives as long as one of them.
//
// Threads: every function may be called from any thread at any time.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "support/test_timeout.h"

namespace support {

class Gate {
 public:
  Gate();

  void open();
  [[nodiscard]] bool isOpen() const;

  /// Whether the gate was opened before the time was over.
  [[nodiscard]] bool wait(std::chrono::milliseconds timeout = testTimeout()) const;

  /// Runs function once, on the thread that opens the gate; at once when it is open already.
  void whenOpen(std::function<void()> function) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace support
