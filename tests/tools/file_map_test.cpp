#include "file_map.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace {

using xfer::RangeDetails;
using xfer_get::connectionLine;
using xfer_get::FileParts;
using xfer_get::mapLine;
using xfer_get::mapLines;

using Lines = std::vector<std::string>;

RangeDetails flight(std::uint64_t start, std::uint64_t position, std::uint64_t end) {
  RangeDetails range;
  range.start = start;
  range.position = position;
  range.end = end;
  return range;
}

TEST(MapLine, showsWhatIsThereWhatIsAskedForAndWhatIsMissing) {
  EXPECT_EQ(mapLine({100, {flight(0, 25, 50)}, {{70, 80}}}, 12), "[##>--##.##]");
  EXPECT_EQ(mapLine({100, {}, {}}, 12), "[##########]");
  EXPECT_EQ(mapLine({100, {}, {{0, 100}}}, 12), "[..........]");
  EXPECT_EQ(mapLine({100, {flight(0, 0, 100)}, {}}, 12), "[>---------]");
}

TEST(MapLine, oneByteThatLacksIsSeen) {
  EXPECT_EQ(mapLine({100, {}, {{99, 100}}}, 12), "[#########.]");
  EXPECT_EQ(mapLine({100, {}, {{0, 1}}}, 12), "[.#########]");
  EXPECT_EQ(mapLine({100, {flight(0, 19, 20)}, {}}, 12), "[#>########]");
}

TEST(MapLine, byteOfATinyFileHasSeveralColumns) {
  EXPECT_EQ(mapLine({2, {}, {{1, 2}}}, 12), "[#####.....]");
  EXPECT_EQ(mapLine({2, {flight(0, 1, 2)}, {}}, 12), "[#####>----]");
}

TEST(MapLine, rangeWithoutAnEndGoesToTheFiles) {
  EXPECT_EQ(mapLine({100, {flight(0, 50, 0)}, {}}, 12), "[#####>----]");
}

TEST(MapLine, rangeThatHasArrivedIsNoLongerDrawn) {
  EXPECT_EQ(mapLine({100, {flight(0, 50, 50)}, {}}, 12), "[##########]");
}

TEST(MapLine, missesWinOverWhatIsAskedForInTheSameColumn) {
  EXPECT_EQ(mapLine({1000, {flight(0, 0, 550)}, {{550, 560}}}, 12), "[>----.####]");
}

TEST(MapLine, isEmptyWithoutASizeOrWithoutRoom) {
  EXPECT_EQ(mapLine({0, {flight(0, 5, 0)}, {}}, 80), "");
  EXPECT_EQ(mapLine({100, {}, {}}, 7), "");
  EXPECT_EQ(mapLine({100, {}, {}}, 8), "[######]");
}

TEST(MapLine, isAsWideAsItMayBeForFilesOfAnySize) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
  for (const std::uint64_t size : {std::uint64_t{1}, std::uint64_t{7}, std::uint64_t{5'000'000'000}, kMost}) {
    for (unsigned columns = 8; columns <= 200; ++columns) {
      const std::string map = mapLine({size, {flight(0, size / 2, size)}, {{size - 1, kMost}}}, columns);
      EXPECT_EQ(map.size(), columns);
      EXPECT_NE(map.find('>'), std::string::npos) << map;
      EXPECT_TRUE(size == 1 || map[columns - 2] == '.') << map;
    }
  }
}

TEST(ConnectionLine, tellsWhereAndHowFast) {
  RangeDetails range = flight(0, 12 << 20, 24 << 20);
  EXPECT_EQ(connectionLine(range, 48 << 20, 80), "  12.0 MiB >   24.0 MiB  begins");
  range.bytesPerSec = 4'000'000;
  EXPECT_EQ(connectionLine(range, 48 << 20, 80), "  12.0 MiB >   24.0 MiB  3.8 MiB/s");
  range.copy = true;
  EXPECT_EQ(connectionLine(range, 48 << 20, 80), "  12.0 MiB >   24.0 MiB  3.8 MiB/s  again");
  range.end = 0;
  EXPECT_EQ(connectionLine(range, 48 << 20, 80), "  12.0 MiB >   48.0 MiB  3.8 MiB/s  again");
  EXPECT_EQ(connectionLine(range, 0, 24), "  12.0 MiB >          ? ");
}

TEST(ConnectionLine, namesNoEndThatTheFileNeedNotHave) {
  const RangeDetails firstRange = flight(0, 0, 1 << 30);
  EXPECT_EQ(connectionLine(firstRange, 0, 80), "       0 B >          ?  begins");
  EXPECT_EQ(connectionLine(firstRange, 1000, 80), "       0 B >     1000 B  begins");
}

TEST(ConnectionLine, tellsOfASilenceOfASecondAndMore) {
  RangeDetails range = flight(0, 1, 2);
  range.bytesPerSec = 1;
  range.silentMs = 999;
  EXPECT_EQ(connectionLine(range, 2, 80), "       1 B >        2 B  1 B/s");
  range.silentMs = 12'900;
  EXPECT_EQ(connectionLine(range, 2, 80), "       1 B >        2 B  silent 12 s");
}

TEST(ConnectionLine, saysAllInFortyColumns) {
  RangeDetails range = flight(0, 1023ULL << 20, 1022ULL << 40);
  range.silentMs = 3'600'000;
  EXPECT_EQ(connectionLine(range, 1023ULL << 40, 39), "1023.0 MiB > 1022.0 TiB  silent 3600 s");
}

TEST(MapLines, areAsManyAsThereIsRoomFor) {
  const FileParts parts{90, {flight(0, 0, 30), flight(30, 30, 60), flight(60, 60, 90)}, {}};
  const std::string map = mapLine(parts, 40);
  const auto line = [&](std::size_t index) { return connectionLine(parts.ranges[index], 90, 40); };
  EXPECT_EQ(mapLines(parts, 40, 0), Lines());
  EXPECT_EQ(mapLines(parts, 40, 1), (Lines{map}));
  EXPECT_EQ(mapLines(parts, 40, 2), (Lines{map, "and 3 more connections"}));
  EXPECT_EQ(mapLines(parts, 40, 3), (Lines{map, line(0), "and 2 more connections"}));
  EXPECT_EQ(mapLines(parts, 40, 4), (Lines{map, line(0), line(1), line(2)}));
  EXPECT_EQ(mapLines(parts, 40, 99), (Lines{map, line(0), line(1), line(2)}));
}

TEST(MapLines, haveNoMapOfAFileOfUnknownSize) {
  const FileParts parts{0, {flight(0, 5, 0)}, {}};
  EXPECT_EQ(mapLines(parts, 40, 5), (Lines{connectionLine(parts.ranges[0], 0, 40)}));
}

}  // namespace
