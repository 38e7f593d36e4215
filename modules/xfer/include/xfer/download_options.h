// What a download job can do beside its policy.  A job whose options are not set behaves as one without options.
//
// Threads: a plain value.
// Errors:  std::bad_alloc.
#pragma once

#include <memory>

#include "xfer/export.h"
#include "xfer/speed_limiter.h"

namespace xfer {

/// Grows without breaking hosts that are built already.  A moved-from object may only be destroyed or assigned to.
class DownloadOptions {
 public:
  struct Values;  ///< internal

  XFER_API DownloadOptions();
  XFER_API DownloadOptions(const DownloadOptions& other);
  XFER_API DownloadOptions(DownloadOptions&& other) noexcept;
  XFER_API DownloadOptions& operator=(const DownloadOptions& other);
  XFER_API DownloadOptions& operator=(DownloadOptions&& other) noexcept;
  XFER_API ~DownloadOptions();

  /// A limit that this job keeps together with every other job that is given the same limiter: the sum of their speeds
  /// does not exceed it, but for 100 ms' worth after a lull, and they pass their pieces in turn.  It counts beside the
  /// job's own limit.
  XFER_API DownloadOptions& setSpeedLimiter(const SpeedLimiter& limiter);

  [[nodiscard]] const Values& values() const;  ///< internal

 private:
  std::unique_ptr<Values> values_;
};

}  // namespace xfer
