// The one way in which the library logs.
//
// Each source file that logs defines one constant, kLogTag.  A statement evaluates its text only when the host's logger
// wants records of its level.  Some statements carry a fixed line number instead of their own: those numbers are part
// of the contract with hosts that read the log, and stay when the code around them moves.
//
// Threads: any.  Errors: logging never raises any; what cannot be written is lost.
#pragma once

#include <cstdint>

#include "keel/log_record.h"

namespace xfer::log {

inline constexpr std::uint32_t kFailure = 3;
inline constexpr std::uint32_t kRecovery = 4;
inline constexpr std::uint32_t kTrace = 6;

template <class StreamText>
void write(std::uint32_t level, const char* tag, const char* file, std::uint32_t line,
           StreamText&& streamText) noexcept {
  Keel::ILogger* logger = nullptr;
  if (createLogger(&logger) != 0) return;
  if (logger->threshold() >= level) {
    try {
      Keel::CLogMsgMultibyte record(logger, level, tag, file, line);
      streamText(record);
    } catch (...) {
      // Out of memory: the caller's work matters more than its record.
    }
  }
  logger->release();
}

}  // namespace xfer::log

#define XFER_LOG_LINE(level, line, text) \
  ::xfer::log::write(level, kLogTag, __FILE__, line, [&](std::ostream& record) { record << text; })
#define XFER_LOG(level, text) XFER_LOG_LINE(level, __LINE__, text)
