// The host's core library as a module sees it, and the setup functions of the stand-in.
//
// Threads: every function may be called from any thread.
// Errors:  setSettingsName throws std::bad_alloc without memory.
#pragma once

#include <cstdint>

#include "keel/export.h"
#include "keel/logger.h"

namespace Keel {

/// The host's name; "" until it is set.  Valid until the next setSettingsName.
KEEL_API const char* getSettingsName();

// ---- For hosts of the stand-in only, which link xfer::keel ----

/// Receives log records.  The texts are valid only during the call; tag, and no other, is null for a record without
/// one.  Called on the logging thread, by several threads at once.  Must not throw.
using RecordSink = void (*)(void* context, std::uint32_t level, const char* tag, const char* text, const char* file,
                            std::uint32_t line);

/// Must not race with getSettingsName: set the name before any module is used.
KEEL_API void setSettingsName(const char* name);

/// The verbosity of the logger (3 failures, 4 recoveries, 6 traces); 3 until it is set.
KEEL_API void setLogThreshold(std::uint32_t threshold);

/// Sends every later record to sink, with context.  Null (the initial value) turns logging off: createLogger fails.
/// Waits until no thread is inside the previous sink, so that its context may be freed.  Must not be called from a
/// sink.
KEEL_API void setRecordSink(RecordSink sink, void* context);

}  // namespace Keel
