// A file with the trace of a download.
//
// Errors: std::bad_alloc; a file that cannot be written is remembered.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>

#include "trace.h"
#include "xfer/download_job.h"

namespace xfer_get {

class TraceFile {
 public:
  /// Events that the job has to keep between two calls of follow.
  static constexpr std::size_t kEvents = 65536;

  /// Replaces the file.  path: UTF-8.
  explicit TraceFile(const std::string& path);

  /// Writes what the job has done since the last call.
  void follow(const xfer::DownloadJob& job);

  /// Writes the rest.  No further calls.
  void end(const xfer::DownloadJob& job);

  /// Whether the file could be opened, and all was written to it so far.
  [[nodiscard]] bool isGood() const { return file_.good(); }

 private:
  std::ofstream file_;
  Trace trace_;
  std::uint64_t next_ = 0;  // number of the next event
};

}  // namespace xfer_get
