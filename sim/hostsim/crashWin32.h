// Makes the guest crash on purpose, so that its crash report can be seen.
#pragma once

#include "sim/hostsim/options.h"

#include <cstdint>

#include <windows.h>

// The guest's thread has stopped at the instruction at `address`. Puts failing ones in its place, or lets the
// thread start another one that fails. False when the guest cannot be changed.
bool Crash_Inject(Options_Crash kind, HANDLE process, HANDLE thread, uint64_t address);
