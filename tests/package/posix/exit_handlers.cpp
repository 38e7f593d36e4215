// Stands before libcurl's initialisation: what libcurl and the TLS library below it register for the process' exit then
// is stood for by one handler, which no thread of the library's may outlive.  Exit code: 6 when one does.
#include <curl/curl.h>

#include <cstdlib>
#include <thread>

#include "support/census.h"
#include "support/test_timeout.h"
#include "support/wait_until.h"

namespace {

std::size_t threadsOfTheirOwn() {
  std::thread([] {}).join();  // what comes with a process' first thread, and stays
  return support::threadCount();
}

// As many as there are before main; the joined one may still be listed.
const std::size_t g_threads = threadsOfTheirOwn();

void expectNoThread() {
  if (!support::waitUntil([] { return support::threadCount() <= g_threads; }, support::testTimeout() / 10)) {
    std::_Exit(6);
  }
}

}  // namespace

extern "C" {
CURLcode __real_curl_global_init(long flags);
CURLcode __wrap_curl_global_init(long flags) {
  static const bool registered = std::atexit(expectNoThread) == 0;
  return registered ? __real_curl_global_init(flags) : CURLE_FAILED_INIT;
}
}
