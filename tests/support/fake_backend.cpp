#include "support/fake_backend.h"

#include <curl/curl.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "support/pattern.h"
#include "support/wait_until.h"

namespace support {

std::unique_ptr<xfer::ITransferBackend> FakeTransfers::makeBackend() {
  return std::make_unique<FakeBackend>(*this);
}

std::vector<xfer::TransferRequest> FakeTransfers::submissions() const {
  const sys::MutexLock lock(mutex_);
  std::vector<xfer::TransferRequest> requests;
  for (const auto& transfer : transfers_) requests.push_back(transfer->request);
  return requests;
}

std::vector<std::uint64_t> FakeTransfers::submittedStarts() const {
  const sys::MutexLock lock(mutex_);
  std::vector<std::uint64_t> starts;
  for (const auto& transfer : transfers_) starts.push_back(transfer->request.rangeStart);
  return starts;
}

bool FakeTransfers::waitForSubmissions(std::size_t count) const {
  return waitUntil([&] { return submittedStarts().size() >= count; });
}

std::vector<std::uint64_t> FakeTransfers::inFlight() const {
  const sys::MutexLock lock(mutex_);
  std::vector<std::uint64_t> starts;
  for (const auto& transfer : transfers_) {
    if (!transfer->ended) starts.push_back(transfer->request.rangeStart);
  }
  return starts;
}

bool FakeTransfers::waitForInFlight(std::uint64_t rangeStart) const {
  return waitUntil([&] {
    const auto starts = inFlight();
    return std::find(starts.begin(), starts.end(), rangeStart) != starts.end();
  });
}

std::vector<BackendCall> FakeTransfers::calls() const {
  const sys::MutexLock lock(mutex_);
  return calls_;
}

std::size_t FakeTransfers::count(BackendCommand command) const {
  const sys::MutexLock lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(calls_.begin(), calls_.end(), [&](const BackendCall& call) { return call.command == command; }));
}

void FakeTransfers::refuseSubmissions(std::int32_t code) {
  const sys::MutexLock lock(mutex_);
  refusal_ = code;
}

void FakeTransfers::throwOnSubmit() {
  const sys::MutexLock lock(mutex_);
  throws_ = true;
}

std::shared_ptr<FakeTransfers::Transfer> FakeTransfers::running(std::uint64_t rangeStart) const {
  const sys::MutexLock lock(mutex_);
  for (const auto& transfer : transfers_) {
    if (!transfer->ended && transfer->request.rangeStart == rangeStart) return transfer;
  }
  throw std::logic_error("no transfer in flight for the range at " + std::to_string(rangeStart));
}

void FakeTransfers::end(Transfer& transfer, const xfer::TransferEnd& how) {
  {
    const sys::MutexLock lock(mutex_);
    transfer.ended = true;
  }
  transfer.onDone(transfer.request.rangeStart, how);
}

xfer::Placement FakeTransfers::answer(std::uint64_t rangeStart, const xfer::ResponseHead& head) {
  const auto transfer = running(rangeStart);
  const xfer::Placement placement = transfer->request.onHead(head);
  if (placement.action == xfer::Placement::Action::Stop) end(*transfer, {placement.code, head.status, 0});
  return placement;
}

void FakeTransfers::deliver(std::uint64_t rangeStart, std::uint64_t offset, const std::string& bytes) {
  running(rangeStart)->onData(offset, reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

void FakeTransfers::finish(std::uint64_t rangeStart, std::int32_t code, std::int32_t httpStatus, std::uint64_t bytes) {
  finish(rangeStart, {code, httpStatus, bytes});
}

void FakeTransfers::finish(std::uint64_t rangeStart, const xfer::TransferEnd& how) {
  end(*running(rangeStart), how);
}

void FakeTransfers::serve(std::uint64_t rangeStart) {
  const auto transfer = running(rangeStart);
  const std::uint64_t rangeEnd = transfer->request.rangeEnd;
  xfer::ResponseHead head;
  head.status = 206;
  head.contentRange = xfer::ContentRange{rangeStart, rangeEnd - 1, std::nullopt};
  answer(rangeStart, head);
  deliver(rangeStart, rangeStart, patternBytes(rangeStart, rangeEnd));
  finish(rangeStart, 0, 206, rangeEnd - rangeStart);
}

void FakeTransfers::turn(const xfer::LoopTurn& turn) const {
  std::function<void(const xfer::LoopTurn&)> callback;
  {
    const sys::MutexLock lock(mutex_);
    callback = onTurn_;
  }
  if (callback) callback(turn);
}

void FakeTransfers::stop() {
  std::vector<std::shared_ptr<Transfer>> ending;
  {
    const sys::MutexLock lock(mutex_);
    if (!stopped_) calls_.push_back({BackendCommand::Stop, 0});
    stopped_ = true;
    onTurn_ = nullptr;
    for (const auto& transfer : transfers_) {
      if (!transfer->ended) ending.push_back(transfer);
    }
  }
  for (const auto& transfer : ending) end(*transfer, {CURLE_ABORTED_BY_CALLBACK, 0, 0});
}

xfer::Ticket FakeBackend::submit(const xfer::TransferRequest& request, xfer::DataCallback onData,
                                 xfer::DoneCallback onDone) {
  const auto transfer = std::make_shared<FakeTransfers::Transfer>();
  transfer->request = request;
  transfer->onData = std::move(onData);
  transfer->onDone = std::move(onDone);
  std::optional<std::int32_t> refusal;
  {
    const sys::MutexLock lock(transfers_.mutex_);
    if (transfers_.throws_) throw std::runtime_error("submit");
    refusal = transfers_.stopped_ ? CURLE_ABORTED_BY_CALLBACK : transfers_.refusal_;
    transfer->ended = refusal.has_value();
    transfer->ticket = transfers_.transfers_.size() + 1;
    transfers_.transfers_.push_back(transfer);
  }
  if (refusal) transfer->onDone(request.rangeStart, {*refusal, 0, 0});
  return transfer->ticket;
}

void FakeBackend::cancel(xfer::Ticket ticket) noexcept {
  const sys::MutexLock lock(transfers_.mutex_);
  const auto& transfer = *transfers_.transfers_.at(ticket - 1);
  if (!transfer.ended) transfers_.calls_.push_back({BackendCommand::Cancel, transfer.request.rangeStart});
}

void FakeBackend::cut(xfer::Ticket ticket, std::uint64_t end) {
  const sys::MutexLock lock(transfers_.mutex_);
  const auto& transfer = *transfers_.transfers_.at(ticket - 1);
  if (!transfer.ended) transfers_.calls_.push_back({BackendCommand::Cut, transfer.request.rangeStart, end});
}

void FakeBackend::onTurn(std::function<void(const xfer::LoopTurn&)> callback) {
  const sys::MutexLock lock(transfers_.mutex_);
  transfers_.onTurn_ = std::move(callback);
}

std::int32_t FakeBackend::activeCount() const {
  return static_cast<std::int32_t>(transfers_.inFlight().size());
}

void FakeBackend::record(const BackendCall& call) {
  const sys::MutexLock lock(transfers_.mutex_);
  transfers_.calls_.push_back(call);
}

}  // namespace support
