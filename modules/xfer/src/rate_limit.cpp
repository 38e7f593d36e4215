#include "rate_limit.h"

#include <algorithm>
#include <utility>

namespace xfer {
namespace {

constexpr double kSavedSec = 0.1;

}  // namespace

void RateLimit::setRate(std::uint64_t bytesPerSec, std::uint64_t nowNs) noexcept {
  const sys::MutexLock lock(mutex_);
  advance(nowNs);
  rate_ = bytesPerSec;
  isSet_ = true;
  serve();
}

bool RateLimit::ask(Place& place, std::uint64_t size, std::uint64_t nowNs) noexcept {
  if (rate_ == 0 && place.limit == nullptr) return true;
  const sys::MutexLock lock(mutex_);
  advance(nowNs);
  if (size > place.granted) {
    if (place.wanted == 0) {
      place.limit = this;
      place.before = last_;
      (last_ != nullptr ? last_->behind : first_) = &place;
      last_ = &place;
    }
    place.wanted = size - place.granted;
  }
  serve();
  return place.wanted == 0;  // while it waits, another thread may grant it more
}

bool RateLimit::isServed(const Place& place, std::uint64_t nowNs) noexcept {
  const sys::MutexLock lock(mutex_);
  advance(nowNs);
  serve();
  return place.wanted == 0;
}

void RateLimit::release(Place& place) noexcept {
  const sys::MutexLock lock(mutex_);
  if (place.wanted != 0) unlink(place);
  tokens_ += static_cast<double>(place.granted);
  place = {};
  serve();
}

void RateLimit::advance(std::uint64_t nowNs) noexcept {
  const auto rate = static_cast<double>(rate_.load());
  const bool runs = atNs_ != 0 && nowNs > atNs_;  // threads bring their times in any order
  if (runs) tokens_ += static_cast<double>(nowNs - atNs_) / 1e9 * rate;
  const double needed = first_ != nullptr ? static_cast<double>(first_->wanted) : 0;
  tokens_ = std::min(tokens_, rate * kSavedSec + needed);
  atNs_ = std::max(atNs_, nowNs);
}

void RateLimit::serve() noexcept {
  while (first_ != nullptr) {
    const auto wanted = static_cast<double>(first_->wanted);
    if (rate_ != 0) {
      if (tokens_ < wanted) return;
      tokens_ -= wanted;
    }
    Place& place = *first_;
    unlink(place);
    place.granted += std::exchange(place.wanted, 0);
  }
}

void RateLimit::unlink(Place& place) noexcept {
  (place.before != nullptr ? place.before->behind : first_) = place.behind;
  (place.behind != nullptr ? place.behind->before : last_) = place.before;
  place.before = place.behind = nullptr;
}

std::uint64_t SpeedLimits::lowest() const noexcept {
  const std::uint64_t ofJob = own != nullptr ? own->rate() : 0;
  const std::uint64_t ofAll = shared != nullptr ? shared->rate() : 0;
  return ofJob == 0 || ofAll == 0 ? std::max(ofJob, ofAll) : std::min(ofJob, ofAll);
}

bool PieceGate::opensFor(const SpeedLimits& limits, std::uint64_t size, std::uint64_t nowNs) noexcept {
  bool open = limits.own == nullptr || limits.own->ask(places_[0], size, nowNs);
  if (limits.shared != nullptr) open = limits.shared->ask(places_[1], size, nowNs) && open;
  return open;
}

bool PieceGate::isOpen(std::uint64_t nowNs) const noexcept {
  return std::all_of(places_.begin(), places_.end(), [nowNs](const RateLimit::Place& place) {
    return place.limit == nullptr || place.limit->isServed(place, nowNs);
  });
}

void PieceGate::passed(std::uint64_t size) noexcept {
  for (RateLimit::Place& place : places_) place.granted -= std::min(size, place.granted);
}

void PieceGate::leave() noexcept {
  for (RateLimit::Place& place : places_) {
    if (place.limit != nullptr) place.limit->release(place);
  }
}

}  // namespace xfer
