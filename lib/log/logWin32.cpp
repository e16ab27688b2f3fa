#include "log/logSystem.h"
#include "misc/win32Handle.h"
#include "unicode/unicode.h"

#include <array>

namespace {

constexpr wchar_t MASK_KEY[] = L"SOFTWARE\\Wow6432Node\\Ravlin, Inc.";
constexpr wchar_t MASK_VALUE[] = L"LogLevel";
constexpr size_t LONGEST_DIRECTORY = 2048; // bytes

// Held from the first message until the log ends.
FileHandle& File() {
    static FileHandle file;
    return file;
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
    std::array<wchar_t, MAX_PATH + 1> path;
    const DWORD length = GetTempPathW(path.size(), path.data());
    if (length == 0 || length >= path.size()) {
        return false;
    }
    std::optional<std::string> converted = Unicode_FromWide({path.data(), length});
    if (!converted || converted->size() > LONGEST_DIRECTORY) {
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
    File() = FileHandle(CreateFileW(wide->c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    *error = GetLastError();
    return static_cast<bool>(File());
}

void LogSystemWrite(const char* bytes, size_t length) {
    LastErrorKeeper keeper;
    DWORD written = 0;
    WriteFile(File().Get(), bytes, static_cast<DWORD>(length), &written, nullptr);
}

void LogSystemClose() {
    File().Reset();
}
