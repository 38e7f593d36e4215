#include "xfer/cancel_token.h"

#include "stop_signal.h"

namespace xfer {

CancelToken::CancelToken() : signal_(std::make_shared<StopSignal>()) {}

CancelToken::CancelToken(const CancelToken& other) noexcept = default;

CancelToken& CancelToken::operator=(const CancelToken& other) noexcept = default;

CancelToken::~CancelToken() = default;

void CancelToken::cancel() noexcept {
  signal_->set();
}

bool CancelToken::cancelled() const noexcept {
  return signal_->isSet();
}

}  // namespace xfer
