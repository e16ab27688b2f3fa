// The second process of the file tests: fileHelper <verb> <arguments>.
#include "file/fileCallsWin32.h"
#include "file/fileIO.h"
#include "file/fileLock.h"
#include "file/fileLockEdge.h"

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <random>
#include <string>
#include <string_view>
#include <windows.h>

namespace {

std::string Narrow(const wchar_t* wide) {
    char narrow[1000];
    return WideCharToMultiByte(CP_UTF8, 0, wide, -1, narrow, sizeof narrow, nullptr, nullptr) == 0 ? ""
                                                                                                   : narrow;
}

uint32_t Number(const wchar_t* text) {
    return static_cast<uint32_t>(wcstoul(text, nullptr, 10));
}

void Tell(const wchar_t* eventName) {
    HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, eventName);
    SetEvent(event);
    CloseHandle(event);
}

// hold <file> <ms> <event>: opens the file without sharing, as a virus scanner does, tells the event, and
// keeps it.
int Hold(wchar_t** arguments) {
    HANDLE file = CreateFileW(arguments[0], GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return 1;
    }
    Tell(arguments[2]);
    Sleep(Number(arguments[1]));
    CloseHandle(file);
    return 0;
}

// shared|exclusive <file> <ms> <event>: the same with the lock that an open takes.
int HoldLocked(bool exclusive, wchar_t** arguments) {
    FileIODescriptor file;
    uint32_t access = exclusive ? FILEIO_OPEN_WRITE : FILEIO_OPEN_READ;
    if (FileIO_Open(&file, Narrow(arguments[0]).c_str(), access | FILEIO_OPEN_LOCKED,
                    FileIOOpenAction::OpenCreate) != FileIOResult::Success) {
        return 1;
    }
    Tell(arguments[2]);
    Sleep(Number(arguments[1]));
    return FileIO_Close(&file) ? 1 : 0;
}

// Reads the counter at the head of the file, or, with `next`, writes it anew.
bool Counter(const wchar_t* name, uint32_t* value, const uint32_t* next) {
    HANDLE file = CreateFileW(name, next == nullptr ? GENERIC_READ : GENERIC_WRITE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return false;
    }
    DWORD done = 0;
    BOOL transferred = next == nullptr ? ReadFile(file, value, sizeof *value, &done, nullptr)
                                       : WriteFile(file, next, sizeof *next, &done, nullptr);
    CloseHandle(file);
    return transferred && done == sizeof *value;
}

// One exclusive stay: reads the counter, waits a moment, and writes it back one higher, in two steps that the
// journal shows. A killer may come between any two.
bool Raise(const wchar_t* file, HANDLE journal, uint32_t* raised) {
    uint32_t value = 0;
    if (!Counter(file, &value, nullptr)) {
        return false;
    }
    Sleep(*raised % 8 == 0 ? 1 : 0);
    uint32_t next = value + 1;
    DWORD done = 0;
    if (!Counter(file, &value, &next) || !WriteFile(journal, &next, sizeof next, &done, nullptr)) {
        return false;
    }
    ++*raised;
    return true;
}

// stress <file> <journal> <rounds> <seed>: takes the lock again and again, one time of three shared; under an
// exclusive one raises the counter in the file and notes its value in the journal. Under a shared one the
// counter must stand still. Processes whose ids have the same sum draw the same numbers, and a number that is
// drawn again while others still clear up behind its last holder is what the protocol cannot take; so each
// starts at another place, by its seed. Exits with 0 when all is done, with 10 and the code of a failed lock,
// with 100 and the code of a failed unlock, and with 3 or 4 when somebody else was at the counter under a
// shared or an exclusive lock.
int Stress(wchar_t** arguments) {
    const std::string file = Narrow(arguments[0]);
    HANDLE journal = CreateFileW(arguments[1], FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                 OPEN_ALWAYS, 0, nullptr);
    const uint32_t seed = Number(arguments[3]);
    std::minstd_rand random(seed + 1);
    for (uint32_t skipped = 0; skipped < seed * 1000; skipped++) {
        FileLockDrawNumber();
    }
    uint32_t raised = 0;
    for (uint32_t left = Number(arguments[2]); left > 0;) {
        bool shared = random() % 3 == 0;
        int error = 0;
        FileLock_Token* token = FileLock_Lock(file.c_str(), shared, 30000, &error);
        if (token == nullptr) {
            if (error != 0) {
                return 10 + error;
            }
            continue; // timed out: somebody died in the way, or drew a number again
        }
        uint32_t before = 0;
        uint32_t after = 0;
        bool right = shared ? Counter(arguments[0], &before, nullptr) &&
                                  Counter(arguments[0], &after, nullptr) && before == after
                            : Raise(arguments[0], journal, &raised);
        if (!right) {
            return shared ? 3 : 4;
        }
        if (int unlocked = FileLock_Unlock(file.c_str(), token); unlocked != 0) {
            return 100 + unlocked;
        }
        left--;
    }
    CloseHandle(journal);
    return 0;
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    std::wstring_view verb = count > 1 ? arguments[1] : L"";
    if (verb == L"hold" && count == 5) {
        return Hold(arguments + 2);
    }
    if ((verb == L"shared" || verb == L"exclusive") && count == 5) {
        return HoldLocked(verb == L"exclusive", arguments + 2);
    }
    if (verb == L"stress" && count == 6) {
        return Stress(arguments + 2);
    }
    return 2;
}
