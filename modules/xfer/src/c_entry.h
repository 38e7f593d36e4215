// What the entries of the C interface that take records have in common.
//
// Threads: any.
// Errors:  an exception of an entry's body becomes a number.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "log.h"
#include "result_codes.h"

namespace xfer {

/// Runs the body of an entry and returns its result; on an exception logs the entry's name and returns 100000.
template <class Body>
std::int32_t guardedEntry(const char* name, Body body) noexcept {
  constexpr const char* kLogTag = "xfer";
  try {
    return body();
  } catch (...) {
    XFER_LOG(log::kFailure, name << " exception");
    return result::kException;
  }
}

/// Whoever has a larger record than this has no record.
inline constexpr std::size_t kLargestRecord = 4096;

/// Copies what a host has set over the defaults, whichever fields its header knows.  first: the size that the record
/// had when there were hosts for the first time.  False: the size cannot be right, or a field is set that is not known.
template <class Record>
bool readRecord(const Record& given, std::size_t first, Record& defaults) {
  const std::size_t size = given.size;
  if (size < first || size > kLargestRecord) return false;
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&given);
  const std::size_t known = std::min(size, sizeof defaults);
  if (std::any_of(bytes + known, bytes + size, [](std::uint8_t byte) { return byte != 0; })) return false;
  std::memcpy(&defaults, &given, known);
  return true;
}

/// Sets as much of a host's record to the defaults as its header knows, and what only its header knows to zeros.
template <class Record>
void initRecord(Record defaults, Record* record, std::uint32_t size) {
  if (record == nullptr) return;
  defaults.size = size;
  auto* const bytes = reinterpret_cast<std::uint8_t*>(record);
  std::memcpy(bytes, &defaults, std::min<std::size_t>(size, sizeof defaults));
  if (size > sizeof defaults) std::memset(bytes + sizeof defaults, 0, size - sizeof defaults);
}

/// Whether a record that is written for a host can have this size.
inline bool isRecordSize(std::size_t size, std::size_t first) {
  return size >= first && size <= kLargestRecord;
}

/// Writes as much of the record as the host's header knows, and zeros where only its header knows something.
template <class Record>
void writeRecord(const Record& known, Record& host) {
  initRecord(known, &host, host.size);
}

inline std::string orEmpty(const char* text) {
  return text != nullptr ? text : "";
}

}  // namespace xfer
