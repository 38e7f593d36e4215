// Probes the server for a file's size and range support, for a job without a size.  Uses only the head of the last
// response and discards the body.
//
// Threads: any.
// Errors:  in RemoteFileInfo::error; throws std::bad_alloc without memory.
#pragma once

#include <utility>

#include "response_head.h"
#include "short_text.h"
#include "stop_signal.h"
#include "tls_trust.h"
#include "xfer/download_job.h"

namespace xfer {

/// What a probe has learned, and what lies behind its failure.
struct ProbedFile : RemoteFileInfo {
  ProbedFile() = default;
  ProbedFile(RemoteFileInfo info, const ShortText& why = {})  // NOLINT(google-explicit-constructor): it is one
      : RemoteFileInfo(std::move(info)), failure(why) {}

  ShortText failure;
};

/// Requests the first byte with the request's headers, cookie and proxy.  Setting stop aborts it, as in fetchInto.
/// Cuts off a large body, which is no failure; reads a small one, so that its connection can be reused.
ProbedFile probeStoppable(const DownloadRequest& request, int timeoutSec, const StopSignal& stop,
                          const TlsTrust& trust = {});

/// Reads the file's description from the response head to a request for the first byte.  Pure.
RemoteFileInfo remoteFileInfo(const ResponseHead& head);

}  // namespace xfer
