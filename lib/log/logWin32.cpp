#include "log/logSystem.h"
#include "misc/win32Handle.h"
#include "unicode/unicode.h"

#include <array>
#include <memory>

namespace {

constexpr wchar_t MASK_KEY[] = L"SOFTWARE\\Wow6432Node\\Ravlin, Inc.";
constexpr wchar_t MASK_VALUE[] = L"LogLevel";

constexpr wchar_t LOCK_NAMES[][24] = {L"Global\\rlinst.log", L"Local\\rlinst.log"};
constexpr unsigned SPINS = 200;     // before the holder is given time to go on
constexpr DWORD LONGEST_HOLD = 200; // milliseconds, then it counts as dead
constexpr LONG FREE = 0;            // else the id of the holding process

// Keeps two processes of this kind from appending at the same moment. On its own disks the system does that
// itself, but a file system that first looks the end up and then writes, as network ones and emulations do,
// lets one line overwrite the other. A word of memory that the processes share costs next to nothing; a mutex
// or a file lock would cost more than the line. A process that may not share the word goes without.
class AppendLock {
public:
    AppendLock() {
        for (const wchar_t* name : LOCK_NAMES) {
            mapping_ = KernelHandle(
                CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(LONG), name));
            if (mapping_) {
                word_ = static_cast<volatile LONG*>(MapViewOfFile(mapping_.Get(), FILE_MAP_WRITE, 0, 0, 0));
                return;
            }
        }
    }
    AppendLock(const AppendLock&) = delete;
    AppendLock& operator=(const AppendLock&) = delete;
    ~AppendLock() {
        if (word_ != nullptr) {
            UnmapViewOfFile(const_cast<LONG*>(word_));
        }
    }

    void Take() {
        if (word_ == nullptr) {
            return;
        }
        const DWORD since = GetTickCount();
        for (unsigned tried = 0; InterlockedCompareExchange(word_, self_, FREE) != FREE; tried++) {
            if (GetTickCount() - since > LONGEST_HOLD) {
                InterlockedExchange(word_, self_); // the holder died between taking and giving back
                return;
            }
            if (tried >= SPINS) {
                Sleep(1);
            }
        }
    }
    void GiveBack() {
        if (word_ != nullptr) {
            InterlockedCompareExchange(word_, FREE, self_);
        }
    }

private:
    const LONG self_ = static_cast<LONG>(GetCurrentProcessId());
    KernelHandle mapping_;
    volatile LONG* word_ = nullptr;
};

// Held from the first message until the log ends.
struct OpenLog {
    FileHandle file;
    AppendLock lock;
};
std::unique_ptr<OpenLog>& Current() {
    static std::unique_ptr<OpenLog> current;
    return current;
}

class LastErrorKeeper {
public:
    LastErrorKeeper() = default;
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;
    ~LastErrorKeeper() { SetLastError(error_); }

private:
    DWORD error_ = GetLastError();
};

} // namespace

LogMask LogSystemReadMask() {
    LastErrorKeeper keeper;
    RegistryKey key;
    LSTATUS result = RegOpenKeyExW(HKEY_LOCAL_MACHINE, MASK_KEY, 0, KEY_QUERY_VALUE, key.Receive());
    DWORD error = GetLastError();
    if (result != ERROR_SUCCESS) {
        const bool missing = result == ERROR_FILE_NOT_FOUND || result == ERROR_PATH_NOT_FOUND;
        return {missing ? LogMaskRead::NoKey : LogMaskRead::KeyFailed, 0, static_cast<uint32_t>(result),
                error};
    }
    DWORD type = 0;
    DWORD number = 0;
    DWORD size = sizeof number;
    result = RegQueryValueExW(key.Get(), MASK_VALUE, nullptr, &type, reinterpret_cast<BYTE*>(&number), &size);
    error = GetLastError();
    if ((result == ERROR_SUCCESS || result == ERROR_MORE_DATA) && type != REG_DWORD) {
        return {LogMaskRead::WrongType, type, static_cast<uint32_t>(result), error};
    }
    if (result != ERROR_SUCCESS) {
        return {LogMaskRead::ValueFailed, 0, static_cast<uint32_t>(result), error};
    }
    return {LogMaskRead::Read, number, 0, 0};
}

LogTime LogSystemLocalTime() {
    SYSTEMTIME now;
    GetLocalTime(&now);
    return {now.wMonth, now.wDay, now.wYear, now.wHour, now.wMinute, now.wSecond};
}

bool LogSystemTempDirectory(std::string* directory) {
    LastErrorKeeper keeper;
    std::array<wchar_t, MAX_PATH + 1> path; // the system gives no longer one
    const DWORD length = GetTempPathW(path.size(), path.data());
    if (length == 0 || length >= path.size()) {
        return false;
    }
    std::optional<std::string> converted = Unicode_FromWide({path.data(), length});
    if (!converted) {
        return false;
    }
    *directory = std::move(*converted);
    return true;
}

// The right to append and no other: then the system puts each write at the end of the file as it is at that
// moment, also when another process has written in between.
bool LogSystemOpen(const std::string& path, uint32_t* error) {
    LastErrorKeeper keeper;
    const std::optional<std::wstring> wide = Unicode_ToWide(path);
    if (!wide) {
        *error = ERROR_NO_UNICODE_TRANSLATION;
        return false;
    }
    FileHandle file(CreateFileW(wide->c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
    *error = GetLastError();
    if (!file) {
        return false;
    }
    Current() = std::make_unique<OpenLog>();
    Current()->file = std::move(file);
    return true;
}

void LogSystemWrite(const char* bytes, size_t length) {
    LastErrorKeeper keeper;
    OpenLog& log = *Current();
    DWORD written = 0;
    log.lock.Take();
    WriteFile(log.file.Get(), bytes, static_cast<DWORD>(length), &written, nullptr);
    log.lock.GiveBack();
}

void LogSystemClose() {
    Current().reset();
}
