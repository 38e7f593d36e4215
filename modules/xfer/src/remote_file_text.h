// Response parsing of probeRemoteFile: searches names anywhere in the headers of all responses.
//
// Threads: any.  Errors: none; every text gives a result.
#pragma once

#include "xfer/download_job.h"
#include "xfer/fetch.h"

namespace xfer {

/// Reads the file's description from the response to a request for the first byte.  Pure.
RemoteFileInfo remoteFileInfo(const Response& response);

}  // namespace xfer
