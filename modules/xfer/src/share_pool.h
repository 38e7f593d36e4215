// A pool of libcurl share handles (DNS cache, TLS sessions, connections), each leased to one operation at a time.
//
// libcurl does not support sharing connections between threads: even with lock callbacks, concurrent use of one share
// corrupts memory.  Connection limits also count over the whole share, so a transfer could wait for ever for room that
// only another thread's loop can make.  So each operation (a fetch, or a job's backend for its whole life) leases its
// own share, and reuses the connections of earlier operations.
//
// Threads: any.
// Errors:  none; an operation without a share runs unshared.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "curl_handles.h"
#include "sys/mutex.h"
#include "tls_trust.h"

namespace xfer {

class SharePool;

/// The HTTP version of a share's connections.  With HTTP/1.1 and HTTP/2 connections to one host in the same share,
/// libcurl puts several transfers on one HTTP/1.1 connection and mixes up their responses; so no share holds both.
enum class Wire { Http1, Http2 };

struct Share {
  static constexpr unsigned kLockKinds = 8;

  // One per curl_lock_data.  Must outlive the handle, whose cleanup locks them.
  std::array<sys::Mutex, kLockKinds> locks;
  SharePtr handle;
  Driver driver{};  // without a handle: not needed so far
  Wire wire = Wire::Http1;
  std::string keptFor{};  // of whose trust its connections and sessions are: see TlsTrust
  std::string lastOrigin;
};

/// The lease of a share for one operation.  Must outlive everything that uses its handle.
class ShareLease {
 public:
  ShareLease() = default;
  ShareLease(ShareLease&& other) noexcept
      : pool_(std::exchange(other.pool_, nullptr)), share_(std::move(other.share_)) {}
  ShareLease& operator=(ShareLease&& other) noexcept;
  ~ShareLease();

  /// Null: run unshared.
  [[nodiscard]] CURLSH* handle() const;

  /// A driver without transfers, for an operation that has none of its own; making one costs more than a small request.
  /// Leave it without transfers.  Null: there is no memory for one, or no share.
  [[nodiscard]] const Driver* driver() const;

 private:
  friend class SharePool;
  ShareLease(SharePool* pool, std::unique_ptr<Share> share);

  SharePool* pool_ = nullptr;
  std::unique_ptr<Share> share_;
};

class SharePool {
 public:
  SharePool();
  ~SharePool();
  SharePool(const SharePool&) = delete;
  SharePool& operator=(const SharePool&) = delete;

  /// Creates the primary share.  Before open and after close, leases are empty.
  void open();

  /// Destroys every idle share; a leased one is destroyed when its lease ends.
  void close();

  /// The primary share's handle; null while the pool is not open.
  [[nodiscard]] CURLSH* primary() const;

  /// Leases a share for wire and for transfers of this trust: the idle one last used for the same origin, else the
  /// primary one (HTTP/1.1, no checks), else another idle one, else a new one.
  ShareLease lease(std::string_view origin, Wire wire = Wire::Http1, const TlsTrust& trust = {});

 private:
  friend class ShareLease;
  void giveBack(std::unique_ptr<Share> share);

  mutable sys::Mutex mutex_;
  bool open_ SYS_GUARDED_BY(mutex_) = false;
  CURLSH* primary_ SYS_GUARDED_BY(mutex_) = nullptr;
  std::vector<std::unique_ptr<Share>> idle_ SYS_GUARDED_BY(mutex_);  // most recently returned last
};

/// The process's pool.
SharePool& sharePool();

/// The origin of url, for SharePool::lease: scheme and authority as written.
std::string_view originOf(std::string_view url);

}  // namespace xfer
