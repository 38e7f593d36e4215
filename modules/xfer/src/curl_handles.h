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

/// A multi handle for the transfers of one thread.
struct Driver {
  MultiPtr multi{};
  bool canBeWoken = false;  ///< by curl_multi_wakeup, which needs a pair of sockets

  static Driver make() {
    Driver driver;
    driver.multi.reset(curl_multi_init());
    // The wait that this ends early is the first of many.
    driver.canBeWoken = driver.multi && curl_multi_wakeup(driver.multi.get()) == CURLM_OK;
    return driver;
  }
};

}  // namespace xfer
