#include "job_updates.h"

#include <chrono>
#include <new>
#include <utility>

#include "job_state.h"
#include "log.h"

namespace xfer {
namespace {

constexpr const char* kLogTag = "DlJob";
constexpr std::chrono::milliseconds kWithoutMemory{100};  // until what could not be told is told

}  // namespace

void JobUpdates::open() noexcept {
  open_ = true;
  eventDispatcher().wake(*this);
}

void JobUpdates::close() noexcept {
  closed_ = true;
  eventDispatcher().remove(*this);
}

// After a call the job may be gone: only what is this object's is looked at then, and closed_ first.
void JobUpdates::call(DownloadUpdate::Kind kind, JobState state, const DownloadSnapshot& snapshot,
                      const DownloadEvent& note) noexcept {
  const DownloadUpdate update{kind, state, snapshot, static_cast<std::uint32_t>(job_.inFlight()), note};
  try {
    callback_(update);
  } catch (...) {
    XFER_LOG(log::kFailure, "a callback threw");
    if (!closed_) job_.callbackThrew();
  }
}

void JobUpdates::tellNews() {
  for (const DownloadEvent& event : job_.news(nextEvent_)) {
    nextEvent_ = event.number + 1;
    const DownloadSnapshot snapshot = job_.snapshot();
    if (event.kind != DownloadEvent::Kind::State) {
      call(DownloadUpdate::Kind::Note, snapshot.state, snapshot, event);
    } else if (!isFinal(event.state)) {
      call(DownloadUpdate::Kind::State, event.state, snapshot, {});
    }
    if (closed_) return;
  }
}

std::optional<EventDispatcher::Time> JobUpdates::tell() noexcept {
  if (!open_ || closed_ || ended_) return std::nullopt;
  const JobState state = job_.snapshot().state;  // before the news: whatever led to it is told
  try {
    tellNews();
  } catch (const std::bad_alloc&) {
    return std::chrono::steady_clock::now() + kWithoutMemory;
  }
  if (closed_) return std::nullopt;
  if (isFinal(state)) {
    call(DownloadUpdate::Kind::End, state, job_.snapshot(), {});
    if (closed_) return std::nullopt;
    ended_ = true;
    job_.endTold();
    return std::nullopt;
  }
  const bool moves = state == JobState::Probing || state == JobState::Running;
  return moves && interval_.count() != 0 ? tellProgress() : std::nullopt;
}

std::optional<EventDispatcher::Time> JobUpdates::tellProgress() noexcept {
  const auto now = std::chrono::steady_clock::now();
  if (now < progressDue_) return progressDue_;
  progressDue_ = now + interval_;
  const DownloadSnapshot snapshot = job_.snapshot();
  if (std::exchange(toldBytes_, snapshot.bytesDone) != snapshot.bytesDone) {
    call(DownloadUpdate::Kind::Progress, snapshot.state, snapshot, {});
  }
  if (closed_) return std::nullopt;
  return progressDue_;
}

}  // namespace xfer
