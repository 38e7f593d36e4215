#include "support/pattern.h"

#include <gtest/gtest.h>

#include <set>

#include "support/temp_dir.h"

namespace support {
namespace {

TEST(Pattern, fillsTheSameBytesWhereverTheRangeStarts) {
  const std::string whole = patternBytes(0, 4096);
  for (std::uint64_t i = 0; i < whole.size(); ++i) {
    ASSERT_EQ(static_cast<std::uint8_t>(whole[i]), patternByte(i)) << i;
  }
  for (std::uint64_t from = 0; from < 20; ++from) {
    for (std::uint64_t to = from; to < 60; ++to) ASSERT_EQ(patternBytes(from, to), whole.substr(from, to - from));
  }
}

TEST(Pattern, staysTheSameForEver) {  // tests/servers/fixture.py has to write the same
  EXPECT_EQ(patternWord(0), 0x17FB89EE35ED72B0u);
  EXPECT_EQ(patternWord(2097152), 0x7405D94ADDAD435Fu);
  EXPECT_EQ(patternWord(0, 1), 0x734EE3E28E7E631u);
}

// Every 16 bytes are found at one place only, so a block in a wrong place shows, however far it went.
TEST(Pattern, hasNoPeriod) {
  constexpr std::uint64_t kBytes = 4 << 20;
  std::set<std::uint64_t> words;
  for (std::uint64_t index = 0; index < kBytes / 8; ++index) ASSERT_TRUE(words.insert(patternWord(index)).second);
  for (std::uint64_t distance = 1; distance <= (1ull << 40); distance *= 2) {
    int same = 0;
    for (std::uint64_t i = 0; i < 4096; ++i) same += patternByte(i) == patternByte(i + distance) ? 1 : 0;
    EXPECT_LT(same, 60) << "of 4096 bytes stay the same at a distance of " << distance;
  }
}

TEST(Pattern, seedsGiveOtherFiles) {
  int same = 0;
  for (std::uint64_t i = 0; i < 4096; ++i) same += patternByte(i, 1) == patternByte(i, 2) ? 1 : 0;
  EXPECT_LT(same, 60);
}

TEST(Pattern, comparisonFindsTheFirstWrongByte) {
  constexpr std::uint64_t kBytes = (2 << 20) + 5;
  const TempDir folder;
  const std::string path = folder.file("file");
  writePatternFile(path, kBytes);
  EXPECT_EQ(firstWrongByte(path, kBytes), std::nullopt);
  EXPECT_EQ(patternError(path, kBytes), "");
  EXPECT_EQ(firstWrongByte(path, kBytes, 1), 0u) << "another seed";
  EXPECT_EQ(firstWrongByte(path, kBytes + 1), kBytes) << "too short";
  EXPECT_EQ(firstWrongByte(path, kBytes - 1), kBytes - 1) << "too long";
  EXPECT_EQ(firstWrongByte(folder.file("other"), 0), 0u) << "missing";

  for (const std::uint64_t wrong : {std::uint64_t{0}, std::uint64_t{1'500'001}, kBytes - 1}) {
    std::string bytes = patternBytes(0, kBytes);
    bytes[wrong] = static_cast<char>(bytes[wrong] ^ 1);
    writeFile(path, bytes);
    EXPECT_EQ(firstWrongByte(path, kBytes), wrong);
    EXPECT_NE(patternError(path, kBytes).find("offset " + std::to_string(wrong)), std::string::npos);
  }
}

TEST(Pattern, emptyFileIsAPattern) {
  const TempDir folder;
  writePatternFile(folder.file("empty"), 0);
  EXPECT_EQ(fileSize(folder.file("empty")), 0u);
  EXPECT_EQ(patternError(folder.file("empty"), 0), "");
}

}  // namespace
}  // namespace support
