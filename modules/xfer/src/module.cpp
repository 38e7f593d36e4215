// What happens when the library is loaded and unloaded.
#include "sys/module.h"

#include <curl/curl.h>

#include "share_pool.h"

namespace sys {

// On Windows this runs under the loader lock, where libcurl and Winsock do not like to be initialised: no other thread
// is started and nothing is waited for, and it is the one call that has to come before a host's first.
void onModuleLoad() noexcept {
  curl_global_init(CURL_GLOBAL_ALL);
}

void onModuleUnload() noexcept {
  xfer::sharePool().close();
  curl_global_cleanup();
}

}  // namespace sys
