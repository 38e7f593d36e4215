// Owning pointers to libcurl's handles.  Nothing else in the library frees one.
#pragma once

#include <curl/curl.h>

#include <memory>

namespace xfer {

struct SlistDeleter {
  void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
};
struct EasyDeleter {
  void operator()(CURL* easy) const noexcept { curl_easy_cleanup(easy); }
};
struct MultiDeleter {
  void operator()(CURLM* multi) const noexcept { curl_multi_cleanup(multi); }
};
struct ShareDeleter {
  void operator()(CURLSH* share) const noexcept { curl_share_cleanup(share); }
};

using EasyPtr = std::unique_ptr<CURL, EasyDeleter>;
using MultiPtr = std::unique_ptr<CURLM, MultiDeleter>;
using SharePtr = std::unique_ptr<CURLSH, ShareDeleter>;
using SlistPtr = std::unique_ptr<curl_slist, SlistDeleter>;

}  // namespace xfer
