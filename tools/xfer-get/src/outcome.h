// What the program ends with: exit codes, and words for result codes.  Pure.
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
  kCancelled = 130
};

struct Outcome {
  ExitCode code = kDone;
  std::string message;  ///< empty when all went well
};

/// Of a download in a final state.
Outcome downloadOutcome(const xfer::DownloadSnapshot& snapshot);

/// Of a single request.
Outcome responseOutcome(const xfer::Response& response);

/// Of a question for a file's size and type.
Outcome infoOutcome(const xfer::RemoteFileInfo& info);

}  // namespace xfer_get
