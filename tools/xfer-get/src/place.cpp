#include "place.h"

#include <filesystem>
#include <system_error>

#include "new_file.h"
#include "path.h"

namespace xfer_get {
namespace {

namespace fs = std::filesystem;

constexpr int kMostNames = 1000;

}  // namespace

Place::Place(const std::string& wanted, bool overwrite) : wanted_(wanted), path_(wanted) {
  const fs::path path = pathOf(wanted);
  std::error_code unknown;
  const fs::file_status there = fs::status(path, unknown);
  if (fs::is_directory(there)) {
    error_ = "this is a folder; -P stores into it";
  } else if (fs::exists(there) && !fs::is_regular_file(there)) {
    error_ = "this is no regular file; -o - writes to standard output";
  } else if (!overwrite) {
    takeFreeName();
  }
}

void Place::takeFreeName() {
  for (int number = 0; number < kMostNames; ++number) {
    path_ = number == 0 ? wanted_ : wanted_ + "." + std::to_string(number);
    const NewFile made = makeNewFile(path_);
    made_ = made == NewFile::Made;
    if (made != NewFile::Exists) return;  // why a file cannot be made is told by the download that tries it again
  }
  error_ = "there are " + std::to_string(kMostNames) + " files of that name; --overwrite replaces the first one";
}

void Place::leaveIfEmpty() const {
  if (!made_) return;
  const fs::path path = pathOf(path_);
  std::error_code unknown;
  if (fs::file_size(path, unknown) == 0 && !unknown) fs::remove(path, unknown);
}

}  // namespace xfer_get
