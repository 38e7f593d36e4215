// The functions to run at unload; shared by the module's entry point and atUnload.
#pragma once

namespace sys {

/// Runs the functions that atUnload registered, last registered first.
void runUnloadList();

}  // namespace sys
