// One log record: stream text into it; its destructor writes it.
//
// Threads: one thread per record.
// Errors:  the destructor does not throw; a record that cannot be written is lost.
#pragma once

#include <cstdint>
#include <locale>
#include <sstream>
#include <string>

#include "keel/logger.h"

namespace Keel {

/// A record that is being written.
class CLogMsgMultibyte : public std::ostringstream {
 public:
  /// Adds a reference to logger (null: discards the record).  A null tag or file becomes an empty text.
  CLogMsgMultibyte(ILogger* logger, std::uint32_t level, const char* tag, const char* file, std::uint32_t line)
      : level_(level), tag_(tag != nullptr ? tag : ""), file_(file != nullptr ? file : ""), line_(line) {
    imbue(std::locale::classic());  // a host's locale must not put separators into numbers
    if (logger != nullptr) logger->addRef();
    logger_ = logger;
  }

  CLogMsgMultibyte(const CLogMsgMultibyte&) = delete;
  CLogMsgMultibyte& operator=(const CLogMsgMultibyte&) = delete;

  ~CLogMsgMultibyte() override {
    if (logger_ == nullptr) return;
    try {
      logger_->write(level_, tag_.empty() ? nullptr : tag_.c_str(), str().c_str(), file_.c_str(), line_);
    } catch (...) {
      // Out of memory, or the host's logger throws: logging must not fail the caller.
    }
    logger_->release();
  }

 private:
  ILogger* logger_ = nullptr;
  std::uint32_t level_;
  std::string tag_;
  std::string file_;
  std::uint32_t line_;
};

}  // namespace Keel
