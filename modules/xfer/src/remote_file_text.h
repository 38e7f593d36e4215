// How probeRemoteFile reads an answer: names are searched anywhere in the headers of all responses.
//
// Threads: any.  Errors: none; whatever a text holds gives some result.
#pragma once

#include "xfer/download_job.h"
#include "xfer/fetch.h"

namespace xfer {

/// What the answer to a request for the first byte says of the file.  Pure.
RemoteFileInfo remoteFileInfo(const Response& response);

}  // namespace xfer
