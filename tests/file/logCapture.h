// Log_Level and its companions for tests: lines are kept instead of written.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct LogLine {
    uint32_t level;
    std::string text;

    bool operator==(const LogLine&) const = default;
};

// What was logged since the last call. Thread-safe.
std::vector<LogLine> LogCapture_Take();
