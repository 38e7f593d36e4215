#include "json_lines.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>

#include "progress.h"
#include "text_width.h"
#include "url.h"
#include "utf8.h"

namespace xfer_get {
namespace {

using xfer::JobState;

std::string escape(char32_t codePoint) {
  switch (codePoint) {
    case '"':
      return "\\\"";
    case '\\':
      return "\\\\";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      break;
  }
  std::array<char, 16> text{};  // none of those that are escaped is beyond U+FFFF
  std::snprintf(text.data(), text.size(), "\\u%04x", static_cast<unsigned>(codePoint));
  return text.data();
}

std::string quoted(std::string_view text) {
  constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
  std::string quoted = "\"";
  while (!text.empty()) {
    const std::string_view before = text;
    const CodePoint taken = takeCodePoint(&text);
    if (!taken.valid) {
      quoted += kReplacement;
    } else if (taken.value == '"' || taken.value == '\\' || ordersTerminal(taken.value)) {
      quoted += escape(taken.value);
    } else {
      quoted += before.substr(0, before.size() - text.size());
    }
  }
  return quoted + "\"";
}

// One line: the members in the order in which they are added.
class Object {
 public:
  Object(std::string_view event, std::uint64_t id) {
    text("event", event);
    number("id", id);
  }

  void text(std::string_view name, std::string_view value) { add(name, quoted(value)); }
  void textOrNull(std::string_view name, std::string_view value) { add(name, value.empty() ? "null" : quoted(value)); }
  template <class Number>
  void number(std::string_view name, Number value) {
    add(name, std::to_string(value));
  }
  // A value that is JSON already.
  void add(std::string_view name, const std::string& value) {
    line_.append(line_.empty() ? "{\"" : ",\"").append(name).append("\":").append(value);
  }

  [[nodiscard]] std::string line() const { return line_ + "}\n"; }

 private:
  std::string line_;
};

void addAmount(Object* object, std::uint64_t bytes, const std::optional<std::uint64_t>& total) {
  object->number("bytes", total ? std::min(bytes, *total) : bytes);
  object->add("total", total ? std::to_string(*total) : "null");
}

std::string stateName(JobState state) {
  switch (state) {
    case JobState::Running:
      return "running";
    case JobState::Completed:
      return "completed";
    case JobState::Failed:
      return "failed";
    case JobState::Cancelled:
      return "cancelled";
    default:
      return stateText(state);
  }
}

const char* nameOf(JsonNote::Kind kind) {
  switch (kind) {
    case JsonNote::Kind::TriedAgain:
      return "triedAgain";
    case JsonNote::Kind::GivenUp:
      return "givenUp";
    case JsonNote::Kind::HostLeftAlone:
      break;
  }
  return "hostLeftAlone";
}

const char* nameOf(JsonEnd::Result result) {
  switch (result) {
    case JsonEnd::Result::Completed:
      return "completed";
    case JsonEnd::Result::Failed:
      return "failed";
    case JsonEnd::Result::Cancelled:
      break;
  }
  return "cancelled";
}

const char* nameOf(JsonEnd::Check check) {
  switch (check) {
    case JsonEnd::Check::Ok:
      return "ok";
    case JsonEnd::Check::Differs:
      return "differs";
    case JsonEnd::Check::None:
      break;
  }
  return "";
}

std::string secondsText(std::uint64_t ms) {
  std::array<char, 40> text{};
  std::snprintf(text.data(), text.size(), "%llu.%03u", static_cast<unsigned long long>(ms / 1000),
                static_cast<unsigned>(ms % 1000));
  return text.data();
}

}  // namespace

std::string jsonStart(std::uint64_t id, std::string_view url, std::string_view file) {
  Object object("start", id);
  object.text("url", urlWithoutLogin(url));
  object.text("file", file);
  return object.line();
}

std::string jsonProgress(std::uint64_t id, const JsonProgress& progress) {
  Object object("progress", id);
  addAmount(&object, progress.bytes, progress.total);
  object.number("bytesPerSec", progress.bytesPerSec);
  object.number("connections", progress.connections);
  object.text("state", stateName(progress.state));
  return object.line();
}

std::string jsonNote(std::uint64_t id, const JsonNote& note) {
  Object object("note", id);
  object.text("kind", nameOf(note.kind));
  object.text("text", note.text);
  object.number("code", note.code);
  object.number("httpStatus", note.httpStatus);
  object.number("waitMs", note.waitMs);
  return object.line();
}

std::string jsonEnd(std::uint64_t id, const JsonEnd& end) {
  Object object("end", id);
  object.text("result", nameOf(end.result));
  object.number("exitCode", end.exitCode);
  addAmount(&object, end.bytes, end.total);
  object.add("seconds", secondsText(end.durationMs));
  object.number("code", end.code);
  object.number("httpStatus", end.httpStatus);
  object.textOrNull("message", end.message);
  object.textOrNull("file", end.file);
  object.textOrNull("checksum", nameOf(end.checksum));
  return object.line();
}

}  // namespace xfer_get
