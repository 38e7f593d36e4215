#include "new_file.h"

#include <windows.h>

#include "path.h"

namespace xfer_get {

NewFile makeNewFile(const std::string& path) {
  const HANDLE file = ::CreateFileW(pathOf(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    return ::GetLastError() == ERROR_FILE_EXISTS ? NewFile::Exists : NewFile::Failed;
  }
  ::CloseHandle(file);
  return NewFile::Made;
}

}  // namespace xfer_get
