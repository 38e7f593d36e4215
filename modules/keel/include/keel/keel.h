// The host's core library as a module sees it, and what a host of the stand-in needs to set it up.
//
// Threads: every function may be called from any thread.
// Errors:  none; what cannot be stored for lack of memory throws std::bad_alloc.
#pragma once

#include <cstdint>

#include "keel/export.h"
#include "keel/logger.h"

namespace Keel {

/// The name that the host gave itself; "" until it is set.  The text is valid until the next setSettingsName.
KEEL_API const char* getSettingsName();

// ---- For the host: only the stand-in has what follows. ----

/// Where records go.  The texts are only valid during the call; tag is null for a record without one.  Called from
/// whichever thread logs, from several at once.
using RecordSink = void (*)(void* context, std::uint32_t level, const char* tag, const char* text, const char* file,
                            std::uint32_t line);

/// Must not race with getSettingsName: set the name before any module is used.
KEEL_API void setSettingsName(const char* name);

/// The verbosity of the logger (3 failures, 4 recoveries, 6 traces); 3 until it is set.
KEEL_API void setLogThreshold(std::uint32_t threshold);

/// Sends every later record to sink, with context; a null sink, which is where things start, makes createLogger fail,
/// so that nothing is logged.  Returns when no thread is inside the earlier sink any more, so that its context may be
/// freed.  Not to be called from inside a sink.
KEEL_API void setRecordSink(RecordSink sink, void* context);

}  // namespace Keel
