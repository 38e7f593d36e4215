// Lists and digests, compared with those of the system's own programs.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <string>
#include <system_error>
#include <vector>

#include "checksum.h"
#include "digest.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using xfer_get::ChecksumAlgorithm;
using xfer_get::FileDigest;

class ChecksumPrograms : public testing::TestWithParam<std::pair<const char*, ChecksumAlgorithm>> {
 protected:
  void SetUp() override {
    for (const std::string name :
         {"plain", "two words", " leads",           "trails ", "line\nfeed", "\n",   "back\\slash",
          "\\n",   "\\",        "both\\\n",         "*star",   "a) = b",     "a (b", "(",
          "#hash", "-dash",     "carriage\rreturn", "tab\t",   "\xC3\xA9",   "\xFF"}) {
      support::writeFile(folder_.file(name), "content of " + name);
      names_.push_back(name);
    }
    support::writeFile(folder_.file("empty"), "");
    names_.emplace_back("empty");
  }

  void expectToReadItsList(const std::vector<std::string>& options) const {
    std::vector<std::string> command = {GetParam().first};
    command.insert(command.end(), options.begin(), options.end());
    command.emplace_back("--");
    command.insert(command.end(), names_.begin(), names_.end());
    const support::Finished done = support::runProcess(command, {.folder = folder_.path()});
    ASSERT_EQ(done.exitCode, 0) << done.err;
    std::size_t badLine = 0;
    const auto list = xfer_get::checksumListFromText(done.out, &badLine);
    ASSERT_TRUE(list) << "line " << badLine << " of\n" << done.out;
    EXPECT_EQ(list->size(), names_.size()) << done.out;
    for (const std::string& name : names_) {
      const auto found = list->find(name);
      ASSERT_NE(found, list->end()) << name << " in\n" << done.out;
      EXPECT_EQ(found->second.algorithm, GetParam().second) << name;
      EXPECT_EQ(found->second.hex, FileDigest(GetParam().second, folder_.file(name)).finish()) << name;
    }
  }

  const support::TempDir folder_;
  std::vector<std::string> names_;
};

TEST_P(ChecksumPrograms, writeListsThatAreRead) {
  expectToReadItsList({});
}

TEST_P(ChecksumPrograms, writeBinaryListsThatAreRead) {
  expectToReadItsList({"--binary"});
}

TEST_P(ChecksumPrograms, writeTaggedListsThatAreRead) {
  expectToReadItsList({"--tag"});
}

INSTANTIATE_TEST_SUITE_P(Each, ChecksumPrograms,
                         testing::Values(std::pair{"md5sum", ChecksumAlgorithm::Md5},
                                         std::pair{"sha1sum", ChecksumAlgorithm::Sha1},
                                         std::pair{"sha256sum", ChecksumAlgorithm::Sha256},
                                         std::pair{"sha512sum", ChecksumAlgorithm::Sha512}),
                         [](const auto& each) { return std::string(each.param.first); });

TEST(FileDigestOfAPipe, failsAndWaitsForNoWriter) {
  const support::TempDir folder;
  const std::string pipe = folder.file("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  try {
    FileDigest(ChecksumAlgorithm::Sha256, pipe).finish();
    FAIL() << "no error";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::not_supported) << error.what();
  }
}

}  // namespace
