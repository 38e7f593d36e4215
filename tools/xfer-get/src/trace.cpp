#include "trace.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "progress.h"

namespace xfer_get {
namespace {

using xfer::DownloadEvent;
using xfer::JobState;
using Kind = DownloadEvent::Kind;

constexpr std::uint32_t kJobRow = 1;
constexpr std::uint32_t kHostRow = 2;
constexpr std::uint32_t kRowBeforeConnections = 2;

constexpr std::int32_t kBrokenOff = 42;
constexpr std::int32_t kFirstErrorStatus = 400;

std::string wordFor(JobState state) {
  switch (state) {
    case JobState::Probing:
      return "asking";
    case JobState::Running:
      return "running";
    case JobState::Paused:
      return "paused";
    case JobState::Cancelling:
      return "cancelling";
    case JobState::Completed:
      return "complete";
    case JobState::Failed:
      return "failed";
    case JobState::Cancelled:
      return "cancelled";
    case JobState::Idle:
      break;
  }
  return "idle";
}

bool isFinal(JobState state) {
  return state == JobState::Completed || state == JobState::Failed || state == JobState::Cancelled;
}

std::string howItEnded(const DownloadEvent& end) {
  if (end.httpStatus >= kFirstErrorStatus) return ", HTTP " + std::to_string(end.httpStatus);
  if (end.code == kBrokenOff) return ", broken off";
  return end.code != 0 ? ", error " + std::to_string(end.code) : "";
}

// In the format's unit, microseconds.
std::string timeText(std::uint64_t ns) {
  std::array<char, 40> text{};
  std::snprintf(text.data(), text.size(), "%llu.%03u", static_cast<unsigned long long>(ns / 1000),
                static_cast<unsigned>(ns % 1000));
  return text.data();
}

std::string member(const char* key, std::uint64_t value) {
  return std::string("\"") + key + "\":" + std::to_string(value);
}

// Everything that is written here is plain text that needs no escapes.
std::string member(const char* key, const std::string& value) {
  return std::string("\"") + key + "\":\"" + value + "\"";
}

std::string requestMembers(const DownloadEvent& event) {
  return member("request", event.request) + "," + member("start", event.start) + "," + member("end", event.end) + "," +
         member("position", event.position);
}

}  // namespace

Trace::Trace()
    : text_("{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n{" + member("ph", "M") + ",\"pid\":1,\"tid\":1," +
            member("name", "process_name") + ",\"args\":{" + member("name", "xfer-get") + "}}") {}

std::string Trace::add(const std::vector<DownloadEvent>& events) {
  for (const DownloadEvent& event : events) take(event);
  return std::exchange(text_, {});
}

std::string Trace::end() {
  for (const auto& [number, request] : std::exchange(requests_, {})) {
    DownloadEvent end = request.begun;
    end.timeNs = lastNs_;
    end.code = kBrokenOff;
    endRequest(request, end);
  }
  endState(lastNs_);
  endHostsWait();
  return std::exchange(text_, {}) + "\n]}\n";
}

void Trace::take(const DownloadEvent& event) {
  lastNs_ = event.timeNs;
  const auto request = requests_.find(event.request);
  switch (event.kind) {
    case Kind::State:
      endState(event.timeNs);
      if (isFinal(event.state)) {
        nameRow(kJobRow, "job");
        mark(kJobRow, event.timeNs, wordFor(event.state));
      } else {
        state_ = event;
      }
      break;
    case Kind::Begun:
      requests_.insert_or_assign(event.request, Request{event});
      break;
    case Kind::Answered:
      if (request != requests_.end()) request->second.answeredNs = event.timeNs;
      break;
    case Kind::Ended:
      if (request == requests_.end()) break;
      endRequest(request->second, event);
      requests_.erase(request);
      break;
    case Kind::Cut:
      mark(event, "cut to " + sizeText(event.end));
      break;
    case Kind::GivenUp:
      mark(event, std::string("replaced: ") + event.reason);
      break;
    case Kind::Overtaken:
      mark(event, "overtaken");
      break;
    case Kind::TriedAgain:
      mark(event, "tried again after " + std::to_string(event.waitNs / 1'000'000) + " ms" + howItEnded(event));
      break;
    case Kind::HostLeftAlone:
      leaveHostAlone({event.timeNs, event.timeNs + event.waitNs});
      break;
  }
}

void Trace::endRequest(const Request& request, const DownloadEvent& end) {
  const Row row = kRowBeforeConnections + end.connection;
  const std::uint64_t begunNs = request.begun.timeNs;
  nameRow(row, "connection " + std::to_string(end.connection));
  bar(row, sizeText(end.start) + " > " + sizeText(end.position) + howItEnded(end), {begunNs, end.timeNs},
      requestMembers(end) + "," + member("asked_end", request.begun.end) + "," +
          member("http", static_cast<std::uint64_t>(end.httpStatus)));
  bar(row, "waits for the answer", {begunNs, request.answeredNs.value_or(end.timeNs)});
}

void Trace::endState(std::uint64_t nowNs) {
  if (!state_) return;
  nameRow(kJobRow, "job");
  bar(kJobRow, wordFor(state_->state), {state_->timeNs, nowNs});
  state_.reset();
}

// A wait that is made longer stays one.
void Trace::leaveHostAlone(const Span& wait) {
  if (hostsWait_ && wait.fromNs <= hostsWait_->toNs) {
    hostsWait_->toNs = std::max(hostsWait_->toNs, wait.toNs);
    return;
  }
  endHostsWait();
  hostsWait_ = wait;
}

void Trace::endHostsWait() {
  if (!hostsWait_) return;
  nameRow(kHostRow, "host");
  bar(kHostRow, "left alone", {hostsWait_->fromNs, std::min(hostsWait_->toNs, lastNs_)});
  hostsWait_.reset();
}

void Trace::mark(const DownloadEvent& event, const std::string& name) {
  mark(kRowBeforeConnections + event.connection, event.timeNs, name, requestMembers(event));
}

void Trace::mark(Row row, std::uint64_t timeNs, const std::string& name, const std::string& arguments) {
  object(member("ph", "i") + "," + member("s", "t") + ",\"pid\":1," + member("tid", row) +
         ",\"ts\":" + timeText(timeNs) + "," + member("name", name) + ",\"args\":{" + arguments + "}");
}

void Trace::bar(Row row, const std::string& name, const Span& span, const std::string& arguments) {
  object(member("ph", "X") + ",\"pid\":1," + member("tid", row) + ",\"ts\":" + timeText(span.fromNs) + ",\"dur\":" +
         timeText(span.toNs - span.fromNs) + "," + member("name", name) + ",\"args\":{" + arguments + "}");
}

void Trace::nameRow(Row row, const std::string& name) {
  if (!named_.insert(row).second) return;
  const std::string whose = member("ph", "M") + ",\"pid\":1," + member("tid", row) + ",";
  object(whose + member("name", "thread_name") + ",\"args\":{" + member("name", name) + "}");
  object(whose + member("name", "thread_sort_index") + ",\"args\":{" + member("sort_index", row) + "}");
}

void Trace::object(const std::string& members) {
  text_ += ",\n{" + members + "}";
}

}  // namespace xfer_get
