#include "text_width.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <vector>

#include "utf8.h"

namespace xfer_get {
namespace {

struct Range {
  char32_t first;
  char32_t last;
};

// Marks of the scripts that file names use most; one that lacks here counts as a cell, which is never too few.
constexpr std::array<Range, 32> kCombining{{
    {0x0300, 0x036F}, {0x0483, 0x0489},   {0x0591, 0x05BD}, {0x05BF, 0x05BF}, {0x05C1, 0x05C2}, {0x05C4, 0x05C5},
    {0x0610, 0x061A}, {0x064B, 0x065F},   {0x0670, 0x0670}, {0x06D6, 0x06DC}, {0x06DF, 0x06E4}, {0x06E7, 0x06E8},
    {0x06EA, 0x06ED}, {0x0900, 0x0902},   {0x093C, 0x093C}, {0x0941, 0x0948}, {0x094D, 0x094D}, {0x0E31, 0x0E31},
    {0x0E34, 0x0E3A}, {0x0E47, 0x0E4E},   {0x1160, 0x11FF}, {0x1AB0, 0x1ACE}, {0x1DC0, 0x1DFF}, {0x200B, 0x200F},
    {0x2060, 0x2064}, {0x20D0, 0x20F0},   {0x302A, 0x302D}, {0x3099, 0x309A}, {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F},
    {0xFEFF, 0xFEFF}, {0xE0100, 0xE01EF},
}};

// Wide characters, and those between them where some terminals draw emoji.
constexpr std::array<Range, 55> kWide{{
    {0x1100, 0x115F},   {0x231A, 0x231B},   {0x2329, 0x232A},   {0x23E9, 0x23EC},   {0x23F0, 0x23F0},
    {0x23F3, 0x23F3},   {0x25FD, 0x25FE},   {0x2614, 0x2615},   {0x2630, 0x2637},   {0x2648, 0x2653},
    {0x267F, 0x267F},   {0x268A, 0x268F},   {0x2693, 0x2693},   {0x26A1, 0x26A1},   {0x26AA, 0x26AB},
    {0x26BD, 0x26BE},   {0x26C4, 0x26C5},   {0x26CE, 0x26CE},   {0x26D4, 0x26D4},   {0x26EA, 0x26EA},
    {0x26F2, 0x26F3},   {0x26F5, 0x26F5},   {0x26FA, 0x26FA},   {0x26FD, 0x26FD},   {0x2705, 0x2705},
    {0x270A, 0x270B},   {0x2728, 0x2728},   {0x274C, 0x274C},   {0x274E, 0x274E},   {0x2753, 0x2755},
    {0x2757, 0x2757},   {0x2795, 0x2797},   {0x27B0, 0x27B0},   {0x27BF, 0x27BF},   {0x2B1B, 0x2B1C},
    {0x2B50, 0x2B50},   {0x2B55, 0x2B55},   {0x2E80, 0x303E},   {0x3041, 0x4DFF},   {0x4E00, 0xA4CF},
    {0xA960, 0xA97C},   {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE10, 0xFE19},   {0xFE30, 0xFE6F},
    {0xFF01, 0xFF60},   {0xFFE0, 0xFFE6},   {0x16FE0, 0x18DFF}, {0x1AFF0, 0x1B2FF}, {0x1D300, 0x1D37F},
    {0x1F004, 0x1F004}, {0x1F0CF, 0x1F0CF}, {0x1F18E, 0x1F1FF}, {0x1F200, 0x1FAFF}, {0x20000, 0x3FFFD},
}};

constexpr std::array<Range, 5> kOrders{{
    {0x0000, 0x001F},
    {0x007F, 0x009F},
    {0x2028, 0x2029},
    {0x202A, 0x202E},
    {0x2066, 0x2069},
}};

constexpr char32_t kEmojiSelector = 0xFE0F;
constexpr std::string_view kGap = "...";

template <std::size_t kCount>
bool isIn(const std::array<Range, kCount>& ranges, char32_t codePoint) {
  const auto behind = std::upper_bound(ranges.begin(), ranges.end(), codePoint,
                                       [](char32_t value, const Range& range) { return value < range.first; });
  return behind != ranges.begin() && codePoint <= std::prev(behind)->last;
}

std::size_t cellsOf(char32_t codePoint) {
  if (isIn(kCombining, codePoint)) return 0;
  return isIn(kWide, codePoint) ? 2 : 1;
}

// What a terminal shows in one place: a character with the marks that follow it.
struct Cluster {
  std::string text;
  std::size_t cells = 0;
};

std::vector<Cluster> clustersOf(std::string_view text) {
  std::vector<Cluster> clusters;
  while (!text.empty()) {
    const std::string_view before = text;
    const CodePoint taken = takeCodePoint(&text);
    const bool shown = taken.valid && !ordersTerminal(taken.value);
    const std::string_view bytes = shown ? before.substr(0, before.size() - text.size()) : "?";
    const std::size_t cells = shown ? cellsOf(taken.value) : 1;
    if (cells > 0 || clusters.empty()) {
      clusters.push_back({std::string(bytes), cells});
      continue;
    }
    clusters.back().text += bytes;
    // Some terminals draw the emoji that is asked for, and some the narrow character.
    if (taken.value == kEmojiSelector) clusters.back().cells = std::max<std::size_t>(clusters.back().cells, 2);
  }
  return clusters;
}

std::size_t cellsOf(const std::vector<Cluster>& clusters) {
  std::size_t cells = 0;
  for (const Cluster& cluster : clusters) cells += cluster.cells;
  return cells;
}

std::string joined(const std::vector<Cluster>& clusters, std::size_t from, std::size_t to) {
  std::string text;
  for (std::size_t i = from; i < to; ++i) text += clusters[i].text;
  return text;
}

// How many clusters fit into so many cells, from the first one on.
std::size_t fitting(const std::vector<Cluster>& clusters, std::size_t cells) {
  std::size_t count = 0;
  for (; count < clusters.size() && clusters[count].cells <= cells; ++count) cells -= clusters[count].cells;
  return count;
}

}  // namespace

bool ordersTerminal(char32_t codePoint) {
  return isIn(kOrders, codePoint);
}

std::string plainText(std::string_view text) {
  const std::vector<Cluster> clusters = clustersOf(text);
  return joined(clusters, 0, clusters.size());
}

std::size_t cellsOf(std::string_view text) {
  return cellsOf(clustersOf(text));
}

std::string cutTo(std::string_view text, std::size_t cells) {
  const std::vector<Cluster> clusters = clustersOf(text);
  return joined(clusters, 0, fitting(clusters, cells));
}

std::string cutMiddle(std::string_view text, std::size_t cells) {
  std::vector<Cluster> clusters = clustersOf(text);
  const std::size_t count = clusters.size();
  if (cellsOf(clusters) <= cells) return joined(clusters, 0, count);
  if (cells < kGap.size() + 2) return joined(clusters, 0, fitting(clusters, cells));
  const std::size_t tailCells = (cells - kGap.size()) / 2;
  std::string begin = joined(clusters, 0, fitting(clusters, cells - kGap.size() - tailCells));
  std::reverse(clusters.begin(), clusters.end());
  const std::size_t tail = fitting(clusters, tailCells);
  std::reverse(clusters.begin(), clusters.end());
  return begin.append(kGap) + joined(clusters, count - tail, count);
}

}  // namespace xfer_get
