// What stands in a download's way on Windows: files that others hold open, read-only files, long names.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "file_sink.h"
#include "support/log_line.h"
#include "support/recording_logger.h"
#include "support/temp_dir.h"

using support::TempDir;
using xfer::FileSink;

namespace {

constexpr std::int32_t kNotCreated = 100004;

std::wstring wide(const std::string& ascii) {
  return {ascii.begin(), ascii.end()};
}

// A handle that others see with these sharing rights.
class Holder {
 public:
  Holder(const std::string& path, DWORD sharing)
      : handle_(::CreateFileW(wide(path).c_str(), GENERIC_READ, sharing, nullptr, OPEN_EXISTING, 0, nullptr)) {
    EXPECT_NE(handle_, INVALID_HANDLE_VALUE) << ::GetLastError();
  }
  ~Holder() { ::CloseHandle(handle_); }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

 private:
  HANDLE handle_;
};

TEST(BlockedFile, heldOpenWithoutWriteSharingIsMovedAsideOverAnOlderOne) {
  const TempDir folder;
  const std::string path = folder.file("f");
  support::writeFile(path, "before");
  support::writeFile(path + ".bak", "older still");
  const Holder holder(path, FILE_SHARE_READ | FILE_SHARE_DELETE);
  FileSink sink;
  EXPECT_EQ(sink.open(path, 5), 0);
  sink.close();
  EXPECT_EQ(support::fileSize(path), 5U);
  EXPECT_EQ(support::readFile(path + ".bak"), "before");
}

// A folder gives the error that a read-only file gives; that one's does not come under Wine, where root may write it.
TEST(BlockedFile, accessThatIsDeniedMovesAsideWhatIsThere) {
  const TempDir folder;
  const std::string path = folder.file("f");
  ASSERT_TRUE(::CreateDirectoryW(wide(path).c_str(), nullptr));
  FileSink sink;
  EXPECT_EQ(sink.open(path, 5), 0);
  sink.close();
  EXPECT_EQ(support::fileSize(path), 5U);
  EXPECT_TRUE(::GetFileAttributesW(wide(path + ".bak").c_str()) & FILE_ATTRIBUTE_DIRECTORY);
}

TEST(BlockedFile, heldOpenWithoutAnySharingStaysAndFailsTheDownload) {
  const TempDir folder;
  const support::RecordingLogger log(3);
  const std::string path = folder.file("f");
  support::writeFile(path, "before");
  {
    const Holder holder(path, 0);
    FileSink sink;
    EXPECT_EQ(sink.open(path, 5), kNotCreated);
    EXPECT_FALSE(sink.isOpen());
  }
  EXPECT_EQ(support::readFile(path), "before");
  const std::string text = "open | CreateFile failed | path=" + path + " | err=32";
  EXPECT_EQ(support::wholeLogError(log.records(), {support::failure(support::kSink, text)}), "");
}

TEST(BlockedFile, othersMayReadWhileItIsWrittenAndMayNotWrite) {
  const TempDir folder;
  const std::string path = folder.file("f");
  FileSink sink;
  ASSERT_EQ(sink.open(path, 5), 0);
  const HANDLE writer = ::CreateFileW(wide(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_EXISTING, 0, nullptr);
  EXPECT_EQ(writer, INVALID_HANDLE_VALUE);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  const HANDLE reader = ::CreateFileW(wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_EXISTING, 0, nullptr);
  EXPECT_NE(reader, INVALID_HANDLE_VALUE);
  ::CloseHandle(reader);
}

TEST(LongPath, ofTheExtendedFormIsUsed) {
  const TempDir folder;
  std::vector<std::string> folders = {R"(\\?\)" + folder.path()};
  for (const char letter : {'a', 'b', 'c'}) {
    folders.push_back(folders.back() + R"(\)" + std::string(100, letter));
    ASSERT_TRUE(::CreateDirectoryW(wide(folders.back()).c_str(), nullptr)) << ::GetLastError();
  }
  const std::string path = folders.back() + R"(\file.bin)";
  ASSERT_GT(path.size(), 260U);
  FileSink sink;
  EXPECT_EQ(sink.open(path, 5), 0);
  sink.close();
  WIN32_FILE_ATTRIBUTE_DATA found{};
  EXPECT_TRUE(::GetFileAttributesExW(wide(path).c_str(), GetFileExInfoStandard, &found));
  EXPECT_EQ(found.nFileSizeLow, 5U);
  // Such names are beyond what removes the folder.
  EXPECT_TRUE(::DeleteFileW(wide(path).c_str()));
  for (; folders.size() > 1; folders.pop_back()) EXPECT_TRUE(::RemoveDirectoryW(wide(folders.back()).c_str()));
}

TEST(Path, thatIsNotUtf8IsRefused) {
  const TempDir folder;
  FileSink sink;
  EXPECT_EQ(sink.open(folder.path() + "\\bad\xFFname", 5), kNotCreated);
  EXPECT_TRUE(support::listFolder(folder.path()).empty());
}

}  // namespace
