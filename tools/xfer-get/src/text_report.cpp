#include "text_report.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "board.h"
#include "file_map.h"
#include "progress.h"
#include "say.h"
#include "terminal.h"
#include "text_width.h"

namespace xfer_get {
namespace {

constexpr auto kRedraw = std::chrono::milliseconds(200);
constexpr auto kPlainLine = std::chrono::seconds(5);

struct Shown {
  xfer::DownloadSnapshot snapshot;
  FileParts parts;
  std::uint64_t nextTryMs = 0;  // nothing is under way until then
};

Shown look(const Download& download) {
  Shown shown{download.snapshot(), {}, 0};
  const std::optional<xfer::DownloadDetails> details = download.details();
  if (!details) return shown;
  shown.parts = {shown.snapshot.totalBytes, details->ranges(), details->missing()};
  if (shown.parts.ranges.empty()) shown.nextTryMs = details->hostLeftAloneMs();
  return shown;
}

// What is known of downloads that run, added to what is over.
BoardTotal totalOf(const std::vector<const Download*>& running, const Tally& tally) {
  BoardTotal total;
  total.done = tally.done;
  total.failed = tally.failed;
  total.running = tally.running;
  total.waiting = tally.all - tally.done - tally.failed - tally.running;
  total.bytesDone = total.bytesTotal = tally.bytes;
  bool known = total.waiting == 0;
  for (const Download* const download : running) {
    const xfer::DownloadSnapshot snapshot = download->snapshot();
    total.bytesDone += shownBytes(snapshot);
    total.bytesTotal += snapshot.totalBytes;
    total.bytesPerSec += snapshot.bytesPerSec;
    known = known && snapshot.totalBytes != 0;
  }
  if (!known) total.bytesTotal = 0;
  return total;
}

std::string speedText(std::uint64_t bytes, double seconds) {
  constexpr double kMoment = 0.001;
  const double bytesPerSec = static_cast<double>(bytes) / std::max(seconds, kMoment);
  return sizeText(bytes) + " at " + sizeText(static_cast<std::uint64_t>(bytesPerSec)) + "/s";
}

bool coloursAreWanted() {
  const char* const no = std::getenv("NO_COLOR");
  return no == nullptr || *no == '\0';
}

}  // namespace

TextReport::TextReport(const Options& options, std::size_t all)
    : options_(options), one_(all == 1), colours_(coloursAreWanted()) {}

void TextReport::write(const std::string& text) {
  std::fputs(text.c_str(), stderr);
  std::fflush(stderr);
}

void TextReport::tell(const std::string& text) {
  if (drawn_) {
    write(live_.above("xfer-get: " + text));
  } else {
    say(text);
  }
}

void TextReport::begun(const Download& download) {
  if (options_.quiet || download.path() == download.target().path) return;
  tell(plainText(download.target().path) + " is there already: stored as " + plainText(download.path()) +
       " (--overwrite replaces it)");
}

void TextReport::stepped(const Download& /*download*/) {}

void TextReport::ended(const Download& download) {
  const Outcome& outcome = download.outcome();
  if (drawn_ && one_) drawLast(download);
  if (outcome.code != kDone) return tell(outcome.message);
  if (options_.quiet) return;
  std::string text = plainText(download.path()) + ": " + speedText(download.size(), download.seconds());
  if (download.checksumMatches())
    text += ", " + std::string(nameOf(download.target().checksum->algorithm)) + " matches";
  tell(text);
  const std::string encoding = download.details()->contentEncoding();
  if (!encoding.empty()) tell(encodingNote({download.target().url, download.path(), false}, encoding));
}

void TextReport::show(const std::vector<const Download*>& running, const Tally& tally) {
  if (options_.quiet || running.empty()) return;
  const auto now = Clock::now();
  if (now < nextDrawing_) return;
  nextDrawing_ = now + kRedraw;
  if (options_.verbosity == 0 && terminalSize().columns > 0) {
    draw(running, tally);
  } else if (now >= nextLine_) {
    nextLine_ = now + kPlainLine;
    printLine(running, tally);
  }
}

void TextReport::draw(const std::vector<const Download*>& running, const Tally& tally) {
  const TerminalSize terminal = terminalSize();
  const unsigned columns = terminal.columns - 1;  // in the last one some terminals begin a new line
  const bool colours = colours_ && terminal.rows > 0;
  std::vector<std::string> lines;
  if (one_) {
    const Download& download = *running.front();
    const Shown shown = look(download);
    lines.push_back(progressLine(shown.snapshot, download.connections(), columns, shown.nextTryMs, colours));
    const unsigned below = options_.map && terminal.rows > 1 ? terminal.rows - 1 : 0;
    const std::vector<std::string> map = mapLines(shown.parts, columns, below);
    lines.insert(lines.end(), map.begin(), map.end());
  } else {
    std::vector<BoardRow> rows;
    for (const Download* const download : running) {
      const Shown shown = look(*download);
      rows.push_back({download->path(), shown.snapshot, download->connections(), shown.nextTryMs});
    }
    lines = boardLines(rows, totalOf(running, tally), columns, std::max(terminal.rows, 1U), colours);
  }
  drawn_ = true;
  write(live_.draw(lines, columns, terminal.rows));
}

// How it ended stays to be seen.
void TextReport::drawLast(const Download& download) {
  const TerminalSize terminal = terminalSize();
  const unsigned columns = std::max(terminal.columns, 1U) - 1;
  const Shown shown = look(download);
  const bool colours = colours_ && terminal.rows > 0;
  write(live_.clear() + progressLine(shown.snapshot, 0, columns, 0, colours) + "\n");
  drawn_ = false;
}

void TextReport::printLine(const std::vector<const Download*>& running, const Tally& tally) {
  if (one_) {
    const Shown shown = look(*running.front());
    say(plainLine(shown.snapshot, running.front()->connections(), shown.nextTryMs));
  } else {
    constexpr unsigned kColumns = 120;
    say(boardLines({}, totalOf(running, tally), kColumns, 1).back());
  }
}

void TextReport::over(const Tally& tally) {
  if (drawn_) write(live_.clear());
  if (options_.quiet || one_) return;
  const unsigned left = tally.all - tally.done - tally.failed;
  std::string text = std::to_string(tally.done) + " of " + std::to_string(tally.all) + " done";
  if (tally.failed > 0) text += ", " + std::to_string(tally.failed) + " failed";
  if (left > 0) text += ", " + std::to_string(left) + " not begun";
  say(text + ": " + speedText(tally.bytes, tally.seconds));
}

}  // namespace xfer_get
