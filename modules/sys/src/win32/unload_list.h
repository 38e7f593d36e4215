// What is to run when the module is unloaded; shared by the module's entry and by who registers.
#pragma once

namespace sys {

/// Runs what atUnload registered, the latest first.
void runUnloadList();

}  // namespace sys
