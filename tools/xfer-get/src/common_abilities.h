// What every way to a server has.
#pragma once

#include "options.h"

namespace xfer_get {

/// Abilities: xfer::DownloadOptions or xfer::FetchOptions.
template <class Abilities>
void setCommonAbilities(Abilities& abilities, const Options& options) {
  abilities.setVerifyPeer(!options.insecure).setCaFile(options.caFile).setPinnedKey(options.pinnedKey);
  abilities.setUserAgent(options.userAgent);
}

}  // namespace xfer_get
