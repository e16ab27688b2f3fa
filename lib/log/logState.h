// The log's process-wide state, for its own unit and its tests.
#pragma once

#include <cstdint>

inline constexpr uint32_t LOG_MASK_UNREAD = 0x40;

struct LogState {
    uint32_t mask = LOG_MASK_UNREAD;
    uint32_t nesting = 0; // begin calls not yet ended
    bool open = false;    // the file is open
};
extern LogState logState;
