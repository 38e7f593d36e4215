#include "content_sample.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace xfer {
namespace {

constexpr std::size_t kMostBlocks = 64;
constexpr std::size_t kFewestPicked = 4;
constexpr std::size_t kMostPicked = 16;
constexpr std::uint64_t kWidestStride = 1ULL << 40;
constexpr std::uint64_t kWord = sizeof(std::uint64_t);

// Keeps the number of blocks bounded: drops every second one and widens the stride of those to come.
void thin(std::vector<HashedBlock>& blocks, std::uint64_t& stride) {
  if (blocks.size() <= kMostBlocks) return;
  std::size_t kept = 0;
  for (std::size_t index = 0; index < blocks.size(); index += 2) blocks[kept++] = blocks[index];
  blocks.resize(kept);
  stride = std::min(stride * 2, kWidestStride);
}

}  // namespace

// The word is spread first: else its bit that becomes the state's highest one would meet a single bit of the next word.
void BlockHash::mix(std::uint64_t word) {
  state_ = std::rotl(state_ ^ word * 0x9E3779B97F4A7C15, 29) * 0xBF58476D1CE4E5B9;
}

void BlockHash::add(const std::uint8_t* bytes, std::uint64_t length) {
  for (; length != 0; --length, ++bytes) {
    partial_ |= static_cast<std::uint64_t>(*bytes) << (length_ % kWord * 8);
    if (++length_ % kWord != 0) continue;
    mix(partial_);
    partial_ = 0;
  }
}

std::uint64_t BlockHash::value() const {
  BlockHash ended = *this;
  ended.mix(partial_);
  ended.mix(length_);
  return ended.state_ ^ ended.state_ >> 31;
}

void StreamHasher::closeBlock() {
  if (hashing_ && position_ != block_.range.start) {
    block_.range.end = position_;
    block_.hash = hash_.value();
    blocks_.push_back(block_);
    thin(blocks_, stride_);
  }
  hashing_ = false;
}

void StreamHasher::add(const std::uint8_t* bytes, std::uint64_t length) {
  while (length != 0) {
    if (!hashing_ && wanted(position_)) {
      hashing_ = true;
      block_.range.start = position_;
      hash_ = {};
    }
    const std::uint64_t size = std::min(length, kSampleBlock - position_ % kSampleBlock);
    if (hashing_) hash_.add(bytes, size);
    bytes += size;
    length -= size;
    position_ += size;
    if (position_ % kSampleBlock == 0) closeBlock();
  }
}

std::vector<HashedBlock> StreamHasher::finish() {
  closeBlock();
  return std::move(blocks_);
}

void ContentSample::add(const std::vector<HashedBlock>& blocks) {
  const auto before = [](const HashedBlock& one, const HashedBlock& other) {
    return one.range.start < other.range.start;
  };
  for (const HashedBlock& block : blocks) {
    const auto place = std::lower_bound(blocks_.begin(), blocks_.end(), block, before);
    if (place != blocks_.end() && place->range.start == block.range.start) {
      *place = block;
    } else {
      blocks_.insert(place, block);
    }
    thin(blocks_, stride_);
  }
}

void ContentSample::clear() {
  blocks_.clear();
  stride_ = 1;
}

std::vector<HashedBlock> ContentSample::pick() const {
  std::vector<HashedBlock> picked;
  for (std::size_t count = kFewestPicked; count <= kMostPicked; count *= 2) {
    picked.clear();
    const std::size_t most = std::min(count, blocks_.size());
    std::uint64_t bytes = 0;
    for (std::size_t index = 0; index < most; ++index) {
      const std::size_t place = most == 1 ? 0 : index * (blocks_.size() - 1) / (most - 1);
      picked.push_back(blocks_[place]);
      bytes += blocks_[place].range.length();
    }
    if (bytes >= kSampleBytes || most == blocks_.size()) break;
  }
  return picked;
}

}  // namespace xfer
