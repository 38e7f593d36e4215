#include "sys/disk_file.h"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>

namespace sys {
namespace {

constexpr auto kMaxOffset = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
constexpr std::uint64_t kMaxWrite = 0x7FFFFFFF;  // more than the kernel takes in one call anyway

int truncateTo(int descriptor, off_t size) {
  while (::ftruncate(descriptor, size) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

DiskFile::ResizeResult setEndFailed(int error) {
  return {error != 0 ? DiskFile::ResizeResult::Call::SetEnd : DiskFile::ResizeResult::Call::None, error};
}

}  // namespace

int DiskFile::create(const std::string& path) {
  int descriptor = -1;
  do {
    descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor < 0) return errno;
  handle_ = descriptor;
  return 0;
}

DiskFile::ResizeResult DiskFile::reserve(std::uint64_t size) {
  if (size > kMaxOffset) return {ResizeResult::Call::Position, EINVAL};
  const auto descriptor = static_cast<int>(handle_);
  while (::fallocate(descriptor, 0, 0, static_cast<off_t>(size)) != 0) {
    if (errno == EINTR) continue;
    // Not every file system can reserve; the size is still worth setting there.
    if (errno == EOPNOTSUPP || errno == ENOSYS) return setEndFailed(truncateTo(descriptor, static_cast<off_t>(size)));
    const int error = errno;
    static_cast<void>(truncateTo(descriptor, 0));  // gives back what was reserved before the disk was full
    return setEndFailed(error);
  }
  return {};
}

DiskFile::ResizeResult DiskFile::truncate(std::uint64_t size) {
  if (size > kMaxOffset) return {ResizeResult::Call::Position, EINVAL};
  return setEndFailed(truncateTo(static_cast<int>(handle_), static_cast<off_t>(size)));
}

int DiskFile::writeAt(std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length, std::uint64_t* written) {
  *written = 0;
  if (offset > kMaxOffset) return EINVAL;
  for (;;) {
    const ssize_t n = ::pwrite(static_cast<int>(handle_), bytes, static_cast<std::size_t>(std::min(length, kMaxWrite)),
                               static_cast<off_t>(offset));
    if (n > 0) {
      *written = static_cast<std::uint64_t>(n);
      return 0;
    }
    if (n == 0) return EIO;  // no progress and no reason given: not to be tried for ever
    if (errno != EINTR) return errno;
  }
}

void DiskFile::close() {
  if (!isOpen()) return;
  ::close(static_cast<int>(handle_));
  handle_ = kClosed;
}

bool DiskFile::blockedByExisting(int error) {
  // A program that is running, and a file that may not be written: the folder may still allow another name.
  return error == ETXTBSY || error == EACCES || error == EPERM;
}

void DiskFile::moveAside(const std::string& path, const std::string& sidePath) {
  ::unlink(sidePath.c_str());
  static_cast<void>(std::rename(path.c_str(), sidePath.c_str()));
}

}  // namespace sys
