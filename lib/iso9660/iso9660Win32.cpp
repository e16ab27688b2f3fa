#include "iso9660/iso9660System.h"

#include "err/err.h"
#include "misc/win32Handle.h"
#include "unicode/unicode.h"

#include <optional>
#include <vector>
#include <winsock2.h>

namespace {

constexpr size_t FIRST_NAME_SIZE = 260;
constexpr size_t LAST_NAME_SIZE = 64 * 1024;

// By its full path, so that nothing else of that name is picked up.
Module LoadSockets() {
    wchar_t path[MAX_PATH];
    UINT length = GetSystemDirectoryW(path, MAX_PATH);
    static constexpr std::wstring_view file = L"\\ws2_32.dll";
    if (length == 0 || length + file.size() >= MAX_PATH) {
        return {};
    }
    file.copy(path + length, file.size());
    path[length + file.size()] = L'\0';
    return Module(LoadLibraryW(path));
}

std::optional<std::string> FromLocal(const char* text) {
    int length = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
    if (length <= 0) {
        return std::nullopt;
    }
    std::wstring wide(static_cast<size_t>(length), L'\0');
    if (MultiByteToWideChar(CP_ACP, 0, text, -1, wide.data(), length) != length) {
        return std::nullopt;
    }
    wide.pop_back(); // the terminator
    return Unicode_FromWide(wide);
}

bool AskForName(HMODULE sockets, std::string* name) {
    auto ask = Win32_GetProc<int(WSAAPI*)(char*, int)>(sockets, "gethostname");
    auto lastError = Win32_GetProc<int(WSAAPI*)()>(sockets, "WSAGetLastError");
    if (!ask || !lastError) {
        return false;
    }
    for (size_t size = FIRST_NAME_SIZE; size <= LAST_NAME_SIZE; size *= 2) {
        std::vector<char> buffer(size + 1);
        if (ask(buffer.data(), static_cast<int>(size)) == 0) {
            std::optional<std::string> converted = FromLocal(buffer.data());
            if (converted) {
                *name = *std::move(converted);
            }
            return converted.has_value();
        }
        if (lastError() != WSAEFAULT) {
            return false;
        }
    }
    return false;
}

} // namespace

bool Iso9660HostName(std::string* name) {
    Module sockets = LoadSockets();
    if (!sockets) {
        return false;
    }
    auto start = Win32_GetProc<int(WSAAPI*)(WORD, WSADATA*)>(sockets.Get(), "WSAStartup");
    auto stop = Win32_GetProc<int(WSAAPI*)()>(sockets.Get(), "WSACleanup");
    WSADATA data;
    if (!start || !stop || start(MAKEWORD(2, 2), &data) != 0) {
        return false;
    }
    bool known = AskForName(sockets.Get(), name);
    stop();
    return known;
}

std::string Iso9660LastError() {
    return Err_LastErrString();
}
