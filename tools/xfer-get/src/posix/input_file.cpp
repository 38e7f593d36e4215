#include "input_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace xfer_get {
namespace {

std::error_code errorOfKind(int descriptor) {
  struct stat opened {};
  if (::fstat(descriptor, &opened) != 0) return {errno, std::system_category()};
  if (S_ISDIR(opened.st_mode)) return {EISDIR, std::system_category()};
  return S_ISREG(opened.st_mode) ? std::error_code() : std::make_error_code(std::errc::not_supported);
}

}  // namespace

InputFile::InputFile(std::string path) : path_(std::move(path)) {
  // Without O_NONBLOCK, opening a pipe waits for its writer.
  int descriptor = -1;
  do {
    descriptor = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor < 0) throw std::system_error(errno, std::system_category(), path_);
  if (const std::error_code error = errorOfKind(descriptor)) {
    ::close(descriptor);
    throw std::system_error(error, path_);
  }
  handle_ = descriptor;
}

InputFile::~InputFile() {
  ::close(static_cast<int>(handle_));
}

std::size_t InputFile::read(char* buffer, std::size_t count) {
  for (;;) {
    const ssize_t done = ::read(static_cast<int>(handle_), buffer, count);
    if (done >= 0) return static_cast<std::size_t>(done);
    if (errno != EINTR) throw std::system_error(errno, std::system_category(), path_);
  }
}

}  // namespace xfer_get
