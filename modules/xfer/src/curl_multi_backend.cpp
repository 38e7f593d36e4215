#include "curl_multi_backend.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <limits>
#include <utility>

#include "curl_failure.h"
#include "easy_options.h"
#include "log.h"
#include "request_headers.h"
#include "result_codes.h"
#include "retry_after.h"
#include "steady_time.h"
#include "sys/module.h"
#include "transfer_end.h"
#include "xfer/fetch.h"

namespace xfer {
namespace {

constexpr const char* kLogTag = "CurlMulti";
constexpr int kPollMs = 10;
constexpr std::size_t kMaxErrorBody = 4096;
constexpr std::size_t kMaxLoggedUrl = 120;
constexpr std::size_t kStaging = 131072;  // stays in the processor's cache; 512 KiB cost 4 % more
constexpr std::uint64_t kSmallestReceiveBuffer = 1024;
constexpr std::uint64_t kLargestThrottledBuffer = 65536;
constexpr std::uint64_t kDefaultConnectTimeoutSec = 300;  // libcurl's
constexpr int kMostGoneConnections = 3;

std::string rangeText(std::uint64_t start, std::uint64_t end) {
  std::string text = std::to_string(start) + "-";
  if (end != 0) text += std::to_string(end - 1);
  return text;
}

std::int64_t unixTime() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::seconds>(now).count();
}

}  // namespace

struct CurlMultiBackend::Transfer {
  enum class Body { Unjudged, Delivered, Dropped };

  // The request: constant from submit on.
  TransferRequest request;
  DataCallback onData;
  DoneCallback onDone;
  Ticket ticket = 0;
  std::optional<RequestHeaders> headers;  // before the handle that points to it
  ErrorBuffer said{};                     // so is this; of the current attempt
  EasyPtr easy;

  // Over all attempts.
  std::optional<std::uint64_t> firstAddedNs;  // to the multi handle
  int goneConnections = 0;                    // ended under this transfer before any answer
  bool pausedByHost = false;                  // by pause; only where the request does not say itself when it is held
  std::optional<std::uint64_t> cutEnd;        // the lowest end that cut set

  // What one attempt learns and holds: one that is put back starts clean.
  struct Attempt {
    ResponseHeadReader head;
    bool bodyBegun = false;  // the head is final; what comes in header lines now are trailers
    Body body = Body::Unjudged;
    std::uint64_t bodyOffset = 0;           // in the file, of the body's first byte
    std::uint64_t position = 0;             // in the file, of the next body byte
    std::optional<std::uint64_t> end;       // exclusive end of the needed part; nothing: open
    std::optional<std::uint64_t> namedEnd;  // exclusive end of what the answer itself names
    std::optional<std::int32_t> codeAtEnd;  // result of a body that goes on past end; nothing: it may
    std::int32_t codeIfShort = CURLE_PARTIAL_FILE;
    std::string errorBody;
    // Two reasons to hold a transfer; neither lifts the other.
    bool heldByHost = false;
    std::optional<std::uint64_t> throttledPiece;  // size of the piece that has to wait for a speed limit
    // What the transfer ended itself with, by refusing to take more; libcurl only sees a failed write.
    std::optional<std::int32_t> ownResult;
    bool refused = false;  // the data callback threw
  } attempt;

  bool active = false;
  std::list<TokenBucket>::iterator bucket;  // valid while active
  PieceGate gate;                           // left when not active
  Staging* staging = nullptr;               // the loop's

  void beginAttempt() {
    attempt = {};
    said.front() = '\0';
    attempt.bodyOffset = attempt.position = request.rangeStart;
    if (request.rangeEnd != 0) attempt.end = request.rangeEnd;
    applyCut();
  }

  // Ends what the attempt has to deliver at the cut, unless it ends before anyway.
  void applyCut() {
    if (!cutEnd || (attempt.end && *attempt.end < *cutEnd)) return;
    attempt.end = cutEnd;
    attempt.codeAtEnd = CURLE_OK;
  }

  [[nodiscard]] bool isCut() const { return cutEnd && attempt.end == cutEnd; }

  // Whether the body ends there by itself, as far as the answer tells.
  [[nodiscard]] bool bodyEndsAt(std::uint64_t end) const {
    if (const auto length = attempt.head.head().bodyLength()) return end - attempt.bodyOffset == *length;
    return attempt.namedEnd == end;
  }

  [[nodiscard]] bool hostHolds() const { return request.isHeld ? request.isHeld() : pausedByHost; }
  [[nodiscard]] bool held() const { return attempt.heldByHost || attempt.throttledPiece; }
  [[nodiscard]] std::int32_t status() const { return attempt.head.head().status; }
  [[nodiscard]] bool errorResponse() const { return status() >= 400; }
  [[nodiscard]] std::uint64_t delivered() const {
    return attempt.position > request.rangeStart ? attempt.position - request.rangeStart : 0;
  }

  // Whether the job's connections have fixed shares of its speed.
  [[nodiscard]] bool hasShare() const { return request.limits.own == nullptr || !request.limits.own->isSet(); }

  // Whether the speed limits let a piece of the body pass now.
  bool passesLimits(std::uint64_t size, std::uint64_t now) {
    if (!gate.opensFor(request.limits, size, now)) return false;
    if (hasShare() && !bucket->take(size, now)) return false;
    gate.passed(size);
    return true;
  }

  [[nodiscard]] bool wouldPassLimits(std::uint64_t size, std::uint64_t now) const {
    return gate.isOpen(now) && (!hasShare() || bucket->wouldTake(size, now));
  }

  // Judges the head; false when the transfer is to end here.
  bool judge() {
    attempt.body = Body::Delivered;
    if (!request.onHead) return true;
    const Placement placement = request.onHead(attempt.head.head());
    switch (placement.action) {
      case Placement::Action::Stop:
        attempt.ownResult = placement.code;
        return false;
      case Placement::Action::Drop:
        attempt.body = Body::Dropped;
        return true;
      case Placement::Action::Deliver:
        break;
    }
    attempt.bodyOffset = attempt.position = placement.bodyOffset;
    attempt.end = placement.end;
    attempt.namedEnd = placement.namedEnd;
    attempt.codeAtEnd = placement.code;
    attempt.codeIfShort = placement.codeIfShort;
    applyCut();
    return true;
  }

  // Takes a piece of the body; false when the transfer is to end here, since all that is needed has arrived.
  bool take(const std::uint8_t* bytes, std::uint64_t length) {
    const std::uint64_t room = attempt.end ? *attempt.end - std::min(*attempt.end, attempt.position) : length;
    // A body that is cut ends with the last byte that is needed: the next one may be long in coming.
    const bool endsEarly = isCut() && length == room && !bodyEndsAt(*attempt.end);
    const bool goesOn = attempt.codeAtEnd && (length > room || endsEarly);
    if (goesOn) length = room;
    const std::uint64_t before = std::min(length, request.rangeStart - std::min(request.rangeStart, attempt.position));
    staging->add(*this, bytes + before, attempt.position + before, length - before);
    attempt.position += length;
    if (goesOn) attempt.ownResult = attempt.codeAtEnd;
    return !goesOn;
  }
};

void CurlMultiBackend::Staging::add(Transfer& transfer, const std::uint8_t* piece, std::uint64_t offset,
                                    std::uint64_t length) {
  if (length == 0) return;
  if (owner_ != &transfer || bytes_.size() + length > kStaging) flush();
  if (length > kStaging) {
    deliver(transfer, offset, piece, length);
    return;
  }
  if (bytes_.capacity() == 0) bytes_.reserve(kStaging);
  if (owner_ == nullptr) {
    owner_ = &transfer;
    offset_ = offset;
  }
  bytes_.insert(bytes_.end(), piece, piece + length);
}

void CurlMultiBackend::Staging::flush() {
  Transfer* const owner = std::exchange(owner_, nullptr);
  if (owner == nullptr) return;
  deliver(*owner, offset_, bytes_.data(), bytes_.size());
  bytes_.clear();
}

void CurlMultiBackend::Staging::drop(const Transfer& transfer) {
  if (owner_ != &transfer) return;
  owner_ = nullptr;
  bytes_.clear();
}

// It may be called while libcurl hands out the body of another transfer, which is not to end for this one's failure.
void CurlMultiBackend::Staging::deliver(Transfer& transfer, std::uint64_t offset, const std::uint8_t* bytes,
                                        std::uint64_t length) {
  if (transfer.attempt.refused) return;
  try {
    if (transfer.onData) transfer.onData(offset, bytes, length);
  } catch (...) {
    transfer.attempt.ownResult = CURLE_WRITE_ERROR;  // also where a cut has ended it well
    transfer.attempt.refused = true;
  }
}

// ---- Any thread ----

CurlMultiBackend::CurlMultiBackend(const DownloadPolicy& policy, std::string_view origin, const TlsTrust& trust)
    : policy_(policy), trust_(trust) {
  init();
  share_ = sharePool().lease(origin, policy_.useHttp2 ? Wire::Http2 : Wire::Http1, trust_);
  multi_.reset(curl_multi_init());
  if (!multi_) {
    XFER_LOG(log::kFailure, "curl_multi_init failed");
    return;
  }
  curl_multi_setopt(multi_.get(), CURLMOPT_PIPELINING, policy_.multiplex ? CURLPIPE_MULTIPLEX : CURLPIPE_NOTHING);
  curl_multi_setopt(multi_.get(), CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(policy_.numThreads));
  curl_multi_setopt(multi_.get(), CURLMOPT_MAX_TOTAL_CONNECTIONS, static_cast<long>(policy_.numThreads));
  running_ = true;
  loop_ = std::thread([this] { eventLoop(); });
}

CurlMultiBackend::~CurlMultiBackend() {
  stop();
}

void CurlMultiBackend::wake() noexcept {
  if (multi_) curl_multi_wakeup(multi_.get());
}

void CurlMultiBackend::stop() noexcept {
  {
    const sys::MutexLock lock(mutex_);
    commands_.stop = true;
  }
  wake();
  if (loop_.joinable()) loop_.join();
  // What a submit appended after the loop had ended: its running check had passed just before.
  Transfers late;
  const sys::MutexLock lock(mutex_);
  late.splice(late.end(), submissions_);
}

void CurlMultiBackend::cancelAll() noexcept {
  {
    const sys::MutexLock lock(mutex_);
    commands_.cancelBelow = lastTicket_ + 1;
  }
  wake();
}

void CurlMultiBackend::cancel(Ticket ticket) noexcept {
  {
    const sys::MutexLock lock(mutex_);
    const auto live = live_.find(ticket);
    if (live == live_.end()) return;
    live->second = true;
    commands_.cancelSome = true;
  }
  wake();
}

void CurlMultiBackend::setHold(bool hold) noexcept {
  {
    const sys::MutexLock lock(mutex_);
    commands_.hold = hold;
  }
  wake();
}

Ticket CurlMultiBackend::submit(const TransferRequest& request, DataCallback onData, DoneCallback onDone) {
  const auto nextTicket = [this] {
    const sys::MutexLock lock(mutex_);
    return ++lastTicket_;
  };
  const auto failAtOnce = [&](std::int32_t code, const ShortText& why = {}) {
    const Ticket ticket = nextTicket();
    if (onDone) onDone(request.rangeStart, {code, 0, 0, {}, why});
    return ticket;
  };
  if (!running_) return failAtOnce(CURLE_ABORTED_BY_CALLBACK);
  if (holdsLineBreak(request.cookie, request.headers)) {
    return failAtOnce(CURLE_BAD_FUNCTION_ARGUMENT, ShortText::of(kLineBreak));
  }
  Transfers one;
  one.push_back(std::make_unique<Transfer>());
  Transfer& transfer = *one.front();
  transfer.easy.reset(curl_easy_init());
  if (!transfer.easy) {
    XFER_LOG(log::kFailure, "submit | curl_easy_init failed");
    return failAtOnce(result::kNoHandle, ShortText::of("no transfer could be set up"));
  }
  transfer.request = request;
  if (const std::int32_t unable = configure(transfer)) return failAtOnce(unable);
  transfer.beginAttempt();
  transfer.onData = std::move(onData);
  transfer.onDone = std::move(onDone);
  Ticket ticket = 0;
  {
    const sys::MutexLock lock(mutex_);
    ticket = transfer.ticket = ++lastTicket_;
    live_.emplace(ticket, false);
    submissions_.splice(submissions_.end(), one);
  }
  wake();
  return ticket;
}

// 0, or libcurl's code when the transfer cannot be made as it is to be.
std::int32_t CurlMultiBackend::configure(Transfer& transfer) {
  CURL* const easy = transfer.easy.get();
  const TransferRequest& request = transfer.request;
  setOption(easy, CURLOPT_URL, request.url.c_str());
  if (request.rangeStart != 0 || request.rangeEnd != 0) {
    setOption(easy, CURLOPT_RANGE, rangeText(request.rangeStart, request.rangeEnd).c_str());
  }
  XFER_LOG(log::kTrace, "submit | range=" << request.rangeStart << " | cookie_len=" << request.cookie.size()
                                          << " | hdr_count=" << request.headers.size()
                                          << " | url=" << request.url.substr(0, kMaxLoggedUrl));
  transfer.headers.emplace(easy, request.url, request.cookie, request.headers);
  applyProxy(easy, request.proxy);
  if (policy_.useHttp2) {
    setOption(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    setOption(easy, CURLOPT_PIPEWAIT, 1L);
  } else {
    setOption(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  }
  constexpr std::uint64_t kMostLong = std::numeric_limits<long>::max();  // 32 bits on Windows
  long receiveBuffer = kReceiveBuffer;
  if (request.receiveBuffer != 0) receiveBuffer = static_cast<long>(std::min(request.receiveBuffer, kMostLong));
  std::uint64_t lowSpeedLimit = policy_.lowSpeedLimit;
  // Limits are kept by the transfer's token bucket and by the job's limits: libcurl's own lets megabytes through before
  // it looks and then falls silent.  A small buffer makes small pieces, so that a low rate comes evenly.
  const std::uint64_t limits[] = {request.maxRecvSpeed, request.limits.lowest()};
  for (const std::uint64_t limit : limits) {
    if (limit == 0) continue;
    const std::uint64_t small = std::clamp(limit / 8, kSmallestReceiveBuffer, kLargestThrottledBuffer);
    receiveBuffer = std::min(receiveBuffer, static_cast<long>(small));
  }
  // A transfer that is held below the low-speed limit on purpose must not be given up for it.
  if (request.maxRecvSpeed != 0) lowSpeedLimit = std::min(lowSpeedLimit, request.maxRecvSpeed / 2);
  setOption(easy, CURLOPT_BUFFERSIZE, receiveBuffer);
  if (request.freshConnection) setOption(easy, CURLOPT_FRESH_CONNECT, 1L);
  if (policy_.tcpKeepAlive) setOption(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  setOption(easy, CURLOPT_FOLLOWLOCATION, 1L);
  setOption(easy, CURLOPT_MAXREDIRS, 10L);
  if (policy_.connectTimeoutSec > 0) {
    setOption(easy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(policy_.connectTimeoutSec));
  }
  if (policy_.transferTimeoutSec > 0) {
    setOption(easy, CURLOPT_TIMEOUT, static_cast<long>(policy_.transferTimeoutSec));
  }
  setOption(easy, CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(std::min(lowSpeedLimit, kMostLong)));
  setOption(easy, CURLOPT_LOW_SPEED_TIME, static_cast<long>(policy_.lowSpeedTimeSec));
  setOption(easy, CURLOPT_WRITEFUNCTION, onBody);
  setOption(easy, CURLOPT_WRITEDATA, &transfer);
  setOption(easy, CURLOPT_HEADERFUNCTION, onHeader);
  setOption(easy, CURLOPT_HEADERDATA, &transfer);
  setOption(easy, CURLOPT_PRIVATE, &transfer);
  setOption(easy, CURLOPT_ERRORBUFFER, transfer.said.data());
  return applyTransport(easy, trust_);
}

void CurlMultiBackend::onTurn(std::function<void(const LoopTurn&)> callback) {
  {
    const sys::MutexLock lock(mutex_);
    newTurnCallback_ = std::move(callback);
  }
  wake();
  if (!running_) reportLastTurn();
}

void CurlMultiBackend::reportLastTurn() {
  std::function<void(const LoopTurn&)> callback;
  {
    const sys::MutexLock lock(mutex_);
    if (newTurnCallback_) turnCallback_ = std::exchange(newTurnCallback_, nullptr);
    callback = std::exchange(turnCallback_, nullptr);
  }
  if (!callback) return;
  LoopTurn turn;
  turn.nowNs = steadyNs();
  turn.last = true;
  callback(turn);
}

// ---- Loop thread ----

void CurlMultiBackend::assertLoopThread() const {
  assert(loopId_ == std::this_thread::get_id());
}

void CurlMultiBackend::eventLoop() {
  loopId_ = std::this_thread::get_id();
  XFER_LOG(log::kTrace,
           "eventLoop | started | http2=" << (policy_.useHttp2 ? "yes" : "no") << " | max_conn=" << policy_.numThreads);
  try {
    while (running_) turn();
  } catch (...) {
    // Out of memory: end every transfer, since nothing drives them any more.
    XFER_LOG(log::kFailure, "eventLoop exception");
    running_ = false;
    cancelWhere(taken_, [](const Transfer&) { return true; });
    cancelEverything();
    reportLastTurn();
  }
  XFER_LOG(log::kTrace, "eventLoop | stopped");
  sys::releaseThreadState();
}

void CurlMultiBackend::turn() {
  Commands commands;
  {
    const sys::MutexLock lock(mutex_);
    commands = std::exchange(commands_, {});
    taken_.splice(taken_.end(), submissions_);
    if (newTurnCallback_) turnCallback_ = std::exchange(newTurnCallback_, nullptr);
  }
  waiting_.splice(waiting_.begin(), putBack_);
  apply(commands);
  if (!running_) {
    cancelEverything();
    taken_.clear();  // never begun: they end without a word
    return;
  }
  waiting_.splice(waiting_.end(), taken_);
  while (hasRoom() && !waiting_.empty()) addTransfer();

  int running = 0;
  curl_multi_perform(multi_.get(), &running);
  flushBodies();
  processCompleted();
  updateHolds();
  if (turnCallback_) reportTurn();
  const bool canAdmit = hasRoom() && !waiting_.empty();
  poll(canAdmit ? 0 : kPollMs);
}

void CurlMultiBackend::reportTurn() {
  flushBodies();  // what came while transfers were let go: the callback is to know all that has arrived
  const std::uint64_t now = steadyNs();
  const LoopTurn turn{now, now - reportedNs_.value_or(now), std::exchange(sleptNs_, 0)};
  reportedNs_ = now;
  try {
    turnCallback_(turn);
  } catch (...) {
    XFER_LOG(log::kFailure, "reportTurn | turn_cb threw");
  }
}

void CurlMultiBackend::poll(int timeoutMs) {
  const std::uint64_t before = turnCallback_ ? steadyNs() : 0;
  curl_multi_poll(multi_.get(), nullptr, 0, timeoutMs, nullptr);
  if (turnCallback_) sleptNs_ += steadyNs() - before;
}

void CurlMultiBackend::cut(Ticket ticket, std::uint64_t end) {
  assertLoopThread();
  const auto isMeant = [ticket](const auto& transfer) { return transfer->ticket == ticket; };
  // Lowers the end; whether nothing is left to deliver.
  const auto lowersToNothing = [end](Transfer& transfer) {
    if (transfer.attempt.end && *transfer.attempt.end <= end) return false;
    transfer.cutEnd = end;
    transfer.applyCut();
    return transfer.attempt.position >= end;
  };
  if (const auto meant = std::find_if(active_.begin(), active_.end(), isMeant); meant != active_.end()) {
    if (!lowersToNothing(**meant)) return;
    (*meant)->attempt.ownResult = CURLE_OK;
    completeTransfer(meant, CURLE_WRITE_ERROR);
    return;
  }
  Transfers ended;
  const auto cutIn = [&](Transfers& transfers) {
    const auto meant = std::find_if(transfers.begin(), transfers.end(), isMeant);
    if (meant != transfers.end() && lowersToNothing(**meant)) ended.splice(ended.end(), transfers, meant);
  };
  cutIn(waiting_);
  cutIn(putBack_);
  {
    const sys::MutexLock lock(mutex_);
    cutIn(submissions_);
  }
  for (const auto& transfer : ended) finishTransfer(*transfer, {CURLE_OK, 0, 0});
}

void CurlMultiBackend::apply(const Commands& commands) {
  if (commands.cancelBelow != 0 || commands.cancelSome) {
    const auto meant = [&](const Transfer& transfer) {
      if (transfer.ticket < commands.cancelBelow) return true;
      if (!commands.cancelSome) return false;
      const sys::MutexLock lock(mutex_);
      const auto live = live_.find(transfer.ticket);
      return live != live_.end() && live->second;
    };
    cancelWhere(active_, meant);
    cancelWhere(waiting_, meant);
    cancelWhere(taken_, meant);
  }
  if (commands.hold) {
    for (const auto& transfer : active_) transfer->pausedByHost = *commands.hold;
    // One that was put back while it was held is let go too.
    for (const auto& transfer : waiting_) transfer->pausedByHost = transfer->pausedByHost && *commands.hold;
    updateHolds();
  }
  if (commands.stop) running_ = false;
}

template <class Predicate>
void CurlMultiBackend::cancelWhere(Transfers& transfers, Predicate&& which) {
  assertLoopThread();
  Transfers ended;
  for (auto next = transfers.begin(); next != transfers.end();) {
    const auto position = next++;
    if (!which(**position)) continue;
    if ((*position)->active) leaveMulti(**position);
    ended.splice(ended.end(), transfers, position);
  }
  for (const auto& transfer : ended) finishTransfer(*transfer, {CURLE_ABORTED_BY_CALLBACK, 0, 0});
}

void CurlMultiBackend::cancelEverything() {
  Transfers queued;
  {
    const sys::MutexLock lock(mutex_);
    queued.splice(queued.end(), submissions_);
  }
  const auto all = [](const Transfer&) { return true; };
  cancelWhere(active_, all);
  cancelWhere(putBack_, all);
  cancelWhere(waiting_, all);
  cancelWhere(queued, all);
}

bool CurlMultiBackend::hasRoom() const {
  return policy_.numThreads == 0 || active_.size() < policy_.numThreads;
}

void CurlMultiBackend::addTransfer() {
  assertLoopThread();
  if (freeBuckets_.empty()) freeBuckets_.emplace_back();
  Transfer& transfer = *waiting_.front();
  if (share_.handle() != nullptr) curl_easy_setopt(transfer.easy.get(), CURLOPT_SHARE, share_.handle());
  const CURLMcode added = curl_multi_add_handle(multi_.get(), transfer.easy.get());
  if (added != CURLM_OK) {
    XFER_LOG(log::kFailure, "addTransfer | curl_multi_add_handle: " << curl_multi_strerror(added));
    Transfers refused;
    refused.splice(refused.end(), waiting_, waiting_.begin());
    finishTransfer(
        transfer,
        {result::kNoHandle, 0, 0, {}, ShortText::of("no transfer could be set up: ", curl_multi_strerror(added))});
    return;
  }
  buckets_.splice(buckets_.end(), freeBuckets_, std::prev(freeBuckets_.end()));
  transfer.bucket = std::prev(buckets_.end());
  transfer.bucket->setRate(transfer.request.maxRecvSpeed, steadyNs());
  transfer.staging = &staging_;
  transfer.active = true;
  if (!transfer.firstAddedNs) transfer.firstAddedNs = steadyNs();
  active_.splice(active_.end(), waiting_, waiting_.begin());
  ++activeCount_;
}

// Leaves the transfer in active_; the caller moves it.
void CurlMultiBackend::leaveMulti(Transfer& transfer) {
  assertLoopThread();
  if (transfer.held()) {
    // libcurl 7.88 never frees what it keeps of a paused transfer when others still use the connection (HTTP/2): it is
    // offered once more here, and refused.
    transfer.attempt.ownResult = CURLE_ABORTED_BY_CALLBACK;
    curl_easy_pause(transfer.easy.get(), CURLPAUSE_CONT);
  }
  curl_multi_remove_handle(multi_.get(), transfer.easy.get());
  transfer.gate.leave();
  staging_.drop(transfer);
  freeBuckets_.splice(freeBuckets_.end(), buckets_, transfer.bucket);
  transfer.active = false;
  --activeCount_;
}

std::size_t CurlMultiBackend::onHeader(char* bytes, std::size_t size, std::size_t count, void* userdata) {
  auto& attempt = static_cast<Transfer*>(userdata)->attempt;
  if (attempt.bodyBegun) return size * count;
  try {
    attempt.head.add({bytes, size * count});
  } catch (...) {
    return 0;  // out of memory: ends the transfer with libcurl's write error
  }
  return size * count;
}

std::size_t CurlMultiBackend::onBody(char* bytes, std::size_t size, std::size_t count, void* userdata) {
  auto& transfer = *static_cast<Transfer*>(userdata);
  auto& attempt = transfer.attempt;
  const std::size_t length = size * count;
  try {
    if (attempt.ownResult) return CURL_WRITEFUNC_ERROR;
    attempt.bodyBegun = true;
    if (transfer.errorResponse()) {
      attempt.errorBody.append(bytes, std::min(length, kMaxErrorBody - attempt.errorBody.size()));
      return length;
    }
    attempt.heldByHost = attempt.heldByHost || transfer.hostHolds();
    if (attempt.heldByHost) return CURL_WRITEFUNC_PAUSE;
    if (attempt.body == Transfer::Body::Unjudged && !transfer.judge()) return CURL_WRITEFUNC_ERROR;
    if (!transfer.passesLimits(length, steadyNs())) {
      if (transfer.request.onThrottled) transfer.request.onThrottled(true);
      attempt.throttledPiece = length;
      return CURL_WRITEFUNC_PAUSE;
    }
    if (attempt.body == Transfer::Body::Dropped) return length;
    const bool goesOn = transfer.take(reinterpret_cast<const std::uint8_t*>(bytes), length);
    return goesOn && !attempt.refused ? length : CURL_WRITEFUNC_ERROR;
  } catch (...) {
    attempt.ownResult = CURLE_WRITE_ERROR;
    return CURL_WRITEFUNC_ERROR;
  }
}

void CurlMultiBackend::flushBodies() {
  staging_.flush();
  for (auto next = active_.begin(); next != active_.end();) {
    const auto position = next++;
    if ((*position)->attempt.refused) completeTransfer(position, CURLE_WRITE_ERROR);
  }
}

void CurlMultiBackend::processCompleted() {
  int left = 0;
  while (const CURLMsg* const message = curl_multi_info_read(multi_.get(), &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    CURL* const easy = message->easy_handle;
    const CURLcode result = message->data.result;  // the message is gone once the handle is removed
    const auto position = std::find_if(active_.begin(), active_.end(),
                                       [&](const auto& transfer) { return transfer->easy.get() == easy; });
    if (position == active_.end()) {
      XFER_LOG(log::kFailure, "processCompleted | Transfer not found in active_");
      curl_multi_remove_handle(multi_.get(), easy);
      curl_easy_cleanup(easy);
      continue;
    }
    if (isWorthAnotherTry(**position, result)) {
      putBack(position);
    } else {
      completeTransfer(position, result);
    }
  }
}

// An HTTP/2 server may end a connection at any time, and many do after so many requests: that is nobody's failure.
bool CurlMultiBackend::isWorthAnotherTry(Transfer& transfer, CURLcode result) const {
  if (!policy_.useHttp2 || transfer.status() != 0) return false;
  // Sent on a connection that the server was about to end.
  if (result == CURLE_HTTP2) return ++transfer.goneConnections <= kMostGoneConnections;
  // Not sent: libcurl 7.88 puts a transfer on a connection that is still being made, next to one that is full or ends.
  const std::uint64_t seconds = policy_.connectTimeoutSec > 0 ? policy_.connectTimeoutSec : kDefaultConnectTimeoutSec;
  return result == CURLE_FAILED_INIT && steadyNs() - *transfer.firstAddedNs < seconds * 1'000'000'000;
}

void CurlMultiBackend::putBack(Transfers::iterator position) {
  leaveMulti(**position);
  (*position)->beginAttempt();
  putBack_.splice(putBack_.end(), active_, position);
}

void CurlMultiBackend::completeTransfer(Transfers::iterator position, CURLcode curlResult) {
  Transfers ended;
  ended.splice(ended.end(), active_, position);
  Transfer& transfer = **position;
  auto& attempt = transfer.attempt;
  staging_.flush();
  try {
    // An answer without a body says something of the file too.
    const bool unjudged = attempt.body == Transfer::Body::Unjudged && transfer.status() != 0;
    if (curlResult == CURLE_OK && unjudged && !transfer.errorResponse()) static_cast<void>(transfer.judge());
  } catch (...) {
    attempt.ownResult = CURLE_WRITE_ERROR;
  }
  std::int32_t result = attempt.ownResult.value_or(curlResult);
  long code = 0;
  curl_off_t announced = -1;
  if (curlResult == CURLE_OK) curl_easy_getinfo(transfer.easy.get(), CURLINFO_RESPONSE_CODE, &code);
  curl_easy_getinfo(transfer.easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
  // libcurl also tells a length that the coding of the body makes void.
  if (transfer.request.onHead && !attempt.head.head().bodyLength()) announced = -1;
  // What a transfer ended itself with, libcurl knows as a failed write.
  ShortText text;
  if (result != CURLE_OK && !attempt.ownResult) text = curlFailure(transfer.easy.get(), result, transfer.said);
  leaveMulti(transfer);
  const std::int32_t status = transfer.status() > 0 ? transfer.status() : static_cast<std::int32_t>(code);
  const std::uint64_t got = transfer.delivered();

  if (result == CURLE_OK && attempt.end && attempt.body != Transfer::Body::Dropped) {
    const std::uint64_t start = transfer.request.rangeStart;
    const std::uint64_t expected = *attempt.end - std::min(*attempt.end, start);
    switch (judgeEnd({start, attempt.bodyOffset, attempt.position, attempt.end, attempt.namedEnd, announced})) {
      case EndVerdict::Whole:
      case EndVerdict::WholeAsNamed:
        break;
      case EndVerdict::ShortAccepted:
        XFER_LOG(log::kRecovery, "short transfer (metadata mismatch, accepting) | range="
                                     << start << " | metadata=" << expected << " | server=" << got);
        break;
      case EndVerdict::Short:
        XFER_LOG(log::kRecovery, "short transfer | range=" << start << " | expected=" << expected << " | got=" << got);
        result = attempt.codeIfShort;
        // Else the core says what is another size now.
        if (result == CURLE_PARTIAL_FILE) text = ShortText::of(got, " of ", expected, " bytes came");
        break;
    }
  }
  XFER_LOG(log::kTrace, "done | range=" << transfer.request.rangeStart << " | err=" << result << " | http=" << status
                                        << " | bytes=" << got);
  if (status >= 400 && !attempt.errorBody.empty()) {
    XFER_LOG(log::kFailure,
             "HTTP " << status << " response body (" << attempt.errorBody.size() << " bytes): " << attempt.errorBody);
  }
  finishTransfer(transfer, {result, status, got, retryAfterSec(attempt.head.head(), unixTime()), text});
}

void CurlMultiBackend::finishTransfer(const Transfer& transfer, const TransferEnd& end) {
  assertLoopThread();
  {
    const sys::MutexLock lock(mutex_);
    live_.erase(transfer.ticket);
  }
  if (!transfer.onDone) return;
  try {
    transfer.onDone(transfer.request.rangeStart, end);
  } catch (...) {
    XFER_LOG(log::kFailure, "finishTransfer | done_cb threw");
  }
}

// Holds and lets go what the host, or the speed limit, wants held or let go since the last look.
void CurlMultiBackend::updateHolds() {
  const std::uint64_t now = steadyNs();
  for (auto next = active_.begin(); next != active_.end();) {
    const auto position = next++;
    Transfer& transfer = **position;
    auto& attempt = transfer.attempt;
    const bool hostHolds = transfer.hostHolds();
    const bool changed = hostHolds != attempt.heldByHost;
    attempt.heldByHost = hostHolds;
    // Others use the limit meanwhile; a place that is kept over a pause would let a burst pass at its end.
    if (hostHolds) transfer.gate.leave();
    const bool fits = attempt.throttledPiece && !hostHolds && transfer.wouldPassLimits(*attempt.throttledPiece, now);
    if (fits && !releasePiece(position)) continue;
    if (changed || fits) applyHolds(position);
  }
}

// False when the transfer has ended instead.
bool CurlMultiBackend::releasePiece(Transfers::iterator position) {
  const TransferRequest& request = (*position)->request;
  try {
    if (request.onThrottled) request.onThrottled(false);
  } catch (...) {
    completeTransfer(position, CURLE_WRITE_ERROR);
    return false;
  }
  (*position)->attempt.throttledPiece.reset();
  return true;
}

void CurlMultiBackend::applyHolds(Transfers::iterator position) {
  const Transfer& transfer = **position;
  int held = CURLPAUSE_CONT;
  if (transfer.attempt.heldByHost) {
    // libcurl 7.88 fails a transfer (27) that is paused before its HTTP/2 stream is open; the body callback holds it.
    if (policy_.useHttp2 && transfer.status() == 0) return;
    held = CURLPAUSE_ALL;
  } else if (transfer.attempt.throttledPiece) {
    held = CURLPAUSE_RECV;
  }
  const CURLcode result = curl_easy_pause(transfer.easy.get(), held);
  // A handle that has not started yet refuses (the body callback holds it later).  Any other failure comes from the
  // body callback, which runs inside the call when it lets go; no message reports it.
  if (result != CURLE_OK && result != CURLE_BAD_FUNCTION_ARGUMENT) completeTransfer(position, result);
}

}  // namespace xfer
