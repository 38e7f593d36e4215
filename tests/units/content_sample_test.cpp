#include "content_sample.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "support/pattern.h"

using namespace xfer;

namespace {

constexpr std::uint64_t kBlock = kSampleBlock;
constexpr std::size_t kMostBlocks = 64;
constexpr std::size_t kMostPicked = 16;

using Bytes = std::vector<std::uint8_t>;

Bytes pattern(std::uint64_t from, std::uint64_t to) {
  Bytes bytes(to - from);
  support::fillPattern(from, bytes.data(), bytes.size());
  return bytes;
}

std::uint64_t hashOf(const Bytes& bytes) {
  BlockHash hash;
  hash.add(bytes.data(), bytes.size());
  return hash.value();
}

// The blocks of [from, to) when the stream arrives in pieces of a size.
std::vector<HashedBlock> blocksOf(std::uint64_t from, std::uint64_t to, std::uint64_t piece, std::uint64_t stride = 1) {
  StreamHasher hasher(from, stride);
  const Bytes bytes = pattern(from, to);
  for (std::uint64_t at = 0; at < bytes.size(); at += piece) {
    hasher.add(bytes.data() + at, std::min<std::uint64_t>(piece, bytes.size() - at));
  }
  return hasher.finish();
}

std::vector<ByteRange> rangesOf(const std::vector<HashedBlock>& blocks) {
  std::vector<ByteRange> ranges;
  for (const HashedBlock& block : blocks) ranges.push_back(block.range);
  return ranges;
}

std::vector<HashedBlock> blocksAt(std::uint64_t first, std::uint64_t count, std::uint64_t length = kBlock) {
  std::vector<HashedBlock> blocks;
  for (std::uint64_t index = first; index < first + count; ++index) {
    blocks.push_back({{index * kBlock, index * kBlock + length}, index});
  }
  return blocks;
}

// ---- The hash ----

TEST(BlockHash, ofEqualBytesIsEqualHoweverTheyAreCut) {
  const Bytes bytes = pattern(0, 1000);
  const std::uint64_t whole = hashOf(bytes);
  for (std::size_t piece = 1; piece < 40; ++piece) {
    BlockHash hash;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
      hash.add(bytes.data() + at, std::min(piece, bytes.size() - at));
    }
    EXPECT_EQ(hash.value(), whole) << piece;
  }
}

TEST(BlockHash, valueMayBeReadOnTheWay) {
  const Bytes bytes = pattern(0, 100);
  BlockHash hash;
  hash.add(bytes.data(), 13);
  EXPECT_EQ(hash.value(), hashOf(pattern(0, 13)));
  hash.add(bytes.data() + 13, bytes.size() - 13);
  EXPECT_EQ(hash.value(), hashOf(bytes));
}

TEST(BlockHash, seesEveryChangeOfASingleBit) {
  Bytes bytes = pattern(0, 1031);
  std::set<std::uint64_t> seen{hashOf(bytes)};
  for (std::uint8_t& byte : bytes) {
    for (int bit = 0; bit < 8; ++bit) {
      byte = static_cast<std::uint8_t>(byte ^ (1 << bit));
      EXPECT_TRUE(seen.insert(hashOf(bytes)).second);
      byte = static_cast<std::uint8_t>(byte ^ (1 << bit));
    }
  }
}

TEST(BlockHash, seesLengthsOfZeros) {
  std::set<std::uint64_t> seen;
  for (std::size_t length = 0; length < 100; ++length) EXPECT_TRUE(seen.insert(hashOf(Bytes(length))).second) << length;
}

TEST(BlockHash, seesBytesThatChangePlaces) {
  Bytes bytes = pattern(0, 64);
  const std::uint64_t before = hashOf(bytes);
  std::swap_ranges(bytes.begin(), bytes.begin() + 8, bytes.begin() + 8);
  EXPECT_NE(hashOf(bytes), before);
}

// ---- One stream ----

TEST(StreamHasher, cutsAtTheFilesBlocksWhereverItStarts) {
  EXPECT_EQ(rangesOf(blocksOf(100, 2 * kBlock + 5, 4096)),
            (std::vector<ByteRange>{{100, kBlock}, {kBlock, 2 * kBlock}, {2 * kBlock, 2 * kBlock + 5}}));
  EXPECT_EQ(rangesOf(blocksOf(kBlock, 2 * kBlock, 4096)), (std::vector<ByteRange>{{kBlock, 2 * kBlock}}));
}

TEST(StreamHasher, equalStreamsHashEqualHoweverTheyAreCut) {
  const auto whole = blocksOf(77, 5 * kBlock + 3, 1'000'000);
  ASSERT_EQ(whole.size(), 6U);
  for (const std::uint64_t piece : {1ULL, 7ULL, 4096ULL, 16383ULL, 16384ULL, 16385ULL, 70'000ULL}) {
    EXPECT_EQ(blocksOf(77, 5 * kBlock + 3, piece), whole) << piece;
  }
}

TEST(StreamHasher, hashesTheBytesOfItsBlocks) {
  for (const HashedBlock& block : blocksOf(77, 3 * kBlock + 3, 1000)) {
    EXPECT_EQ(block.hash, hashOf(pattern(block.range.start, block.range.end))) << block.range.start;
  }
}

TEST(StreamHasher, seesAChangeOfAnyByteOfABlock) {
  Bytes bytes = pattern(0, kBlock);
  const std::uint64_t before = hashOf(bytes);
  for (std::size_t at = 0; at < bytes.size();
       at = at + 61 < bytes.size() || at == bytes.size() - 1 ? at + 61 : bytes.size() - 1) {
    bytes[at] ^= 0x80;
    StreamHasher hasher(0, 1);
    hasher.add(bytes.data(), bytes.size());
    EXPECT_NE(hasher.finish().at(0).hash, before) << at;
    bytes[at] ^= 0x80;
  }
}

TEST(StreamHasher, ofNothingHasNoBlocks) {
  EXPECT_TRUE(StreamHasher(5, 1).finish().empty());
}

TEST(StreamHasher, ofOneByteHasABlockOfOne) {
  EXPECT_EQ(rangesOf(blocksOf(5, 6, 1)), (std::vector<ByteRange>{{5, 6}}));
}

TEST(StreamHasher, skipsBlocksThatItsStrideDoesNotWant) {
  EXPECT_EQ(rangesOf(blocksOf(0, 5 * kBlock, 4096, 2)),
            (std::vector<ByteRange>{{0, kBlock}, {2 * kBlock, 3 * kBlock}, {4 * kBlock, 5 * kBlock}}));
  EXPECT_TRUE(blocksOf(kBlock, 2 * kBlock, 4096, 2).empty());
}

TEST(StreamHasher, ofALongStreamKeepsABoundedNumberOfBlocksSpreadOverAllOfIt) {
  for (const std::uint64_t count : {64ULL, 65ULL, 130ULL, 1000ULL}) {
    const auto blocks = blocksOf(0, count * kBlock, 65'536);
    EXPECT_LE(blocks.size(), kMostBlocks) << count;
    EXPECT_GE(blocks.size(), kMostBlocks / 4) << count;
    EXPECT_EQ(blocks.front().range.start, 0U);
    EXPECT_GE(blocks.back().range.start, count * kBlock * 3 / 4) << count;
    for (const HashedBlock& block : blocks) EXPECT_EQ(block.hash, hashOf(pattern(block.range.start, block.range.end)));
  }
}

// ---- All streams ----

TEST(ContentSample, ofNothingPicksNothing) {
  ContentSample sample;
  EXPECT_TRUE(sample.pick().empty());
  EXPECT_EQ(sample.stride(), 1U);
}

TEST(ContentSample, picksAllOfLittle) {
  ContentSample sample;
  const auto blocks = blocksOf(0, 3 * kBlock + 1, 4096);
  sample.add(blocks);
  EXPECT_EQ(sample.pick(), blocks);
}

TEST(ContentSample, picksTinyRangesUpToItsMost) {
  ContentSample sample;
  for (std::uint64_t index = 0; index < kMostPicked; ++index) sample.add({{{index * 10, index * 10 + 10}, index}});
  EXPECT_EQ(sample.pick().size(), kMostPicked);
  sample.add({{{160, 170}, 16}});
  const auto picked = sample.pick();
  EXPECT_EQ(picked.size(), kMostPicked);
  EXPECT_EQ(picked.front().range.start, 0U);
  EXPECT_EQ(picked.back().range.start, 160U);
}

TEST(ContentSample, picksFourWholeBlocksSpreadFromTheFirstToTheLast) {
  ContentSample sample;
  sample.add(blocksAt(0, 40));
  const auto picked = sample.pick();
  ASSERT_EQ(picked.size(), kSampleBytes / kBlock);
  EXPECT_EQ(picked.front().range.start, 0U);
  EXPECT_EQ(picked.back().range.start, 39 * kBlock);
  for (std::size_t index = 1; index < picked.size(); ++index) {
    EXPECT_EQ(picked[index].range.start - picked[index - 1].range.start, 13 * kBlock);
  }
}

TEST(ContentSample, picksMoreOfShortBlocks) {
  ContentSample sample;
  sample.add(blocksAt(0, 40, kBlock / 2));
  EXPECT_EQ(sample.pick().size(), 8U);
  sample.clear();
  sample.add(blocksAt(0, 40, kBlock / 4));
  EXPECT_EQ(sample.pick().size(), kMostPicked);
}

TEST(ContentSample, picksEachBlockOnce) {
  for (std::uint64_t count = 1; count <= 64; ++count) {
    ContentSample sample;
    sample.add(blocksAt(0, count, 100));
    const auto picked = sample.pick();
    ASSERT_EQ(picked.size(), std::min<std::size_t>(count, kMostPicked));
    for (std::size_t index = 1; index < picked.size(); ++index) {
      ASSERT_LT(picked[index - 1].range.start, picked[index].range.start) << count;
    }
  }
}

TEST(ContentSample, blockAtTheSamePlaceReplacesTheOneBefore) {
  ContentSample sample;
  sample.add({{{0, 10}, 1}});
  sample.add({{{0, 20}, 2}});
  EXPECT_EQ(sample.pick(), (std::vector<HashedBlock>{{{0, 20}, 2}}));
}

TEST(ContentSample, orderOfStreamsDoesNotMatter) {
  ContentSample forth;
  ContentSample back;
  for (std::uint64_t index = 0; index < 20; ++index) {
    forth.add(blocksAt(index, 1));
    back.add(blocksAt(19 - index, 1));
  }
  EXPECT_EQ(forth.pick(), back.pick());
}

TEST(ContentSample, widensItsStrideWithTheFile) {
  constexpr std::uint64_t kBlocks = 10'000;
  ContentSample sample;
  for (std::uint64_t index = 0; index < kBlocks; ++index) sample.add(blocksAt(index, 1));
  EXPECT_GE(sample.stride(), kBlocks / kMostBlocks / 2);
  const auto picked = sample.pick();
  EXPECT_EQ(picked.size(), kSampleBytes / kBlock);
  EXPECT_EQ(picked.front().range.start, 0U);
}

TEST(ContentSample, strideStaysWhileTheBlocksFit) {
  ContentSample sample;
  sample.add(blocksAt(0, kMostBlocks));
  EXPECT_EQ(sample.stride(), 1U);
  sample.add(blocksAt(kMostBlocks, 1));
  EXPECT_EQ(sample.stride(), 2U);
}

TEST(ContentSample, clearStartsAnew) {
  ContentSample sample;
  sample.add(blocksAt(0, 100));
  sample.clear();
  EXPECT_TRUE(sample.pick().empty());
  EXPECT_EQ(sample.stride(), 1U);
}

}  // namespace
