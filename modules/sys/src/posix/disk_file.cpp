#include "sys/disk_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <system_error>

namespace sys {
namespace {

constexpr auto kMaxOffset = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
constexpr std::uint64_t kMaxWrite = 0x7FFFFFFF;  // above the kernel's own limit per call

constexpr int kHeldByWriter = EAGAIN;  // error of a lock that another writer holds

int truncateTo(int descriptor, off_t size) {
  while (::ftruncate(descriptor, size) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

// Opens path without truncating or locking it.  Failure: -1 and errno.
int openForWriting(const char* path) {
  int low = -1;
  do {
    low = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  } while (low < 0 && errno == EINTR);
  if (low < 0 || low > STDERR_FILENO) return low;
  // The host has closed a standard stream; avoid its descriptor, or the host's output would go into the file.
  const int above = ::fcntl(low, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  ::close(low);
  errno = error;
  return above;
}

// The writer's lock: an advisory lock of the open file description.  Unlike a process lock it excludes a second job in
// this process and survives the closing of the file's other descriptors.  It is not an flock, so a host or shell may
// hold one on the same file.  It covers an offset behind any content: some network file systems enforce locks, and
// readers must not be blocked.
struct flock writersLock(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = std::numeric_limits<off_t>::max();
  lock.l_len = 1;
  return lock;
}

// Takes the lock, and returns whether another writer holds it.  On a file system that cannot lock: false.
bool heldByAnother(int descriptor) {
  struct flock lock = writersLock(F_WRLCK);
  while (::fcntl(descriptor, F_OFD_SETLK, &lock) != 0) {
    if (errno != EINTR) return errno == EAGAIN || errno == EACCES;
  }
  return false;
}

// Tests the lock of a file that cannot be opened for writing; does not take it.
bool heldByAnother(const char* path) {
  const int descriptor = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) return false;
  struct flock lock = writersLock(F_WRLCK);
  const bool held = ::fcntl(descriptor, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
  ::close(descriptor);
  return held;
}

bool names(const char* path, const struct stat& file) {
  struct stat named {};
  return ::stat(path, &named) == 0 && named.st_dev == file.st_dev && named.st_ino == file.st_ino;
}

// Takes the lock, then empties the file.
int takeOver(int descriptor, const char* path) {
  struct stat opened {};
  if (::fstat(descriptor, &opened) != 0) return errno;
  if (!S_ISREG(opened.st_mode)) return 0;  // a device or FIFO: nothing to lock or empty
  if (heldByAnother(descriptor)) return kHeldByWriter;
  // The file was renamed or replaced before the lock was taken: the path no longer names it.
  if (!names(path, opened)) return kHeldByWriter;
  return truncateTo(descriptor, 0);
}

DiskFile::ResizeResult setEndFailed(int error) {
  return {error != 0 ? DiskFile::ResizeResult::Call::SetEnd : DiskFile::ResizeResult::Call::None, error};
}

}  // namespace

int DiskFile::create(const std::string& path) {
  const int descriptor = openForWriting(path.c_str());
  if (descriptor < 0) {
    const int error = errno;
    // Report a held file as held: the caller must not move it aside.
    return blockedByExisting(error) && heldByAnother(path.c_str()) ? kHeldByWriter : error;
  }
  handle_ = descriptor;
  const int error = takeOver(descriptor, path.c_str());
  if (error != 0) close();
  return error;
}

DiskFile::ResizeResult DiskFile::reserve(std::uint64_t size) {
  if (size > kMaxOffset) return {ResizeResult::Call::Position, EINVAL};
  const auto descriptor = static_cast<int>(handle_);
  while (::fallocate(descriptor, 0, 0, static_cast<off_t>(size)) != 0) {
    if (errno == EINTR) continue;
    // The file system cannot reserve: set the size only.
    if (errno == EOPNOTSUPP || errno == ENOSYS) return setEndFailed(truncateTo(descriptor, static_cast<off_t>(size)));
    const int error = errno;
    static_cast<void>(truncateTo(descriptor, 0));  // release the part reserved before the disk was full
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
    if (n == 0) return EIO;  // no progress and no error: do not loop for ever
    if (errno != EINTR) return errno;
  }
}

void DiskFile::close() {
  if (!isOpen()) return;
  const auto descriptor = static_cast<int>(handle_);
  // Unlock explicitly: a child that the host forked has the descriptor too and would keep the lock.
  struct flock lock = writersLock(F_UNLCK);
  static_cast<void>(::fcntl(descriptor, F_OFD_SETLK, &lock));
  ::close(descriptor);
  handle_ = kClosed;
}

bool DiskFile::blockedByExisting(int error) {
  // A running program or a read-only file: the folder may still allow a rename.
  return error == ETXTBSY || error == EACCES || error == EPERM;
}

bool DiskFile::heldByWriter(int error) {
  return error == kHeldByWriter;
}

std::string DiskFile::reason(int error) {
  // What opening a socket, and reserving space in a device or FIFO, fail with.
  const bool special = error == ENODEV || error == ENXIO || error == ESPIPE;
  return special ? kNotRegular : std::generic_category().message(error);
}

void DiskFile::moveAside(const std::string& path, const std::string& sidePath) {
  ::unlink(sidePath.c_str());
  static_cast<void>(std::rename(path.c_str(), sidePath.c_str()));
}

}  // namespace sys
