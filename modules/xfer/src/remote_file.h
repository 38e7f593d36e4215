// The question that a job without a size asks the server first: how large the file is, and whether it serves ranges.
// Only the head of the last response counts, and nothing of a body is kept.
//
// Threads: any.
// Errors:  in RemoteFileInfo::error; memory exhaustion throws.
#pragma once

#include "response_head.h"
#include "stop_signal.h"
#include "xfer/download_job.h"

namespace xfer {

/// Asks for the first byte with the request's headers, cookie and proxy.  stop ends it as it ends a fetch.  Large
/// bodies are ended early, which is no failure; small ones are read, so that their connection can be used again.
RemoteFileInfo probeStoppable(const DownloadRequest& request, int timeoutSec, const StopSignal& stop);

/// What the head of the answer to a request for the first byte says of the file.  Pure.
RemoteFileInfo remoteFileInfo(const ResponseHead& head);

}  // namespace xfer
