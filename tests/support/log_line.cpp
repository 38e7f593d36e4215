#include "support/log_line.h"

#include <algorithm>
#include <utility>

namespace support {
namespace {

constexpr std::uint32_t kFailure = 3;
constexpr std::uint32_t kRecovery = 4;
constexpr std::uint32_t kTrace = 6;
constexpr std::string_view kFolder = "modules/xfer/src/";

bool isDigit(char letter) {
  return letter >= '0' && letter <= '9';
}

// Nothing follows a number in a pattern that could be part of it, so the longest one is the right one.
bool matches(std::string_view pattern, std::string_view text) {
  for (; !pattern.empty(); pattern.remove_prefix(1)) {
    if (pattern.front() != '#') {
      if (!text.starts_with(pattern.front())) return false;
      text.remove_prefix(1);
      continue;
    }
    if (text.starts_with('-')) text.remove_prefix(1);
    const auto end = std::find_if_not(text.begin(), text.end(), isDigit);
    if (end == text.begin()) return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.begin()));
  }
  return text.empty();
}

bool isWrittenIn(const Record& record, LogSource source) {
  std::string file = record.file;
  std::replace(file.begin(), file.end(), '\\', '/');
  return record.tag == source.tag && file.ends_with(std::string(kFolder) + std::string(source.file));
}

bool matches(const LogLine& line, const Record& record) {
  return record.level == line.level && isWrittenIn(record, line.source) &&
         record.line == line.line.value_or(record.line) && matches(line.text, record.text);
}

std::string describe(const LogLine& line) {
  const std::string number = line.line ? std::to_string(*line.line) : "any";
  return std::to_string(line.level) + " [" + std::string(line.source.tag) + "] " + std::string(kFolder) +
         std::string(line.source.file) + ":" + number + " \"" + line.text + "\"\n";
}

std::string describe(const Record& record) {
  return std::to_string(record.level) + " [" + record.tag.value_or("no tag") + "] " + record.file + ":" +
         std::to_string(record.line) + " \"" + record.text + "\"\n";
}

}  // namespace

LogLine failure(LogSource source, std::uint32_t line, std::string text) {
  return {kFailure, source, line, std::move(text)};
}

LogLine failure(LogSource source, std::string text) {
  return {kFailure, source, std::nullopt, std::move(text)};
}

LogLine recovery(LogSource source, std::string text) {
  return {kRecovery, source, std::nullopt, std::move(text)};
}

LogLine trace(LogSource source, std::uint32_t line, std::string text) {
  return {kTrace, source, line, std::move(text)};
}

LogLine trace(LogSource source, std::string text) {
  return {kTrace, source, std::nullopt, std::move(text)};
}

std::string logError(const RecordingLogger& log, const LogLine& line, std::size_t times) {
  const std::vector<Record> records = log.records();
  std::size_t found = 0;
  std::string others;
  for (const Record& record : records) {
    if (matches(line, record)) {
      ++found;
    } else if (matches(line.text, record.text)) {
      others += "  not as expected: " + describe(record);
    }
  }
  if (found == times && others.empty()) return "";
  std::string error = "expected " + std::to_string(times) + " times, written " + std::to_string(found) + " times:\n  " +
                      describe(line) + others;
  if (others.empty()) {
    error += "the log:\n";
    for (const Record& record : records) error += "  " + describe(record);
  }
  return error;
}

std::string wholeLogError(const std::vector<Record>& records, const std::vector<LogLine>& lines) {
  const bool same = std::equal(lines.begin(), lines.end(), records.begin(), records.end(),
                               [](const LogLine& line, const Record& record) { return matches(line, record); });
  if (same) return "";
  std::string error;
  for (std::size_t index = 0; index < std::max(records.size(), lines.size()); ++index) {
    const bool both = index < records.size() && index < lines.size();
    if (both && matches(lines[index], records[index])) {
      error += "  as expected: " + describe(records[index]);
      continue;
    }
    if (index < lines.size()) error += "  EXPECTED:    " + describe(lines[index]);
    if (index < records.size()) error += "  WRITTEN:     " + describe(records[index]);
  }
  return error;
}

std::vector<Record> recordsOf(const RecordingLogger& log, LogSource source) {
  std::vector<Record> found = log.records();
  std::erase_if(found, [&](const Record& record) { return record.tag != source.tag; });
  return found;
}

std::vector<Record> recordsUpTo(const RecordingLogger& log, std::uint32_t level) {
  std::vector<Record> found = log.records();
  std::erase_if(found, [&](const Record& record) { return record.level > level; });
  return found;
}

}  // namespace support
