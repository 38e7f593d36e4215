// The logger of the host's core library.  Knows nothing of its callers.
//
// Threads: every operation may be called from any thread at any time.
// Errors:  none are reported; a logger that cannot write loses the record.
// Layout:  the order of the virtual functions is a contract with separately built modules.  There is no virtual
//          destructor (release() ends the object), so the vtable is the same under every C++ ABI.
#pragma once

#include <cstdint>

#include "keel/export.h"

namespace Keel {

/// A host implements it; references are counted.
class ILogger {
 public:
  /// Adds a reference.
  virtual void addRef() = 0;

  /// Drops a reference; the last one destroys the logger.
  virtual void release() = 0;

  /// Writes one record.  tag is null for a record without one.  The texts are only read during the call.
  virtual void write(std::uint32_t level, const char* tag, const char* text, const char* file, std::uint32_t line) = 0;

  /// The verbosity: records of this level and of every lower one are logged.
  virtual std::uint32_t threshold() = 0;

 protected:
  ~ILogger() = default;
};

}  // namespace Keel

extern "C" {
/// Stores a counted reference in *out and returns 0; the caller releases it.  Any other result: there is no logger, and
/// *out is unchanged.  Any thread.
KEEL_API int createLogger(Keel::ILogger** out);
}
