// Makes the lines of a machine-readable report: one JSON object a line, the fields always all there and in the order of
// this header.  Text is UTF-8; what is not becomes U+FFFD, and what a terminal may take as an order is escaped.  Pure.
//
// Errors: std::bad_alloc.
// Units:  bytes, bytes per second, milliseconds.  Numbers are written exactly, without an exponent.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "xfer/xfer.hpp"

namespace xfer_get {

/// {"event":"start","id":1,"url":"...","file":"..."}, the url without a login.
std::string jsonStart(std::uint64_t id, std::string_view url, std::string_view file);

struct JsonProgress {
  std::uint64_t bytes = 0;             ///< written as total when it is more: fetched twice counts twice in a snapshot
  std::optional<std::uint64_t> total;  ///< nothing: unknown, null
  std::uint64_t bytesPerSec = 0;
  unsigned connections = 0;                        ///< in use now
  xfer::JobState state = xfer::JobState::Running;  ///< "asking", "running", "paused", "cancelling" or as in JsonEnd
};

/// {"event":"progress","id":1,"bytes":1,"total":null,"bytesPerSec":0,"connections":1,"state":"running"}
std::string jsonProgress(std::uint64_t id, const JsonProgress& progress);

struct JsonNote {
  enum class Kind { TriedAgain, GivenUp, HostLeftAlone };

  Kind kind = Kind::TriedAgain;  ///< "triedAgain", "givenUp", "hostLeftAlone"
  std::string text;              ///< for people
  std::int32_t code = 0;         ///< libcurl's, 0: none
  std::int32_t httpStatus = 0;   ///< 0: none
  std::uint64_t waitMs = 0;      ///< until something is asked for again
};

/// {"event":"note","id":1,"kind":"triedAgain","text":"...","code":28,"httpStatus":0,"waitMs":500}
std::string jsonNote(std::uint64_t id, const JsonNote& note);

struct JsonEnd {
  enum class Result { Completed, Failed, Cancelled };
  enum class Check { None, Ok, Differs };

  Result result = Result::Completed;  ///< "completed", "failed", "cancelled"
  int exitCode = 0;                   ///< the program's, were this its only download
  std::uint64_t bytes = 0;            ///< as in JsonProgress
  std::optional<std::uint64_t> total;
  std::uint64_t durationMs = 0;  ///< written as seconds, with three digits behind the point
  std::int32_t code = 0;
  std::int32_t httpStatus = 0;
  std::string message;           ///< empty: null
  std::string file;              ///< empty: null
  Check checksum = Check::None;  ///< null, "ok", "differs"
};

/// {"event":"end","id":1,"result":"completed","exitCode":0,"bytes":1,"total":1,"seconds":1.234,"code":0,
/// "httpStatus":0,"message":null,"file":"...","checksum":null}, on one line.
std::string jsonEnd(std::uint64_t id, const JsonEnd& end);

}  // namespace xfer_get
