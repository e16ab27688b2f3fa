// The three port routines, answered by a function of the test instead of an instruction. Linking this
// replaces the real routines in the whole program.
#pragma once

#include "hvPort/hvPort.h"

#include <functional>

enum class PortKind { Low, BulkOut, BulkIn };

// What answers; empty fails the test that reaches the port. The block already holds the magic and the port
// number.
extern std::function<void(PortKind kind, HvPort_Registers* registers)> scriptedPort;
