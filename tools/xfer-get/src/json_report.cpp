#include "json_report.h"

#include <cmath>
#include <cstdio>
#include <optional>

#include "json_lines.h"
#include "progress.h"

namespace xfer_get {
namespace {

constexpr auto kProgress = std::chrono::milliseconds(500);
constexpr std::uint64_t kNsAMs = 1'000'000;

std::optional<std::uint64_t> totalOf(const xfer::DownloadSnapshot& snapshot) {
  return snapshot.totalBytes != 0 ? std::optional<std::uint64_t>(snapshot.totalBytes) : std::nullopt;
}

std::optional<JsonNote> noteOf(const xfer::DownloadEvent& event) {
  using Kind = xfer::DownloadEvent::Kind;
  JsonNote note;
  note.code = event.code;
  note.httpStatus = event.httpStatus;
  note.waitMs = event.waitNs / kNsAMs;
  const std::string wait = "in " + std::to_string(note.waitMs) + " ms";
  switch (event.kind) {
    case Kind::TriedAgain:
      note.kind = JsonNote::Kind::TriedAgain;
      note.text = "a request failed, and is tried again " + wait;
      return note;
    case Kind::GivenUp:
      note.kind = JsonNote::Kind::GivenUp;
      note.text = std::string("a connection is replaced, since it is ") + event.reason;
      return note;
    case Kind::HostLeftAlone:
      note.kind = JsonNote::Kind::HostLeftAlone;
      note.text = "the host is asked again " + wait;
      return note;
    default:
      return std::nullopt;
  }
}

JsonEnd::Result resultOf(ExitCode code) {
  if (code == kDone) return JsonEnd::Result::Completed;
  return code == kCancelled ? JsonEnd::Result::Cancelled : JsonEnd::Result::Failed;
}

}  // namespace

void JsonReport::print(const std::string& line) {
  good_ = good_ && std::fputs(line.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
}

void JsonReport::begun(const Download& download) {
  print(jsonStart(download.number(), download.target().url, download.path()));
}

void JsonReport::stepped(const Download& download) {
  for (const xfer::DownloadEvent& event : download.events()) {
    if (const auto note = noteOf(event)) print(jsonNote(download.number(), *note));
  }
}

void JsonReport::ended(const Download& download) {
  const xfer::DownloadSnapshot snapshot = download.snapshot();
  const Outcome& outcome = download.outcome();
  JsonEnd end;
  end.result = resultOf(outcome.code);
  end.exitCode = outcome.code;
  end.bytes = outcome.code == kDone ? download.size() : shownBytes(snapshot);
  end.total = outcome.code == kDone ? download.size() : totalOf(snapshot);
  end.durationMs = static_cast<std::uint64_t>(std::llround(download.seconds() * 1000));
  end.code = snapshot.errorCode;
  end.httpStatus = snapshot.httpStatus;
  end.message = outcome.message;
  end.file = download.path();
  if (const auto matches = download.checksumMatches())
    end.checksum = *matches ? JsonEnd::Check::Ok : JsonEnd::Check::Differs;
  print(jsonEnd(download.number(), end));
}

void JsonReport::show(const std::vector<const Download*>& running, const Tally& /*tally*/) {
  const auto now = Clock::now();
  if (now < next_) return;
  next_ = now + kProgress;
  for (const Download* const download : running) {
    const xfer::DownloadSnapshot snapshot = download->snapshot();
    JsonProgress progress;
    progress.bytes = snapshot.bytesDone;
    progress.total = totalOf(snapshot);
    progress.bytesPerSec = snapshot.bytesPerSec;
    progress.connections = download->connections();
    progress.state = snapshot.state;
    print(jsonProgress(download->number(), progress));
  }
}

void JsonReport::over(const Tally& /*tally*/) {}

}  // namespace xfer_get
