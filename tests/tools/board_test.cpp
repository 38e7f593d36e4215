#include "board.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "paint.h"
#include "text_width.h"

namespace {

using xfer::DownloadSnapshot;
using xfer::JobState;
using xfer_get::boardLines;
using xfer_get::BoardRow;
using xfer_get::BoardTotal;
using xfer_get::cellsOf;
using xfer_get::cellsOfPainted;

using Lines = std::vector<std::string>;

DownloadSnapshot snapshot(std::uint64_t done, std::uint64_t total, std::uint64_t speed,
                          JobState state = JobState::Running) {
  DownloadSnapshot snapshot;
  snapshot.state = state;
  snapshot.bytesDone = done;
  snapshot.totalBytes = total;
  snapshot.bytesPerSec = speed;
  return snapshot;
}

const BoardRow kImage{"debian-12.2.0-amd64-netinst.iso", snapshot(300'000'000, 658'505'728, 12'900'000), 4, 0};
const BoardRow kAsked{"a.txt", snapshot(0, 0, 0, JobState::Probing), 1, 0};
const BoardRow kOfUnknownSize{"資料 2024 年度報告書 (最終版) - 改訂.pdf", snapshot(12'345'678, 0, 345'678), 1, 0};
const BoardRow kWaiting{"linux-6.6.tar.xz", snapshot(1000, 139'000'000, 0), 0, 3500};
const Lines kNone;

BoardTotal totalOf(unsigned running) {
  return {4, 1, running, 2, 600'000'000, 2'000'000'000, 14'000'000};
}

TEST(BoardLines, standInColumns) {
  EXPECT_EQ(boardLines({kImage, kAsked, kOfUnknownSize, kWaiting}, totalOf(4), 79, 23),
            (Lines{"debian-12.2.0-amd64-netinst.iso  [######........]   45%   12.3 MiB/s  ETA  0:28",
                   "a.txt                            0 B                 --                  asking",
                   "資料 2024 年度...版) - 改訂.pdf  11.8 MiB            --  337.6 KiB/s  ETA --:--",
                   "linux-6.6.tar.xz                 [..............]    0%         next try in 4 s",
                   "4 of 11 done, 1 failed           [####..........]   30%   13.4 MiB/s  ETA  1:40"}));
}

TEST(BoardLines, keepNamePercentSpeedAndTimeLeftWhereThereIsLittleRoom) {
  EXPECT_EQ(boardLines({kImage, kAsked, kOfUnknownSize, kWaiting}, totalOf(4), 39, 23),
            (Lines{"debian-...st.iso  45%  12.3 MiB/s  0:28",  //
                   "a.txt              --            asking",  //
                   "資料 20...訂.pdf   -- 337.6 KiB/s --:--",  //
                   "linux-6.6.tar.xz   0%   next try in 4 s",  //
                   "4/11, 1 failed    30%  13.4 MiB/s  1:40"}));
  EXPECT_EQ(boardLines({kImage, kWaiting}, totalOf(2), 26, 23),
            (Lines{"debi...iso  45% 12.3 MiB/s",  //
                   "linu....xz   0%    waiting",  //
                   "4/9         30% 13.4 MiB/s"}));
  EXPECT_EQ(boardLines({kImage}, totalOf(1), 10, 23), (Lines{"d...o  45%", "4/8    30%"}));
}

TEST(BoardLines, tellAmountsAndConnectionsWhereThereIsMuchRoom) {
  const std::string bar = "[" + std::string(18, '#') + std::string(22, '.') + "]";
  const std::string totalBar = "[" + std::string(12, '#') + std::string(28, '.') + "]";
  const std::string emptyBar = "[" + std::string(40, '.') + "]";
  EXPECT_EQ(boardLines({kImage, kAsked}, totalOf(2), 199, 23),
            (Lines{"debian-12.2.0-amd64-netinst.iso              " + bar +
                       "   45%  286.1 MiB of 628.0 MiB  12.3 MiB/s  ETA  0:28  x4",
                   "a.txt                                        " + emptyBar +
                       "    --                     0 B                 asking  x1",
                   "4 of 9 done, 1 failed, 2 running, 2 waiting  " + totalBar +
                       "   30%    572.2 MiB of 1.9 GiB  13.4 MiB/s  ETA  1:40"}));
}

TEST(BoardLines, showTheSpeedFromEightCellsForTheNameOn) {
  EXPECT_EQ(boardLines({kImage}, totalOf(1), 24, 2).front(), "deb...so  45% 12.3 MiB/s");
  EXPECT_EQ(boardLines({kImage}, totalOf(1), 23, 2).front(), "debian-1...nst.iso  45%");
}

TEST(BoardLines, makeRoomForALongWait) {
  BoardRow row = kWaiting;
  row.nextTryMs = 1'234'000;
  EXPECT_EQ(boardLines({row}, totalOf(1), 39, 2),
            (Lines{"linux-...tar.xz   0% next try in 1234 s",  //
                   "4/8, 1 failed    30%   13.4 MiB/s  1:40"}));
}

TEST(BoardLines, nameNoConnectionsWhereThereAreNone) {
  EXPECT_EQ(boardLines({kImage, kWaiting}, totalOf(2), 199, 3)[1].find("x0"), std::string::npos);
}

TEST(BoardLines, longNameLeavesRoomForTheBar) {
  BoardRow row = kImage;
  row.name = std::string(100, 'a') + ".tar.gz.sha256";
  EXPECT_EQ(boardLines({row}, totalOf(1), 79, 23).front(),
            "aaaaaaaaaaaaaa....tar.gz.sha256  [######.........]   45%  12.3 MiB/s  ETA  0:28");
}

TEST(BoardLines, areNotMoreThanThereIsRoomFor) {
  const std::vector<BoardRow> rows(5, kImage);
  const Lines all = boardLines(rows, totalOf(5), 79, 99);
  ASSERT_EQ(all.size(), 6U);
  const std::string& row = all.front();
  const std::string& total = all.back();
  EXPECT_EQ(boardLines(rows, totalOf(5), 79, 6), all);
  EXPECT_EQ(boardLines(rows, totalOf(5), 79, 5), (Lines{row, row, row, "... and 2 more", total}));
  EXPECT_EQ(boardLines(rows, totalOf(5), 79, 4), (Lines{row, row, "... and 3 more", total}));
  EXPECT_EQ(boardLines(rows, totalOf(5), 79, 3), (Lines{row, "... and 4 more", total}));
  EXPECT_EQ(boardLines(rows, totalOf(5), 79, 2), (Lines{row, total}));
  EXPECT_EQ(boardLines(rows, totalOf(5), 79, 1), (boardLines({}, totalOf(5), 79, 1)));
  EXPECT_EQ(boardLines(rows, totalOf(5), 79, 0), kNone);
  EXPECT_EQ(boardLines({}, totalOf(0), 79, 99).size(), 1U);
}

TEST(BoardLines, countAllDownloadsInTheTotal) {
  const auto counts = [](const BoardTotal& total) {
    const std::string line = boardLines({}, total, 199, 1).front();
    return line.substr(0, line.find("  "));
  };
  EXPECT_EQ(counts({0, 0, 1, 0, 0, 0, 0}), "0 of 1 done, 1 running");
  EXPECT_EQ(counts({1, 0, 0, 0, 0, 0, 0}), "1 of 1 done");
  EXPECT_EQ(counts({1, 2, 0, 0, 0, 0, 0}), "1 of 3 done, 2 failed");
}

TEST(BoardLines, totalIsAHundredPercentWhenAllAreDoneAndNoSooner) {
  const auto percent = [](const BoardTotal& total) {
    const std::string line = boardLines({}, total, 20, 1).front();
    return line.substr(line.rfind(' ') + 1);
  };
  EXPECT_EQ(percent({1, 0, 1, 0, 20, 20, 0}), "99%");
  EXPECT_EQ(percent({1, 0, 0, 1, 20, 20, 0}), "99%");
  EXPECT_EQ(percent({1, 1, 0, 0, 20, 20, 0}), "99%");
  EXPECT_EQ(percent({2, 0, 0, 0, 20, 20, 0}), "100%");
  EXPECT_EQ(percent({1, 0, 1, 0, 10, 0, 0}), "--");
}

TEST(BoardLines, nameCannotWriteToTheTerminal) {
  BoardRow row = kImage;
  row.name = "a\x1b[2J\n\u202E";
  EXPECT_EQ(boardLines({row}, totalOf(1), 79, 2).front().substr(0, 9), "a?[2J?? \x20");
}

TEST(BoardLines, paintBarsAndFailures) {
  const Lines lines = boardLines({kImage}, totalOf(1), 79, 2, true);
  EXPECT_EQ(lines[0], "debian-12.2.0-amd64-netinst.iso  [\x1b[32m######\x1b[0m.........]   45%  12.3 MiB/s  ETA  0:28");
  EXPECT_EQ(
      lines[1],
      "4 of 8 done, \x1b[31m1 failed\x1b[0m            [\x1b[32m####\x1b[0m...........]   30%  13.4 MiB/s  ETA  1:40");
}

TEST(BoardLines, areNeverWiderThanTheTerminal) {
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  const auto upTo = [&](std::uint64_t most) { return std::uniform_int_distribution<std::uint64_t>(0, most)(random); };
  const auto anyNumber = [&] { return upTo(3) == 0 ? upTo(3) : upTo(~std::uint64_t{0} >> upTo(63)); };
  for (int board = 0; board < 60; ++board) {
    std::vector<BoardRow> rows(upTo(4));
    for (BoardRow& row : rows) {
      for (std::uint64_t i = upTo(60); i > 0; --i) row.name += upTo(2) == 0 ? "資" : upTo(5) == 0 ? "e\u0301" : "x";
      row.snapshot = snapshot(anyNumber(), anyNumber(), anyNumber(), static_cast<JobState>(upTo(7)));
      row.connections = static_cast<unsigned>(upTo(300));
      row.nextTryMs = upTo(1) == 0 ? 0 : anyNumber();
    }
    const BoardTotal total{static_cast<unsigned>(upTo(9)),
                           static_cast<unsigned>(upTo(9)),
                           static_cast<unsigned>(upTo(9)),
                           static_cast<unsigned>(upTo(99)),
                           anyNumber(),
                           anyNumber(),
                           anyNumber()};
    for (unsigned columns = 0; columns < 200; columns += 1 + columns / 20) {
      const Lines plain = boardLines(rows, total, columns, 3);
      const Lines painted = boardLines(rows, total, columns, 3, true);
      ASSERT_LE(plain.size(), 3U);
      ASSERT_EQ(plain.size(), painted.size());
      std::set<std::size_t> percents;  // where they end
      for (std::size_t i = 0; i < plain.size(); ++i) {
        ASSERT_LE(cellsOf(plain[i]), columns) << "seed " << seed << ": " << plain[i];
        ASSERT_EQ(cellsOfPainted(painted[i]), cellsOf(plain[i])) << "seed " << seed << ": " << painted[i];
        if (const std::size_t at = plain[i].find('%'); at != std::string::npos) {
          percents.insert(cellsOf(plain[i].substr(0, at)));
        }
      }
      ASSERT_LE(percents.size(), 1U) << "seed " << seed << ", " << columns << " columns";
    }
  }
}

}  // namespace
