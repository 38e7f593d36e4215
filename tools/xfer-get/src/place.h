// Where a download goes: takes a name that nobody has.
//
// Two programs that begin at the same moment do not take the same name: a name is taken by an empty file.
//
// Threads: one.
// Errors:  std::bad_alloc; else a text.
#pragma once

#include <string>

namespace xfer_get {

class Place {
 public:
  /// Of a download that is to be stored as wanted.  With overwrite this very name, whatever file has it; else wanted,
  /// wanted.1, wanted.2, ..., whichever is the first that is free.
  Place(const std::string& wanted, bool overwrite);

  /// Empty: the place can be used, as far as it can be seen.
  [[nodiscard]] const std::string& error() const { return error_; }

  [[nodiscard]] const std::string& path() const { return path_; }

  /// Gives the name back when nothing was stored.
  void leaveIfEmpty() const;

 private:
  void takeFreeName();

  std::string wanted_;
  std::string path_;
  std::string error_;
  bool made_ = false;
};

}  // namespace xfer_get
