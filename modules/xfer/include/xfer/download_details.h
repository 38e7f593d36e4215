// What a download job does at one moment.  Of any job: what lies behind its failure, and how the server has encoded the
// file.  Of a started job with the adaptive plan also its ranges, and what it has done about connections that held it
// up; of any other job this part is empty.
//
// Threads: a plain value.
// Errors:  std::bad_alloc.
// Units:   offsets and sizes are bytes, half-open [start, end); speeds bytes per second; times milliseconds.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "xfer/export.h"

namespace xfer {

/// A range in flight, over a connection of its own.
struct RangeDetails {
  std::uint64_t start = 0;        ///< its first byte
  std::uint64_t end = 0;          ///< 0: as long as it goes
  std::uint64_t position = 0;     ///< exclusive end of what has arrived
  std::uint64_t bytesPerSec = 0;  ///< 0: nothing was measured yet
  std::uint64_t silentMs = 0;  ///< since the last byte, without the time in which a pause, a limit or the disk held it
  bool copy = false;           ///< fetched a second time, since the first one is slow
};

/// A part of the file that has not arrived, and that no connection fetches now.
struct MissingRange {
  std::uint64_t start = 0;  ///< its first byte
  std::uint64_t end = 0;    ///< exclusive
};

/// A connection that was closed before its range was complete, since it held the download up.
struct GivenUpConnection {
  const char* reason = "";     ///< "silent" or "slow"; static text
  std::uint64_t start = 0;     ///< of its range
  std::uint64_t position = 0;  ///< where others went on
  std::uint64_t end = 0;       ///< of its range, exclusive
};

/// Of one moment: see DownloadJob::details.
class DownloadDetails {
 public:
  struct Values;  ///< internal

  explicit DownloadDetails(std::unique_ptr<Values> values);  ///< internal
  XFER_API DownloadDetails(DownloadDetails&& other) noexcept;
  XFER_API DownloadDetails& operator=(DownloadDetails&& other) noexcept;
  XFER_API ~DownloadDetails();

  /// In flight now, ascending by their start.
  [[nodiscard]] XFER_API std::vector<RangeDetails> ranges() const;

  /// Ascending; empty while the size is unknown.  What is neither in here nor in ranges behind its position is there.
  [[nodiscard]] XFER_API std::vector<MissingRange> missing() const;

  /// The latest ones, at most 16, oldest first.
  [[nodiscard]] XFER_API std::vector<GivenUpConnection> givenUp() const;

  /// Connections given up so far.
  [[nodiscard]] XFER_API std::uint64_t givenUpCount() const;

  /// Bytes that were moved from one range in flight to another one.
  [[nodiscard]] XFER_API std::uint64_t movedBytes() const;

  /// Bytes that were fetched twice on purpose, near the end.
  [[nodiscard]] XFER_API std::uint64_t duplicateBytes() const;

  /// Failed tries that were followed by another one.
  [[nodiscard]] XFER_API std::uint64_t retries() const;

  /// Most connections at once that the host is known to bear; 0: no limit is known.
  [[nodiscard]] XFER_API std::uint64_t hostConnections() const;

  /// So long from now on the host gets no new request, since it asked for that or failed; 0: it may get one.
  [[nodiscard]] XFER_API std::uint64_t hostLeftAloneMs() const;

  /// What the system, libcurl or the server's answer said of the failure that ended the job, for people: one line of at
  /// most 1000 bytes, whose words may change.  Names hosts and addresses, but no user, password or cookie.  Empty:
  /// nothing is known beyond DownloadSnapshot::errorCode, or the job has not failed.
  [[nodiscard]] XFER_API std::string failureText() const;

  /// The Content-Encoding of the first accepted answer that had one, "gzip" for instance, of at most 100 bytes: none is
  /// asked for, and the file holds the body as it came.  Empty: none, or identity.
  [[nodiscard]] XFER_API std::string contentEncoding() const;

 private:
  std::unique_ptr<const Values> values_;
};

}  // namespace xfer
