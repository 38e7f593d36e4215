#include "progress.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace xfer_get {
namespace {

unsigned percent(const xfer::DownloadSnapshot& snapshot) {
  return static_cast<unsigned>(std::min(snapshot.percent, 100.0F));  // bytes fetched again count again
}

const char* stateWord(xfer::JobState state) {
  switch (state) {
    case xfer::JobState::Idle:
    case xfer::JobState::Probing:
      return "asking ";
    case xfer::JobState::Paused:
      return "paused ";
    case xfer::JobState::Cancelling:
      return "cancelling ";
    default:
      return "";
  }
}

}  // namespace

std::string sizeText(std::uint64_t bytes) {
  constexpr std::array<const char*, 6> kUnits{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double size = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  for (; size >= 1023.95 && unit + 1 < kUnits.size(); ++unit) size /= 1024;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f %s", size, kUnits[unit]);
  return text.data();
}

std::string etaText(const xfer::DownloadSnapshot& snapshot) {
  if (snapshot.totalBytes == 0 || snapshot.bytesPerSec == 0) return "--:--";
  const std::uint64_t left = snapshot.totalBytes - std::min(snapshot.bytesDone, snapshot.totalBytes);
  const std::uint64_t seconds = (left + snapshot.bytesPerSec - 1) / snapshot.bytesPerSec;
  if (seconds >= 360000) return "--:--";
  std::array<char, 32> text{};
  const auto hours = static_cast<unsigned>(seconds / 3600);
  const auto minutes = static_cast<unsigned>(seconds / 60 % 60);
  if (hours > 0) {
    std::snprintf(text.data(), text.size(), "%u:%02u:%02u", hours, minutes, static_cast<unsigned>(seconds % 60));
  } else {
    std::snprintf(text.data(), text.size(), "%u:%02u", minutes, static_cast<unsigned>(seconds % 60));
  }
  return text.data();
}

std::string plainLine(const xfer::DownloadSnapshot& snapshot, unsigned connections, std::uint64_t nextTryMs) {
  std::string line = stateWord(snapshot.state);
  if (snapshot.totalBytes != 0) line += std::to_string(percent(snapshot)) + "% ";
  line += sizeText(snapshot.bytesDone);
  if (snapshot.totalBytes != 0) line += " of " + sizeText(snapshot.totalBytes);
  line += "  " + sizeText(snapshot.bytesPerSec) + "/s  ETA " + etaText(snapshot) + "  x" + std::to_string(connections);
  if (snapshot.throttled) line += "  (slow server)";
  if (nextTryMs != 0) line += "  next try in " + std::to_string((nextTryMs + 999) / 1000) + " s";
  return line;
}

std::string progressLine(const xfer::DownloadSnapshot& snapshot, unsigned connections, unsigned columns,
                         std::uint64_t nextTryMs) {
  constexpr std::size_t kNarrowestBar = 8;
  constexpr std::size_t kWidestBar = 40;
  const std::string figures = plainLine(snapshot, connections, nextTryMs);
  if (figures.size() + kNarrowestBar + 3 > columns) return figures.substr(0, columns);
  const std::size_t width = std::min(kWidestBar, columns - figures.size() - 3);
  const std::size_t full = width * percent(snapshot) / 100;
  std::string line(1, '[');
  line.append(full, '#').append(width - full, '.').append("] ").append(figures);
  return line;
}

}  // namespace xfer_get
