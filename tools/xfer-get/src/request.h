// What is printed instead of stored: bodies as they arrive, headers, and what a server tells of a file.
//
// Threads: one; blocks until the answer is there.
// Errors:  the outcome; std::bad_alloc.
#pragma once

#include <optional>

#include "checksum.h"
#include "net/proxy.h"
#include "options.h"
#include "outcome.h"

namespace xfer_get {

/// For -p, -I, -d and their kin: one request; its answer goes to standard output, error pages too.
Outcome printAnswer(const Options& options, const net::Proxy& proxy);

/// For -o -: the file goes to standard output, in order over one connection; error pages do not.
Outcome printFile(const Options& options, const net::Proxy& proxy, const std::optional<Checksum>& checksum);

/// For --info.
Outcome printInfo(const Options& options, const net::Proxy& proxy);

}  // namespace xfer_get
