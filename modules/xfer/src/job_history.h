// Numbers the events of a download job, and keeps the latest ones.
//
// Threads: one at a time.
// Errors:  the constructor and from throw std::bad_alloc; add does not throw.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "xfer/download_history.h"

namespace xfer {

class JobHistory {
 public:
  /// Keeps the latest so many; 0: none.
  explicit JobHistory(std::size_t most);

  [[nodiscard]] bool keeps() const { return most_ != 0; }

  /// So far, kept or not.
  [[nodiscard]] std::uint64_t count() const { return count_; }

  /// nowNs is monotonic; the event's number and time are set here.
  void add(DownloadEvent event, std::uint64_t nowNs) noexcept;

  /// The kept ones with this number or a higher one, oldest first.
  [[nodiscard]] std::vector<DownloadEvent> from(std::uint64_t number) const;

 private:
  const std::size_t most_;
  std::uint64_t count_ = 0;  // so far
  std::uint64_t firstNs_ = 0;
  std::vector<DownloadEvent> events_;  // number n stands at n % most_
};

}  // namespace xfer
