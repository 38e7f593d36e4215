// The probe of a remote file, for the library's own use: as probeRemoteFile, but another thread can end it early.
#pragma once

#include <string>

#include "net/proxy.h"
#include "stop_signal.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"

namespace xfer {

RemoteFileInfo probeStoppable(const std::string& url, const net::Proxy& proxy, const std::string& cookie,
                              int timeoutSec, const StopSignal& stop);

/// What the answer to a request for the first byte says of the file.  Pure.
RemoteFileInfo remoteFileInfo(const Response& response);

}  // namespace xfer
