// Remembers, in a few kilobytes, what was delivered: hashes of blocks spread over the file, so that a sample that is
// fetched again can be compared.  The file itself is only ever written.
//
// Equal hashes are evidence that two versions are the same, not proof: most of the file is not compared.
//
// Threads: one at a time.
// Errors:  std::bad_alloc.
// Units:   offsets and lengths are bytes, half-open [start, end).
#pragma once

#include <cstdint>
#include <vector>

#include "byte_range.h"

namespace xfer {

inline constexpr std::uint64_t kSampleBlock = 16384;
inline constexpr std::uint64_t kSampleBytes = 65536;

struct HashedBlock {
  ByteRange range;
  std::uint64_t hash = 0;

  bool operator==(const HashedBlock&) const = default;
};

/// A 64-bit hash of bytes that arrive in pieces of any size.  Fast; not made to withstand forgery.
class BlockHash {
 public:
  void add(const std::uint8_t* bytes, std::uint64_t length);
  [[nodiscard]] std::uint64_t value() const;

 private:
  void mix(std::uint64_t word);

  std::uint64_t state_ = 0x9E3779B97F4A7C15;
  std::uint64_t partial_ = 0;  // bytes that do not make a word yet, lowest first
  std::uint64_t length_ = 0;
};

/// Hashes blocks of one stream of bytes that are contiguous in the file.  Of a long stream fewer and fewer are hashed.
class StreamHasher {
 public:
  /// Hashes every stride-th block of the file at the most.
  StreamHasher(std::uint64_t start, std::uint64_t stride) : position_(start), stride_(stride) {}

  void add(const std::uint8_t* bytes, std::uint64_t length);

  /// Ends the stream; the last block may be a short one.
  std::vector<HashedBlock> finish();

 private:
  void closeBlock();
  [[nodiscard]] bool wanted(std::uint64_t offset) const { return offset / kSampleBlock % stride_ == 0; }

  std::uint64_t position_;
  std::uint64_t stride_;
  HashedBlock block_{};  // the one at position_, when it is being hashed
  BlockHash hash_;
  bool hashing_ = false;
  std::vector<HashedBlock> blocks_;
};

/// The blocks of all streams that count.
class ContentSample {
 public:
  /// Blocks at the same place replace each other.
  void add(const std::vector<HashedBlock>& blocks);

  void clear();

  /// What a new stream should hash.
  [[nodiscard]] std::uint64_t stride() const { return stride_; }

  /// Blocks that together hold kSampleBytes, or as much as is known, spread from the first to the last one.
  [[nodiscard]] std::vector<HashedBlock> pick() const;

 private:
  std::vector<HashedBlock> blocks_;  // ascending by start
  std::uint64_t stride_ = 1;
};

}  // namespace xfer
