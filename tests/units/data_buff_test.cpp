// sys::DataBuff.  The C heap's functions are replaced at link time by the ones below, so that blocks can be watched and
// memory can run out.
#include "sys/data_buff.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "recording_buff.h"

namespace {

// What the heap was asked for, and whether it has anything left.
struct Heap {
  std::size_t lastLength = 0;  // asked of malloc or realloc
  const void* lastFreed = nullptr;
  bool exhausted = false;
};
Heap heap;

// While one of these lives, the heap has nothing left.
struct ExhaustedHeap {
  ExhaustedHeap() { heap.exhausted = true; }
  ~ExhaustedHeap() { heap.exhausted = false; }
  ExhaustedHeap(const ExhaustedHeap&) = delete;
  ExhaustedHeap& operator=(const ExhaustedHeap&) = delete;
};

}  // namespace

extern "C" {
void* __real_malloc(std::size_t n);
void* __real_realloc(void* block, std::size_t n);
void __real_free(void* block);

void* __wrap_malloc(std::size_t n);
void* __wrap_realloc(void* block, std::size_t n);
void __wrap_free(void* block);

void* __wrap_malloc(std::size_t n) {
  heap.lastLength = n;
  return heap.exhausted ? nullptr : __real_malloc(n);
}

void* __wrap_realloc(void* block, std::size_t n) {
  heap.lastLength = n;
  return heap.exhausted ? nullptr : __real_realloc(block, n);
}

void __wrap_free(void* block) {
  heap.lastFreed = block;
  __real_free(block);
}

// The sanitizers end the program when more is asked for than there can be; here it is part of the test.  They look the
// functions up from outside of the program.
__attribute__((visibility("default"))) const char* __asan_default_options();
__attribute__((visibility("default"))) const char* __tsan_default_options();
const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}
}

namespace {

using sys::DataBuff;

std::uint8_t* heapBlock(std::string_view bytes) {
  auto* const block = static_cast<std::uint8_t*>(std::malloc(bytes.size()));
  std::memcpy(block, bytes.data(), bytes.size());
  return block;
}

TEST(DataBuff, startsWithoutABlock) {
  DataBuff buff;

  EXPECT_EQ(buff.data(), nullptr);
  EXPECT_EQ(buff.size(), 0U);
  EXPECT_TRUE(buff.empty());
}

TEST(DataBuff, resizeToTheCurrentSizeKeepsTheSameBlockAndAsksTheHeapForNothing) {
  DataBuff buff;
  ASSERT_TRUE(buff.resize(5));
  const std::uint8_t* const block = buff.data();

  const ExhaustedHeap nothingLeft;
  EXPECT_TRUE(buff.resize(5));

  EXPECT_EQ(buff.data(), block);
}

TEST(DataBuff, resizeOfAnEmptyBufferTo0SucceedsWithoutABlock) {
  DataBuff buff;

  EXPECT_TRUE(buff.resize(0));

  EXPECT_EQ(buff.data(), nullptr);
}

TEST(DataBuff, resizeTo0FreesTheBlockAndLeavesTheBufferEmpty) {
  DataBuff buff;
  buff.assign("hello");
  const void* const block = buff.data();

  EXPECT_TRUE(buff.resize(0));

  EXPECT_EQ(heap.lastFreed, block);
  EXPECT_EQ(buff.data(), nullptr);
  EXPECT_TRUE(buff.empty());
}

TEST(DataBuff, everyResizeAsksForExactlyThatMuch) {
  DataBuff buff;
  for (const std::uint64_t n : {1U, 1000U, 1001U, 3U, 70000U, 2U}) {
    ASSERT_TRUE(buff.resize(n));
    EXPECT_EQ(heap.lastLength, n);
    EXPECT_EQ(buff.size(), n);
  }
}

TEST(DataBuff, resizeKeepsTheBytesUpToTheSmallerOfTheTwoSizes) {
  DataBuff buff;
  buff.assign("hello");

  ASSERT_TRUE(buff.resize(100000));
  EXPECT_EQ(buff.toString().substr(0, 5), "hello");
  ASSERT_TRUE(buff.resize(3));
  EXPECT_EQ(buff.toString(), "hel");
}

TEST(DataBuff, resizeWithoutMemoryIsRefusedAndTheOldBlockStays) {
  DataBuff buff;
  buff.assign("hello");
  const std::uint8_t* const block = buff.data();
  bool larger = true;
  bool smaller = true;

  {
    const ExhaustedHeap nothingLeft;
    larger = buff.resize(6);
    smaller = buff.resize(4);
  }

  EXPECT_FALSE(larger);
  EXPECT_FALSE(smaller);
  EXPECT_EQ(buff.data(), block);
  EXPECT_EQ(buff.toString(), "hello");
}

TEST(DataBuff, firstResizeWithoutMemoryIsRefusedAndTheBufferStaysEmpty) {
  DataBuff buff;
  bool resized = true;

  {
    const ExhaustedHeap nothingLeft;
    resized = buff.resize(1);
  }

  EXPECT_FALSE(resized);
  EXPECT_EQ(buff.data(), nullptr);
  EXPECT_TRUE(buff.empty());
}

TEST(DataBuff, resizeToMoreThanAnyHeapHoldsIsRefusedAndChangesNothing) {
  constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
  DataBuff filled;
  filled.assign("hello");
  DataBuff fresh;
  for (const std::uint64_t n :
       {kLargest, kLargest - 1, kLargest - 15, kLargest - 4096, kLargest / 2 + 1, kLargest / 2}) {
    EXPECT_FALSE(filled.resize(n)) << n;
    EXPECT_EQ(filled.toString(), "hello");
    EXPECT_FALSE(fresh.resize(n)) << n;
    EXPECT_EQ(fresh.data(), nullptr);
    EXPECT_TRUE(fresh.empty());
  }
}

TEST(DataBuff, clearFreesTheBlockOnce) {
  DataBuff buff;
  buff.assign("hello");
  const void* const block = buff.data();

  buff.clear();
  EXPECT_EQ(heap.lastFreed, block);
  EXPECT_EQ(buff.data(), nullptr);
  EXPECT_EQ(buff.size(), 0U);

  buff.clear();
  EXPECT_EQ(heap.lastFreed, nullptr);
}

TEST(DataBuff, destructionFreesTheBlock) {
  const void* block = nullptr;
  {
    DataBuff buff;
    buff.assign("hello");
    block = buff.data();
  }
  EXPECT_EQ(heap.lastFreed, block);
}

TEST(DataBuff, assignedTextIsCopiedWithItsZeroBytes) {
  const std::string text("a\0b\0", 4);
  DataBuff buff;
  buff.assign("something longer");

  buff.assign(text);

  EXPECT_EQ(buff.size(), 4U);
  EXPECT_EQ(buff.toString(), text);
  EXPECT_NE(static_cast<const void*>(buff.data()), text.data());
}

TEST(DataBuff, assignedEmptyTextFreesTheBlock) {
  DataBuff buff;
  buff.assign("hello");

  buff.assign(std::string());

  EXPECT_EQ(buff.data(), nullptr);
  EXPECT_TRUE(buff.empty());
}

TEST(DataBuff, assignedBytesReplaceTheContent) {
  const std::array<std::uint8_t, 3> bytes{0x00, 0xFF, 0x80};
  DataBuff buff;
  buff.assign("hello");

  buff.assign(bytes.data(), bytes.size());

  ASSERT_EQ(buff.size(), 3U);
  EXPECT_EQ(std::memcmp(buff.data(), bytes.data(), 3), 0);
}

TEST(DataBuff, assignOfNullLeavesABlockOfThatLength) {
  DataBuff buff;

  buff.assign(nullptr, 5);

  EXPECT_EQ(buff.size(), 5U);
  ASSERT_NE(buff.data(), nullptr);
  std::memset(buff.data(), 'x', 5);
  EXPECT_EQ(buff.toString(), "xxxxx");
}

TEST(DataBuff, assignOfNullKeepsTheBytesThatFit) {
  DataBuff buff;
  buff.assign("hello");

  buff.assign(nullptr, 2);

  EXPECT_EQ(buff.toString(), "he");
}

TEST(DataBuff, assignOfNoBytesFreesTheBlock) {
  DataBuff buff;
  buff.assign("hello");

  buff.assign("x", 0);

  EXPECT_EQ(buff.data(), nullptr);
  EXPECT_TRUE(buff.empty());
}

TEST(DataBuff, assignToABufferOfThatSizeNeedsNoMemory) {
  const std::string text = "hello";
  DataBuff buff;
  ASSERT_TRUE(buff.resize(5));

  {
    const ExhaustedHeap nothingLeft;
    buff.assign(text);
  }

  EXPECT_EQ(buff.toString(), "hello");
}

// The old block is really longer than the buffer was told, so that there is room for what goes over its end.
TEST(DataBuff, assignCopiesEverythingEvenWhenItsBlockCouldNotGrow) {
  const std::string text = "12345678";
  DataBuff buff;
  buff.attach(heapBlock("................"), 4);

  {
    const ExhaustedHeap nothingLeft;
    buff.assign(text);
  }

  EXPECT_EQ(buff.size(), 4U);
  EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(buff.data()), 16), "12345678........");
}

TEST(DataBuff, attachOwnsTheBlockItselfAndFreesTheOldOne) {
  std::uint8_t* const block = heapBlock("abc");
  const void* old = nullptr;
  {
    DataBuff buff;
    buff.assign("hello");
    old = buff.data();

    buff.attach(block, 3);

    EXPECT_EQ(heap.lastFreed, old);
    EXPECT_EQ(buff.data(), block);
    EXPECT_EQ(buff.size(), 3U);
  }
  EXPECT_EQ(heap.lastFreed, block);
}

TEST(DataBuff, attachOfNullChangesNothing) {
  DataBuff buff;
  buff.assign("hello");

  buff.attach(nullptr, 9);

  EXPECT_EQ(buff.toString(), "hello");
}

TEST(DataBuff, releasedBlockBelongsToTheCallerAndTheBufferIsEmpty) {
  DataBuff buff;
  buff.assign("hello");
  const void* const held = buff.data();
  std::uint64_t length = 0;

  std::uint8_t* const block = buff.release(&length);

  EXPECT_EQ(block, held);
  EXPECT_EQ(length, 5U);
  EXPECT_EQ(buff.size(), 0U);
  EXPECT_EQ(buff.data(), nullptr);
  EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(block), 5), "hello");
  std::free(block);
}

TEST(DataBuff, releaseOfAnEmptyBufferGivesNullAnd0) {
  DataBuff buff;
  std::uint64_t length = 7;

  EXPECT_EQ(buff.release(&length), nullptr);

  EXPECT_EQ(length, 0U);
}

TEST(DataBuff, takeFromMovesTheBlockAndLeavesTheSourceEmpty) {
  DataBuff source;
  source.assign("hello");
  const std::uint8_t* const block = source.data();
  DataBuff buff;
  buff.assign("old");
  const void* const old = buff.data();

  buff.takeFrom(&source);

  EXPECT_EQ(heap.lastFreed, old);
  EXPECT_EQ(buff.data(), block);
  EXPECT_EQ(buff.toString(), "hello");
  EXPECT_EQ(source.size(), 0U);
  EXPECT_EQ(source.data(), nullptr);
}

TEST(DataBuff, takeFromAnEmptyBufferLeavesNothing) {
  DataBuff source;
  DataBuff buff;
  buff.assign("old");

  buff.takeFrom(&source);

  EXPECT_EQ(buff.data(), nullptr);
  EXPECT_TRUE(buff.empty());
}

TEST(DataBuff, takeFromNullChangesNothing) {
  DataBuff buff;
  buff.assign("hello");

  buff.takeFrom(nullptr);

  EXPECT_EQ(buff.toString(), "hello");
}

TEST(DataBuff, takeFromABufferOfAnotherClassTakesWhatItReleases) {
  test::RecordingBuff source;
  DataBuff buff;

  buff.takeFrom(&source);

  EXPECT_EQ(source.calls, std::vector<std::string>{"release"});
  EXPECT_EQ(buff.data(), &source.block);
  std::uint64_t length = 0;
  EXPECT_EQ(buff.release(&length), &source.block) << "which is not on the heap";
  EXPECT_EQ(length, source.length);
}

TEST(DataBuff, moveToGivesItsBlockAwayAndReturnsTheOther) {
  DataBuff buff;
  buff.assign("hello");
  const std::uint8_t* const block = buff.data();
  DataBuff other;
  other.assign("old");
  const void* const old = other.data();

  EXPECT_EQ(buff.moveTo(&other), &other);

  EXPECT_EQ(heap.lastFreed, old);
  EXPECT_EQ(other.data(), block);
  EXPECT_EQ(other.toString(), "hello");
  EXPECT_EQ(buff.data(), nullptr);
  EXPECT_EQ(buff.size(), 0U);
}

TEST(DataBuff, moveToOfAnEmptyBufferEmptiesTheOther) {
  DataBuff buff;
  DataBuff other;
  other.assign("old");

  EXPECT_EQ(buff.moveTo(&other), &other);

  EXPECT_EQ(other.data(), nullptr);
  EXPECT_TRUE(other.empty());
}

TEST(DataBuff, fiveBytesAreTwoWideUnits) {
  const std::array<std::uint16_t, 2> units{0x0041, 0x20AC};
  DataBuff buff;
  buff.assign(units.data(), sizeof units);
  ASSERT_TRUE(buff.resize(5));
  std::wstring text = L"before";

  buff.copyTo(text);

  EXPECT_EQ(text, (std::wstring{0x0041, 0x20AC}));
}

TEST(DataBuff, wideUnitsAreCopiedAsTheyAre) {
  const std::array<std::uint16_t, 5> units{0xD83D, 0xDE00, 0x0000, 0xFFFF,
                                           0xDC00};  // a pair, and one without a partner
  DataBuff buff;
  buff.assign(units.data(), sizeof units);
  std::wstring text;

  buff.copyTo(text);

  EXPECT_EQ(text, (std::wstring{0xD83D, 0xDE00, 0x0000, 0xFFFF, 0xDC00}));
}

TEST(DataBuff, oneByteOrNoneLeavesAWideStringUnchanged) {
  DataBuff buff;
  std::wstring text = L"before";

  buff.copyTo(text);
  EXPECT_EQ(text, L"before");

  buff.assign("x");
  buff.copyTo(text);
  EXPECT_EQ(text, L"before");
}

TEST(DataBuff, copyToReplacesAString) {
  const std::string bytes("a\0\xFF", 3);
  DataBuff buff;
  buff.assign(bytes);
  std::string text = "before";

  buff.copyTo(text);

  EXPECT_EQ(text, bytes);
}

TEST(DataBuff, emptyBufferLeavesAStringUnchangedButMakesAnEmptyOne) {
  DataBuff buff;
  std::string text = "before";

  buff.copyTo(text);

  EXPECT_EQ(text, "before");
  EXPECT_EQ(buff.toString(), "");
}

}  // namespace
