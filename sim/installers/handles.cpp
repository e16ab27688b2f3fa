// A setup.exe that writes down every handle it finds itself with, its type and the name of its object, one a
// line, into handles.txt beside itself.
#include "misc/win32Handle.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <windows.h>
#include <winternl.h>

namespace {

constexpr uintptr_t LAST_HANDLE = 0x2000;
constexpr auto OBJECT_NAME = static_cast<OBJECT_INFORMATION_CLASS>(1);

// Both classes of information begin with a text.
std::wstring Query(HANDLE handle, OBJECT_INFORMATION_CLASS what) {
    alignas(UNICODE_STRING) char buffer[4096] = {};
    ULONG length = 0;
    if (NtQueryObject(handle, what, buffer, sizeof buffer, &length) != 0) {
        return L"?";
    }
    const auto* text = reinterpret_cast<const UNICODE_STRING*>(buffer);
    return text->Buffer ? std::wstring(text->Buffer, text->Length / sizeof(wchar_t)) : L"";
}

} // namespace

int WINAPI WinMain(HINSTANCE, HINSTANCE, char*, int) {
    std::wstring lines;
    for (uintptr_t value = 4; value < LAST_HANDLE; value += 4) {
        auto* handle = reinterpret_cast<HANDLE>(value);
        DWORD flags = 0;
        if (GetHandleInformation(handle, &flags)) {
            lines += Query(handle, ObjectTypeInformation) + L" " + Query(handle, OBJECT_NAME) + L"\n";
        }
    }
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring folder(self);
    folder.resize(folder.rfind(L'\\') + 1);
    FileHandle file(
        CreateFileW((folder + L"handles.txt").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    DWORD written = 0;
    return WriteFile(file.Get(), lines.data(), static_cast<DWORD>(lines.size() * sizeof(wchar_t)), &written,
                     nullptr)
               ? 0
               : 1;
}
