// Keeps every option that the program sets on libcurl's handles, as text: "BUFFERSIZE" is "524288".
//
// The calls come through the linker: a test program has recorded_options.cpp among its sources and links with --wrap
// for each function that is defined there.  Each call goes on to libcurl.
//
// Values: numbers are decimal.  Strings and lists are copied at the time of the call; the lines of a list end with line
//         feeds.  Other pointers and functions are "set", null is "null".  An option that was set more than once has
//         all its values, in order, with "; " between them.
// Names:  libcurl's own without CURLOPT_, CURLMOPT_ or CURLSHOPT_.  One that it does not know is its number.
// Threads: any.
#pragma once

#include <curl/curl.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace support {

using Options = std::map<std::string, std::string>;

/// What was set on one handle from its creation to its end.
struct RecordedHandle {
  const void* handle = nullptr;
  Options options;  ///< of an easy handle: until a multi handle took it
  Options later;    ///< of an easy handle: while or after a multi handle had it
};

/// Every handle that was created since the last forgetHandles, in that order; those of shares since the program began.
/// Easy handles without any option are left out: a libcurl that is linked statically makes some for itself.
std::vector<RecordedHandle> easyHandles();
std::vector<RecordedHandle> multiHandles();
std::vector<RecordedHandle> shareHandles();

/// Forgets easy and multi handles.  Requires: none is in use.
void forgetHandles();

/// What libcurl is to answer to an option of an easy handle that it then does not get; CURLE_OK: the option goes on to
/// libcurl.
using OptionRefusal = std::function<CURLcode(const std::string& name)>;

/// While it lives, options of easy handles meet the refusal.  One at a time.
class RefusedOptions {
 public:
  explicit RefusedOptions(OptionRefusal refusal);
  ~RefusedOptions();
  RefusedOptions(const RefusedOptions&) = delete;
  RefusedOptions& operator=(const RefusedOptions&) = delete;
};

}  // namespace support
