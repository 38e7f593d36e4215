#include "support/curl_polls.h"

#include <curl/curl.h>

#include <algorithm>

namespace {

constexpr int kPatientMs = 60'000;

std::atomic<int> g_patient{0};

}  // namespace

extern "C" {
CURLMcode __real_curl_multi_poll(CURLM* multi, curl_waitfd* fds, unsigned int count, int timeoutMs, int* ready);
CURLMcode __wrap_curl_multi_poll(CURLM* multi, curl_waitfd* fds, unsigned int count, int timeoutMs, int* ready) {
  support::CurlPolls& polls = support::curlPolls();
  ++polls.count;
  if (timeoutMs > polls.longestMs) polls.longestMs = timeoutMs;
  return __real_curl_multi_poll(multi, fds, count, g_patient > 0 ? std::max(timeoutMs, kPatientMs) : timeoutMs, ready);
}
}

namespace support {

CurlPolls& curlPolls() {
  static CurlPolls polls;
  return polls;
}

PatientPolls::PatientPolls() {
  ++g_patient;
}

PatientPolls::~PatientPolls() {
  --g_patient;
}

}  // namespace support
