// Where a remote file ends: each rule alone, then every order of a small set of evidence.
#include "file_extent.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

using namespace xfer;

namespace {

using Fit = FileExtent::Fit;

constexpr auto kNone = std::nullopt;

// ---- Ranges ----

TEST(ByteRange, isEmptyUnlessItsEndLiesBehindItsStart) {
  EXPECT_EQ((ByteRange{3, 7}.length()), 4U);
  EXPECT_FALSE((ByteRange{3, 7}.empty()));
  EXPECT_TRUE((ByteRange{3, 3}.empty()));
  EXPECT_TRUE((ByteRange{7, 3}.empty()));
  EXPECT_EQ((ByteRange{7, 3}.length()), 0U);
}

TEST(ByteRange, containsWhatLiesWithinItAndEveryEmptyRange) {
  const ByteRange range{3, 7};
  EXPECT_TRUE(range.contains({3, 7}));
  EXPECT_TRUE(range.contains({4, 6}));
  EXPECT_FALSE(range.contains({2, 6}));
  EXPECT_FALSE(range.contains({4, 8}));
  EXPECT_TRUE(range.contains({9, 9}));
}

TEST(ByteRanges, thatTouchAreOne) {
  ByteRanges ranges;
  ranges.add({0, 4});
  ranges.add({8, 12});
  EXPECT_FALSE(ranges.covers({0, 12}));
  EXPECT_EQ(ranges.firstMissing(), 4U);
  ranges.add({4, 8});
  EXPECT_TRUE(ranges.covers({0, 12}));
  EXPECT_EQ(ranges.firstMissing(), 12U);
  EXPECT_EQ(ranges.furthest(), 12U);
}

TEST(ByteRanges, emptyRangeAddsNothingAndIsAlwaysCovered) {
  ByteRanges ranges;
  ranges.add({5, 5});
  ranges.add({7, 5});
  EXPECT_TRUE(ranges.empty());
  EXPECT_TRUE(ranges.covers({9, 9}));
  EXPECT_FALSE(ranges.covers({5, 6}));
  EXPECT_EQ(ranges.furthest(), 0U);
  EXPECT_EQ(ranges.firstMissing(), 0U);
}

TEST(ByteRanges, clearForgetsEverything) {
  ByteRanges ranges;
  ranges.add({0, 9});
  ranges.clear();
  EXPECT_TRUE(ranges.empty());
  EXPECT_FALSE(ranges.covers({0, 1}));
}

// Against the plainest set there is.
TEST(ByteRanges, holdExactlyTheBytesThatWereAddedInAnyOrder) {
  constexpr std::uint64_t kBytes = 24;
  std::mt19937 random(7);
  for (int round = 0; round < 2000; ++round) {
    ByteRanges ranges;
    std::set<std::uint64_t> bytes;
    for (int add = 0; add < 8; ++add) {
      const std::uint64_t start = random() % kBytes;
      const std::uint64_t end = random() % (kBytes + 1);
      ranges.add({start, end});
      for (std::uint64_t byte = start; byte < end; ++byte) bytes.insert(byte);
      ASSERT_EQ(ranges.empty(), bytes.empty());
      ASSERT_EQ(ranges.furthest(), bytes.empty() ? 0 : *bytes.rbegin() + 1);
      std::uint64_t missing = 0;
      while (bytes.contains(missing)) ++missing;
      ASSERT_EQ(ranges.firstMissing(), missing);
      for (std::uint64_t from = 0; from <= kBytes; ++from) {
        bool all = true;
        for (std::uint64_t to = from; to <= kBytes; ++to) {
          ASSERT_EQ(ranges.covers({from, to}), all) << from << " to " << to;
          all = all && bytes.contains(to);
        }
      }
    }
  }
}

// ---- Rules ----

TEST(FileExtent, ofWhichNothingIsKnownHasNoEndAndIsNotComplete) {
  FileExtent extent;
  EXPECT_EQ(extent.size(), kNone);
  EXPECT_EQ(extent.end(), kNone);
  EXPECT_FALSE(extent.complete());
  extent.deliver({0, 10});
  EXPECT_FALSE(extent.complete());
  EXPECT_FALSE(extent.goesOnAt(10));
}

TEST(FileExtent, hostsSizeStaysAndCuts) {
  FileExtent extent;
  extent.announceByHost(10);
  extent.confirmTotal(15);
  EXPECT_EQ(extent.size(), 10U);
  EXPECT_TRUE(extent.hostIsContradicted());
  EXPECT_FALSE(extent.goesOnAt(10)) << "the host wants no more";
  EXPECT_TRUE(extent.goesOnAt(9));
  extent.deliver({0, 10});
  EXPECT_TRUE(extent.complete());
}

TEST(FileExtent, hostsSizeBeyondTheFileIsCutAtTheFilesEnd) {
  FileExtent extent;
  extent.announceByHost(15);
  extent.confirmLength(10);
  extent.deliver({0, 10});
  EXPECT_FALSE(extent.complete()) << "nothing has met the end yet";
  extent.endAt(10);
  EXPECT_EQ(extent.end(), 10U);
  EXPECT_TRUE(extent.complete());
}

TEST(FileExtent, hostThatIsRightIsNotContradicted) {
  FileExtent extent;
  extent.announceByHost(10);
  EXPECT_FALSE(extent.hostIsContradicted());
  extent.confirmTotal(10);
  EXPECT_FALSE(extent.hostIsContradicted());
}

TEST(FileExtent, probesSizeGivesWayToTheFirstAnswer) {
  FileExtent extent;
  extent.announceByProbe(10, true);
  EXPECT_EQ(extent.size(), 10U);
  EXPECT_EQ(extent.judgeTotal(10), Fit::Fits);
  EXPECT_EQ(extent.judgeTotal(15), Fit::Replaces);
  extent.forget();
  extent.confirmTotal(15);
  EXPECT_EQ(extent.size(), 15U);
  EXPECT_EQ(extent.confirmed(), 15U);
}

TEST(FileExtent, wholeFileOfAnotherLengthThanRangesSaidIsAnotherFile) {
  FileExtent probed;
  probed.announceByProbe(10, true);
  EXPECT_EQ(probed.judgeLength(10), Fit::Fits);
  EXPECT_EQ(probed.judgeLength(15), Fit::Contradicts);
  FileExtent answered;
  answered.confirmTotal(10);
  EXPECT_EQ(answered.judgeLength(10), Fit::Fits);
  EXPECT_EQ(answered.judgeLength(15), Fit::Contradicts);
  EXPECT_EQ(answered.judgeTotal(15), Fit::Contradicts);
}

TEST(FileExtent, wholeFileOfAnotherLengthTakesThePlaceOfAWholeOne) {
  FileExtent probed;
  probed.announceByProbe(10, false);
  EXPECT_EQ(probed.judgeLength(15), Fit::Replaces);
  FileExtent answered;
  answered.confirmLength(10);
  EXPECT_EQ(answered.judgeLength(15), Fit::Replaces);
  EXPECT_EQ(answered.judgeTotal(15), Fit::Replaces);
  EXPECT_EQ(answered.judgeTotal(10), Fit::Fits);
}

TEST(FileExtent, wholeFileWithoutALengthSaysNothing) {
  FileExtent extent;
  extent.confirmTotal(10);
  EXPECT_EQ(extent.judgeLength(kNone), Fit::Fits);
  extent.confirmLength(kNone);
  EXPECT_EQ(extent.confirmed(), 10U);
}

TEST(FileExtent, fileGoesOnWhereARangesTotalLiesFurther) {
  FileExtent extent;
  EXPECT_FALSE(extent.goesOnAt(0));
  extent.announceByProbe(10, false);
  EXPECT_EQ(extent.rangedTotal(), kNone);
  EXPECT_FALSE(extent.goesOnAt(4)) << "a whole file's length is of no range";
  extent.announceByProbe(10, true);
  EXPECT_EQ(extent.rangedTotal(), 10U);
  EXPECT_TRUE(extent.goesOnAt(9));
  EXPECT_FALSE(extent.goesOnAt(10));
  extent.confirmTotal(12);
  EXPECT_EQ(extent.rangedTotal(), 12U);
  EXPECT_TRUE(extent.goesOnAt(11));
}

TEST(FileExtent, lowestEndThatWasMetCounts) {
  FileExtent extent;
  extent.endAt(12);
  extent.endAt(10);
  extent.endAt(11);
  EXPECT_EQ(extent.end(), 10U);
}

TEST(FileExtent, endThatWasMetBehindTheHostsSizeDoesNotMoveIt) {
  FileExtent extent;
  extent.announceByHost(5);
  extent.endAt(10);
  EXPECT_EQ(extent.end(), 5U);
}

TEST(FileExtent, fileWithAGapIsNotComplete) {
  FileExtent extent;
  extent.announceByHost(10);
  extent.deliver({0, 4});
  extent.deliver({6, 10});
  EXPECT_FALSE(extent.complete());
  extent.deliver({4, 6});
  EXPECT_TRUE(extent.complete());
}

TEST(FileExtent, wholeFileWithoutALengthLeavesTheLengthThatAnEarlierOneGave) {
  FileExtent extent;
  extent.confirmLength(10);
  extent.confirmLength(std::nullopt);
  EXPECT_EQ(extent.confirmed(), 10U);
}

TEST(FileExtent, bytesBehindAMetEndAreAHole) {
  FileExtent extent;
  extent.deliver({10, 20});
  EXPECT_FALSE(extent.hasHole());
  extent.deliver({0, 5});
  extent.endAt(5);
  EXPECT_TRUE(extent.hasHole());
  EXPECT_FALSE(extent.complete());
}

TEST(FileExtent, fileThatEndsBeforeAConfirmedSizeIsNotComplete) {
  FileExtent extent;
  extent.confirmTotal(20);
  extent.deliver({0, 10});
  extent.endAt(10);
  EXPECT_EQ(extent.end(), 10U);
  EXPECT_FALSE(extent.complete());
}

TEST(FileExtent, emptyFileIsCompleteOnceItsEndIsKnown) {
  FileExtent extent;
  EXPECT_FALSE(extent.complete());
  extent.endAt(0);
  EXPECT_TRUE(extent.complete());
}

TEST(FileExtent, forgetKeepsTheHostsWordAlone) {
  FileExtent extent;
  extent.announceByHost(30);
  extent.announceByProbe(10, true);
  extent.confirmTotal(20);
  extent.confirmLength(20);
  extent.deliver({0, 20});
  extent.endAt(20);
  extent.forget();
  EXPECT_EQ(extent.size(), 30U);
  EXPECT_EQ(extent.end(), 30U);
  EXPECT_EQ(extent.confirmed(), kNone);
  EXPECT_EQ(extent.rangedTotal(), kNone);
  EXPECT_FALSE(extent.holdsBytes());
  EXPECT_EQ(extent.deliveredUpTo(), 0U);
}

// ---- Every order ----

enum class Event {
  Host,
  ProbeOfRange,
  ProbeOfFile,
  TotalFour,
  TotalSix,
  LengthFour,
  LengthSix,
  DeliverFirst,   // [0, 2)
  DeliverMiddle,  // [2, 4)
  DeliverLast,    // [4, 6)
  EndAtTwo,
  EndAtFour,
  Forget,
  Count
};

constexpr std::uint64_t kHost = 4;
constexpr std::uint64_t kFour = 4;
constexpr std::uint64_t kSix = 6;

// What was told to an extent, kept as plainly as can be.
struct Told {
  std::optional<std::uint64_t> host;
  std::optional<std::uint64_t> rangedProbe;
  std::optional<std::uint64_t> total;
  std::optional<std::uint64_t> length;
  std::optional<std::uint64_t> lowestEnd;
  std::set<std::uint64_t> bytes;
};

void tell(Event event, FileExtent& extent, Told& told) {
  const auto deliver = [&](std::uint64_t start, std::uint64_t end) {
    extent.deliver({start, end});
    for (; start < end; ++start) told.bytes.insert(start);
  };
  const auto endAt = [&](std::uint64_t offset) {
    extent.endAt(offset);
    told.lowestEnd = std::min(told.lowestEnd.value_or(offset), offset);
  };
  const auto total = [&](std::uint64_t size) {
    extent.confirmTotal(size);
    told.total = size;
  };
  const auto length = [&](std::uint64_t size) {
    extent.confirmLength(size);
    told.length = size;
  };
  switch (event) {
    case Event::Host:
      extent.announceByHost(kHost);
      told.host = kHost;
      return;
    case Event::ProbeOfRange:
      extent.announceByProbe(kSix, true);
      told.rangedProbe = kSix;
      return;
    case Event::ProbeOfFile:
      extent.announceByProbe(kFour, false);
      told.rangedProbe.reset();
      return;
    case Event::TotalFour:
      return total(kFour);
    case Event::TotalSix:
      return total(kSix);
    case Event::LengthFour:
      return length(kFour);
    case Event::LengthSix:
      return length(kSix);
    case Event::DeliverFirst:
      return deliver(0, 2);
    case Event::DeliverMiddle:
      return deliver(2, 4);
    case Event::DeliverLast:
      return deliver(4, 6);
    case Event::EndAtTwo:
      return endAt(2);
    case Event::EndAtFour:
      return endAt(4);
    case Event::Forget: {
      extent.forget();
      const auto host = told.host;
      told = {};
      told.host = host;
      return;
    }
    case Event::Count:
      return;
  }
}

std::string brokenPromise(const FileExtent& extent, const Told& told) {
  const auto covered = [&](std::uint64_t end) {
    for (std::uint64_t byte = 0; byte < end; ++byte) {
      if (!told.bytes.contains(byte)) return false;
    }
    return true;
  };
  const auto end = extent.end();
  if (extent.complete()) {
    if (!end || !covered(*end)) return "complete with a byte missing";
    const auto confirmed = told.total ? told.total : told.length;
    if (confirmed && *end < std::min(*confirmed, told.host.value_or(*confirmed))) {
      return "complete although an answer says that there is more";
    }
    if (confirmed && *end > *confirmed) return "complete beyond a confirmed size";
    if (!told.bytes.empty() && told.lowestEnd && *told.bytes.rbegin() >= *told.lowestEnd) {
      return "complete with bytes behind its end";
    }
  }
  if (told.host && end && *end > *told.host) return "the host's size is exceeded";
  if (told.host && extent.size() != told.host) return "the host's word does not stand";
  if (told.lowestEnd && end && *end > *told.lowestEnd) return "an end that was met is passed";
  for (const std::uint64_t size : {kFour, kSix}) {
    const bool differs = told.total && *told.total != size;
    if (differs != (extent.judgeLength(size) == Fit::Contradicts) && (differs || !told.rangedProbe)) {
      return "a range's total and a whole file's length are judged wrongly";
    }
    if (told.total && (extent.judgeTotal(size) == Fit::Fits) != (*told.total == size)) return "two totals fit";
    if (told.total && extent.goesOnAt(size) && (size >= *told.total || (told.host && size >= *told.host))) {
      return "the file goes on behind its end";
    }
  }
  if (extent.judgeLength(kNone) != Fit::Fits) return "no length is judged";
  if (extent.holdsBytes() == told.bytes.empty()) return "what was delivered is forgotten";
  return "";
}

// Of the same evidence any order makes the same file, but for what replaces each other.
class ExtentWalk {
 public:
  explicit ExtentWalk(std::size_t depth) : depth_(depth) {}

  void run() { step({}, {}); }
  [[nodiscard]] std::uint64_t sequences() const { return sequences_; }
  [[nodiscard]] std::uint64_t complete() const { return complete_; }

 private:
  void step(const FileExtent& extent, const Told& told) {
    ++sequences_;
    if (extent.complete()) ++complete_;
    const std::string broken = brokenPromise(extent, told);
    if (!broken.empty()) {
      std::string path;
      for (const Event event : path_) path += " " + std::to_string(static_cast<int>(event));
      ADD_FAILURE() << broken << ", after events" << path;
      failed_ = true;
    }
    if (path_.size() == depth_) return;
    for (int event = 0; event < static_cast<int>(Event::Count) && !failed_; ++event) {
      FileExtent nextExtent = extent;
      Told nextTold = told;
      tell(static_cast<Event>(event), nextExtent, nextTold);
      path_.push_back(static_cast<Event>(event));
      step(nextExtent, nextTold);
      path_.pop_back();
    }
  }

  const std::size_t depth_;
  std::vector<Event> path_;
  std::uint64_t sequences_ = 0;
  std::uint64_t complete_ = 0;
  bool failed_ = false;
};

TEST(FileExtentWalk, everyOrderKeepsThePromises) {
  constexpr std::size_t kDepth = 6;
  ExtentWalk walk(kDepth);
  walk.run();
  std::cout << "  " << walk.sequences() << " sequences of up to " << kDepth << " events, " << walk.complete()
            << " of them complete\n";
  EXPECT_GT(walk.complete(), 0U);
}

// Delivered pieces, ends and one size of each kind: the last word is the same whatever came first.
TEST(FileExtentWalk, orderOfTheSameEvidenceDoesNotMatter) {
  const std::vector<std::vector<Event>> sets{
      {Event::DeliverFirst, Event::DeliverMiddle, Event::DeliverLast, Event::TotalSix, Event::ProbeOfRange},
      {Event::DeliverFirst, Event::DeliverLast, Event::TotalSix, Event::EndAtTwo, Event::LengthSix},
      {Event::DeliverFirst, Event::DeliverMiddle, Event::Host, Event::TotalSix, Event::EndAtFour},
      {Event::DeliverFirst, Event::DeliverLast, Event::Host, Event::EndAtFour, Event::LengthFour},
      {Event::DeliverFirst, Event::DeliverMiddle, Event::EndAtFour, Event::EndAtTwo, Event::ProbeOfFile, Event::Host}};
  std::uint64_t sequences = 0;
  for (std::vector<Event> events : sets) {
    std::sort(events.begin(), events.end());
    std::optional<bool> complete;
    std::optional<std::uint64_t> end;
    do {
      FileExtent extent;
      Told told;
      for (const Event event : events) tell(event, extent, told);
      ++sequences;
      if (!complete) {
        complete = extent.complete();
        end = extent.end();
      }
      ASSERT_EQ(extent.complete(), *complete);
      ASSERT_EQ(extent.end(), end);
    } while (std::next_permutation(events.begin(), events.end()));
  }
  std::cout << "  " << sequences << " orders\n";
}

}  // namespace
