// The installer log, rlinst.log: append-only, one line per message, shared with the guest-tools installers.
//
// A line is a stamp "inst : 11/21/25 10:17:45 ", a tag of the level ("E1:", "I1:", ...) and the message,
// ended by CR LF. The file is opened in the system's temporary directory by the first message that passes the
// level mask; when that fails, inst.log in the current directory takes its place. The mask comes from the
// registry (local machine, SOFTWARE\Wow6432Node\Ravlin, Inc., a 32-bit number named LogLevel) and is 3
// without it.
//
// The log reports no failure; a line that cannot be written is lost. It has no lock and belongs to the main
// thread. Between processes no line is torn: each is appended by one write.
#pragma once

#include "misc/diag.h"

#include <cstdint>

// Levels are bits of the mask: a message of level L is written when the mask has bit L set.
inline constexpr uint32_t LOG_ALWAYS = 1;  // "E1:"
inline constexpr uint32_t LOG_DETAIL = 2;  // "I1:"
inline constexpr uint32_t LOG_PROBLEM = 4; // "E2:"
inline constexpr uint32_t LOG_BEGIN = 256; // "XX:", as every level without a tag of its own
inline constexpr uint32_t LOG_END = 512;

// Start and end of use. Calls nest; only the outermost pair reads the mask and closes the file.
void Log_Begin(const char* name);
void Log_End();

// Writes one message if the mask allows. A message of more than 2018 bytes is cut, after a line that says so.
// Outside of Log_Begin and Log_End nothing is opened or written. Preserves the last error (Windows).
void Log_Level(uint32_t level, const char* format, ...) DIAG_PRINTF(2, 3);

// At level 1 whatever the mask says, though a mask of 0 still keeps the file from being opened.
void Log_Error(const char* format, ...) DIAG_PRINTF(1, 2);
