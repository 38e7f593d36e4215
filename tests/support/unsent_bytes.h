// How much of what was written to a socket its peer has not acknowledged.  One twin a platform.
#pragma once

#include <cstdint>

namespace support {

/// Takes the native handle; 0 where the platform cannot tell.
std::size_t unsentBytes(std::uintptr_t socket);

}  // namespace support
