// The system calls that decide what this library answers, as a table that a test replaces entry by entry to
// make a call fail, to count it or to let time pass without waiting. Internal.
#pragma once

#include <cstdint>
#include <string>
#include <windows.h>

#include <tlhelp32.h>

struct FileWin32Calls {
    decltype(&::MoveFileW) moveFile;
    decltype(&::MoveFileExW) moveFileEx;
    decltype(&::DeleteFileW) deleteFile;
    decltype(&::CreateDirectoryW) createDirectory;
    decltype(&::RemoveDirectoryW) removeDirectory;
    decltype(&::GetFileAttributesW) getFileAttributes;
    decltype(&::GetFileAttributesExW) getFileAttributesEx;
    decltype(&::FindFirstFileW) findFirstFile;
    decltype(&::FindNextFileW) findNextFile;
    decltype(&::FindClose) findClose;
    decltype(&::CreateFileW) createFile;
    decltype(&::CloseHandle) closeHandle;
    decltype(&::ReadFile) readFile;
    decltype(&::WriteFile) writeFile;
    decltype(&::SetFilePointer) setFilePointer;
    decltype(&::GetFileSize) getFileSize;
    decltype(&::SetEndOfFile) setEndOfFile;
    decltype(&::CreateFileMappingW) createFileMapping;
    decltype(&::MapViewOfFile) mapViewOfFile;
    decltype(&::GetWindowsDirectoryW) getWindowsDirectory;
    decltype(&::GetTempPathW) getTempPath;
    // The local application data folder; its module is loaded only when this is called.
    HRESULT (*getFolderPath)(int folder, wchar_t* path);
    decltype(&::OpenThreadToken) openThreadToken;
    decltype(&::ImpersonateSelf) impersonateSelf;
    decltype(&::RevertToSelf) revertToSelf;
    decltype(&::GetFileSecurityW) getFileSecurity;
    decltype(&::AccessCheck) accessCheck;
    decltype(&::OpenProcess) openProcess;
    decltype(&::GetModuleHandleW) getModuleHandle;
    decltype(&::Sleep) sleep;
};

// Not to be changed while another thread uses the library.
extern FileWin32Calls fileWin32Calls;

// Calls that the oldest systems lack, looked up on the first lock. The narrow entries, whatever the build's
// text setting makes of their names.
using ProcessEntry = struct tagPROCESSENTRY32;
static_assert(sizeof(ProcessEntry) == 304);

struct FileProcessCalls {
    bool linked = false;
    HANDLE(WINAPI* createSnapshot)(DWORD flags, DWORD processId) = nullptr;
    BOOL(WINAPI* first)(HANDLE snapshot, ProcessEntry* entry) = nullptr;
    BOOL(WINAPI* next)(HANDLE snapshot, ProcessEntry* entry) = nullptr;
    decltype(&::GetProcessTimes) getTimes = nullptr;
};
extern FileProcessCalls fileProcessCalls;

// The name for a call; or the error to report: 487 for no name, 123 for a name that is no valid UTF-8.
uint32_t FileWideName(const char* name, std::wstring* wide);
