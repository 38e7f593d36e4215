// What FetchOptions holds.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "stop_signal.h"
#include "tls_trust.h"
#include "xfer/fetch_options.h"

namespace xfer {

using BodyCallback = std::function<bool(std::int32_t httpStatus, std::string_view bytes)>;
using FailureCallback = std::function<void(const std::string& text)>;

struct FetchOptions::Values {
  TlsTrust trust{};
  std::string userAgent{};
  std::string method{};
  std::optional<std::uint32_t> maxRedirects{};
  BodyCallback onBody{};
  FailureCallback onFailure{};
  std::shared_ptr<const StopSignal> stop{};  ///< null: the request cannot be cancelled
};

}  // namespace xfer
