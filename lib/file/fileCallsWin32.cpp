#include "file/fileCallsWin32.h"

#include "misc/win32Handle.h"

#include "unicode/unicode.h"

#include <optional>
#include <shlobj.h>

namespace {

// By full path, so that nothing is searched for; and only on demand, because loading it costs more than all
// else that this library does at start.
HRESULT FileFolderPath(int folder, wchar_t* path) {
    wchar_t system[MAX_PATH];
    UINT length = GetSystemDirectoryW(system, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) {
        return E_FAIL;
    }
    Module shell(LoadLibraryW((std::wstring(system, length) + L"\\shell32.dll").c_str()));
    auto getFolderPath = Win32_GetProc<decltype(&::SHGetFolderPathW)>(shell.Get(), "SHGetFolderPathW");
    return getFolderPath == nullptr ? E_NOTIMPL : getFolderPath(nullptr, folder, nullptr, 0, path);
}

} // namespace

FileWin32Calls fileWin32Calls = {
    .moveFile = MoveFileW,
    .moveFileEx = MoveFileExW,
    .deleteFile = DeleteFileW,
    .createDirectory = CreateDirectoryW,
    .removeDirectory = RemoveDirectoryW,
    .getFileAttributes = GetFileAttributesW,
    .getFileAttributesEx = GetFileAttributesExW,
    .findFirstFile = FindFirstFileW,
    .findNextFile = FindNextFileW,
    .findClose = FindClose,
    .createFile = CreateFileW,
    .closeHandle = CloseHandle,
    .readFile = ReadFile,
    .writeFile = WriteFile,
    .setFilePointer = SetFilePointer,
    .getFileSize = GetFileSize,
    .setEndOfFile = SetEndOfFile,
    .createFileMapping = CreateFileMappingW,
    .mapViewOfFile = MapViewOfFile,
    .getWindowsDirectory = GetWindowsDirectoryW,
    .getTempPath = GetTempPathW,
    .getFolderPath = FileFolderPath,
    .openThreadToken = OpenThreadToken,
    .impersonateSelf = ImpersonateSelf,
    .revertToSelf = RevertToSelf,
    .getFileSecurity = GetFileSecurityW,
    .accessCheck = AccessCheck,
    .openProcess = OpenProcess,
    .getModuleHandle = GetModuleHandleW,
    .sleep = Sleep,
};

uint32_t FileWideName(const char* name, std::wstring* wide) {
    if (name == nullptr) {
        return ERROR_INVALID_ADDRESS;
    }
    std::optional<std::wstring> converted = Unicode_ToWide(name);
    if (!converted) {
        return ERROR_INVALID_NAME;
    }
    *wide = std::move(*converted);
    return ERROR_SUCCESS;
}
