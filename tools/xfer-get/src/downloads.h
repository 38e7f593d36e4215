// Runs downloads, so many at once, to their ends.
//
// Threads: one, which it blocks.  A signal (terminal.h) breaks them all off.
// Errors:  the outcomes; std::bad_alloc.
#pragma once

#include <vector>

#include "options.h"
#include "outcome.h"
#include "report.h"
#include "target.h"

namespace xfer_get {

/// Returns kCancelled when one was broken off, or not begun; else the code of the first target that failed, as they are
/// ordered.
ExitCode runDownloads(const Options& options, const std::vector<Target>& targets, Report& report);

}  // namespace xfer_get
