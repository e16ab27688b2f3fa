// Runs the crashing program in a folder of its own and gathers what it left behind.
#pragma once

#include "minidumpReader.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

struct CrashResult {
    uint32_t exitCode = 0;
    uint32_t processId = 0;
    std::string output;              // standard output
    std::vector<std::string> errors; // lines of standard error, with their "\n"
    std::vector<std::string> log;    // messages of the installer log, without stamp, tag and line end
    std::vector<std::filesystem::path> dumps; // in the run's folder
};

// A folder for one run. It holds a copy of the program and goes away with the object.
class CrashFolder {
public:
    // `stub` names the build of dbghelp.dll that goes beside the program. Null stands for the system's
    // library, the empty name for none at all.
    explicit CrashFolder(const char* stub = nullptr);
    ~CrashFolder();
    CrashFolder(const CrashFolder&) = delete;
    CrashFolder& operator=(const CrashFolder&) = delete;

    const std::filesystem::path& Path() const { return path_; }
    const std::filesystem::path& Program() const { return program_; }

    // Runs the program to its end, with dumps going into the folder, and waits a minute at most.
    CrashResult Crash(const std::string& arguments) const;
    // As Crash, with dumps going where the program puts them by itself.
    CrashResult CrashByDefault(const std::string& arguments) const;

private:
    std::filesystem::path path_;
    std::filesystem::path program_;
};

// The only dump of a run; a test failure and an empty record when there is not exactly one that can be read.
Minidump ReadOnlyDump(const CrashResult& result);
