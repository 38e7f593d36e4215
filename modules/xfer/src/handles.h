// The ids that the C interface hands out, and what each names: a download into a file or a request in the background.
// Knows nothing of texts, buffers and log records.
//
//   download  reserved ──file──► live ──its end is reported──► finished (kept until the module is unloaded)
//                 │                └──stop──► unknown
//                 └──file, not started──► finished
//   request   reserved ──file──► pending ──take──► unknown
//
// Reserving allocates what an entry needs for its whole life, before the thing that it names is started.  Nothing else
// here allocates: a started download is never lost, and stopping or reporting one works when memory has run out.
//
// Finished downloads accumulate by design, since a host may ask for a result again at any time: about 64 bytes each.
//
// Threads: any.  pause, resume, snapshot and cancel of a job run under the mutex.  Jobs and futures are destroyed after
//          it is released, so that a slow end holds nobody up; their id is unknown (or finished) from before that.
// Errors:  reserving throws std::bad_alloc.  What a job throws is passed on.
#pragma once

#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "sys/module.h"
#include "sys/mutex.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"

namespace xfer {

/// A job, with what keeps the module loaded while the job may own threads.
struct LiveJob {
  LiveJob(DownloadRequest request, const DownloadPolicy& policy) : job(std::move(request), policy) {}

  sys::ModulePin pin;  // before the job: released after it
  DownloadJob job;
};

struct Download {
  std::unique_ptr<LiveJob> live;  ///< null: finished
  std::uint32_t result = 0;       ///< once finished: the code to report
};

struct PendingRequest {
  sys::ModulePin pin;  // before the future, whose destructor waits for a thread
  std::future<Response> response;
};

/// What is reported of a download.
struct DownloadProgress {
  std::uint64_t bytesDone = 0;  ///< 0 once the end has been reported
  std::uint32_t result = 0;     ///< once finished
  bool finished = false;
};

class Handles {
  using Downloads = std::map<std::uint64_t, Download>;
  using Requests = std::map<std::uint64_t, PendingRequest>;

 public:
  /// An entry outside of its table, which owns what is in it; empty or with a mapped().
  using DownloadEntry = Downloads::node_type;
  using RequestEntry = Requests::node_type;

  static DownloadEntry reserveDownload();
  static RequestEntry reserveRequest();

  /// Puts the entry into its table under the next id, which is returned.  Both kinds share one sequence, from 1 on.
  std::uint64_t file(DownloadEntry entry) noexcept SYS_EXCLUDES(mutex_);
  std::uint64_t file(RequestEntry entry) noexcept SYS_EXCLUDES(mutex_);

  /// Whether the id names a live download, which has then been told.
  bool pause(std::uint64_t id) SYS_EXCLUDES(mutex_);
  bool resume(std::uint64_t id) SYS_EXCLUDES(mutex_);

  /// Cancels and forgets a live download; returns when its job is destroyed, by an exception of its cancel too.
  /// Whether the id named one.
  bool stop(std::uint64_t id) SYS_EXCLUDES(mutex_);

  /// Nothing for an unknown id.  The first report of an end destroys the job.
  std::optional<DownloadProgress> progress(std::uint64_t id) SYS_EXCLUDES(mutex_);

  /// The request with that id, which is unknown from then on; empty for an unknown id.
  RequestEntry take(std::uint64_t id) noexcept SYS_EXCLUDES(mutex_);

  /// Ends what a host left behind, and forgets every id.  Waits for the requests.
  void clear() noexcept SYS_EXCLUDES(mutex_);

 private:
  Downloads::iterator findLive(std::uint64_t id) SYS_REQUIRES(mutex_);

  // The outermost lock.  Never held while a job or a request is started, awaited or destroyed.
  sys::Mutex mutex_;
  std::uint64_t lastId_ SYS_GUARDED_BY(mutex_) = 0;
  Downloads downloads_ SYS_GUARDED_BY(mutex_);  // live and finished ones
  Requests requests_ SYS_GUARDED_BY(mutex_);
};

/// The module's tables.  When it is unloaded, requests are stopped and the tables cleared.
Handles& handles();

}  // namespace xfer
