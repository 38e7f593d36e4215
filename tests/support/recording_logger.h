// Keeps every log record that is written while it lives, so that tests can ask for the exact text.
//
// There is one logger a process: only one RecordingLogger may live at a time.  Create it before what logs.
//
// Threads: records are kept from any thread; every function may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/test_timeout.h"

namespace support {

struct Record {
  std::uint32_t level = 0;
  std::optional<std::string> tag;  // nullopt: a record without a tag
  std::string text;
  std::string file;
  std::uint32_t line = 0;
  std::thread::id thread;
};

class RecordingLogger {
 public:
  /// Lets records of threshold and of every lower level through: 6 is everything.
  explicit RecordingLogger(std::uint32_t threshold = 6);

  /// Back to silence: no sink, and the threshold that things start with.
  ~RecordingLogger();

  RecordingLogger(const RecordingLogger&) = delete;
  RecordingLogger& operator=(const RecordingLogger&) = delete;

  /// In the order in which they were written.
  [[nodiscard]] std::vector<Record> records() const;
  [[nodiscard]] std::vector<std::string> texts() const;
  [[nodiscard]] std::vector<std::string> texts(std::uint32_t level) const;

  /// Whether a record's text holds this piece of text.
  [[nodiscard]] bool contains(const std::string& piece) const;

  /// How many do.
  [[nodiscard]] std::size_t count(const std::string& piece) const;

  /// The first record whose text starts like this.
  [[nodiscard]] std::optional<Record> findPrefix(const std::string& prefix) const;

  /// Whether a record that holds the piece was, or is, written before the time is over.
  [[nodiscard]] bool waitFor(const std::string& piece, std::chrono::milliseconds timeout = testTimeout()) const;

  /// Forgets what was recorded so far.
  void clear();

 private:
  static void write(void* self, std::uint32_t level, const char* tag, const char* text, const char* file,
                    std::uint32_t line);
  [[nodiscard]] std::size_t countLocked(const std::string& piece) const;

  mutable std::mutex mutex_;
  mutable std::condition_variable written_;
  std::vector<Record> records_;  // guarded by mutex_
};

}  // namespace support
