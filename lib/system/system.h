// Restart and power-off of the guest. Main thread only.
#pragma once

#include <cstdint>

// Asks the system to reboot (true) or to shut down and power off (false). Returns the Windows error, 0 for
// success; the system acts later.
uint32_t System_Shutdown(bool reboot);

// True when the log-on desktop takes the input, or when that cannot be found out.
bool System_IsLoginScreenActive();

// True when the machine's first system device describes itself as ACPI: then it can be powered off.
bool System_IsAcpi();

// Enables "SeShutdownPrivilege" for the process. Failures are logged and otherwise ignored: the request that
// follows then fails by itself.
void System_SetProcessPrivilege();
