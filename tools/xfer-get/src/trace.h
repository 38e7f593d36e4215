// Writes the history of a download in the trace-event JSON format, which trace viewers open: a row for each connection
// with a bar for each request and its wait for the answer, marks for moved ranges, replaced connections and retries;
// a row for the job's states; and a row for the times in which the host is left alone.
//
// Pure: makes text, piece by piece.
//
// Errors: std::bad_alloc.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "xfer/download_history.h"

namespace xfer_get {

class Trace {
 public:
  Trace();

  /// What the next events of the job add to the text.
  [[nodiscard]] std::string add(const std::vector<xfer::DownloadEvent>& events);

  /// The rest of the text.  Whatever is under way ends with the last event.
  [[nodiscard]] std::string end();

 private:
  using Row = std::uint32_t;
  struct Request {
    xfer::DownloadEvent begun;
    std::optional<std::uint64_t> answeredNs{};
  };
  struct Span {
    std::uint64_t fromNs = 0;
    std::uint64_t toNs = 0;
  };

  void take(const xfer::DownloadEvent& event);
  void endRequest(const Request& request, const xfer::DownloadEvent& end);
  void endState(std::uint64_t nowNs);
  void leaveHostAlone(const Span& wait);
  void endHostsWait();

  void mark(const xfer::DownloadEvent& event, const std::string& name);
  void mark(Row row, std::uint64_t timeNs, const std::string& name, const std::string& arguments = "");
  void bar(Row row, const std::string& name, const Span& span, const std::string& arguments = "");
  void nameRow(Row row, const std::string& name);
  void object(const std::string& members);

  std::string text_;  // not handed out yet
  std::set<Row> named_;
  std::map<std::uint64_t, Request> requests_;  // under way, by number
  std::optional<xfer::DownloadEvent> state_;   // the latest one
  std::optional<Span> hostsWait_;
  std::uint64_t lastNs_ = 0;
};

}  // namespace xfer_get
