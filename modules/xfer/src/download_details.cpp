#include "xfer/download_details.h"

#include <utility>

#include "details_values.h"

namespace xfer {

DownloadDetails::DownloadDetails(std::unique_ptr<Values> values) : values_(std::move(values)) {}

DownloadDetails::DownloadDetails(DownloadDetails&& other) noexcept = default;

DownloadDetails& DownloadDetails::operator=(DownloadDetails&& other) noexcept = default;

DownloadDetails::~DownloadDetails() = default;

std::vector<RangeDetails> DownloadDetails::ranges() const {
  return values_->ranges;
}

std::vector<MissingRange> DownloadDetails::missing() const {
  return values_->missing;
}

std::vector<GivenUpConnection> DownloadDetails::givenUp() const {
  return values_->givenUp;
}

std::uint64_t DownloadDetails::givenUpCount() const {
  return values_->counters.replaced;
}

std::uint64_t DownloadDetails::movedBytes() const {
  return values_->counters.stolenBytes;
}

std::uint64_t DownloadDetails::duplicateBytes() const {
  return values_->counters.duplicateBytes;
}

std::uint64_t DownloadDetails::retries() const {
  return values_->counters.retries;
}

std::uint64_t DownloadDetails::hostConnections() const {
  return values_->hostConnections;
}

std::uint64_t DownloadDetails::hostLeftAloneMs() const {
  return values_->hostLeftAloneMs;
}

std::string DownloadDetails::failureText() const {
  return values_->failureText;
}

std::string DownloadDetails::contentEncoding() const {
  return values_->contentEncoding;
}

}  // namespace xfer
