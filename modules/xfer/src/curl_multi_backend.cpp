#include "curl_multi_backend.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

#include "easy_options.h"
#include "log.h"
#include "result_codes.h"
#include "sys/module.h"
#include "xfer/fetch.h"

namespace xfer {
namespace {

constexpr const char* kLogTag = "CurlMulti";
constexpr int kPollMs = 10;
constexpr std::size_t kMaxErrorBody = 4096;
constexpr std::size_t kMaxLoggedUrl = 120;
constexpr std::size_t kStaging = 524288;
constexpr std::uint64_t kSmallestReceiveBuffer = 1024;
constexpr std::uint64_t kLargestThrottledBuffer = 65536;
constexpr std::uint64_t kDefaultConnectTimeoutSec = 300;  // libcurl's
constexpr int kMostGoneConnections = 3;

std::uint64_t nowNs() {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

std::string rangeText(std::uint64_t start, std::uint64_t end) {
  std::string text = std::to_string(start) + "-";
  if (end != 0) text += std::to_string(end - 1);
  return text;
}

}  // namespace

struct CurlMultiBackend::Transfer {
  enum class Body { Unjudged, Delivered, Dropped };

  SlistPtr headers;  // before the handle that points to it
  EasyPtr easy;
  DataCallback onData;
  DoneCallback onDone;
  HeadCallback onHead;
  std::uint64_t sequence = 0;
  std::uint64_t rangeStart = 0;
  std::uint64_t rangeEnd = 0;
  std::uint64_t maxRecvSpeed = 0;
  std::uint64_t firstAddedNs = 0;  // to the multi handle; 0: not yet
  int goneConnections = 0;         // ended under this transfer before any answer

  ResponseHeadReader head;
  Body body = Body::Unjudged;
  std::uint64_t bodyOffset = 0;  // in the file, of the body's first byte
  std::uint64_t position = 0;    // in the file, of the next body byte
  std::uint64_t end = 0;         // where the needed part ends; 0: open
  bool cutAtEnd = false;         // a body that goes on past end is ended there
  std::string errorBody;

  bool active = false;
  std::list<Slot>::iterator slot;  // valid while active
  std::uint64_t stagedOffset = 0;  // in the file, of what the slot's staging holds
  // Two reasons to hold a transfer; neither lifts the other.
  bool heldByHost = false;
  std::uint64_t throttledPiece = 0;  // size of the piece that has to wait for tokens; 0: none

  // What the transfer ended itself with, by refusing to take more; libcurl only sees a failed write.
  std::optional<std::int32_t> ownResult;

  [[nodiscard]] bool held() const { return heldByHost || throttledPiece != 0; }
  [[nodiscard]] bool errorResponse() const { return head.head().status >= 400; }
  [[nodiscard]] std::uint64_t delivered() const { return position > rangeStart ? position - rangeStart : 0; }

  // Judges the head; false when the transfer is to end here.
  bool judge() {
    body = Body::Delivered;
    if (!onHead) return true;
    const Placement placement = onHead(head.head());
    switch (placement.action) {
      case Placement::Action::Stop:
        ownResult = placement.code;
        return false;
      case Placement::Action::Drop:
        body = Body::Dropped;
        return true;
      case Placement::Action::Deliver:
        break;
    }
    bodyOffset = position = placement.bodyOffset;
    end = placement.end;
    cutAtEnd = true;
    return true;
  }

  // Takes a piece of the body; false when the transfer is to end here, since all that is needed has arrived.
  bool take(const std::uint8_t* bytes, std::uint64_t length) {
    const bool goesOn = cutAtEnd && end != 0 && length > end - std::min(end, position);
    if (goesOn) length = end - std::min(end, position);
    const std::uint64_t before = std::min(length, rangeStart - std::min(rangeStart, position));
    stage(bytes + before, position + before, length - before);
    position += length;
    if (goesOn) ownResult = result::kSuccess;
    return !goesOn;
  }

  void stage(const std::uint8_t* bytes, std::uint64_t offset, std::uint64_t length) {
    std::vector<std::uint8_t>& staging = slot->staging;
    if (staging.size() + length > kStaging) flush();
    if (length > kStaging) {
      if (onData) onData(offset, bytes, length);
      return;
    }
    if (staging.capacity() == 0) staging.reserve(kStaging);
    if (staging.empty()) stagedOffset = offset;
    staging.insert(staging.end(), bytes, bytes + length);
  }

  // Hands what is staged to the data callback.
  void flush() {
    std::vector<std::uint8_t>& staging = slot->staging;
    if (staging.empty()) return;
    struct Clear {  // also after an exception: nothing is delivered twice
      std::vector<std::uint8_t>& staging;
      ~Clear() { staging.clear(); }
    } const clear{staging};
    if (onData) onData(stagedOffset, staging.data(), staging.size());
  }
};

// ---- Any thread ----

CurlMultiBackend::CurlMultiBackend(const DownloadPolicy& policy, std::string_view origin) : policy_(policy) {
  init();
  share_ = sharePool().lease(origin, policy_.useHttp2 ? Wire::Http2 : Wire::Http1);
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

void CurlMultiBackend::stop() {
  command(BackendCommand::Stop);
  if (loop_.joinable()) loop_.join();
  // What a submit appended after the loop had ended: its running check had passed just before.
  const sys::MutexLock lock(mutex_);
  submissions_.clear();
}

void CurlMultiBackend::command(BackendCommand command, std::uint64_t rangeStart) {
  {
    const sys::MutexLock lock(mutex_);
    commands_.push_back({command, rangeStart, nextSequence_});
  }
  if (multi_) curl_multi_wakeup(multi_.get());
}

void CurlMultiBackend::submit(const TransferRequest& request, DataCallback onData, DoneCallback onDone) {
  const auto failAtOnce = [&](std::int32_t code) {
    if (onDone) onDone(request.rangeStart, code, 0, 0);
  };
  if (!running_) return failAtOnce(CURLE_ABORTED_BY_CALLBACK);
  if (holdsLineBreak(request.cookie, request.headers)) return failAtOnce(CURLE_BAD_FUNCTION_ARGUMENT);
  Transfers one;
  one.push_back(std::make_unique<Transfer>());
  Transfer& transfer = *one.front();
  transfer.easy.reset(curl_easy_init());
  if (!transfer.easy) {
    XFER_LOG(log::kFailure, "submit | curl_easy_init failed");
    return failAtOnce(result::kNoHandle);
  }
  configure(transfer, request);
  transfer.onData = std::move(onData);
  transfer.onDone = std::move(onDone);
  {
    const sys::MutexLock lock(mutex_);
    transfer.sequence = nextSequence_++;
    submissions_.splice(submissions_.end(), one);
  }
  curl_multi_wakeup(multi_.get());
}

void CurlMultiBackend::configure(Transfer& transfer, const TransferRequest& request) {
  CURL* const easy = transfer.easy.get();
  transfer.onHead = request.onHead;
  transfer.rangeStart = transfer.bodyOffset = transfer.position = request.rangeStart;
  transfer.rangeEnd = transfer.end = request.rangeEnd;
  transfer.maxRecvSpeed = request.maxRecvSpeed;
  curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
  if (request.rangeStart != 0 || request.rangeEnd != 0) {
    curl_easy_setopt(easy, CURLOPT_RANGE, rangeText(request.rangeStart, request.rangeEnd).c_str());
  }
  if (!request.cookie.empty()) curl_easy_setopt(easy, CURLOPT_COOKIE, request.cookie.c_str());
  XFER_LOG(log::kTrace, "submit | range=" << request.rangeStart << " | cookie_len=" << request.cookie.size()
                                          << " | hdr_count=" << request.headers.size()
                                          << " | url=" << request.url.substr(0, kMaxLoggedUrl));
  transfer.headers = headerList(request.headers);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headers.get());
  applyProxy(easy, request.proxy);
  applyTransport(easy);
  if (policy_.useHttp2) {
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
  } else {
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  }
  long receiveBuffer = kReceiveBuffer;
  std::uint64_t lowSpeedLimit = policy_.lowSpeedLimit;
  if (request.maxRecvSpeed != 0) {
    // The limit is kept by the slot's token bucket: libcurl's own lets megabytes through before it looks and then falls
    // silent.  A small buffer makes small pieces, so that a low rate comes evenly; and a transfer that is held below
    // the low-speed limit on purpose must not be given up for it.
    receiveBuffer =
        static_cast<long>(std::clamp(request.maxRecvSpeed / 8, kSmallestReceiveBuffer, kLargestThrottledBuffer));
    lowSpeedLimit = std::min(lowSpeedLimit, request.maxRecvSpeed / 2);
  }
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, receiveBuffer);
  if (policy_.tcpKeepAlive) curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 10L);
  if (policy_.connectTimeoutSec > 0) {
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(policy_.connectTimeoutSec));
  }
  if (policy_.transferTimeoutSec > 0) {
    curl_easy_setopt(easy, CURLOPT_TIMEOUT, static_cast<long>(policy_.transferTimeoutSec));
  }
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(lowSpeedLimit));
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, static_cast<long>(policy_.lowSpeedTimeSec));
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
}

// ---- Loop thread ----

void CurlMultiBackend::eventLoop() {
  XFER_LOG(log::kTrace,
           "eventLoop | started | http2=" << (policy_.useHttp2 ? "yes" : "no") << " | max_conn=" << policy_.numThreads);
  try {
    while (running_) turn();
  } catch (...) {
    // Out of memory: nobody may be left waiting for a transfer that nothing drives any more.
    XFER_LOG(log::kFailure, "eventLoop exception");
    running_ = false;
    cancel(taken_, [](const Transfer&) { return true; });
    cancelEverything();
  }
  XFER_LOG(log::kTrace, "eventLoop | stopped");
  sys::releaseThreadState();
}

void CurlMultiBackend::turn() {
  {
    const sys::MutexLock lock(mutex_);
    takenCommands_.swap(commands_);
    taken_.splice(taken_.end(), submissions_);
  }
  waiting_.splice(waiting_.begin(), putBack_);
  for (const QueuedCommand& queued : takenCommands_) apply(queued);
  takenCommands_.clear();
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
  resumeThrottled();
  const bool canAdmit = hasRoom() && !waiting_.empty();
  curl_multi_poll(multi_.get(), nullptr, 0, canAdmit ? 0 : kPollMs, nullptr);
}

void CurlMultiBackend::apply(const QueuedCommand& queued) {
  switch (queued.command) {
    case BackendCommand::CancelAll:
    case BackendCommand::CancelRange: {
      const bool all = queued.command == BackendCommand::CancelAll;
      const auto meant = [&](const Transfer& transfer) {
        return transfer.sequence < queued.sequence && (all || transfer.rangeStart == queued.rangeStart);
      };
      cancel(active_, meant);
      cancel(waiting_, meant);
      cancel(taken_, meant);
      break;
    }
    case BackendCommand::PauseAll:
    case BackendCommand::ResumeAll:
      for (auto next = active_.begin(); next != active_.end();) {
        const auto position = next++;
        (*position)->heldByHost = queued.command == BackendCommand::PauseAll;
        applyPauses(position);
      }
      break;
    case BackendCommand::Stop:
      running_ = false;
      break;
  }
}

template <class Predicate>
void CurlMultiBackend::cancel(Transfers& transfers, Predicate&& which) {
  Transfers ended;
  for (auto next = transfers.begin(); next != transfers.end();) {
    const auto position = next++;
    if (!which(**position)) continue;
    if ((*position)->active) leaveMulti(**position);
    ended.splice(ended.end(), transfers, position);
  }
  for (const auto& transfer : ended) finishTransfer(*transfer, CURLE_ABORTED_BY_CALLBACK, 0, 0);
}

void CurlMultiBackend::cancelEverything() {
  Transfers queued;
  {
    const sys::MutexLock lock(mutex_);
    queued.splice(queued.end(), submissions_);
  }
  const auto all = [](const Transfer&) { return true; };
  cancel(active_, all);
  cancel(putBack_, all);
  cancel(waiting_, all);
  cancel(queued, all);
}

bool CurlMultiBackend::hasRoom() const {
  return policy_.numThreads == 0 || active_.size() < policy_.numThreads;
}

void CurlMultiBackend::addTransfer() {
  if (freeSlots_.empty()) freeSlots_.emplace_back();
  Transfer& transfer = *waiting_.front();
  if (share_.handle() != nullptr) curl_easy_setopt(transfer.easy.get(), CURLOPT_SHARE, share_.handle());
  const CURLMcode added = curl_multi_add_handle(multi_.get(), transfer.easy.get());
  if (added != CURLM_OK) {
    XFER_LOG(log::kFailure, "addTransfer | curl_multi_add_handle: " << curl_multi_strerror(added));
    Transfers refused;
    refused.splice(refused.end(), waiting_, waiting_.begin());
    finishTransfer(transfer, result::kNoHandle, 0, 0);
    return;
  }
  slots_.splice(slots_.end(), freeSlots_, std::prev(freeSlots_.end()));
  transfer.slot = std::prev(slots_.end());
  transfer.slot->bucket.setRate(transfer.maxRecvSpeed, nowNs());
  transfer.active = true;
  if (transfer.firstAddedNs == 0) transfer.firstAddedNs = nowNs();
  active_.splice(active_.end(), waiting_, waiting_.begin());
  ++activeCount_;
}

// The transfer's place in active_ is the caller's to give up.
void CurlMultiBackend::leaveMulti(Transfer& transfer) {
  if (transfer.held()) {
    // libcurl 7.88 never frees what it keeps of a paused transfer when others still use the connection (HTTP/2): it is
    // offered once more here, and refused.
    transfer.ownResult = CURLE_ABORTED_BY_CALLBACK;
    curl_easy_pause(transfer.easy.get(), CURLPAUSE_CONT);
  }
  curl_multi_remove_handle(multi_.get(), transfer.easy.get());
  transfer.slot->staging.clear();
  freeSlots_.splice(freeSlots_.end(), slots_, transfer.slot);
  transfer.active = false;
  --activeCount_;
}

std::size_t CurlMultiBackend::onHeader(char* bytes, std::size_t size, std::size_t count, void* userdata) {
  auto& transfer = *static_cast<Transfer*>(userdata);
  try {
    transfer.head.add({bytes, size * count});
  } catch (...) {
    return 0;  // out of memory: ends the transfer with libcurl's write error
  }
  return size * count;
}

std::size_t CurlMultiBackend::onBody(char* bytes, std::size_t size, std::size_t count, void* userdata) {
  auto& transfer = *static_cast<Transfer*>(userdata);
  const std::size_t length = size * count;
  try {
    if (transfer.ownResult) return CURL_WRITEFUNC_ERROR;
    if (transfer.errorResponse()) {
      transfer.errorBody.append(bytes, std::min(length, kMaxErrorBody - transfer.errorBody.size()));
      return length;
    }
    if (transfer.heldByHost) return CURL_WRITEFUNC_PAUSE;
    if (transfer.body == Transfer::Body::Unjudged && !transfer.judge()) return CURL_WRITEFUNC_ERROR;
    if (!transfer.slot->bucket.take(length, nowNs())) {
      transfer.throttledPiece = length;
      return CURL_WRITEFUNC_PAUSE;
    }
    if (transfer.body == Transfer::Body::Dropped) return length;
    return transfer.take(reinterpret_cast<const std::uint8_t*>(bytes), length) ? length : CURL_WRITEFUNC_ERROR;
  } catch (...) {
    transfer.ownResult = CURLE_WRITE_ERROR;
    return CURL_WRITEFUNC_ERROR;
  }
}

void CurlMultiBackend::flushBodies() {
  for (auto next = active_.begin(); next != active_.end();) {
    const auto position = next++;
    try {
      (*position)->flush();
    } catch (...) {
      completeTransfer(position, CURLE_WRITE_ERROR);
    }
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
  if (!policy_.useHttp2 || transfer.head.head().status != 0) return false;
  // Sent on a connection that the server was about to end.
  if (result == CURLE_HTTP2) return ++transfer.goneConnections <= kMostGoneConnections;
  // Not sent: libcurl 7.88 puts a transfer on a connection that is still being made, next to one that is full or ends.
  const std::uint64_t seconds = policy_.connectTimeoutSec > 0 ? policy_.connectTimeoutSec : kDefaultConnectTimeoutSec;
  return result == CURLE_FAILED_INIT && nowNs() - transfer.firstAddedNs < seconds * 1'000'000'000;
}

void CurlMultiBackend::putBack(Transfers::iterator position) {
  Transfer& transfer = **position;
  leaveMulti(transfer);
  transfer.ownResult.reset();
  putBack_.splice(putBack_.end(), active_, position);
}

void CurlMultiBackend::completeTransfer(Transfers::iterator position, CURLcode curlResult) {
  Transfers ended;
  ended.splice(ended.end(), active_, position);
  Transfer& transfer = **position;
  std::int32_t result = transfer.ownResult.value_or(curlResult);
  try {
    transfer.flush();
  } catch (...) {
    result = CURLE_WRITE_ERROR;
  }
  long code = 0;
  if (curlResult == CURLE_OK) curl_easy_getinfo(transfer.easy.get(), CURLINFO_RESPONSE_CODE, &code);
  leaveMulti(transfer);
  const std::int32_t status =
      transfer.head.head().status > 0 ? transfer.head.head().status : static_cast<std::int32_t>(code);
  const std::uint64_t got = transfer.delivered();

  if (result == CURLE_OK && transfer.end != 0 && got < transfer.end - transfer.rangeStart) {
    const std::uint64_t expected = transfer.end - transfer.rangeStart;
    curl_off_t announced = -1;
    curl_easy_getinfo(transfer.easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    if (announced >= 1 && static_cast<std::uint64_t>(announced) == transfer.position - transfer.bodyOffset) {
      XFER_LOG(log::kRecovery, "short transfer (metadata mismatch, accepting) | range="
                                   << transfer.rangeStart << " | metadata=" << expected << " | server=" << got);
    } else {
      XFER_LOG(log::kRecovery,
               "short transfer | range=" << transfer.rangeStart << " | expected=" << expected << " | got=" << got);
      result = CURLE_PARTIAL_FILE;
    }
  }
  XFER_LOG(log::kTrace,
           "done | range=" << transfer.rangeStart << " | err=" << result << " | http=" << status << " | bytes=" << got);
  if (status >= 400 && !transfer.errorBody.empty()) {
    XFER_LOG(log::kFailure,
             "HTTP " << status << " response body (" << transfer.errorBody.size() << " bytes): " << transfer.errorBody);
  }
  finishTransfer(transfer, result, status, got);
}

void CurlMultiBackend::finishTransfer(const Transfer& transfer, std::int32_t result, std::int32_t httpStatus,
                                      std::uint64_t bytes) {
  if (!transfer.onDone) return;
  try {
    transfer.onDone(transfer.rangeStart, result, httpStatus, bytes);
  } catch (...) {
    XFER_LOG(log::kFailure, "finishTransfer | done_cb threw");
  }
}

void CurlMultiBackend::resumeThrottled() {
  const std::uint64_t now = nowNs();
  for (auto next = active_.begin(); next != active_.end();) {
    const auto position = next++;
    Transfer& transfer = **position;
    if (transfer.throttledPiece == 0 || transfer.heldByHost) continue;
    if (!transfer.slot->bucket.wouldTake(transfer.throttledPiece, now)) continue;
    transfer.throttledPiece = 0;
    applyPauses(position);
  }
}

void CurlMultiBackend::applyPauses(Transfers::iterator position) {
  const Transfer& transfer = **position;
  int held = CURLPAUSE_CONT;
  if (transfer.heldByHost) {
    held = CURLPAUSE_ALL;
  } else if (transfer.throttledPiece != 0) {
    held = CURLPAUSE_RECV;
  }
  const CURLcode result = curl_easy_pause(transfer.easy.get(), held);
  // A handle that has not started yet refuses (the body callback holds it later).  Any other failure comes from the
  // body callback, which runs inside the call when it lets go; no message reports it.
  if (result != CURLE_OK && result != CURLE_BAD_FUNCTION_ARGUMENT) completeTransfer(position, result);
}

}  // namespace xfer
