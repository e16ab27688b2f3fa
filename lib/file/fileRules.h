// The decisions of this library that need no system: which errors mean what, which are worth another try, how
// long to wait, how flags translate. Shared by its units and its tests; callers use file.h and fileIO.h.
#pragma once

#include "file/fileIO.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// The C runtime's errno values that callers of this library compare with.
inline constexpr int FILE_ENOENT = 2;
inline constexpr int FILE_EIO = 5;
inline constexpr int FILE_EAGAIN = 11;
inline constexpr int FILE_EACCES = 13;
inline constexpr int FILE_EEXIST = 17;
inline constexpr int FILE_ENOTDIR = 20;
inline constexpr int FILE_EROFS = 30;
inline constexpr int FILE_EDOM = 33;
inline constexpr int FILE_ERANGE = 34;
inline constexpr int FILE_ENAMETOOLONG = 38;

// Windows errors by number, for units that do not see the system's headers.
inline constexpr uint32_t FILE_WIN32_FILE_NOT_FOUND = 2;
inline constexpr uint32_t FILE_WIN32_ACCESS_DENIED = 5;
inline constexpr uint32_t FILE_WIN32_SHARING_VIOLATION = 32;
inline constexpr uint32_t FILE_WIN32_INVALID_NAME = 123;
inline constexpr uint32_t FILE_WIN32_INVALID_ADDRESS = 487;

// None for an error that has no errno-style code.
std::optional<int> FileErrnoFromWin32(uint32_t win32Error);

// A sharing violation or a denial is mostly somebody else's short look at the file: a virus scanner, an
// indexer.
constexpr bool FileIsTransient(uint32_t win32Error) {
    return win32Error == FILE_WIN32_SHARING_VIOLATION || win32Error == FILE_WIN32_ACCESS_DENIED;
}

// One step of the Park-Miller minimal standard generator, x * 16807 mod (2^31 - 1).
uint32_t FileRandomAdvance(uint32_t state);
// minMs plus the state's share of the span, in single precision.
uint32_t FileRandomScale(uint32_t state, uint32_t minMs, uint32_t maxMs);

inline constexpr uint32_t FILE_RETRY_MIN_MS = 10;
inline constexpr uint32_t FILE_RETRY_MAX_MS = 100;

struct FileRetryOutcome {
    uint32_t win32Error; // of the last attempt, 0 for success
    bool expired;        // the budget was used up
};

// Attempts, and attempts again after a pause, until the result is not transient or the pauses have used the
// budget up. The budget is looked at after each attempt, so there is always one. `attempt` gives a Windows
// error, 0 for success; `pause` sleeps between its two bounds and gives what it slept, in ms.
template <typename Attempt, typename Pause>
FileRetryOutcome FileRetry(uint32_t budgetMs, Attempt attempt, Pause pause) {
    uint32_t elapsedMs = 0;
    for (;;) {
        uint32_t error = attempt();
        if (elapsedMs >= budgetMs || !FileIsTransient(error)) {
            return {error, budgetMs != 0 && elapsedMs >= budgetMs};
        }
        elapsedMs += pause(FILE_RETRY_MIN_MS, FILE_RETRY_MAX_MS);
    }
}

// The longest name that goes to the system without the "\\?\" prefix, in UTF-16 units.
inline constexpr size_t FILE_MAX_NAME = 260;
inline constexpr std::string_view FILE_VERBATIM_PREFIX = "\\\\?\\";

// Whether a name is too long: `wideLength` UTF-16 units, of which only the verbatim prefix excuses more than
// 260.
bool FileIsNameTooLong(std::string_view name, size_t wideLength);

// The arguments for CreateFileW that the flags and the action ask for.
struct FileIOOpenArguments {
    uint32_t desiredAccess;
    uint32_t shareMode;
    uint32_t creationDisposition;
    uint32_t flagsAndAttributes;
};
FileIOOpenArguments FileIOTranslate(uint32_t flags, FileIOOpenAction action);

// None for an error that an open has no result of its own for.
std::optional<FileIOResult> FileIOResultFromWin32(uint32_t win32Error);

// What an open gives when its lock could not be had for an errno-style code; 0 is a time-out.
FileIOResult FileIOResultFromLockError(int error);

// The restart rename list of old systems: an INI file whose section "[Rename]" holds "NUL=<path>" lines.
inline constexpr std::string_view FILE_RENAME_SECTION = "[Rename]\r\n";

// Puts `line` at the head of the section, adding the section at the end where there is none. `text` holds
// `used` bytes of list and room for the section header and the line behind them; returns the bytes used
// afterwards.
size_t FileRenameListInsert(std::span<char> text, size_t used, std::string_view line);
