// The module-wide proxy of xfer_setProxy.
//
// Threads: any; readers see the old or the new setting, never a mixture.
#pragma once

#include "net/proxy.h"

namespace xfer {

/// Replaces the setting.  Empty host: no proxy.
void setModuleProxy(const net::Proxy& proxy);

/// Parses spec; for a null or empty spec returns the module's setting.
net::Proxy resolveProxy(const char* spec);

}  // namespace xfer
