// What DownloadOptions holds, and which of it cannot work.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "adaptive_plan.h"
#include "job_core.h"
#include "rate_limit.h"
#include "tls_trust.h"
#include "xfer/download_options.h"
#include "xfer/download_records.h"

namespace xfer {

struct DownloadOptions::Values {
  static constexpr std::size_t kMostEvents = 16777216;
  static constexpr std::size_t kMostNews = 1024;
  static constexpr std::uint32_t kDefaultProgressMs = 100;

  bool given = false;                        ///< by a host: a job without options has none of these abilities
  std::shared_ptr<RateLimit> sharedLimit{};  ///< null: none
  DownloadPlan plan = DownloadPlan::Stated;
  std::optional<std::uint32_t> maxTries{};
  std::optional<std::uint32_t> retryMaxSec{};
  std::optional<std::uint32_t> longestWaitSec{};
  std::optional<std::uint64_t> firstRange{};
  std::size_t history = 0;
  std::function<void(const DownloadUpdate&)> onUpdate{};  ///< empty: nothing is told
  std::optional<std::uint32_t> progressMs{};
  std::optional<DownloadNotes> notes{};
  TlsTrust trust{};
  std::string userAgent{};

  /// 0: progress is not told.
  [[nodiscard]] std::chrono::milliseconds progressInterval() const;

  /// The name of an option that cannot work, alone or with the others; null when all can.
  [[nodiscard]] const char* unworkable() const;

  /// Also of options that the job is then refused for.
  [[nodiscard]] CoreOptions forCore(const DownloadPolicy& policy, std::uint64_t seed) const;

 private:
  [[nodiscard]] std::optional<AdaptiveSettings> adaptive(const DownloadPolicy& policy, std::uint64_t seed) const;
};

}  // namespace xfer
