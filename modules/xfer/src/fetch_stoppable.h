// A fetch that another thread can end early, for the library's own use.
#pragma once

#include "stop_signal.h"
#include "xfer/fetch.h"

namespace xfer {

/// As fetch; when stop gets set the transfer ends within a tenth of a second with libcurl's aborted-by-callback code.
Response fetchStoppable(const Request& request, const StopSignal& stop);

/// Makes every fetch of the process end so, those to come included: the module is being unloaded.
void stopAllFetches();

}  // namespace xfer
