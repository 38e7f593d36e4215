#include "file_sink.h"

#include <thread>

#include "log.h"
#include "result_codes.h"

namespace xfer {
namespace {

constexpr const char* kLogTag = "FileSink";
constexpr std::chrono::milliseconds kPollInterval{5};

}  // namespace

FileSink::FileSink() : FileSink([](std::chrono::milliseconds time) { std::this_thread::sleep_for(time); }) {}

// Polls, since nothing signals that another process releases the file.
int FileSink::createPatiently() {
  int error = file_.create(path_);
  std::chrono::milliseconds waited{0};
  while (sys::DiskFile::heldByWriter(error) && waited < kPatience) {
    wait_(kPollInterval);
    waited += kPollInterval;
    error = file_.create(path_);
  }
  return error;
}

std::int32_t FileSink::open(const std::string& path, std::uint64_t size) {
  using Call = sys::DiskFile::ResizeResult::Call;
  path_ = path;
  bytesWritten_ = 0;
  writeError_ = 0;
  openFailure_ = {};
  int error = createPatiently();
  if (error != 0 && sys::DiskFile::blockedByExisting(error)) {
    sys::DiskFile::moveAside(path_, path_ + ".bak");
    error = createPatiently();
  }
  if (sys::DiskFile::heldByWriter(error)) {
    XFER_LOG(log::kFailure, "open | another job or process is writing the file | path=" << path_);
    return refuse(result::kFileNotCreated, "it is being written by another download");
  }
  if (error != 0) {
    XFER_LOG(log::kFailure, "open | CreateFile failed | path=" << path_ << " | err=" << error);
    return refuse(result::kFileNotCreated, sys::DiskFile::reason(error));
  }
  if (size != 0) {
    const auto reserved = file_.reserve(size);
    if (reserved.call == Call::Position) {
      XFER_LOG(log::kFailure, "open | SetFilePointerEx failed | err=" << reserved.error);
    } else if (reserved.call == Call::SetEnd) {
      XFER_LOG(log::kFailure, "open | SetEndOfFile failed | err=" << reserved.error);
    }
    if (reserved.error != 0) {
      file_.close();
      const std::string reason = sys::DiskFile::reason(reserved.error);
      if (reason != sys::DiskFile::kNotRegular) openFailure_ = ShortText::of(size, " bytes: ");
      return refuse(result::kFileNotReserved, reason);
    }
  }
  XFER_LOG(log::kTrace, "open | " << path_ << " | size=" << size);
  return result::kSuccess;
}

std::int32_t FileSink::refuse(std::int32_t code, std::string_view reason) {
  openFailure_.add(reason);
  return code;
}

ShortText FileSink::failureText() const noexcept {
  const int error = writeError_.load(std::memory_order_relaxed);
  if (error == 0) return openFailure_;
  try {
    return ShortText::of(sys::DiskFile::reason(error));
  } catch (...) {
    return ShortText::of("error ", static_cast<std::uint64_t>(error), " of the system");
  }
}

std::int32_t FileSink::writeAt(std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length) {
  if (!isOpen()) return result::kFileNotOpen;
  for (std::uint64_t done = 0; done < length;) {
    std::uint64_t written = 0;
    const int error = file_.writeAt(offset + done, bytes + done, length - done, &written);
    if (error != 0) {
      writeError_.store(error, std::memory_order_relaxed);
      XFER_LOG(log::kFailure, "writeAt | WriteFile failed | offset=" << offset + done << " | err=" << error);
      return result::kWriteFailed;
    }
    done += written;
  }
  bytesWritten_.fetch_add(length, std::memory_order_relaxed);
  return result::kSuccess;
}

std::int32_t FileSink::finalize(std::uint64_t size) {
  if (!isOpen()) return result::kFileNotOpen;
  if (const auto truncated = file_.truncate(size); truncated.error != 0) {
    // Intended: not an error; the content is whole, only the file's length is wrong.
    XFER_LOG(log::kFailure, "finalize | truncate failed | err=" << truncated.error);
  }
  file_.close();
  XFER_LOG(log::kTrace, "finalize | " << path_ << " | size=" << size);
  return result::kSuccess;
}

}  // namespace xfer
