// Runs the crashing program in a folder of its own and gathers what it left behind.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct CrashRun {
    std::string arguments; // of the program, but for the folder
    // The build of dbghelp.dll that goes beside the program: null for the system's library, the empty name
    // for none at all. `mode` is what goes wrong in it.
    const char* stub = nullptr;
    const char* mode = "";
    const char* dumpFolder = nullptr; // null for the run's folder, "-" for what the library takes by itself
};

struct CrashResult {
    std::string folder; // that the run had; gone by now
    uint32_t exitCode = 0;
    uint32_t processId = 0;
    uint64_t address = 0;            // of the instruction that was to fail
    uint32_t thread = 0;             // that was to fail
    std::vector<std::string> errors; // lines of standard error, with their "\n"
    std::vector<std::string> log;    // messages of the installer log, without stamp, tag and line end
    std::map<std::string, std::string> dumps; // in the run's folder: name and content
};

// Waits a minute at most.
CrashResult Crash(const CrashRun& run);
