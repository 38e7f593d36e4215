#include "support/unsent_bytes.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

namespace support {

std::size_t unsentBytes(std::uintptr_t socket) {
  int bytes = 0;
  if (::ioctl(static_cast<int>(socket), SIOCOUTQ, &bytes) != 0) return 0;
  return static_cast<std::size_t>(bytes);
}

}  // namespace support
