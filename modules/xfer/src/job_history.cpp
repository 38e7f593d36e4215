#include "job_history.h"

#include <algorithm>

namespace xfer {

JobHistory::JobHistory(std::size_t most) : most_(most) {
  events_.reserve(most);  // so that add never allocates
}

void JobHistory::add(DownloadEvent event, std::uint64_t nowNs) noexcept {
  if (!keeps()) return;
  if (count_ == 0) firstNs_ = nowNs;
  event.number = count_++;
  event.timeNs = nowNs - firstNs_;
  if (events_.size() < most_) {
    events_.push_back(event);
  } else {
    events_[event.number % most_] = event;
  }
}

std::vector<DownloadEvent> JobHistory::from(std::uint64_t number) const {
  std::vector<DownloadEvent> events;
  const std::uint64_t oldest = count_ - events_.size();
  number = std::max(number, oldest);
  if (number >= count_) return events;
  events.reserve(count_ - number);
  for (; number < count_; ++number) events.push_back(events_[number % most_]);
  return events;
}

}  // namespace xfer
