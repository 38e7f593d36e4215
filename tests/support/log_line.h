// What a log record is to be, whole: level, tag, source file, source line and text.  Hosts find records by all of
// these.
//
//   EXPECT_EQ(logError(log, failure(kXfer, 329, "fetch error: curl code 3")), "");
//   EXPECT_EQ(wholeLogError(log.records(), {trace(kSink, "open | f | size=5"), trace(kSink, "finalize | f | size=5")}),
//   "");
//
// Threads: any.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/recording_logger.h"

namespace support {

/// The tag of a record, and the name of the source file that goes with it.
struct LogSource {
  std::string_view tag;
  std::string_view file;
};

inline constexpr LogSource kXfer{"xfer", "xfer.cpp"};
inline constexpr LogSource kFetch{"xfer", "fetch.cpp"};
inline constexpr LogSource kRanges{"RangeSched", "range_scheduler.cpp"};
inline constexpr LogSource kSink{"FileSink", "file_sink.cpp"};
inline constexpr LogSource kBackend{"CurlMulti", "curl_multi_backend.cpp"};
inline constexpr LogSource kJob{"DlJob", "download_job.cpp"};

struct LogLine {
  std::uint32_t level = 0;
  LogSource source;
  std::optional<std::uint32_t> line;  // nothing: hosts do not rely on it
  std::string text;                   // each # stands for a decimal number
};

LogLine failure(LogSource source, std::uint32_t line, std::string text);
LogLine failure(LogSource source, std::string text);
LogLine recovery(LogSource source, std::string text);
LogLine trace(LogSource source, std::uint32_t line, std::string text);
LogLine trace(LogSource source, std::string text);

/// "" when the line was written exactly so many times, and never with another level, tag, file or line; else what was
/// written instead.
std::string logError(const RecordingLogger& log, const LogLine& line, std::size_t times = 1);

/// "" when the records are these lines, in this order, and nothing else; else both, side by side.
std::string wholeLogError(const std::vector<Record>& records, const std::vector<LogLine>& lines);

/// The records that have this tag.
std::vector<Record> recordsOf(const RecordingLogger& log, LogSource source);

/// The records of this level and of lower ones.
std::vector<Record> recordsUpTo(const RecordingLogger& log, std::uint32_t level);

}  // namespace support
