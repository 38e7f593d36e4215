#include "digest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "support/census.h"
#include "support/pattern.h"
#include "support/temp_dir.h"
#include "sys/disk_file.h"

namespace {

using xfer_get::ChecksumAlgorithm;
using xfer_get::FileDigest;
using xfer_get::StreamDigest;

constexpr std::uint64_t kAll = UINT64_MAX;
constexpr std::uint64_t kSize = 700'001;  // more than is read at once, and no round number

std::string digestOf(ChecksumAlgorithm algorithm, const std::string& bytes) {
  StreamDigest digest(algorithm);
  digest.add(bytes.data(), bytes.size());
  return digest.finish();
}

std::string sha256(const std::string& bytes) {
  return digestOf(ChecksumAlgorithm::Sha256, bytes);
}

// The error that a call ends with; none: a default one, which is no error.
std::error_code errorOf(const std::function<void()>& call, const std::string& path) {
  try {
    call();
  } catch (const std::system_error& error) {
    EXPECT_NE(std::string(error.what()).find(path), std::string::npos) << error.what();
    return error.code();
  }
  return {};
}

TEST(StreamDigest, isThatOfKnownBytes) {
  struct Vector {
    ChecksumAlgorithm algorithm;
    std::string ofNothing, ofAbc, ofAMillionTimesA;
  };
  for (const Vector& known :
       {Vector{ChecksumAlgorithm::Md5, "d41d8cd98f00b204e9800998ecf8427e", "900150983cd24fb0d6963f7d28e17f72",
               "7707d6ae4e027c70eea2a935c2296f21"},
        Vector{ChecksumAlgorithm::Sha1, "da39a3ee5e6b4b0d3255bfef95601890afd80709",
               "a9993e364706816aba3e25717850c26c9cd0d89d", "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
        Vector{ChecksumAlgorithm::Sha256, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
               "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
               "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
        Vector{ChecksumAlgorithm::Sha512,
               "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
               "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e",
               "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
               "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f",
               "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973eb"
               "de0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4eadb217ad8cc09b"}}) {
    EXPECT_EQ(StreamDigest(known.algorithm).finish(), known.ofNothing);
    EXPECT_EQ(digestOf(known.algorithm, "abc"), known.ofAbc);
    EXPECT_EQ(digestOf(known.algorithm, std::string(1'000'000, 'a')), known.ofAMillionTimesA);
  }
}

TEST(StreamDigest, isTheSameInPiecesOfAllSizes) {
  const std::string bytes = support::patternBytes(0, 1000);
  for (const auto algorithm :
       {ChecksumAlgorithm::Md5, ChecksumAlgorithm::Sha1, ChecksumAlgorithm::Sha256, ChecksumAlgorithm::Sha512}) {
    const std::string whole = digestOf(algorithm, bytes);
    for (std::size_t size = 1; size <= bytes.size(); ++size) {
      StreamDigest digest(algorithm);
      for (std::size_t at = 0; at < bytes.size(); at += size) digest.add(&bytes[at], std::min(size, bytes.size() - at));
      ASSERT_EQ(digest.finish(), whole) << size;
    }
  }
}

TEST(StreamDigest, goesOnWhereItIsMoved) {
  StreamDigest first(ChecksumAlgorithm::Sha256);
  first.add("a", 1);
  StreamDigest second(std::move(first));
  second.add("b", 1);
  StreamDigest third(ChecksumAlgorithm::Md5);
  third = std::move(second);
  third.add("c", 1);
  EXPECT_EQ(third.finish(), sha256("abc"));
}

class FileDigestTest : public testing::Test {
 protected:
  void append(const std::string& bytes) const {
    std::ofstream(support::toPath(path_), std::ios::binary | std::ios::app) << bytes;
  }

  // Opens the file as a download does, and writes from offset on.
  static void writeAt(sys::DiskFile& file, std::uint64_t offset, const std::string& bytes) {
    std::uint64_t written = 0;
    ASSERT_EQ(file.writeAt(offset, reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), &written), 0);
    ASSERT_EQ(written, bytes.size());
  }

  [[nodiscard]] FileDigest digest() const { return {ChecksumAlgorithm::Sha256, path_}; }

  const support::TempDir folder_;
  const std::string path_ = folder_.file("file \xC3\xA9.bin");
  const std::string bytes_ = support::patternBytes(0, kSize);
};

TEST_F(FileDigestTest, isThatOfTheFile) {
  support::writeFile(path_, bytes_);
  for (const auto algorithm :
       {ChecksumAlgorithm::Md5, ChecksumAlgorithm::Sha1, ChecksumAlgorithm::Sha256, ChecksumAlgorithm::Sha512}) {
    EXPECT_EQ(FileDigest(algorithm, path_).finish(), digestOf(algorithm, bytes_));
  }
}

TEST_F(FileDigestTest, ofAnEmptyFileIsThatOfNothing) {
  support::writeFile(path_, "");
  FileDigest digest = this->digest();
  digest.take(0, kAll);
  EXPECT_EQ(digest.finish(), sha256(""));
}

TEST_F(FileDigestTest, isTheSameHoweverItIsTaken) {
  support::writeFile(path_, bytes_);
  const std::string whole = sha256(bytes_);
  for (const std::uint64_t step : {1'000U, 65'536U, 262'143U, 262'144U, 262'145U, 500'000U, 700'001U}) {
    for (const std::uint64_t most : {999U, 65'536U, 262'144U, 262'145U, 1'000'000U}) {
      FileDigest digest = this->digest();
      for (std::uint64_t there = 0; there < kSize; there += step) digest.take(there, most);
      ASSERT_EQ(digest.finish(), whole) << step << ' ' << most;
    }
  }
}

TEST_F(FileDigestTest, takesAtMostWhatItMayAndWhatIsThere) {
  support::writeFile(path_, bytes_);
  FileDigest digest = this->digest();
  EXPECT_EQ(digest.read(), 0U);
  digest.take(kSize, 0);
  EXPECT_EQ(digest.read(), 0U);
  digest.take(kSize, 300'000);
  EXPECT_EQ(digest.read(), 300'000U);
  digest.take(400'000, 300'000);
  EXPECT_EQ(digest.read(), 400'000U);
  digest.take(400'000, kAll);
  EXPECT_EQ(digest.read(), 400'000U);
  digest.take(10, kAll);
  EXPECT_EQ(digest.read(), 400'000U) << "fewer bytes there than before";
  digest.take(kSize, kAll);
  EXPECT_EQ(digest.read(), kSize);
  EXPECT_EQ(digest.finish(), sha256(bytes_));
}

// The whole file has its size from the beginning, and what is not there yet is something else.
TEST_F(FileDigestTest, readsNothingThatIsNotThereYet) {
  sys::DiskFile file;
  ASSERT_EQ(file.create(path_), 0);
  ASSERT_EQ(file.reserve(kSize).error, 0);
  FileDigest digest = this->digest();
  for (const auto& [from, to] : {std::pair{0, 1}, std::pair{1, 262'144}, std::pair{262'144, 600'000}}) {
    writeAt(file, static_cast<std::uint64_t>(from),
            support::patternBytes(static_cast<std::uint64_t>(from), static_cast<std::uint64_t>(to)));
    digest.take(static_cast<std::uint64_t>(to), kAll);
    EXPECT_EQ(digest.read(), static_cast<std::uint64_t>(to));
  }
  writeAt(file, 600'000, support::patternBytes(600'000, kSize));
  EXPECT_EQ(digest.finish(), sha256(bytes_));
}

TEST_F(FileDigestTest, keepsUpWithAWriterOnAnotherThread) {
  sys::DiskFile file;
  ASSERT_EQ(file.create(path_), 0);
  ASSERT_EQ(file.reserve(kSize).error, 0);
  std::atomic<std::uint64_t> there{0};
  std::thread writer([&] {
    for (std::uint64_t at = 0; at < kSize;) {
      const std::uint64_t end = std::min(at + 10'007, kSize);
      writeAt(file, at, support::patternBytes(at, end));
      at = end;
      there = at;
      there.notify_one();
    }
  });
  FileDigest digest = this->digest();
  while (digest.read() < kSize) {
    there.wait(digest.read());
    digest.take(there, kAll);
  }
  writer.join();
  EXPECT_EQ(digest.finish(), sha256(bytes_));
}

TEST_F(FileDigestTest, needsNoFileBeforeItReads) {
  FileDigest digest = this->digest();
  digest.take(0, kAll);
  digest.restart();
  support::writeFile(path_, bytes_);
  digest.take(kSize, kAll);
  EXPECT_EQ(digest.finish(), sha256(bytes_));
}

TEST_F(FileDigestTest, followsAFileThatGrows) {
  support::writeFile(path_, bytes_.substr(0, 100'000));
  FileDigest digest = this->digest();
  digest.take(100'000, kAll);
  append(bytes_.substr(100'000, 300'000));
  digest.take(400'000, kAll);
  append(bytes_.substr(400'000));
  EXPECT_EQ(digest.finish(), sha256(bytes_));
}

TEST_F(FileDigestTest, failsWhereTheFileIsShorterThanIsThereAndGoesOnOnceItIsNot) {
  support::writeFile(path_, bytes_.substr(0, 300'000));
  FileDigest digest = this->digest();
  EXPECT_EQ(errorOf([&] { digest.take(kSize, kAll); }, path_), std::errc::io_error);
  EXPECT_EQ(digest.read(), 300'000U);
  EXPECT_EQ(errorOf([&] { digest.take(300'001, 1); }, path_), std::errc::io_error);
  append(bytes_.substr(300'000));
  digest.take(kSize, kAll);
  EXPECT_EQ(digest.finish(), sha256(bytes_));
}

TEST_F(FileDigestTest, failsWithoutAFileAndGoesOnOnceThereIsOne) {
  FileDigest digest = this->digest();
  EXPECT_EQ(errorOf([&] { digest.take(1, 1); }, path_), std::errc::no_such_file_or_directory);
  EXPECT_EQ(errorOf([&] { digest.finish(); }, path_), std::errc::no_such_file_or_directory);
  support::writeFile(path_, bytes_);
  digest.take(1, 1);
  EXPECT_EQ(digest.finish(), sha256(bytes_));
}

TEST_F(FileDigestTest, failsWithAFolder) {
  std::filesystem::create_directory(support::toPath(path_));
  FileDigest digest = this->digest();
  for (const auto& call :
       {std::function<void()>([&] { digest.take(1, 1); }), std::function<void()>([&] { digest.finish(); })}) {
    const std::error_code error = errorOf(call, path_);
    EXPECT_TRUE(error == std::errc::is_a_directory || error == std::errc::permission_denied) << error.message();
  }
}

// A device's bytes are gone once they are read, or never end.
TEST_F(FileDigestTest, failsWithADevice) {
  std::vector<std::error_code> errors;
  for (const char* device : {"/dev/null", "NUL"}) {  // one of them is here
    errors.push_back(errorOf([&] { FileDigest(ChecksumAlgorithm::Sha256, device).finish(); }, device));
  }
  EXPECT_TRUE(errors[0] == std::errc::not_supported || errors[1] == std::errc::not_supported)
      << errors[0].message() << ", " << errors[1].message();
}

TEST_F(FileDigestTest, startsAgainInEveryPhase) {
  const std::string old = support::patternBytes(0, kSize, 1);
  const std::vector<std::pair<const char*, std::function<void(FileDigest&)>>> phases = {
      {"before it has read", [](FileDigest&) {}},
      {"in the middle", [](FileDigest& digest) { digest.take(kSize, 300'000); }},
      {"at the end", [](FileDigest& digest) { digest.take(kSize, kAll); }},
      {"after an error",
       [&](FileDigest& digest) {
         EXPECT_EQ(errorOf([&] { digest.take(kSize + 1, kAll); }, path_), std::errc::io_error);
       }},
      {"twice",
       [](FileDigest& digest) {
         digest.take(100, kAll);
         digest.restart();
         digest.take(200, kAll);
       }},
  };
  for (const auto& [name, read] : phases) {
    support::writeFile(path_, old);
    FileDigest digest = this->digest();
    read(digest);
    support::writeFile(path_, bytes_);
    digest.restart();
    EXPECT_EQ(digest.read(), 0U) << name;
    digest.take(400'000, kAll);
    EXPECT_EQ(digest.read(), 400'000U) << name;
    EXPECT_EQ(digest.finish(), sha256(bytes_)) << name;
  }
}

TEST_F(FileDigestTest, startsAgainWithTheFileThatHasTheNameThen) {
  support::writeFile(path_, support::patternBytes(0, kSize, 1));
  FileDigest digest = this->digest();
  digest.take(1000, kAll);
  std::filesystem::rename(support::toPath(path_), support::toPath(path_ + ".bak"));
  support::writeFile(path_, bytes_);
  digest.restart();
  EXPECT_EQ(digest.finish(), sha256(bytes_));
}

TEST_F(FileDigestTest, disturbsNobodyWhoWritesOrRenamesOrRemovesTheFile) {
  sys::DiskFile file;
  ASSERT_EQ(file.create(path_), 0);
  writeAt(file, 0, bytes_);
  FileDigest digest = this->digest();
  digest.take(1000, kAll);
  EXPECT_EQ(file.truncate(500'000).error, 0);
  file.close();
  EXPECT_EQ(file.create(path_), 0) << "again, from its beginning";
  writeAt(file, 0, bytes_);
  file.close();
  std::error_code error;
  std::filesystem::rename(support::toPath(path_), support::toPath(path_ + ".new"), error);
  EXPECT_FALSE(error) << error.message();
  std::filesystem::remove(support::toPath(path_ + ".new"), error);
  EXPECT_FALSE(error) << error.message();
  EXPECT_EQ(digest.finish(), sha256(bytes_)) << "what was opened is read to its end";
}

TEST_F(FileDigestTest, leavesTheFileAloneOnceItIsFinished) {
  support::writeFile(path_, bytes_);
  support::writeFile(path_ + ".old", "");
  FileDigest digest = this->digest();
  digest.finish();
  std::error_code error;
  std::filesystem::rename(support::toPath(path_ + ".old"), support::toPath(path_), error);
  EXPECT_FALSE(error) << "replaced: " << error.message();
}

TEST_F(FileDigestTest, leavesNothingOpen) {
  support::writeFile(path_, bytes_);
  EXPECT_EQ(digest().finish(), sha256(bytes_)) << "the first digest of all may open what stays open";
  const std::size_t before = support::openFileCount();
  FileDigest finished = digest();
  finished.finish();
  EXPECT_EQ(support::openFileCount(), before);
  FileDigest restarted = digest();
  restarted.take(1, 1);
  EXPECT_EQ(support::openFileCount(), before + 1);
  restarted.restart();
  EXPECT_EQ(support::openFileCount(), before);
  EXPECT_NE(errorOf([&] { FileDigest(ChecksumAlgorithm::Sha256, folder_.path()).finish(); }, folder_.path()),
            std::error_code());
  EXPECT_EQ(support::openFileCount(), before);
}

TEST_F(FileDigestTest, goesOnWhereItIsMoved) {
  support::writeFile(path_, bytes_);
  FileDigest first = digest();
  first.take(300'000, kAll);
  FileDigest second(std::move(first));
  second.take(400'000, kAll);
  FileDigest third(ChecksumAlgorithm::Md5, "");
  third = std::move(second);
  EXPECT_EQ(third.finish(), sha256(bytes_));
}

}  // namespace
