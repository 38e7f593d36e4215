#include "support/recording_logger.h"

#include <algorithm>

#include "keel/keel.h"

namespace support {
namespace {

constexpr std::uint32_t kInitialThreshold = 3;

}  // namespace

RecordingLogger::RecordingLogger(std::uint32_t threshold) {
  Keel::setLogThreshold(threshold);
  Keel::setRecordSink(&RecordingLogger::write, this);
}

RecordingLogger::~RecordingLogger() {
  Keel::setRecordSink(nullptr, nullptr);
  Keel::setLogThreshold(kInitialThreshold);
}

void RecordingLogger::write(void* self, std::uint32_t level, const char* tag, const char* text, const char* file,
                            std::uint32_t line) {
  Record record;
  record.level = level;
  if (tag != nullptr) record.tag = tag;
  record.text = text;
  record.file = file;
  record.line = line;
  record.thread = std::this_thread::get_id();

  auto& logger = *static_cast<RecordingLogger*>(self);
  const std::lock_guard lock(logger.mutex_);
  logger.records_.push_back(std::move(record));
  logger.written_.notify_all();
}

std::vector<Record> RecordingLogger::records() const {
  const std::lock_guard lock(mutex_);
  return records_;
}

std::vector<std::string> RecordingLogger::texts() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> texts;
  for (const Record& record : records_) texts.push_back(record.text);
  return texts;
}

std::vector<std::string> RecordingLogger::texts(std::uint32_t level) const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> texts;
  for (const Record& record : records_) {
    if (record.level == level) texts.push_back(record.text);
  }
  return texts;
}

bool RecordingLogger::contains(const std::string& piece) const {
  return count(piece) > 0;
}

std::size_t RecordingLogger::count(const std::string& piece) const {
  const std::lock_guard lock(mutex_);
  return countLocked(piece);
}

std::optional<Record> RecordingLogger::findPrefix(const std::string& prefix) const {
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(records_.begin(), records_.end(),
                                  [&](const Record& record) { return record.text.starts_with(prefix); });
  if (found == records_.end()) return std::nullopt;
  return *found;
}

bool RecordingLogger::waitFor(const std::string& piece, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return written_.wait_for(lock, timeout, [&] { return countLocked(piece) > 0; });
}

void RecordingLogger::clear() {
  const std::lock_guard lock(mutex_);
  records_.clear();
}

std::size_t RecordingLogger::countLocked(const std::string& piece) const {
  return static_cast<std::size_t>(std::count_if(records_.begin(), records_.end(), [&](const Record& record) {
    return record.text.find(piece) != std::string::npos;
  }));
}

}  // namespace support
