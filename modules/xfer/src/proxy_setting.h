// The proxy that xfer_setProxy sets for the whole module.
//
// Threads: any; a reader sees the old or the new setting, never a mixture.
#pragma once

#include "net/proxy.h"

namespace xfer {

/// Replaces the setting.  An empty host means that there is none.
void setModuleProxy(const net::Proxy& proxy);

/// The proxy that spec describes; for a null or empty spec the module's setting.
net::Proxy resolveProxy(const char* spec);

}  // namespace xfer
