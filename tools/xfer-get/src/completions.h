// What shells are told of the command line, so that they complete it.
//
// Errors: std::bad_alloc.
#pragma once

#include <string>

namespace xfer_get {

/// To be sourced by bash 4.4 or newer, with or without the bash-completion package.
std::string bashCompletion();

/// To be named _xfer-get and put into a folder of zsh's fpath.
std::string zshCompletion();

std::string fishCompletion();

}  // namespace xfer_get
