#include "progress.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace {

using xfer::DownloadSnapshot;
using xfer::JobState;
using xfer_get::etaText;
using xfer_get::plainLine;
using xfer_get::progressLine;
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

TEST(PlainLine, neverSaysMoreThanAHundredPercent) {
  EXPECT_EQ(plainLine(running(3000, 1000, 0), 1).rfind("100% ", 0), 0U);
}

TEST(ProgressLine, hasABarAsFullAsThePercentage) {
  const std::string line = progressLine(running(1 << 20, 4 << 20, 1 << 20), 8, 100);
  const std::string bar = "[##########..............................] ";
  EXPECT_EQ(line, bar + plainLine(running(1 << 20, 4 << 20, 1 << 20), 8));
}

TEST(ProgressLine, hasAnEmptyBarForAnUnknownSizeAndAFullOneForTooMuch) {
  EXPECT_EQ(progressLine(running(1 << 20, 0, 0), 1, 100).rfind("[" + std::string(40, '.') + "] ", 0), 0U);
  EXPECT_EQ(progressLine(running(3000, 1000, 0), 1, 100).rfind("[" + std::string(40, '#') + "] ", 0), 0U);
}

TEST(ProgressLine, isNeverWiderThanTheTerminal) {
  for (const DownloadSnapshot& snapshot :
       {running(0, 0, 0), running(123'456'789, 987'654'321'012, 55'555'555), running(3000, 1000, 10),
        running(std::numeric_limits<std::uint64_t>::max(), std::numeric_limits<std::uint64_t>::max(), 1)}) {
    const std::string figures = plainLine(snapshot, 256);
    for (unsigned columns = 0; columns <= 200; ++columns) {
      const std::string line = progressLine(snapshot, 256, columns);
      EXPECT_LE(line.size(), columns);
      EXPECT_TRUE(line == figures.substr(0, columns) || line.find("] " + figures) != std::string::npos) << line;
    }
  }
}

}  // namespace
