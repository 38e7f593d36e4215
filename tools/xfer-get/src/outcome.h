// Maps results to exit codes and messages.  A message says what was asked for, what came of it and what to do, in one
// line that a terminal can be shown: no control character of a server, a URL or a path gets through, and no login of a
// URL.  Pure.
//
// Errors: std::bad_alloc.
#pragma once

#include <cstdint>
#include <string>

#include "checksum.h"
#include "xfer/xfer.hpp"

namespace xfer_get {

enum ExitCode : int {
  kDone = 0,
  kInternal = 1,
  kUsage = 2,
  kFile = 3,
  kNetwork = 4,
  kHttpStatus = 5,
  kTrust = 6,
  kChecksum = 7,  ///< the file has arrived, and its checksum differs
  kCancelled = 130
};

struct Outcome {
  ExitCode code = kDone;
  std::string message;  ///< empty: success
};

/// What a message is about.
struct Asked {
  std::string url;
  std::string path;      ///< of the file; empty: standard output
  bool proxied = false;  ///< asked through a proxy
};

/// failureText: of the job's details.  Requires: the download's state is final.
Outcome downloadOutcome(const Asked& asked, const xfer::DownloadSnapshot& snapshot, const std::string& failureText);

/// failureText: what FetchOptions::setOnFailure was told; empty without a failure.
Outcome responseOutcome(const Asked& asked, const xfer::Response& response, const std::string& failureText);

/// As responseOutcome.
Outcome infoOutcome(const Asked& asked, const xfer::RemoteFileInfo& info, const std::string& failureText);

/// Of a file that cannot be written or read.  came: what came of it, for people.
Outcome fileOutcome(const Asked& asked, const std::string& came);

/// Of a download that was broken off while its checksum was computed.
Outcome uncheckedOutcome(const Asked& asked);

/// Of what has arrived with this digest, in lower-case digits.
Outcome checksumOutcome(const Asked& asked, const Checksum& wanted, const std::string& hex);

/// Of a download that was broken off when its time was over.
Outcome lateOutcome(const Asked& asked, std::uint32_t maxTimeSec);

/// What is said beside success when a file's bytes are encoded.
std::string encodingNote(const Asked& asked, const std::string& encoding);

}  // namespace xfer_get
