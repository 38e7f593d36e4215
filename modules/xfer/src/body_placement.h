// Where the body of an answer belongs in the file, or that it must not reach it.  Knows nothing of transfers, of what
// other answers said, or of threads.  Pure.
//
// Units: offsets and sizes are bytes, half-open [start, end).
#pragma once

#include <cstdint>
#include <optional>

#include "response_head.h"

namespace xfer {

/// What becomes of a response's body.
struct Placement {
  enum class Action {
    Deliver,  ///< goes to the data callback
    Drop,     ///< is read and forgotten; the transfer ends as it ends
    Stop      ///< the transfer ends before its first byte is delivered, with code as its result
  } action = Action::Deliver;
  /// Deliver: where in the file the body's first byte belongs.  What lies before the range's start is dropped.
  std::uint64_t bodyOffset = 0;
  /// Deliver: exclusive end of the bytes that are needed; the rest of the body is cut off.  Nothing: all of it.
  std::optional<std::uint64_t> end{};
  /// Deliver: exclusive end of the bytes that the answer itself names; a body that reaches it is whole, though it may
  /// be shorter than asked.
  std::optional<std::uint64_t> namedEnd{};
  /// Stop: the result.  Deliver: the result when the body goes on past end; 0 is a success.
  std::int32_t code = 0;
  /// Deliver: the result when the body ends properly before end, and neither namedEnd nor its length excuses that.
  std::int32_t codeIfShort = 18;

  bool operator==(const Placement&) const = default;
};

/// What the head of an answer says about its body.
struct AnswerClaim {
  enum class Kind {
    Range,      ///< the range asked for
    WholeFile,  ///< the file from byte 0, whatever was asked for
    NoContent,  ///< not file content: another status than 200 and 206
    Unusable    ///< other bytes than asked for, or a head that contradicts itself: worth another attempt
  } kind = Kind::NoContent;
  const char* reason = "";                  ///< Unusable: for the log
  std::optional<std::uint64_t> total{};     ///< Range: the file's size, when the answer names it
  std::optional<std::uint64_t> namedEnd{};  ///< Range: exclusive end of the bytes that the answer names
  std::optional<std::uint64_t> length{};    ///< WholeFile: the body's length, when the answer gives one
  bool endIsSeen = true;  ///< WholeFile without a length: the coding marks the body's end, so that it cannot be lost
};

/// Reads the answer to a request for the range that starts at start.
AnswerClaim readClaim(const ResponseHead& head, std::uint64_t start);

}  // namespace xfer
