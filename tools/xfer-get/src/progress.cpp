#include "progress.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>

#include "paint.h"

namespace xfer_get {
namespace {

using xfer::DownloadSnapshot;
using xfer::JobState;

constexpr std::size_t kNarrowestBar = 10;
constexpr std::size_t kWidestBar = 42;

enum PartName : std::size_t { State, Percent, Amount, Speed, Eta, Connections, SlowServer, NextTry, kParts };
using Parts = std::array<std::string, kParts>;  // empty: nothing to say

Parts partsOf(const DownloadSnapshot& snapshot, unsigned connections, std::uint64_t nextTryMs) {
  Parts parts;
  parts[State] = stateText(snapshot.state);
  if (const auto percent = shownPercent(snapshot)) parts[Percent] = std::to_string(*percent) + "%";
  parts[Amount] = amountText(snapshot);
  parts[Speed] = sizeText(snapshot.bytesPerSec) + "/s";
  parts[Eta] = "ETA " + etaText(snapshot);
  parts[Connections] = connectionsText(connections);
  if (snapshot.throttled) parts[SlowServer] = "(slow server)";
  if (nextTryMs != 0) parts[NextTry] = nextTryText(nextTryMs);
  return parts;
}

std::string joined(const Parts& parts) {
  std::string line;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (parts[i].empty()) continue;
    const bool close = i == Percent || i == Amount;  // to what is before
    if (!line.empty()) line += close ? " " : "  ";
    line += parts[i];
  }
  return line;
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

std::string etaText(const DownloadSnapshot& snapshot) {
  if (snapshot.totalBytes == 0 || snapshot.bytesPerSec == 0) return "--:--";
  const std::uint64_t left = snapshot.totalBytes - shownBytes(snapshot);
  const std::uint64_t seconds = left / snapshot.bytesPerSec + (left % snapshot.bytesPerSec != 0 ? 1 : 0);
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

std::uint64_t shownBytes(const DownloadSnapshot& snapshot) {
  return snapshot.totalBytes == 0 ? snapshot.bytesDone : std::min(snapshot.bytesDone, snapshot.totalBytes);
}

std::optional<unsigned> shownPercent(const DownloadSnapshot& snapshot) {
  if (snapshot.state == JobState::Completed) return 100;
  if (snapshot.totalBytes == 0) return std::nullopt;
  const std::uint64_t done = shownBytes(snapshot);
  const bool fits = done <= std::numeric_limits<std::uint64_t>::max() / 100;
  const std::uint64_t percent = fits ? done * 100 / snapshot.totalBytes : done / (snapshot.totalBytes / 100);
  return static_cast<unsigned>(std::min<std::uint64_t>(percent, 99));
}

std::string amountText(const DownloadSnapshot& snapshot) {
  const std::string done = sizeText(shownBytes(snapshot));
  return snapshot.totalBytes == 0 ? done : done + " of " + sizeText(snapshot.totalBytes);
}

std::string stateText(JobState state) {
  switch (state) {
    case JobState::Idle:
    case JobState::Probing:
      return "asking";
    case JobState::Paused:
      return "paused";
    case JobState::Cancelling:
      return "cancelling";
    case JobState::Running:
    case JobState::Completed:
    case JobState::Failed:
    case JobState::Cancelled:
      break;
  }
  return "";
}

std::string connectionsText(unsigned connections) {
  return connections == 0 ? "" : std::string("x").append(std::to_string(connections));
}

std::string nextTryText(std::uint64_t nextTryMs) {
  return "next try in " + std::to_string(nextTryMs / 1000 + (nextTryMs % 1000 != 0 ? 1 : 0)) + " s";
}

std::string barText(std::optional<unsigned> percent, std::size_t columns, bool colours) {
  const std::size_t width = columns - 2;
  const std::size_t full = width * percent.value_or(0) / 100;
  std::string bar = "[";
  return bar.append(paint(std::string(full, '#'), Colour::Green, colours)).append(width - full, '.').append("]");
}

std::string plainLine(const DownloadSnapshot& snapshot, unsigned connections, std::uint64_t nextTryMs) {
  return joined(partsOf(snapshot, connections, nextTryMs));
}

std::string progressLine(const DownloadSnapshot& snapshot, unsigned connections, unsigned columns,
                         std::uint64_t nextTryMs, bool colours) {
  const Parts parts = partsOf(snapshot, connections, nextTryMs);
  Parts shown;
  std::size_t bar = 0;  // columns that it and the gap behind it take
  const auto show = [&](PartName name) {
    shown[name] = parts[name];
    if (bar + joined(shown).size() <= columns) return true;
    shown[name].clear();
    return false;
  };
  bool all = true;
  for (const PartName name : {parts[Percent].empty() ? Amount : Percent, NextTry, State, Speed, Eta, Amount}) {
    all = all && show(name);
  }
  // Wide enough to tell something, and no wider than leaves it as it is when the figures next to it grow.
  const std::size_t left = columns - joined(shown).size();
  if (left > kNarrowestBar) bar = std::min(std::clamp<std::size_t>(columns / 4, kNarrowestBar, kWidestBar) + 1, left);
  all = all && bar > 0;
  for (const PartName name : {Connections, SlowServer}) all = all && show(name);
  return (bar > 0 ? barText(shownPercent(snapshot), bar - 1, colours) + " " : "") + joined(shown);
}

}  // namespace xfer_get
