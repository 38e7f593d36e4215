#include "xfer/download_options.h"

#include "option_values.h"
#include "steady_time.h"

namespace xfer {

SpeedLimiter::SpeedLimiter(std::uint64_t bytesPerSec) : limit_(std::make_shared<RateLimit>()) {
  setLimit(bytesPerSec);
}

SpeedLimiter::SpeedLimiter(const SpeedLimiter& other) noexcept = default;

SpeedLimiter& SpeedLimiter::operator=(const SpeedLimiter& other) noexcept = default;

SpeedLimiter::~SpeedLimiter() = default;

void SpeedLimiter::setLimit(std::uint64_t bytesPerSec) noexcept {
  limit_->setRate(bytesPerSec, steadyNs());
}

std::uint64_t SpeedLimiter::limit() const noexcept {
  return limit_->rate();
}

DownloadOptions::DownloadOptions() : values_(std::make_unique<Values>()) {}

DownloadOptions::DownloadOptions(const DownloadOptions& other) : values_(std::make_unique<Values>(*other.values_)) {}

DownloadOptions::DownloadOptions(DownloadOptions&& other) noexcept = default;

DownloadOptions& DownloadOptions::operator=(const DownloadOptions& other) {
  if (this != &other) values_ = std::make_unique<Values>(*other.values_);
  return *this;
}

DownloadOptions& DownloadOptions::operator=(DownloadOptions&& other) noexcept = default;

DownloadOptions::~DownloadOptions() = default;

DownloadOptions& DownloadOptions::setSpeedLimiter(const SpeedLimiter& limiter) {
  values_->sharedLimit = limiter.limit_;
  return *this;
}

const DownloadOptions::Values& DownloadOptions::values() const {
  return *values_;
}

}  // namespace xfer
