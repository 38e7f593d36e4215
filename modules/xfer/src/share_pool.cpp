#include "share_pool.h"

#include <algorithm>

#include "sys/never_destroyed.h"

namespace xfer {
namespace {

// A host with this many concurrent requests can reuse every connection.
constexpr std::size_t kMaxIdleShares = 16;

// Every access is exclusive; the requested kind of access is ignored.
void lockShare(CURL* /*easy*/, curl_lock_data kind, curl_lock_access /*access*/,
               void* share) SYS_NO_THREAD_SAFETY_ANALYSIS {
  static_cast<Share*>(share)->locks[static_cast<unsigned>(kind) & (Share::kLockKinds - 1)].lock();
}

void unlockShare(CURL* /*easy*/, curl_lock_data kind, void* share) SYS_NO_THREAD_SAFETY_ANALYSIS {
  static_cast<Share*>(share)->locks[static_cast<unsigned>(kind) & (Share::kLockKinds - 1)].unlock();
}

std::unique_ptr<Share> makeShare() {
  auto share = std::make_unique<Share>();
  share->handle.reset(curl_share_init());
  if (!share->handle) return nullptr;
  CURLSH* const handle = share->handle.get();
  curl_share_setopt(handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  curl_share_setopt(handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  curl_share_setopt(handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
  curl_share_setopt(handle, CURLSHOPT_LOCKFUNC, lockShare);
  curl_share_setopt(handle, CURLSHOPT_UNLOCKFUNC, unlockShare);
  curl_share_setopt(handle, CURLSHOPT_USERDATA, share.get());
  return share;
}

}  // namespace

ShareLease::ShareLease(SharePool* pool, std::unique_ptr<Share> share) : pool_(pool), share_(std::move(share)) {}

ShareLease& ShareLease::operator=(ShareLease&& other) noexcept {
  if (share_) pool_->giveBack(std::move(share_));
  pool_ = std::exchange(other.pool_, nullptr);
  share_ = std::move(other.share_);
  return *this;
}

ShareLease::~ShareLease() {
  if (share_) pool_->giveBack(std::move(share_));
}

CURLSH* ShareLease::handle() const {
  return share_ ? share_->handle.get() : nullptr;
}

const Driver* ShareLease::driver() const {
  if (!share_) return nullptr;
  if (!share_->driver.multi) share_->driver = Driver::make();
  return share_->driver.multi ? &share_->driver : nullptr;
}

SharePool::SharePool() = default;
SharePool::~SharePool() = default;

void SharePool::open() {
  auto share = makeShare();
  const sys::MutexLock lock(mutex_);
  idle_.reserve(kMaxIdleShares + 1);  // so that giveBack never allocates
  open_ = true;
  if (!share) return;
  primary_ = share->handle.get();
  idle_.push_back(std::move(share));
}

void SharePool::close() {
  std::vector<std::unique_ptr<Share>> unused;
  const sys::MutexLock lock(mutex_);
  open_ = false;
  primary_ = nullptr;
  unused.swap(idle_);
}

CURLSH* SharePool::primary() const {
  const sys::MutexLock lock(mutex_);
  return primary_;
}

ShareLease SharePool::lease(std::string_view origin, Wire wire, const TlsTrust& trust) {
  std::string key(origin);
  std::string keptFor = trust.keptFor();
  {
    const sys::MutexLock lock(mutex_);
    if (!open_) return {};
    CURLSH* const primary = primary_;
    const auto isFit = [&](const auto& share) { return share->wire == wire && share->keptFor == keptFor; };
    const auto isNear = [&](const auto& share) { return isFit(share) && share->lastOrigin == key; };
    const auto isPrimary = [&](const auto& share) { return isFit(share) && share->handle.get() == primary; };
    auto found = std::find_if(idle_.rbegin(), idle_.rend(), isNear);
    if (found == idle_.rend()) found = std::find_if(idle_.rbegin(), idle_.rend(), isPrimary);
    if (found == idle_.rend()) found = std::find_if(idle_.rbegin(), idle_.rend(), isFit);
    if (found != idle_.rend()) {
      ShareLease leased(this, std::move(*found));
      idle_.erase(std::next(found).base());
      leased.share_->lastOrigin.swap(key);
      return leased;
    }
  }
  auto share = makeShare();
  if (!share) return {};
  share->wire = wire;
  share->keptFor.swap(keptFor);
  share->lastOrigin.swap(key);
  return {this, std::move(share)};
}

void SharePool::giveBack(std::unique_ptr<Share> share) {
  std::unique_ptr<Share> unused;  // destroyed after the lock's release: closing connections is slow
  const sys::MutexLock lock(mutex_);
  if (!open_) {
    unused = std::move(share);
    return;
  }
  idle_.push_back(std::move(share));
  if (idle_.size() <= kMaxIdleShares) return;
  auto oldest = idle_.begin();
  if ((*oldest)->handle.get() == primary_) ++oldest;  // shareHandle promises that the primary lives
  unused = std::move(*oldest);
  idle_.erase(oldest);
}

SharePool& sharePool() {
  static sys::NeverDestroyed<SharePool> pool;
  return pool.get();
}

std::string_view originOf(std::string_view url) {
  const auto scheme = url.find("://");
  const auto authority = scheme == std::string_view::npos ? 0 : scheme + 3;
  return url.substr(0, url.find_first_of("/?#", authority));
}

}  // namespace xfer
