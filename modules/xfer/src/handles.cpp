#include "handles.h"

#include "download_job_impl.h"
#include "end_code.h"
#include "fetch_stoppable.h"
#include "job_state.h"
#include "sys/never_destroyed.h"
#include "xfer/fetch.h"

namespace xfer {
namespace {

template <class Table>
typename Table::node_type makeEntry() {
  Table one;
  one.try_emplace(0);
  return one.extract(one.begin());
}

}  // namespace

LiveJob::LiveJob(std::unique_ptr<DownloadJob::Impl> impl) : job(std::move(impl)) {}

Handles::DownloadEntry Handles::reserveDownload() {
  return makeEntry<Downloads>();
}

Handles::RequestEntry Handles::reserveRequest() {
  return makeEntry<Requests>();
}

Handles::StartedEntry Handles::reserveStarted() {
  return makeEntry<Started>();
}

std::uint64_t Handles::file(DownloadEntry entry) noexcept {
  const sys::MutexLock lock(mutex_);
  entry.key() = ++lastId_;
  return downloads_.insert(downloads_.end(), std::move(entry))->first;
}

std::uint64_t Handles::file(RequestEntry entry) noexcept {
  const sys::MutexLock lock(mutex_);
  entry.key() = ++lastId_;
  return requests_.insert(requests_.end(), std::move(entry))->first;
}

std::uint64_t Handles::file(StartedEntry entry) noexcept {
  const sys::MutexLock lock(mutex_);
  entry.key() = ++lastId_;
  return started_.insert(started_.end(), std::move(entry))->first;
}

std::shared_ptr<StartedJob> Handles::started(std::uint64_t id) {
  const sys::MutexLock lock(mutex_);
  const auto found = started_.find(id);
  return found != started_.end() ? found->second : nullptr;
}

void Handles::forget(std::uint64_t id) noexcept {
  StartedEntry entry;  // declared before the lock: destroyed after its release
  const sys::MutexLock lock(mutex_);
  entry = started_.extract(id);
}

bool Handles::knows(std::uint64_t id) {
  const sys::MutexLock lock(mutex_);
  return downloads_.contains(id) || requests_.contains(id) || started_.contains(id);
}

Handles::Downloads::iterator Handles::findLive(std::uint64_t id) {
  const auto found = downloads_.find(id);
  return found != downloads_.end() && found->second.live ? found : downloads_.end();
}

bool Handles::pause(std::uint64_t id) {
  if (const auto download = started(id)) return download->job.pause(), true;
  const sys::MutexLock lock(mutex_);
  const auto found = findLive(id);
  if (found == downloads_.end()) return false;
  found->second.live->job.pause();
  return true;
}

bool Handles::resume(std::uint64_t id) {
  if (const auto download = started(id)) return download->job.resume(), true;
  const sys::MutexLock lock(mutex_);
  const auto found = findLive(id);
  if (found == downloads_.end()) return false;
  found->second.live->job.resume();
  return true;
}

bool Handles::stop(std::uint64_t id) {
  DownloadEntry stopped;  // declared before the lock: destroyed after its release
  const sys::MutexLock lock(mutex_);
  const auto found = findLive(id);
  if (found == downloads_.end()) return false;
  stopped = downloads_.extract(found);
  stopped.mapped().live->job.cancel();
  return true;
}

std::optional<DownloadProgress> Handles::progress(std::uint64_t id) {
  std::unique_ptr<LiveJob> ended;  // declared before the lock: destroyed after its release
  const sys::MutexLock lock(mutex_);
  const auto found = downloads_.find(id);
  if (found == downloads_.end()) return std::nullopt;
  Download& download = found->second;
  if (!download.live) return DownloadProgress{0, download.result, true};
  const DownloadSnapshot snapshot = download.live->job.snapshot();
  if (!isFinal(snapshot.state)) return DownloadProgress{snapshot.bytesDone, 0, false};
  download.result = endCode(snapshot.state, snapshot.errorCode);
  ended = std::move(download.live);
  return DownloadProgress{snapshot.bytesDone, download.result, true};
}

Handles::RequestEntry Handles::take(std::uint64_t id) noexcept {
  const sys::MutexLock lock(mutex_);
  return requests_.extract(id);
}

void Handles::clear() noexcept {
  Requests requests;  // declared before the lock: destroyed after its release
  Downloads downloads;
  Started started;
  const sys::MutexLock lock(mutex_);
  started.swap(started_);
  downloads.swap(downloads_);
  requests.swap(requests_);
}

Handles& handles() {
  static sys::NeverDestroyed<Handles> instance;
  // Runs before the exit handlers of libcurl and of the TLS library below it.  These were registered when the module
  // was loaded; where the library is linked statically, they are now.
  static const bool registered = [] {
    init();
    sys::atUnload([] {
      stopAllFetches();  // a future's destructor waits for its request
      instance.get().clear();
    });
    return true;
  }();
  static_cast<void>(registered);
  return instance.get();
}

}  // namespace xfer
