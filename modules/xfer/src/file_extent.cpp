#include "file_extent.h"

namespace xfer {

FileExtent::Fit FileExtent::judgeTotal(std::uint64_t total) const {
  if (total_) return *total_ == total ? Fit::Fits : Fit::Contradicts;
  if (length_) return *length_ == total ? Fit::Fits : Fit::Replaces;
  if (probe_) return probe_->size == total ? Fit::Fits : Fit::Replaces;
  return Fit::Fits;
}

void FileExtent::confirmTotal(std::uint64_t total) {
  total_ = total;
}

FileExtent::Fit FileExtent::judgeLength(std::optional<std::uint64_t> length) const {
  if (!length) return Fit::Fits;
  if (total_) return *total_ == *length ? Fit::Fits : Fit::Contradicts;
  if (length_) return *length_ == *length ? Fit::Fits : Fit::Replaces;
  if (!probe_ || probe_->size == *length) return Fit::Fits;
  return probe_->ofRange ? Fit::Contradicts : Fit::Replaces;
}

void FileExtent::confirmLength(std::optional<std::uint64_t> length) {
  if (length) length_ = length;
}

void FileExtent::forget() {
  probe_.reset();
  total_.reset();
  length_.reset();
  metEnd_.reset();
  delivered_.clear();
}

std::optional<std::uint64_t> FileExtent::size() const {
  if (host_) return host_;
  if (const auto size = confirmed()) return size;
  return probe_ ? std::optional(probe_->size) : std::nullopt;
}

bool FileExtent::hostIsContradicted() const {
  const auto size = confirmed();
  return host_ && size && *host_ != *size;
}

bool FileExtent::goesOnAt(std::uint64_t offset) const {
  const auto total = rangedTotal();
  return total && offset < *total && (!host_ || offset < *host_);
}

std::optional<std::uint64_t> FileExtent::end() const {
  const auto known = size();
  if (!metEnd_) return known;
  return known ? std::min(*known, *metEnd_) : metEnd_;
}

bool FileExtent::complete() const {
  const auto last = end();
  if (!last || hasHole() || !delivered_.covers({0, *last})) return false;
  const auto told = confirmed();
  return !told || *last == (host_ ? std::min(*host_, *told) : *told);
}

}  // namespace xfer
