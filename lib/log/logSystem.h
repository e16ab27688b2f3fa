// What the installer log needs of the system. logWin32.cpp is the real thing; tests may bring their own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Outcome of reading the level mask from the registry.
enum class LogMaskRead {
    Read,        // number is the mask
    NoKey,       // the key does not exist
    KeyFailed,   // it cannot be opened for another reason
    ValueFailed, // the value cannot be read
    WrongType,   // number is the type found
};
struct LogMask {
    LogMaskRead outcome;
    uint32_t number;
    uint32_t result;    // of the failing call
    uint32_t lastError; // right after it
};
LogMask LogSystemReadMask();

struct LogTime {
    unsigned month, day, year, hour, minute, second; // local time; the year with its century
};
LogTime LogSystemLocalTime();

// The directory for temporary files with its trailing separator. False when the system has none.
bool LogSystemTempDirectory(std::string* directory);

// The log's one file. Open: for appending, created if missing; false with the system's error code.
bool LogSystemOpen(const std::string& path, uint32_t* error);
void LogSystemWrite(const char* bytes, size_t length); // in one call, at the end of the file as it then is
void LogSystemClose();
