// libcurl's share handles (DNS answers, TLS sessions, connections), lent to one operation at a time.
//
// One share that several threads use at once corrupts memory whatever its lock callbacks do: libcurl does not support
// sharing connections between threads.  And connection limits are counted over a whole shared pool, so that a transfer
// can wait for room that only another thread's loop could make, for ever.  So each operation (one fetch, or one job's
// backend for its whole life) leases a share that nobody else is in, and reuse happens from operation to operation.
//
// Threads: every operation from any thread.
// Errors:  none; without a share things work unshared.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "curl_handles.h"
#include "sys/mutex.h"

namespace xfer {

class SharePool;

/// What the connections of a share speak.  libcurl puts several transfers on one HTTP/1.1 connection, and mixes their
/// answers up, when it finds HTTP/2 connections to the same host beside it; so no share ever holds both.
enum class Wire { Http1, Http2 };

struct Share {
  static constexpr unsigned kLockKinds = 8;

  std::array<sys::Mutex, kLockKinds> locks;  // one a kind of data; before the handle: destroying that locks them
  SharePtr handle;
  Wire wire = Wire::Http1;
  std::string lastOrigin;
};

/// A share for one operation.  Everything that uses its handle must be gone before the lease is.
class ShareLease {
 public:
  ShareLease() = default;
  ShareLease(ShareLease&& other) noexcept
      : pool_(std::exchange(other.pool_, nullptr)), share_(std::move(other.share_)) {}
  ShareLease& operator=(ShareLease&& other) noexcept;
  ~ShareLease();

  /// Null: work unshared.
  [[nodiscard]] CURLSH* handle() const;

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

  /// Creates the primary share.  Before it, and after close, leases are empty.
  void open();

  /// Destroys every share that is not leased; a leased one is destroyed when it comes back.
  void close();

  /// The handle of the share that the first taker gets; null while the pool is not open.
  [[nodiscard]] CURLSH* primary() const;

  /// A share that nobody else uses: the idle one last used for the same origin, else the primary one (which is for
  /// HTTP/1.1), else another idle one for the same wire, else a new one.
  ShareLease lease(std::string_view origin, Wire wire = Wire::Http1);

 private:
  friend class ShareLease;
  void giveBack(std::unique_ptr<Share> share);

  mutable sys::Mutex mutex_;
  bool open_ SYS_GUARDED_BY(mutex_) = false;
  CURLSH* primary_ SYS_GUARDED_BY(mutex_) = nullptr;
  std::vector<std::unique_ptr<Share>> idle_ SYS_GUARDED_BY(mutex_);  // the last one came back last
};

/// The process's pool.
SharePool& sharePool();

/// The part of url that tells whom it talks to, as a key for SharePool::lease: scheme, host and port as written.
std::string_view originOf(std::string_view url);

}  // namespace xfer
