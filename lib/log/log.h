// The installer log, rlinst.log: append-only, one line per message, shared with the guest-tools installers.
#pragma once

#include "misc/diag.h"

#include <cstdint>

// Levels are bits of the mask that the registry may set; a message of level L is written when bit L is set.
inline constexpr uint32_t LOG_ALWAYS = 1;
inline constexpr uint32_t LOG_DETAIL = 2;

void Log_Begin(const char* name);
void Log_End();
void Log_Level(uint32_t level, const char* format, ...) DIAG_PRINTF(2, 3);
void Log_Error(const char* format, ...) DIAG_PRINTF(1, 2);
