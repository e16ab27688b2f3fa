#include "file/file.h"

#include "file/fileCallsWin32.h"
#include "file/fileIO.h"
#include "file/fileRules.h"
#include "log/log.h"
#include "misc/diag.h"
#include "misc/win32Handle.h"
#include "unicode/unicode.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

std::atomic<uint32_t> randomState; // 0 until the first use

struct FreeDeleter {
    void operator()(void* memory) const { free(memory); }
};

uint32_t FileOutcome(BOOL succeeded) {
    return succeeded ? ERROR_SUCCESS : GetLastError();
}

// A whole retrying operation on one name: conversion, attempts, report of a used-up budget, mapping.
template <typename Call>
int FileRetryOn(const char* operation, const char* name, uint32_t budgetMs, Call call) {
    std::wstring wide;
    uint32_t error = FileWideName(name, &wide);
    if (error == ERROR_SUCCESS) {
        FileRetryOutcome outcome = FileRetry(
            budgetMs, [&] { return FileOutcome(call(wide.c_str())); }, FileRandomSleep);
        error = outcome.win32Error;
        if (outcome.expired) {
            Log_Level(LOG_ALWAYS, "FILE: %s: retry time expired; last error %d\n", operation,
                      static_cast<int>(error));
        }
    }
    return FileMapWin32Error(operation, error);
}

uint64_t FileJoin(DWORD high, DWORD low) {
    return uint64_t{high} << 32 | low;
}

FileData FileDataFromAttributes(const WIN32_FILE_ATTRIBUTE_DATA& attributes) {
    bool directory = (attributes.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    bool readOnly = (attributes.dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
    auto time = [](const FILETIME& value) { return FileJoin(value.dwHighDateTime, value.dwLowDateTime); };
    return FileData{
        .accessTime = time(attributes.ftLastAccessTime),
        .creationTime = time(attributes.ftCreationTime),
        .modificationTime = time(attributes.ftLastWriteTime),
        .size = FileJoin(attributes.nFileSizeHigh, attributes.nFileSizeLow),
        .type = directory ? 1u : 0u,
        .mode = (directory ? 0555u : 0444u) | (readOnly ? 0u : 0222u),
        .owner = 0,
        .group = 0,
    };
}

bool FileIsDotName(const wchar_t* name) {
    return wcscmp(name, L".") == 0 || wcscmp(name, L"..") == 0;
}

// Reads on from the first entry to the end; returns the error that ended the listing. A name that is no valid
// UTF-16 cannot be given to a caller in any form that a later call would take; it is left out and reported.
uint32_t FileReadEntries(HANDLE search, WIN32_FIND_DATAW* entry, const char* directory, int* count,
                         std::vector<std::string>* names) {
    do {
        if (FileIsDotName(entry->cFileName)) {
            continue;
        }
        std::optional<std::string> name = Unicode_FromWide(entry->cFileName);
        if (!name) {
            Log_Level(LOG_ALWAYS, "FILE: %s: a name in (%s) is no valid UTF-16; left out\n",
                      "FileListDirectoryRetry", directory);
            continue;
        }
        ++*count;
        if (names != nullptr) {
            names->push_back(std::move(*name));
        }
    } while (fileWin32Calls.findNextFile(search, entry));
    return GetLastError();
}

// The search for everything in a directory, or none with the last error set.
FindHandle FileStartListing(const char* directory, uint32_t budgetMs, WIN32_FIND_DATAW* entry) {
    FindHandle search;
    std::wstring wide;
    std::string pattern = directory == nullptr ? "" : File_StripSlashes(std::string(directory) + "\\*.*");
    uint32_t error = FileWideName(directory == nullptr ? nullptr : pattern.c_str(), &wide);
    if (error == ERROR_SUCCESS) {
        FileRetryOutcome outcome = FileRetry(
            budgetMs,
            [&] {
                search.Reset(fileWin32Calls.findFirstFile(wide.c_str(), entry));
                return FileOutcome(static_cast<bool>(search));
            },
            FileRandomSleep);
        error = outcome.win32Error;
        if (outcome.expired) {
            Log_Level(LOG_ALWAYS, "FILE: %s: retry time expired (%s); last error %d\n",
                      "FileListDirectoryRetry", pattern.c_str(), static_cast<int>(error));
        }
    }
    SetLastError(error);
    return search;
}

} // namespace

int FileMapWin32Error(const char* operation, uint32_t win32Error) {
    std::optional<int> code = FileErrnoFromWin32(win32Error);
    if (!code) {
        Log_Level(LOG_ALWAYS, "FILE: %s unmapped error code %d\n", operation, static_cast<int>(win32Error));
    }
    SetLastError(win32Error);
    return code.value_or(FILE_EIO);
}

uint32_t FileRandomSleep(uint32_t minMs, uint32_t maxMs) {
    uint32_t pauseMs = minMs;
    if (minMs != maxMs) {
        uint32_t state = randomState.load(std::memory_order_relaxed);
        state = FileRandomAdvance(state == 0 ? GetCurrentProcessId() : state);
        randomState.store(state, std::memory_order_relaxed);
        pauseMs = FileRandomScale(state, minMs, maxMs);
    }
    fileWin32Calls.sleep(pauseMs);
    return pauseMs;
}

std::optional<std::string> File_FullPath(const char* name) {
    std::wstring wide;
    uint32_t error = name == nullptr ? ERROR_SUCCESS : FileWideName(name, &wide);
    if (error == ERROR_SUCCESS) {
        std::unique_ptr<wchar_t, FreeDeleter> full(
            _wfullpath(nullptr, name == nullptr ? nullptr : wide.c_str(), 0));
        error = full == nullptr ? GetLastError() : ERROR_INVALID_NAME;
        if (full != nullptr) {
            if (std::optional<std::string> result = Unicode_FromWide(full.get())) {
                return result;
            }
        }
    }
    Warning("FILE: %s:  _wfullpath failed on (%s): %d\n", "File_FullPath", name == nullptr ? "" : name,
            static_cast<int>(error));
    SetLastError(error);
    return std::nullopt;
}

int FileListDirectoryRetry(const char* directory, uint32_t budgetMs, std::vector<std::string>* names) {
    WIN32_FIND_DATAW entry;
    FindHandle search = FileStartListing(directory, budgetMs, &entry);
    if (!search) {
        return -1;
    }
    int count = 0;
    std::vector<std::string> found;
    uint32_t error =
        FileReadEntries(search.Get(), &entry, directory, &count, names == nullptr ? nullptr : &found);
    if (!fileWin32Calls.findClose(search.Release())) {
        Log_Level(LOG_ALWAYS, "FILE: %s: FindClose failure (%d) on (%s)\n", "FileListDirectoryRetry",
                  static_cast<int>(GetLastError()), directory);
    }
    if (error != ERROR_NO_MORE_FILES) {
        Log_Level(LOG_ALWAYS, "FILE: %s: FindNextFile failure (%d) on (%s)\n", "FileListDirectoryRetry",
                  static_cast<int>(error), directory);
        count = -1;
    } else if (names != nullptr) {
        *names = std::move(found);
    }
    SetLastError(error);
    return count;
}

int File_ListDirectory(const char* directory, std::vector<std::string>* names) {
    return FileListDirectoryRetry(directory, 0, names);
}

int FileRenameRetry(const char* oldName, const char* newName, uint32_t budgetMs) {
    std::wstring wideNew;
    uint32_t error = FileWideName(newName, &wideNew);
    if (error != ERROR_SUCCESS) {
        return FileMapWin32Error("FileRenameRetry", error);
    }
    return FileRetryOn("FileRenameRetry", oldName, budgetMs,
                       [&](const wchar_t* wide) { return fileWin32Calls.moveFile(wide, wideNew.c_str()); });
}

int FileDeletionRetry(const char* name, bool /*handleLink*/, uint32_t budgetMs) {
    return FileRetryOn("FileDeletionRetry", name, budgetMs,
                       [](const wchar_t* wide) { return fileWin32Calls.deleteFile(wide); });
}

int FileCreateDirectoryRetry(const char* name, uint32_t budgetMs) {
    // Bytes bound UTF-16 units, so that a name of usual length is not converted for this check alone.
    std::wstring wide;
    if (name != nullptr && strlen(name) > FILE_MAX_NAME && FileWideName(name, &wide) == ERROR_SUCCESS &&
        FileIsNameTooLong(name, wide.size())) {
        errno = FILE_ENAMETOOLONG;
        return FileMapWin32Error("FileCreateDirectoryRetry", ERROR_FILENAME_EXCED_RANGE);
    }
    return FileRetryOn("FileCreateDirectoryRetry", name, budgetMs,
                       [](const wchar_t* path) { return fileWin32Calls.createDirectory(path, nullptr); });
}

int FileRemoveDirectoryRetry(const char* name, uint32_t budgetMs) {
    return FileRetryOn("FileRemoveDirectoryRetry", name, budgetMs,
                       [](const wchar_t* wide) { return fileWin32Calls.removeDirectory(wide); });
}

int FileAttributesRetry(const char* name, uint32_t budgetMs, FileData* data) {
    WIN32_FILE_ATTRIBUTE_DATA attributes;
    int code = FileRetryOn("FileAttributesRetry", name, budgetMs, [&](const wchar_t* wide) {
        return fileWin32Calls.getFileAttributesEx(wide, GetFileExInfoStandard, &attributes);
    });
    if (code == 0 && data != nullptr) {
        *data = FileDataFromAttributes(attributes);
    }
    return code;
}

bool File_Exists(const char* name) {
    return FileIO_Access(name, FILEIO_ACCESS_EXISTS) == FileIOResult::Success;
}

bool File_IsDirectory(const char* name) {
    FileData data;
    return FileAttributesRetry(name, 0, &data) == 0 && data.type == 1;
}

int File_Unlink(const char* name) {
    return FileDeletionRetry(name, true, 0) == 0 ? 0 : -1;
}

bool File_CreateDirectory(const char* name) {
    return FileCreateDirectoryRetry(name, 0) == 0;
}

bool File_EnsureDirectory(const char* name) {
    int code = FileCreateDirectoryRetry(name, 0);
    return code == 0 || code == FILE_EEXIST;
}
