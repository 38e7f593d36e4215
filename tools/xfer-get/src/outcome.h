// Maps results to exit codes and messages.  Pure.
#pragma once

#include <cstdint>
#include <string>

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
  kCancelled = 130
};

struct Outcome {
  ExitCode code = kDone;
  std::string message;  ///< empty: success
};

/// Requires: the download's state is final.
Outcome downloadOutcome(const xfer::DownloadSnapshot& snapshot);

Outcome responseOutcome(const xfer::Response& response);

Outcome infoOutcome(const xfer::RemoteFileInfo& info);

}  // namespace xfer_get
