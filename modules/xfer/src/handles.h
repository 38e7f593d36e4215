// The ids of the C interface: each names a download into a file or a request in the background.  Knows nothing of
// texts, buffers and log records.
//
//   download  reserved ──file──► live ──end reported──► finished (kept until the module is unloaded)
//                 │                └──stop──► unknown
//                 └──file, not started──► finished
//   request   reserved ──file──► pending ──take──► unknown
//   started   reserved ──file──► live or ended ──forget──► unknown
//
// reserve allocates an entry before its download or request is started.  Nothing else here allocates: a started
// download is never lost, and stopping or reporting one works without memory.
//
// Intended: finished downloads accumulate, about 64 bytes each, since a host may ask for a result again at any time.
//
// Threads: any.  pause, resume, snapshot and cancel of a job run under the mutex.  Jobs and futures are destroyed after
//          its release, so that a slow end blocks no other call; their id is unknown (or finished) before that.
// Errors:  reserve throws std::bad_alloc.  Exceptions of a job are passed on.
#pragma once

#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "download_job_impl.h"
#include "option_values.h"
#include "sys/module.h"
#include "sys/mutex.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"

namespace xfer {

/// A job, and a pin that keeps the module loaded while the job may own threads.
struct LiveJob {
  explicit LiveJob(std::unique_ptr<DownloadJob::Impl> impl);

  sys::ModulePin pin;  // declared before the job: released after it
  DownloadJob job;
};

/// A download of xfer_downloadStart.  Those who use it share it; the last one destroys it, without a lock.
struct StartedJob {
  StartedJob(DownloadRequest request, const DownloadPolicy& policy, const DownloadOptions::Values& options)
      : job(std::move(request), policy, realJobEnvironment(options.trust), options) {}

  sys::ModulePin pin;  // declared before the job: released after it
  DownloadJob::Impl job;
};

struct Download {
  std::unique_ptr<LiveJob> live;  ///< null: finished
  std::uint32_t result = 0;       ///< code to report, once finished
};

struct PendingRequest {
  sys::ModulePin pin;  // declared before the future: released after its destructor has joined the thread
  std::future<Response> response;
};

/// Reported progress of a download.
struct DownloadProgress {
  std::uint64_t bytesDone = 0;  ///< 0 after the end was reported
  std::uint32_t result = 0;     ///< once finished
  bool finished = false;
};

class Handles {
  using Downloads = std::map<std::uint64_t, Download>;
  using Requests = std::map<std::uint64_t, PendingRequest>;
  using Started = std::map<std::uint64_t, std::shared_ptr<StartedJob>>;

 public:
  /// An entry outside of its table, with ownership; empty or with a mapped().
  using DownloadEntry = Downloads::node_type;
  using RequestEntry = Requests::node_type;
  using StartedEntry = Started::node_type;

  static DownloadEntry reserveDownload();
  static RequestEntry reserveRequest();
  static StartedEntry reserveStarted();

  /// Adds the entry to its table under the next id and returns that.  All kinds share one sequence, from 1 on.
  std::uint64_t file(DownloadEntry entry) noexcept SYS_EXCLUDES(mutex_);
  std::uint64_t file(RequestEntry entry) noexcept SYS_EXCLUDES(mutex_);
  std::uint64_t file(StartedEntry entry) noexcept SYS_EXCLUDES(mutex_);

  /// The download of xfer_downloadStart with that id; null when the id names none.
  std::shared_ptr<StartedJob> started(std::uint64_t id) SYS_EXCLUDES(mutex_);
  void forget(std::uint64_t id) noexcept SYS_EXCLUDES(mutex_);

  /// Whether the id names anything of any kind.
  bool knows(std::uint64_t id) SYS_EXCLUDES(mutex_);

  /// Pauses or resumes a live download, or one of xfer_downloadStart; false when the id names none.
  bool pause(std::uint64_t id) SYS_EXCLUDES(mutex_);
  bool resume(std::uint64_t id) SYS_EXCLUDES(mutex_);

  /// Cancels, forgets and destroys a live download, also when its cancel throws; false when the id names none.
  bool stop(std::uint64_t id) SYS_EXCLUDES(mutex_);

  /// Nothing for an unknown id.  The first report of the end destroys the job.
  std::optional<DownloadProgress> progress(std::uint64_t id) SYS_EXCLUDES(mutex_);

  /// Removes and returns the request with that id; empty for an unknown id.
  RequestEntry take(std::uint64_t id) noexcept SYS_EXCLUDES(mutex_);

  /// Ends every remaining download and request, waits for them, and forgets every id.
  void clear() noexcept SYS_EXCLUDES(mutex_);

 private:
  Downloads::iterator findLive(std::uint64_t id) SYS_REQUIRES(mutex_);

  // The outermost lock.  Never held while a job or a request is started, awaited or destroyed.
  sys::Mutex mutex_;
  std::uint64_t lastId_ SYS_GUARDED_BY(mutex_) = 0;
  Downloads downloads_ SYS_GUARDED_BY(mutex_);  // live and finished
  Requests requests_ SYS_GUARDED_BY(mutex_);
  Started started_ SYS_GUARDED_BY(mutex_);
};

/// The module's tables.  Unloading the module aborts requests and clears the tables.
Handles& handles();

}  // namespace xfer
