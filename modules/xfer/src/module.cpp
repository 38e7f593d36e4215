// The library's load and unload hooks.
#include "sys/module.h"

#include <curl/curl.h>

#include "share_pool.h"

namespace sys {

// On Windows this runs under the loader lock, where initialising libcurl and Winsock is discouraged.  It is safe: it
// starts no thread and waits for none.  It must come before a host's first call.
void onModuleLoad() noexcept {
  curl_global_init(CURL_GLOBAL_ALL);
}

void onModuleUnload() noexcept {
  xfer::sharePool().close();
  curl_global_cleanup();
}

}  // namespace sys
