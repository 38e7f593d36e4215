// The table of sys::IDataBuff as a separately built module sees it: operations are called through their positions and
// not through the class.  DESTRUCTOR_ENTRIES is what the platform gives the destructor: 1 on Windows, whatever the
// compiler, and 2 elsewhere.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "recording_buff.h"
#include "sys/data_buff.h"

namespace {

using test::RecordingBuff;

constexpr std::size_t kDestructorEntries = DESTRUCTOR_ENTRIES;

// The function at a slot.  On this compiler's ABI the object is the first argument of a member function, except that
// the place of a returned string goes before it, as it does for a free function of the type given.
template <class Function>
Function* entry(sys::IDataBuff& buff, std::size_t position) {
  void* const* const table = *reinterpret_cast<void***>(&buff);
  return reinterpret_cast<Function*>(table[position]);
}

template <class Result, class... Args>
Result callSlot(std::size_t slot, sys::IDataBuff& buff, Args... args) {
  return entry<Result(sys::IDataBuff*, Args...)>(buff, slot - 1 + kDestructorEntries)(&buff, args...);
}

TEST(DataBuffLayout, everySlotHoldsItsOperation) {
  RecordingBuff buff;
  RecordingBuff other;
  const std::string text = "text";
  std::uint8_t block = 0;
  std::uint64_t length = 0;
  std::wstring wide;
  std::string narrow;

  EXPECT_TRUE((callSlot<bool, std::uint64_t>(1, buff, 11)));
  callSlot<void>(2, buff);
  callSlot<void, const std::string&>(3, buff, text);
  callSlot<void, const void*, std::uint64_t>(4, buff, &text, 44);
  EXPECT_EQ(callSlot<std::uint8_t*>(5, buff), &buff.block);
  callSlot<void, std::uint8_t*, std::uint64_t>(6, buff, &block, 66);
  callSlot<void, sys::IDataBuff*>(7, buff, &other);
  EXPECT_EQ((callSlot<std::uint8_t*, std::uint64_t*>(8, buff, &length)), &buff.block);
  EXPECT_EQ((callSlot<sys::DataBuff*, sys::IDataBuff*>(9, buff, &other)), nullptr);
  callSlot<void, std::wstring&>(10, buff, wide);
  callSlot<void, std::string&>(11, buff, narrow);
  EXPECT_EQ(callSlot<std::string>(12, buff), "text");
  EXPECT_EQ(callSlot<std::uint64_t>(13, buff), buff.length);
  EXPECT_TRUE(callSlot<bool>(14, buff));

  const std::vector<std::string> calls{"resize",        "clear",    "assign text", "assign bytes", "data",
                                       "attach",        "takeFrom", "release",     "moveTo",       "copyTo wide",
                                       "copyTo narrow", "toString", "size",        "empty"};
  EXPECT_EQ(buff.calls, calls);
  EXPECT_EQ(buff.lengths, (std::vector<std::uint64_t>{11, 44, 66}));
  EXPECT_EQ(buff.texts, std::vector<std::string>{text});
  EXPECT_EQ(buff.objects, (std::vector<const void*>{&text, &block, &other, &other}));
  EXPECT_EQ(length, buff.length);
  EXPECT_EQ(wide, L"wide");
  EXPECT_EQ(narrow, "narrow");
}

TEST(DataBuffLayout, theLibrarysOwnBufferHasTheSameTable) {
  sys::DataBuff buff;

  EXPECT_TRUE((callSlot<bool, std::uint64_t>(1, buff, 3)));
  EXPECT_EQ(callSlot<std::uint64_t>(13, buff), 3U);
  ASSERT_NE(callSlot<std::uint8_t*>(5, buff), nullptr);
  EXPECT_EQ(callSlot<std::uint8_t*>(5, buff), buff.data());
  callSlot<void>(2, buff);
  EXPECT_TRUE(callSlot<bool>(14, buff));
}

TEST(DataBuffLayout, anObjectIsNothingButThePointerToItsTable) {
  EXPECT_EQ(sizeof(sys::IDataBuff), sizeof(void*));
}

// An object in a place of its own, which the test frees or sees freed.
struct Freed : RecordingBuff {
  static inline int count = 0;
  static void operator delete(void* object) {
    ++count;
    ::operator delete(object);
  }
};

TEST(DataBuffLayout, slot0EndsTheObjectWithAndWithoutFreeingIt) {
  int destructions = 0;
  Freed::count = 0;

  Freed* const kept = new Freed;
  kept->destructions = &destructions;
  void* const place = kept;
  if constexpr (kDestructorEntries == 1) {
    EXPECT_EQ((entry<void*(sys::IDataBuff*, unsigned)>(*kept, 0)(kept, 0)), place);
  } else {
    entry<void(sys::IDataBuff*)>(*kept, 0)(kept);
  }
  EXPECT_EQ(destructions, 1);
  EXPECT_EQ(Freed::count, 0);
  ::operator delete(place);

  Freed* const freed = new Freed;
  freed->destructions = &destructions;
  if constexpr (kDestructorEntries == 1) {
    entry<void*(sys::IDataBuff*, unsigned)>(*freed, 0)(freed, 1);
  } else {
    entry<void(sys::IDataBuff*)>(*freed, 1)(freed);
  }
  EXPECT_EQ(destructions, 2);
  EXPECT_EQ(Freed::count, 1);
}

TEST(DataBuffLayout, anOwnerDeletesABufferThroughTheInterface) {
  int destructions = 0;
  Freed::count = 0;
  auto made = std::make_unique<Freed>();
  made->destructions = &destructions;

  std::unique_ptr<sys::IDataBuff> owner = std::move(made);
  owner.reset();

  EXPECT_EQ(destructions, 1);
  EXPECT_EQ(Freed::count, 1);
}

}  // namespace
