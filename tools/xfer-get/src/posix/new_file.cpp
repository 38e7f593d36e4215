#include "new_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace xfer_get {

NewFile makeNewFile(const std::string& path) {
  constexpr mode_t kMode = 0666;  // as the user's mask says
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode);
  if (file < 0) return errno == EEXIST ? NewFile::Exists : NewFile::Failed;
  ::close(file);
  return NewFile::Made;
}

}  // namespace xfer_get
