#include "trace_file.h"

#include <filesystem>
#include <vector>

namespace xfer_get {

TraceFile::TraceFile(const std::string& path)
    : file_(std::filesystem::path(std::u8string(path.begin(), path.end())), std::ios::binary | std::ios::trunc) {}

void TraceFile::follow(const xfer::DownloadJob& job) {
  const std::vector<xfer::DownloadEvent> events = job.history(next_);
  if (events.empty()) return;
  next_ = events.back().number + 1;
  file_ << trace_.add(events);
}

void TraceFile::end(const xfer::DownloadJob& job) {
  follow(job);
  file_ << trace_.end();
  file_.close();
}

}  // namespace xfer_get
