// The library's log statements.
//
// Each source file that logs defines one constant, kLogTag.  A statement evaluates its text only when the host's logger
// accepts its level.  Some statements have a fixed line number: these are a contract with hosts that read the log, and
// do not change when the code moves.  So is the source file of a record: what logs with the job's tag names the job's
// file, also where the code is another one's (XFER_LOG_FILE, see CMakeLists.txt).
//
// Threads: any.  Errors: logging never throws; a record that cannot be written is lost.
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
      // Out of memory: drop the record, not the caller's work.
    }
  }
  logger->release();
}

}  // namespace xfer::log

#ifndef XFER_LOG_FILE
#define XFER_LOG_FILE __FILE__
#endif
#define XFER_LOG_LINE(level, line, text) \
  ::xfer::log::write(level, kLogTag, XFER_LOG_FILE, line, [&](std::ostream& record) { record << text; })
#define XFER_LOG(level, text) XFER_LOG_LINE(level, __LINE__, text)
