// What a backend's transfers bring, and how they end.  Bodies are expected to be the pattern.
//
// Threads: any; it must outlive the backend.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "support/pattern.h"
#include "support/wait_until.h"
#include "transfer_backend.h"

namespace support {

struct End {
  std::uint64_t start = 0;
  std::int32_t code = 0;
  std::int32_t status = 0;
  std::uint64_t bytes = 0;

  bool operator==(const End&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const End& end) {
  return out << "{" << end.start << ", " << end.code << ", " << end.status << ", " << end.bytes << "}";
}

inline xfer::TransferRequest rangeOf(const std::string& url, std::uint64_t start, std::uint64_t end) {
  xfer::TransferRequest request;
  request.url = url;
  request.rangeStart = start;
  request.rangeEnd = end;
  return request;
}

class Brought {
 public:
  xfer::Ticket submitTo(xfer::ITransferBackend& backend, const xfer::TransferRequest& request) {
    return backend.submit(
        request,
        [this](std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length) {
          const std::lock_guard lock(mutex_);
          wrong_ = wrong_ ||
                   std::string(reinterpret_cast<const char*>(bytes), length) != patternBytes(offset, offset + length);
          received_ += length;
        },
        [this](std::uint64_t start, const xfer::TransferEnd& end) {
          const std::lock_guard lock(mutex_);
          ends_.push_back({start, end.code, end.status, end.bytes});
        });
  }

  /// All so far, once there are so many.
  std::vector<End> ends(std::size_t count) {
    EXPECT_TRUE(waitUntil([&] {
      const std::lock_guard lock(mutex_);
      return ends_.size() >= count;
    }));
    const std::lock_guard lock(mutex_);
    return ends_;
  }

  std::uint64_t received() {
    const std::lock_guard lock(mutex_);
    EXPECT_FALSE(wrong_) << "bytes that do not belong where they were delivered";
    return received_;
  }

 private:
  std::mutex mutex_;
  std::vector<End> ends_;
  std::uint64_t received_ = 0;
  bool wrong_ = false;
};

}  // namespace support
