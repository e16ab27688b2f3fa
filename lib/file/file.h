// Path and file operations over the wide Windows calls, with retries and one mapping of errors.
//
// Names are UTF-8; both "/" and "\\" separate. Result codes called "errno-style" are the numbers that
// FileMapWin32Error gives: 0 success, 2 no such file, 5 I/O error, 9 bad descriptor, 12 out of memory,
// 13 permission denied, 14 bad address, 16 busy, 17 exists, 20 not a directory, 22 invalid argument,
// 24 too many open files, 28 no space, 30 read-only, 38 name too long, 40 not supported, 41 directory not
// empty. Every failure leaves the Windows error in the thread's last-error slot. Any thread, unless said
// otherwise. A null name counts as a missing argument (Windows error 487, code 14), never as the empty name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct FileData {
    uint64_t accessTime;       // FILETIME: units of 100 ns since 1601-01-01 UTC
    uint64_t creationTime;     // the same unit
    uint64_t modificationTime; // the same unit
    uint64_t size;             // bytes
    uint32_t type;             // 1 directory, 0 anything else
    uint32_t mode;             // POSIX permission bits derived from the read-only attribute
    uint32_t owner;            // always 0
    uint32_t group;            // always 0
};

std::optional<std::string> File_FullPath(const char* name);

// Number of entries without "." and "..", or -1. Names (optional) receives them in the directory's own order.
int File_ListDirectory(const char* directory, std::vector<std::string>* names);
int FileListDirectoryRetry(const char* directory, uint32_t budgetMs, std::vector<std::string>* names);

bool FileIsWritableDir(const char* directory);

// The directory for temporary files, without a trailing "\\"; none when there is no writable one.
std::optional<std::string> File_GetTmpDir(bool useConfig);

// errno-style codes; the budget is in milliseconds, 0 means one attempt.
int FileRenameRetry(const char* oldName, const char* newName, uint32_t budgetMs);
int FileDeletionRetry(const char* name, bool handleLink, uint32_t budgetMs);
int FileCreateDirectoryRetry(const char* name, uint32_t budgetMs);
int FileRemoveDirectoryRetry(const char* name, uint32_t budgetMs);
int FileAttributesRetry(const char* name, uint32_t budgetMs, FileData* data);

bool File_Exists(const char* name);
bool File_IsDirectory(const char* name);
int File_Unlink(const char* name);        // 0, or -1 on failure
int File_UnlinkDelayed(const char* name); // 0, or -1 on failure: deletion at the next restart
bool File_CreateDirectory(const char* name);
bool File_EnsureDirectory(const char* name); // an existing directory counts as success

// Splitting and joining of names: pure text, no file system.
void File_SplitName(const std::string& name, std::string* volume, std::string* directory, std::string* base);
void File_GetPathName(const std::string& name, std::string* path, std::string* base);
std::string File_StripSlashes(const std::string& name);

int FileMapWin32Error(const char* operation, uint32_t win32Error);

// Sleeps a random time between the two and returns it, in milliseconds.
uint32_t FileRandomSleep(uint32_t minMs, uint32_t maxMs);
