// A file with the trace of a download.
//
// Errors: std::bad_alloc; a file that cannot be written is remembered.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "trace.h"
#include "xfer/download_history.h"

namespace xfer_get {

class TraceFile {
 public:
  /// Events that a job has to keep, so that none is lost between two looks at its history.
  static constexpr std::size_t kEvents = 65536;

  /// Replaces the file.  path: UTF-8.
  explicit TraceFile(const std::string& path);

  /// Writes what the job has done since the last call.
  void follow(const std::vector<xfer::DownloadEvent>& events);

  /// Writes the rest.  No further calls.
  void end();

  /// Whether the file could be opened, and all was written to it so far.
  [[nodiscard]] bool isGood() const { return file_.good(); }

 private:
  std::ofstream file_;
  Trace trace_;
};

}  // namespace xfer_get
