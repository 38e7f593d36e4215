// A speed limit that several download jobs keep together: see DownloadOptions::setSpeedLimiter.
//
// Threads: any thread may call every function.
// Errors:  the constructor throws std::bad_alloc.
// Units:   bytes per second.
#pragma once

#include <cstdint>
#include <memory>

#include "xfer/export.h"

namespace xfer {

class RateLimit;  // internal

/// Copies are one limiter.  It lives as long as a copy or a job that was given one.
class SpeedLimiter {
 public:
  /// 0: unlimited.
  XFER_API explicit SpeedLimiter(std::uint64_t bytesPerSec = 0);
  XFER_API SpeedLimiter(const SpeedLimiter& other) noexcept;
  XFER_API SpeedLimiter& operator=(const SpeedLimiter& other) noexcept;
  XFER_API ~SpeedLimiter();

  /// Counts at once, also for what is running; 0: unlimited.
  XFER_API void setLimit(std::uint64_t bytesPerSec) noexcept;

  /// Bytes per second; 0: unlimited.
  [[nodiscard]] XFER_API std::uint64_t limit() const noexcept;

 private:
  friend class DownloadOptions;
  std::shared_ptr<RateLimit> limit_;
};

}  // namespace xfer
