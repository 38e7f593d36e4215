#include "module_defaults.h"

#include <algorithm>
#include <atomic>

namespace xfer {
namespace {

std::atomic<std::uint16_t> g_connections{1};

}  // namespace

void setModuleConnections(std::uint16_t value) noexcept {
  g_connections = value;
}

std::uint16_t moduleConnections() noexcept {
  return std::max<std::uint16_t>(g_connections, 1);
}

}  // namespace xfer
