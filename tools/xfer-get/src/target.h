// Which URLs are fetched, and what each is to be stored as.  Pure.
//
// Errors: std::bad_alloc; else a text that names the URL or the line.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "checksum.h"
#include "net/proxy.h"
#include "options.h"

namespace xfer_get {

struct Target {
  std::string url;
  std::string path;                  ///< what the user wants it to be stored as
  std::optional<Checksum> checksum;  ///< that it is to have
  net::Proxy proxy;                  ///< empty host: none
};

struct Targets {
  std::vector<Target> all;
  std::string error;  ///< not empty: nothing is to be fetched
};

/// A URL a line; blanks around it, empty lines, and lines that begin with # are left aside.  list: its name, for
/// errors.
Targets targetsFromList(std::string_view text, const std::string& list);

/// Adds those of the options in front, names them all, and gives each its checksum.  devices: names of Windows's
/// devices are no file names.  checksums: of the options' list; nothing: there is none.
Targets placeTargets(const Options& options, Targets listed, bool devices, const ChecksumList* checksums);

}  // namespace xfer_get
