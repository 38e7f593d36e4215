// A folder that lives as long as the object, and the few things tests do with files in it.
//
// Threads: any, a file by one thread at a time.
// Errors:  what cannot be created or written throws std::runtime_error (or std::filesystem::filesystem_error).
// Units:   paths are UTF-8, with the separators of the platform; sizes are bytes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace support {

class TempDir {
 public:
  /// Creates an empty folder with a name of its own in the system's folder for such things.
  TempDir();

  /// Removes the folder with all that is in it.  What cannot be removed is told on stderr: somebody has it open.
  ~TempDir();

  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }

  /// The path of a file or folder in it; nothing is created.
  [[nodiscard]] std::string file(const std::string& name) const;

 private:
  std::string path_;
};

std::filesystem::path toPath(const std::string& utf8);
std::string toUtf8(const std::filesystem::path& path);

/// The whole content; nullopt when there is no such file.
std::optional<std::string> readFile(const std::string& path);

/// Creates or overwrites path.
void writeFile(const std::string& path, const std::string& bytes);

/// Nullopt when there is no such file.
std::optional<std::uint64_t> fileSize(const std::string& path);

bool exists(const std::string& path);

/// The names in a folder, in ascending order.
std::vector<std::string> listFolder(const std::string& path);

}  // namespace support
