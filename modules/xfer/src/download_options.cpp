#include "xfer/download_options.h"

#include <utility>

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

DownloadOptions::DownloadOptions() : values_(std::make_unique<Values>()) {
  values_->given = true;
}

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

DownloadOptions& DownloadOptions::setPlan(DownloadPlan plan) {
  values_->plan = plan;
  return *this;
}

DownloadOptions& DownloadOptions::setMaxTries(std::uint32_t tries) {
  values_->maxTries = tries;
  return *this;
}

DownloadOptions& DownloadOptions::setRetryMaxTime(std::uint32_t seconds) {
  values_->retryMaxSec = seconds;
  return *this;
}

DownloadOptions& DownloadOptions::setLongestWait(std::uint32_t seconds) {
  values_->longestWaitSec = seconds;
  return *this;
}

DownloadOptions& DownloadOptions::setFirstRange(std::uint64_t bytes) {
  values_->firstRange = bytes;
  return *this;
}

DownloadOptions& DownloadOptions::setHistory(std::size_t events) {
  values_->history = events;
  return *this;
}

DownloadOptions& DownloadOptions::setOnUpdate(std::function<void(const DownloadUpdate&)> callback) {
  values_->onUpdate = std::move(callback);
  return *this;
}

DownloadOptions& DownloadOptions::setProgressInterval(std::uint32_t milliseconds) {
  values_->progressMs = milliseconds;
  return *this;
}

DownloadOptions& DownloadOptions::setNotes(DownloadNotes notes) {
  values_->notes = notes;
  return *this;
}

DownloadOptions& DownloadOptions::setVerifyPeer(bool verify) {
  values_->trust.verifyPeer = verify;
  return *this;
}

DownloadOptions& DownloadOptions::setCaFile(const std::string& path) {
  values_->trust.caFile = path;
  return *this;
}

DownloadOptions& DownloadOptions::setPinnedKey(const std::string& pin) {
  values_->trust.pinnedKey = pin;
  return *this;
}

DownloadOptions& DownloadOptions::setUserAgent(const std::string& userAgent) {
  values_->userAgent = userAgent;
  return *this;
}

std::chrono::milliseconds DownloadOptions::Values::progressInterval() const {
  return std::chrono::milliseconds(progressMs.value_or(kDefaultProgressMs));
}

const char* DownloadOptions::Values::unworkable() const {
  if (plan != DownloadPlan::Stated && plan != DownloadPlan::Adaptive) return "plan";
  const bool moves = plan == DownloadPlan::Adaptive;
  if (maxTries && (!moves || *maxTries == 0)) return "maxTries";
  if (retryMaxSec && !moves) return "retryMaxTime";
  if (longestWaitSec && !moves) return "longestWait";
  if (firstRange && (!moves || *firstRange == 0)) return "firstRange";
  if (history > kMostEvents) return "history";
  if (progressMs && !onUpdate) return "progressInterval";
  if (notes && (!onUpdate || *notes > DownloadNotes::All)) return "notes";
  return trust.unworkable();
}

std::optional<AdaptiveSettings> DownloadOptions::Values::adaptive(const DownloadPolicy& policy,
                                                                  std::uint64_t seed) const {
  constexpr std::uint64_t kNsPerSec = 1'000'000'000;
  if (plan != DownloadPlan::Adaptive) return std::nullopt;
  AdaptiveSettings settings;
  settings.connections = policy.numThreads;
  if (firstRange) settings.firstPiece = *firstRange;
  if (maxTries) settings.maxTries = *maxTries;
  if (retryMaxSec) settings.retryMaxNs = *retryMaxSec * kNsPerSec;
  if (longestWaitSec) settings.longestWaitNs = *longestWaitSec * kNsPerSec;
  settings.seed = seed;
  return settings;
}

CoreOptions DownloadOptions::Values::forCore(const DownloadPolicy& policy, std::uint64_t seed) const {
  CoreOptions options;
  options.adaptive = adaptive(policy, seed);
  if (history <= kMostEvents) options.history = history;
  if (onUpdate) options.news = kMostNews;
  options.everyNote = notes == DownloadNotes::All;
  options.keepsPauses = given;
  return options;
}

const DownloadOptions::Values& DownloadOptions::values() const {
  return *values_;
}

}  // namespace xfer
