#include "xfer/fetch_options.h"

#include <utility>

#include "fetch_option_values.h"

namespace xfer {

FetchOptions::FetchOptions() : values_(std::make_unique<Values>()) {}

FetchOptions::FetchOptions(const FetchOptions& other) : values_(std::make_unique<Values>(*other.values_)) {}

FetchOptions::FetchOptions(FetchOptions&& other) noexcept = default;

FetchOptions& FetchOptions::operator=(const FetchOptions& other) {
  if (this != &other) values_ = std::make_unique<Values>(*other.values_);
  return *this;
}

FetchOptions& FetchOptions::operator=(FetchOptions&& other) noexcept = default;

FetchOptions::~FetchOptions() = default;

FetchOptions& FetchOptions::setVerifyPeer(bool verify) {
  values_->trust.verifyPeer = verify;
  return *this;
}

FetchOptions& FetchOptions::setCaFile(const std::string& path) {
  values_->trust.caFile = path;
  return *this;
}

FetchOptions& FetchOptions::setPinnedKey(const std::string& pin) {
  values_->trust.pinnedKey = pin;
  return *this;
}

FetchOptions& FetchOptions::setUserAgent(const std::string& userAgent) {
  values_->userAgent = userAgent;
  return *this;
}

FetchOptions& FetchOptions::setMethod(const std::string& method) {
  values_->method = method;
  return *this;
}

FetchOptions& FetchOptions::setMaxRedirects(std::uint32_t redirects) {
  values_->maxRedirects = redirects;
  return *this;
}

FetchOptions& FetchOptions::setOnBody(std::function<bool(std::int32_t httpStatus, std::string_view bytes)> callback) {
  values_->onBody = std::move(callback);
  return *this;
}

FetchOptions& FetchOptions::setOnFailure(std::function<void(const std::string& text)> callback) {
  values_->onFailure = std::move(callback);
  return *this;
}

FetchOptions& FetchOptions::setCancelToken(const CancelToken& token) {
  values_->stop = token.signal_;
  return *this;
}

const FetchOptions::Values& FetchOptions::values() const {
  return *values_;
}

}  // namespace xfer
