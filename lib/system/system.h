// Restart and power-off of the guest. Main thread only.
#pragma once

#include <cstdint>

// Asks the system to reboot (true) or to shut down and power off (false). Returns the Windows error, 0 for
// success; the system acts later.
uint32_t System_Shutdown(bool reboot);
bool System_IsLoginScreenActive();
bool System_IsAcpi();
void System_SetProcessPrivilege();
