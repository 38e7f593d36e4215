// What the program asks of curl_multi_poll, and how long that lasts.  Programs are linked with --wrap=curl_multi_poll.
//
// Threads: any.
#pragma once

#include <atomic>

namespace support {

struct CurlPolls {
  std::atomic<int> count{0};
  std::atomic<int> longestMs{0};  // that one of them allowed
};

/// Those of the program, since the numbers were set to 0.
CurlPolls& curlPolls();

/// While one lives, a poll goes on until something happens, whatever time it allows: who is not woken is late by far,
/// and no busy machine looks like that.  Not for requests with a large body: under Wine a poll may miss that more of it
/// can be sent, and then only its time ends it.
class PatientPolls {
 public:
  PatientPolls();
  ~PatientPolls();
  PatientPolls(const PatientPolls&) = delete;
  PatientPolls& operator=(const PatientPolls&) = delete;
};

}  // namespace support
