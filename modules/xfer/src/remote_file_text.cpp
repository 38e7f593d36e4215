#include "remote_file_text.h"

#include <algorithm>
#include <string_view>

#include "fetch_option_values.h"
#include "fetch_stoppable.h"
#include "request_text.h"

namespace xfer {
namespace {

std::string declaredType(const std::string& headers) {
  // Intended: exact, case-sensitive match, unlike the length fields.
  constexpr std::string_view kName = "Content-Type:";
  const auto name = headers.find(kName);
  if (name == std::string::npos) return {};
  const auto begin = std::min(headers.find_first_not_of(' ', name + kName.size()), headers.size());
  const auto end = headers.find_first_of("\r\n;", begin);
  return headers.substr(begin, end == std::string::npos ? end : end - begin);
}

}  // namespace

RemoteFileInfo remoteFileInfo(const Response& response) {
  RemoteFileInfo info;
  if (response.curlCode != 0) {
    info.error = response.curlCode;
    return info;
  }
  info.httpStatus = response.status;
  if (response.status == 206) {
    info.acceptRanges = true;
    // "*" (an unknown total) has no digits and gives 0.
    if (const auto total = contentRangeTotal(response.headers)) info.size = leadingNumber(*total).value_or(0);
  } else if (response.status == 200) {
    if (const auto length = contentLengthText(response.headers)) info.size = leadingNumber(*length).value_or(0);
    // Intended: exact, case-sensitive match.
    info.acceptRanges = response.headers.find("Accept-Ranges: bytes") != std::string::npos;
  } else {
    info.error = response.status;
  }
  info.contentType = declaredType(response.headers);
  return info;
}

RemoteFileInfo probeRemoteFile(const std::string& url, const net::Proxy& proxy, const std::string& cookie,
                               int timeoutSec) {
  return probeRemoteFile(url, proxy, cookie, timeoutSec, {});
}

RemoteFileInfo probeRemoteFile(const std::string& url, const net::Proxy& proxy, const std::string& cookie,
                               int timeoutSec, const FetchOptions& options) {
  Request request;
  request.url = url;
  request.cookie = cookie;
  request.headers = {"Range: bytes=0-0"};
  addUserAgent(request.headers, options.values().userAgent);
  request.proxy = proxy;
  request.timeoutSec = timeoutSec;
  request.quiet = true;
  const CountedResponse counted = fetchCounted(request, options.values().trust);
  tellFailure(options.values(), counted.response.curlCode, counted.failure);
  return remoteFileInfo(counted.response);
}

}  // namespace xfer
