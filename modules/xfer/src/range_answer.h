// Decides from the head of an answer to a range request where its body belongs, or that it must not reach the file.
// Knows nothing of transfers or threads.
//
// Threads: one at a time for one RemoteIdentity.
// Units:   offsets and sizes are bytes, half-open [start, end).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "response_head.h"

namespace xfer {

/// What the answers of one job have said of the remote file so far.
struct RemoteIdentity {
  std::optional<std::uint64_t> total;
  std::string strongEtag;
};

struct RangeAnswer {
  enum class Kind {
    Range,       ///< the range asked for, or the whole file where no range was
    WholeFile,   ///< the file from byte 0, although a range was asked for
    NoContent,   ///< not file content: another status than 200 and 206
    Misplaced,   ///< other bytes than asked for: worth another attempt
    FileChanged  ///< of another file than earlier answers: the parts would not fit together
  } kind;
  const char* reason = "";  ///< Misplaced and FileChanged: for the log
};

/// Judges an answer to a request for [start, end); both 0: no range was asked for.  Of an answer whose content may be
/// used, what it says of the file is added to identity.
RangeAnswer judgeAnswer(const ResponseHead& head, std::uint64_t start, std::uint64_t end, RemoteIdentity& identity);

}  // namespace xfer
