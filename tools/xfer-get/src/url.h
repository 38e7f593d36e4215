// What the program knows of URLs.  Pure.
//
// Errors: std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

namespace xfer_get {

/// Whether text begins as the URLs do that can be fetched, in any case.
bool isHttpUrl(std::string_view text);

/// url without what stands before the @ of its host: a user's name and password.
std::string urlWithoutLogin(std::string_view url);

}  // namespace xfer_get
