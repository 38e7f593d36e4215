// Cancels requests from another thread: see FetchOptions::setCancelToken.
//
// Threads: any thread may call every function.
// Errors:  the constructor throws std::bad_alloc.
#pragma once

#include <memory>

#include "xfer/export.h"

namespace xfer {

class StopSignal;  // internal

/// Copies are one token.  It lives as long as a copy or a request that was given one.
class CancelToken {
 public:
  XFER_API CancelToken();
  XFER_API CancelToken(const CancelToken& other) noexcept;
  XFER_API CancelToken& operator=(const CancelToken& other) noexcept;
  XFER_API ~CancelToken();

  /// Ends every request that was given the token within 100 ms, with 42, and every later one at once.  Not for signal
  /// handlers, as it takes a lock.
  XFER_API void cancel() noexcept;

  /// Whether cancel was called, on any copy.
  [[nodiscard]] XFER_API bool cancelled() const noexcept;

 private:
  friend class FetchOptions;
  std::shared_ptr<StopSignal> signal_;
};

}  // namespace xfer
