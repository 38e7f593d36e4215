#include "progress.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <string>

#include "paint.h"

namespace {

using xfer::DownloadSnapshot;
using xfer::JobState;
using xfer_get::amountText;
using xfer_get::barText;
using xfer_get::cellsOfPainted;
using xfer_get::etaText;
using xfer_get::nextTryText;
using xfer_get::plainLine;
using xfer_get::progressLine;
using xfer_get::shownPercent;
using xfer_get::sizeText;

DownloadSnapshot running(std::uint64_t done, std::uint64_t total, std::uint64_t speed) {
  DownloadSnapshot snapshot;
  snapshot.state = JobState::Running;
  snapshot.bytesDone = done;
  snapshot.totalBytes = total;
  snapshot.bytesPerSec = speed;
  if (total != 0) snapshot.percent = static_cast<float>(done) * 100.0F / static_cast<float>(total);
  return snapshot;
}

TEST(SizeText, hasAUnitThatFits) {
  EXPECT_EQ(sizeText(0), "0 B");
  EXPECT_EQ(sizeText(1023), "1023 B");
  EXPECT_EQ(sizeText(1024), "1.0 KiB");
  EXPECT_EQ(sizeText(1536), "1.5 KiB");
  EXPECT_EQ(sizeText((1 << 20) - 1), "1.0 MiB") << "not 1024.0 KiB";
  EXPECT_EQ(sizeText(1ULL << 30), "1.0 GiB");
  EXPECT_EQ(sizeText(std::numeric_limits<std::uint64_t>::max()), "16.0 EiB");
}

TEST(EtaText, countsUpToTheNextSecond) {
  EXPECT_EQ(etaText(running(0, 7000, 1000)), "0:07");
  EXPECT_EQ(etaText(running(0, 7001, 1000)), "0:08");
  EXPECT_EQ(etaText(running(0, 750'000, 1000)), "12:30");
  EXPECT_EQ(etaText(running(0, 10'800'000, 1000)), "3:00:00");
  EXPECT_EQ(etaText(running(0, std::numeric_limits<std::uint64_t>::max(), 1ULL << 63)), "0:02");
  EXPECT_EQ(etaText(running(9000, 7000, 1000)), "0:00") << "bytes that were fetched twice count twice";
}

TEST(EtaText, isUnknownWithoutASizeOrASpeed) {
  EXPECT_EQ(etaText(running(10, 0, 1000)), "--:--");
  EXPECT_EQ(etaText(running(10, 1000, 0)), "--:--");
  EXPECT_EQ(etaText(running(0, std::numeric_limits<std::uint64_t>::max(), 1)), "--:--");
}

TEST(PlainLine, tellsWhatIsKnown) {
  EXPECT_EQ(plainLine(running(1 << 20, 4 << 20, 1 << 20), 8), "25% 1.0 MiB of 4.0 MiB  1.0 MiB/s  ETA 0:03  x8");
  EXPECT_EQ(plainLine(running(1 << 20, 0, 1 << 20), 1), "1.0 MiB  1.0 MiB/s  ETA --:--  x1");
}

TEST(PlainLine, tellsAStateThatIsNotRunningAndASlowServer) {
  DownloadSnapshot snapshot = running(0, 1000, 0);
  snapshot.state = JobState::Probing;
  EXPECT_EQ(plainLine(snapshot, 1).rfind("asking ", 0), 0U);
  snapshot.state = JobState::Paused;
  EXPECT_EQ(plainLine(snapshot, 1).rfind("paused ", 0), 0U);
  snapshot.state = JobState::Cancelling;
  EXPECT_EQ(plainLine(snapshot, 1).rfind("cancelling ", 0), 0U);
  snapshot.throttled = true;
  EXPECT_NE(plainLine(snapshot, 1).find("(slow server)"), std::string::npos);
  EXPECT_EQ(plainLine(snapshot, 1).find("next try"), std::string::npos);
  EXPECT_NE(plainLine(snapshot, 1, 3001).find("next try in 4 s"), std::string::npos);
}

TEST(PlainLine, namesNoConnectionsWhenThereAreNone) {
  EXPECT_EQ(plainLine(running(1 << 20, 0, 1 << 20), 0), "1.0 MiB  1.0 MiB/s  ETA --:--");
}

TEST(PlainLine, bytesThatWereFetchedTwiceAreNotMoreThanTheFile) {
  EXPECT_EQ(plainLine(running(3000, 1000, 0), 1), "99% 1000 B of 1000 B  0 B/s  ETA --:--  x1");
}

TEST(NextTryText, countsSecondsUp) {
  EXPECT_EQ(nextTryText(1), "next try in 1 s");
  EXPECT_EQ(nextTryText(3000), "next try in 3 s");
  EXPECT_EQ(nextTryText(3001), "next try in 4 s");
  EXPECT_EQ(nextTryText(std::numeric_limits<std::uint64_t>::max()), "next try in 18446744073709552 s");
}

TEST(ShownPercent, isAHundredWhenTheDownloadIsCompleteAndNoSooner) {
  DownloadSnapshot snapshot = running(1000, 1000, 0);
  EXPECT_EQ(shownPercent(snapshot), 99U);
  snapshot.state = JobState::Failed;
  EXPECT_EQ(shownPercent(snapshot), 99U);
  snapshot.state = JobState::Completed;
  EXPECT_EQ(shownPercent(snapshot), 100U);
  EXPECT_EQ(shownPercent(running(99'999'999'999, 100'000'000'000, 0)), 99U) << "never rounded up";
}

TEST(ShownPercent, isExactForFilesOfAnySize) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(shownPercent(running(0, 0, 0)), std::nullopt);
  EXPECT_EQ(shownPercent(running(29, 100, 0)), 29U);
  EXPECT_EQ(shownPercent(running(28, 100, 0)), 28U);
  EXPECT_EQ(shownPercent(running(kMost / 2 + 1, kMost, 0)), 50U);
  EXPECT_EQ(shownPercent(running(kMost / 100, kMost, 0)), 0U) << "just below 1 %";
  EXPECT_EQ(shownPercent(running(kMost, kMost, 0)), 99U);
  EXPECT_EQ(shownPercent(running(kMost, 1, 0)), 99U);
}

TEST(BarText, isAsFullAsThePercentage) {
  EXPECT_EQ(barText(std::nullopt, 12, false), "[..........]");
  EXPECT_EQ(barText(0, 12, false), "[..........]");
  EXPECT_EQ(barText(25, 42, false), "[##########..............................]");
  EXPECT_EQ(barText(99, 12, false), "[#########.]");
  EXPECT_EQ(barText(100, 12, false), "[##########]");
  EXPECT_EQ(barText(50, 2, false), "[]");
}

TEST(BarText, hasItsFullPartPainted) {
  EXPECT_EQ(barText(20, 12, true), "[\x1b[32m##\x1b[0m........]");
}

TEST(ProgressLine, hasABarInFrontOfThePlainLine) {
  const DownloadSnapshot snapshot = running(1 << 20, 4 << 20, 1 << 20);
  EXPECT_EQ(progressLine(snapshot, 8, 200), barText(25, 42, false) + " " + plainLine(snapshot, 8));
  EXPECT_EQ(progressLine(snapshot, 8, 200, 3000, true), barText(25, 42, true) + " " + plainLine(snapshot, 8, 3000));
}

TEST(ProgressLine, dropsWhatMattersLeastWhereThereIsLessRoom) {
  const DownloadSnapshot snapshot = running(300'000'000, 658'505'728, 12'900'000);
  const auto line = [&](unsigned columns) { return progressLine(snapshot, 4, columns); };
  EXPECT_EQ(line(79), "[#######..........] 45% 286.1 MiB of 628.0 MiB  12.3 MiB/s  ETA 0:28  x4");
  EXPECT_EQ(line(66), "[######........] 45% 286.1 MiB of 628.0 MiB  12.3 MiB/s  ETA 0:28");
  EXPECT_EQ(line(59), "[###.....] 45% 286.1 MiB of 628.0 MiB  12.3 MiB/s  ETA 0:28");
  EXPECT_EQ(line(58), "45% 286.1 MiB of 628.0 MiB  12.3 MiB/s  ETA 0:28") << "the bar goes before the amount";
  EXPECT_EQ(line(46), "[####.....] 45%  12.3 MiB/s  ETA 0:28");
  EXPECT_EQ(line(39), "[###.....] 45%  12.3 MiB/s  ETA 0:28");
  EXPECT_EQ(line(35), "45%  12.3 MiB/s  ETA 0:28");
  EXPECT_EQ(line(24), "45%  12.3 MiB/s");
  EXPECT_EQ(line(14), "[###.....] 45%");
  EXPECT_EQ(line(13), "45%");
  EXPECT_EQ(line(2), "");
}

TEST(ProgressLine, tellsThePlaceInAFileOfUnknownSizeFirst) {
  EXPECT_EQ(progressLine(running(12'345'678, 0, 345'678), 1, 12), "11.8 MiB");
}

TEST(ProgressLine, tellsOfTheNextTryBeforeTheSpeed) {
  EXPECT_EQ(progressLine(running(0, 1000, 0), 0, 22, 3500), "0%  next try in 4 s");
  EXPECT_EQ(progressLine(running(0, 1000, 0), 0, 30, 3500), "0%  0 B/s  next try in 4 s");
}

TEST(ProgressLine, hasABarThatDoesNotMoveWithTheFigures) {
  const std::string slow = progressLine(running(1, 4 << 20, 0), 1, 99);
  const std::string fast = progressLine(running(3'000'000, 4 << 20, 1'040'000), 16, 99);
  EXPECT_EQ(slow.find(']'), fast.find(']'));
}

TEST(ProgressLine, isNeverWiderThanTheTerminalAndCutsNoFigure) {
  for (const DownloadSnapshot& snapshot :
       {running(0, 0, 0), running(123'456'789, 987'654'321'012, 55'555'555), running(3000, 1000, 10),
        running(std::numeric_limits<std::uint64_t>::max(), std::numeric_limits<std::uint64_t>::max(), 1)}) {
    const std::string percent = snapshot.totalBytes != 0 ? std::to_string(*shownPercent(snapshot)) + "%" : "";
    const std::string amount = amountText(snapshot);
    const std::set<std::string> parts = {percent,
                                         amount,
                                         std::string(percent).append(" ").append(amount),
                                         sizeText(snapshot.bytesPerSec) + "/s",
                                         "ETA " + etaText(snapshot),
                                         "x256",
                                         "next try in 3 s"};
    for (unsigned columns = 0; columns <= 200; ++columns) {
      const std::string line = progressLine(snapshot, 256, columns, 3000);
      EXPECT_LE(line.size(), columns);
      EXPECT_EQ(cellsOfPainted(progressLine(snapshot, 256, columns, 3000, true)), line.size());
      std::size_t begin = line.rfind("] ") != std::string::npos ? line.rfind("] ") + 2 : 0;
      for (std::size_t end = 0; begin < line.size(); begin = end + 2) {
        end = std::min(line.find("  ", begin), line.size());
        EXPECT_EQ(parts.count(line.substr(begin, end - begin)), 1U) << line;
      }
    }
  }
}

}  // namespace
