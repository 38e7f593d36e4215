#include "board.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <utility>

#include "paint.h"
#include "progress.h"
#include "text_width.h"

namespace xfer_get {
namespace {

using xfer::DownloadSnapshot;
using xfer::JobState;

constexpr std::size_t kPercent = 4;  // "100%"
constexpr std::size_t kSpeed = 10;   // "12.3 MiB/s": wider ones are rare enough to move what is next to them
constexpr std::size_t kEta = 5;      // "12:30"
constexpr std::size_t kShortestName = 8;
constexpr std::size_t kShortName = 14;
constexpr std::size_t kUsualName = 28;
constexpr std::size_t kLongName = 60;
constexpr std::size_t kNarrowestBar = 10;
constexpr std::size_t kWidestBar = 42;
constexpr unsigned kRoomy = 60;  // columns

// A line of the table, before it is known how wide its columns are.
struct Entry {
  std::vector<std::string> names;  // from the longest on; the last one may be cut
  std::size_t usualName = 0;       // the one that the column is made for
  std::optional<unsigned> percent;
  std::string amount;
  std::string speed;  // or what it does instead, without an eta
  std::string eta;
  std::string connections;
};

// Cells of each column; 0: not shown.
struct Widths {
  std::size_t gap = 1;
  std::size_t name = 0;
  std::size_t bar = 0;
  std::size_t percent = 0;
  std::size_t amount = 0;
  std::size_t speed = 0;
  std::size_t eta = 0;
  std::size_t connections = 0;
};

std::string atLeft(const std::string& text, std::size_t cells) {
  return text + std::string(cells - std::min(cells, cellsOf(text)), ' ');
}

// Of text that has one cell a character.
std::string atRight(const std::string& text, std::size_t cells) {
  return std::string(cells - std::min(cells, text.size()), ' ') + text;
}

std::string etaCell(const DownloadSnapshot& snapshot, unsigned columns) {
  return columns < kRoomy ? etaText(snapshot) : "ETA " + atRight(etaText(snapshot), kEta);
}

Entry entryOf(const BoardRow& row, unsigned columns) {
  Entry entry;
  entry.names = {row.name};
  entry.percent = shownPercent(row.snapshot);
  entry.amount = amountText(row.snapshot);
  if (row.nextTryMs != 0) {
    entry.speed = nextTryText(row.nextTryMs);
  } else if (std::string state = stateText(row.snapshot.state); !state.empty()) {
    entry.speed = std::move(state);
  } else {
    entry.speed = sizeText(row.snapshot.bytesPerSec) + "/s";
    entry.eta = etaCell(row.snapshot, columns);
  }
  entry.connections = connectionsText(row.connections);
  return entry;
}

std::string failedText(const BoardTotal& total) {
  return total.failed != 0 ? std::to_string(total.failed) + " failed" : "";
}

std::vector<std::string> countTexts(const BoardTotal& total) {
  const std::string done = std::to_string(total.done);
  const std::string all = std::to_string(total.done + total.failed + total.running + total.waiting);
  const std::string failed = total.failed != 0 ? ", " + failedText(total) : "";
  const std::string running = total.running != 0 ? ", " + std::to_string(total.running) + " running" : "";
  const std::string waiting = total.waiting != 0 ? ", " + std::to_string(total.waiting) + " waiting" : "";
  const std::string usual = done + " of " + all + " done" + failed;
  return {usual + running + waiting, usual + waiting, usual, done + "/" + all + failed, done + "/" + all};
}

Entry entryOf(const BoardTotal& total, unsigned columns) {
  DownloadSnapshot snapshot;
  snapshot.state = total.failed + total.running + total.waiting == 0 ? JobState::Completed : JobState::Running;
  snapshot.bytesDone = total.bytesDone;
  snapshot.totalBytes = total.bytesTotal;
  snapshot.bytesPerSec = total.bytesPerSec;
  Entry entry;
  entry.names = countTexts(total);
  entry.usualName = 2;
  entry.percent = shownPercent(snapshot);
  entry.amount = amountText(snapshot);
  entry.speed = sizeText(total.bytesPerSec) + "/s";
  entry.eta = etaCell(snapshot, columns);
  return entry;
}

// What each column needs, without regard to the others.
Widths needs(const std::vector<Entry>& entries, unsigned columns) {
  Widths needs;
  needs.gap = columns < kRoomy ? 1 : 2;
  needs.percent = kPercent;
  needs.speed = kSpeed;
  needs.eta = kEta;
  needs.bar = kWidestBar;
  for (const Entry& entry : entries) {
    needs.name = std::max(needs.name, cellsOf(entry.names[entry.usualName]));
    needs.amount = std::max(needs.amount, entry.amount.size());
    needs.eta = std::max(needs.eta, entry.eta.size());
    needs.connections = std::max(needs.connections, entry.connections.size());
    if (!entry.eta.empty()) needs.speed = std::max(needs.speed, entry.speed.size());
  }
  for (const Entry& entry : entries) {
    const std::size_t both = needs.speed + needs.gap + needs.eta;
    if (entry.eta.empty() && entry.speed.size() > both) needs.speed += entry.speed.size() - both;
  }
  return needs;
}

// Which columns are shown, and how wide.
Widths widthsFor(const std::vector<Entry>& entries, unsigned columns) {
  const Widths need = needs(entries, columns);
  Widths widths;
  widths.gap = need.gap;
  if (columns < kPercent) return widths;
  widths.percent = kPercent;
  std::size_t left = columns - kPercent;
  // Takes the cells when so many are left for the name.
  const auto take = [&](std::size_t cells, std::size_t name) {
    if (cells == 0 || left < cells + need.gap + (name != 0 ? name + need.gap : 0)) return std::size_t{0};
    left -= cells + need.gap;
    return cells;
  };
  const std::size_t shortName = std::min(need.name, kShortName);
  const std::size_t usualName = std::min(need.name, kUsualName);
  const std::size_t longName = std::min(need.name, kLongName);
  widths.speed = take(need.speed, std::min(need.name, kShortestName));
  if (widths.speed != 0) widths.eta = take(need.eta, shortName);
  if (widths.eta != 0) widths.bar = take(kNarrowestBar, usualName);
  if (widths.bar != 0) widths.amount = take(need.amount, longName);
  if (widths.amount != 0) widths.connections = take(need.connections, longName);
  if (left > need.gap) widths.name = std::min(need.name, left - need.gap);
  // Names that are very long leave the bar some of the room.
  if (widths.bar != 0) widths.name = std::min(widths.name, std::max<std::size_t>(kUsualName, columns * 2 / 5));
  if (widths.name != 0) left -= widths.name + need.gap;
  if (widths.bar == 0) return widths;
  const std::size_t bar = std::min(widths.bar + left, kWidestBar);
  left -= bar - widths.bar;
  widths.bar = bar;
  for (const Entry& entry : entries) {
    if (entry.names.size() == 1) continue;
    const std::size_t longest = std::max(cellsOf(entry.names.front()), widths.name);
    widths.name += std::min(left, longest - widths.name);
  }
  return widths;
}

std::string nameCell(const Entry& entry, std::size_t cells) {
  for (const std::string& name : entry.names) {
    if (cellsOf(name) <= cells) return atLeft(plainText(name), cells);
  }
  return atLeft(cutMiddle(entry.names.back(), cells), cells);
}

std::string lineOf(const Entry& entry, const Widths& widths, bool colours) {
  std::string line;
  const auto add = [&](const std::string& cell) {
    if (!cell.empty() && !line.empty()) line.append(widths.gap, ' ');
    line += cell;
  };
  add(nameCell(entry, widths.name));
  if (widths.bar != 0) {
    const bool amount = !entry.percent && widths.amount == 0 && entry.amount.size() <= widths.bar;
    add(amount ? atLeft(entry.amount, widths.bar) : barText(entry.percent, widths.bar, colours));
  }
  if (widths.percent != 0) add(atRight(entry.percent ? std::to_string(*entry.percent) + "%" : "--", widths.percent));
  if (widths.amount != 0) add(atRight(entry.amount, widths.amount));
  if (widths.speed != 0) {
    const bool both = entry.eta.empty() && widths.eta != 0;
    const std::size_t cells = widths.speed + (both ? widths.gap + widths.eta : 0);
    add(atRight(entry.speed.size() <= cells ? entry.speed : "waiting", cells));
    if (!both && widths.eta != 0) add(atRight(entry.eta, widths.eta));
  }
  if (widths.connections != 0) add(atLeft(entry.connections, widths.connections));
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

}  // namespace

std::vector<std::string> boardLines(const std::vector<BoardRow>& rows, const BoardTotal& total, unsigned columns,
                                    unsigned lines, bool colours) {
  std::vector<std::string> board;
  if (lines == 0) return board;
  const std::size_t room = lines - 1;
  // A number of others alone would tell less than the first row does.
  const std::size_t shown =
      rows.size() <= room ? rows.size() : std::min<std::size_t>(room, std::max(room, std::size_t{2}) - 1);
  std::vector<Entry> entries;
  for (std::size_t i = 0; i < shown; ++i) entries.push_back(entryOf(rows[i], columns));
  entries.push_back(entryOf(total, columns));
  const Widths widths = widthsFor(entries, columns);
  for (const Entry& entry : entries) board.push_back(lineOf(entry, widths, colours));
  if (const std::string failed = failedText(total); !failed.empty()) {
    if (const std::size_t at = board.back().find(failed); at != std::string::npos) {
      board.back().replace(at, failed.size(), paint(failed, Colour::Red, colours));
    }
  }
  if (shown < rows.size() && shown < room) {
    board.insert(board.end() - 1, cutTo("... and " + std::to_string(rows.size() - shown) + " more", columns));
  }
  return board;
}

}  // namespace xfer_get
