#include "trace_file.h"

#include "path.h"

namespace xfer_get {

TraceFile::TraceFile(const std::string& path) : file_(pathOf(path), std::ios::binary | std::ios::trunc) {}

void TraceFile::follow(const std::vector<xfer::DownloadEvent>& events) {
  if (!events.empty()) file_ << trace_.add(events);
}

void TraceFile::end() {
  file_ << trace_.end();
  file_.close();
}

}  // namespace xfer_get
