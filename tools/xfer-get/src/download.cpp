#include "download.h"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <system_error>
#include <utility>

#include "common_abilities.h"
#include "path.h"
#include "text_width.h"

namespace xfer_get {
namespace {

// Between two steps; each is some 100 bytes in the library's memory.
constexpr std::size_t kEvents = 4096;

// A step takes some ten milliseconds.
constexpr std::uint64_t kReadAtOnce = 4U << 20U;

// The file's first so many bytes have arrived.
std::uint64_t arrivedInOrder(const xfer::DownloadDetails& details, std::uint64_t size) {
  const std::vector<xfer::RangeDetails> ranges = details.ranges();
  const std::vector<xfer::MissingRange> missing = details.missing();
  if (ranges.empty() && missing.empty()) return 0;  // between two tries nothing is known
  std::uint64_t there = size != 0 ? size : std::numeric_limits<std::uint64_t>::max();
  for (const xfer::RangeDetails& range : ranges) {
    if (range.end == 0 || range.position < range.end) there = std::min(there, range.position);
  }
  for (const xfer::MissingRange& range : missing) there = std::min(there, range.start);
  return there;
}

}  // namespace

Download::Download(const Shared& shared, Target target, std::size_t number)
    : shared_(shared), target_(std::move(target)), number_(number) {}

xfer::DownloadJob Download::makeJob() const {
  const Options& options = *shared_.options;
  xfer::DownloadRequest request;
  request.url = target_.url;
  request.path = path();
  request.cookie = options.cookie;
  request.headers = options.headers;
  request.proxy = target_.proxy;
  request.knownSize = options.knownSize;
  xfer::DownloadPolicy policy;
  policy.numThreads = options.connections;
  if (options.connectTimeoutSec) policy.connectTimeoutSec = *options.connectTimeoutSec;
  if (options.stallTimeoutSec) policy.lowSpeedTimeSec = *options.stallTimeoutSec;
  xfer::DownloadOptions abilities;
  setCommonAbilities(abilities, options);
  abilities.setPlan(options.plan);
  if (options.maxTries) abilities.setMaxTries(*options.maxTries);
  if (options.retryMaxSec) abilities.setRetryMaxTime(*options.retryMaxSec);
  if (options.bytesPerSec != 0) abilities.setSpeedLimiter(*shared_.limiter);
  if (trace_) {
    abilities.setHistory(TraceFile::kEvents);
  } else if (digest_ || options.json) {
    abilities.setHistory(kEvents);
  }
  abilities.setOnUpdate([wakeUp = shared_.wakeUp, connections = connections_](const xfer::DownloadUpdate& update) {
    *connections = update.connections;
    if (update.kind == xfer::DownloadUpdate::Kind::End) wakeUp();
  });
  return {std::move(request), policy, abilities};
}

void Download::begin() {
  begun_ = ended_ = Clock::now();
  const Options& options = *shared_.options;
  if (options.trace == target_.path) {
    return end({kUsage, "--trace: this is the file of the download: " + plainText(target_.path)});
  }
  place_.emplace(target_.path, options.overwrite);
  if (!place_->error().empty()) return end(fileOutcome(asked(), place_->error()));
  if (!options.trace.empty()) {
    trace_.emplace(options.trace);
    if (!trace_->isGood()) return end(traceOutcome());
  }
  if (target_.checksum) digest_.emplace(target_.checksum->algorithm, path());
  job_.emplace(makeJob());
  job_->start();
}

void Download::cancel() {
  cancelled_ = true;
  if (job_) job_->cancel();
}

Outcome Download::traceOutcome() const {
  return {kFile, "the trace could not be written: " + plainText(shared_.options->trace)};
}

bool Download::step() {
  events_.clear();
  if (over()) return false;
  if (stored_) return check();
  const bool ended = job_->waitFor(0);
  look();
  if (ended) {
    jobEnded();
    return !over();
  }
  const std::uint32_t most = shared_.options->maxTimeSec;
  if (most != 0 && !late_ && Clock::now() - begun_ >= std::chrono::seconds(most)) {
    late_ = true;
    job_->cancel();
  }
  if (digest_) takeArrived();
  return false;
}

void Download::look() {
  if (!trace_ && !digest_ && !shared_.options->json) return;
  events_ = job_->history(nextEvent_);
  if (events_.empty()) return;
  const bool gap = events_.front().number != nextEvent_;
  nextEvent_ = events_.back().number + 1;
  if (trace_) trace_->follow(events_);
  if (!digest_) return;
  // A request for what has been read already may bring other bytes.
  const bool again = std::any_of(events_.begin(), events_.end(), [this](const xfer::DownloadEvent& event) {
    return event.kind == xfer::DownloadEvent::Kind::Begun && event.start < digest_->read();
  });
  if (gap || again) digest_->restart();
}

void Download::takeArrived() {
  const xfer::DownloadSnapshot snapshot = job_->snapshot();
  if (snapshot.state != xfer::JobState::Running) return;
  try {
    digest_->take(arrivedInOrder(job_->details(), snapshot.totalBytes), kReadAtOnce);
  } catch (const std::system_error&) {
    digest_->restart();  // what cannot be read now is told when it cannot be read in the end
  }
}

void Download::jobEnded() {
  const xfer::DownloadSnapshot snapshot = job_->snapshot();
  if (trace_) trace_->end();
  if (snapshot.state == xfer::JobState::Cancelled && late_) {
    return end(lateOutcome(asked(), shared_.options->maxTimeSec));
  }
  Outcome outcome = downloadOutcome(asked(), snapshot, job_->details().failureText());
  if (outcome.code != kDone) return end(std::move(outcome));
  std::error_code unknown;
  const std::uintmax_t size = std::filesystem::file_size(pathOf(path()), unknown);
  size_ = unknown ? snapshot.totalBytes : size;
  if (trace_ && !trace_->isGood()) return end(traceOutcome());
  stored_ = true;
  if (!digest_) end({});
}

bool Download::check() {
  if (cancelled_) {
    end(uncheckedOutcome(asked()));
    return false;
  }
  try {
    digest_->take(size_, kReadAtOnce);
    if (digest_->read() < size_) return true;
    const std::string hex = digest_->finish();
    Outcome outcome = checksumOutcome(asked(), *target_.checksum, hex);
    checksumMatches_ = outcome.code == kDone;
    end(std::move(outcome));
  } catch (const std::system_error& error) {
    end(fileOutcome(asked(), std::string("the checksum could not be computed: ") + error.what()));
  }
  return false;
}

void Download::end(Outcome outcome) {
  if (place_ && outcome.code != kDone) place_->leaveIfEmpty();
  outcome_ = std::move(outcome);
  ended_ = Clock::now();
}

xfer::DownloadSnapshot Download::snapshot() const {
  return job_ ? job_->snapshot() : xfer::DownloadSnapshot();
}

std::optional<xfer::DownloadDetails> Download::details() const {
  return job_ ? std::optional<xfer::DownloadDetails>(job_->details()) : std::nullopt;
}

double Download::seconds() const {
  return std::chrono::duration<double>((over() ? ended_ : Clock::now()) - begun_).count();
}

}  // namespace xfer_get
