// The tests' own Debug, Warning and Panic: every message is kept, and Panic throws instead of ending the
// process.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

struct DiagPanic : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct DiagMessages {
    std::vector<std::string> debug;
    std::vector<std::string> warning;
};

// What was said since the last call. Thread-safe.
DiagMessages DiagCapture_Take();
