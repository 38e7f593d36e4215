#include "support/temp_dir.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <system_error>

namespace support {

TempDir::TempDir() {
  const std::filesystem::path root = std::filesystem::temp_directory_path();
  std::random_device random;
  std::filesystem::path path;
  do {
    path = root / ("xfer-test-" + std::to_string(random()) + "-" + std::to_string(random()));
  } while (!std::filesystem::create_directory(path));
  path_ = toUtf8(path);
}

TempDir::~TempDir() {
  std::error_code error;
  std::filesystem::remove_all(toPath(path_), error);
  if (error) std::fprintf(stderr, "cannot remove %s: %s\n", path_.c_str(), error.message().c_str());
}

std::string TempDir::file(const std::string& name) const {
  return toUtf8(toPath(path_) / toPath(name));
}

std::filesystem::path toPath(const std::string& utf8) {
  return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

std::string toUtf8(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream file(toPath(path), std::ios::binary);
  if (!file) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream file(toPath(path), std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path);
}

std::optional<std::uint64_t> fileSize(const std::string& path) {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(toPath(path), error);
  if (error) return std::nullopt;
  return size;
}

bool exists(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(toPath(path), error);
}

std::vector<std::string> listFolder(const std::string& path) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(toPath(path))) {
    names.push_back(toUtf8(entry.path().filename()));
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace support
