// Path and file operations over the wide Windows calls, with retries and one mapping of errors.
//
// Names are UTF-8; both "/" and "\\" separate. Result codes called "errno-style" are the numbers that
// FileMapWin32Error gives: 0 success, 2 no such file, 5 I/O error, 9 bad descriptor, 12 out of memory,
// 13 permission denied, 14 bad address, 16 busy, 17 exists, 20 not a directory, 22 invalid argument,
// 24 too many open files, 28 no space, 30 read-only, 38 name too long, 40 not supported, 41 directory not
// empty. Every failure leaves the Windows error in the thread's last-error slot. Any thread, though what is
// reported goes to the log, which has no lock. A null name counts as a missing argument (Windows error 487,
// code 14), never as the empty name; a name that is no valid UTF-8 is an invalid name (123, code 22).
//
// Operations with a budget try again while the system answers a sharing violation (32) or a denial (5), as it
// does while a virus scanner looks at a file. They pause 10 to 99 ms between attempts until the pauses asked
// for add up to the budget in ms, and then report the expiry in the log. Budget 0 means one attempt.
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
    uint32_t mode;             // POSIX permission bits: 0777 directory, 0666 file; read-only: 0555, 0444
    uint32_t owner;            // always 0
    uint32_t group;            // always 0
};

// The absolute name; that of the current directory for a null name. None on failure, with a warning.
std::optional<std::string> File_FullPath(const char* name);

// Number of entries without "." and "..", or -1. `names` (optional) receives them in the directory's own
// order and is untouched after a failure. The last error is 18 (no more files) after success. A name that is
// no valid UTF-16 is neither listed nor counted, but reported in the log.
int File_ListDirectory(const char* directory, std::vector<std::string>* names);
int FileListDirectoryRetry(const char* directory, uint32_t budgetMs, std::vector<std::string>* names);

// Whether the calling thread may create files in a directory, by the directory's security descriptor.
// Impersonates the process on this thread for a moment when the thread has no token of its own.
bool FileIsWritableDir(const char* directory);

// The directory for temporary files, without a trailing "\\": the system's, else the user's; none, with a
// warning, when neither can be written to. `useConfig` asks for a configured one first, of which there is
// none so far.
std::optional<std::string> File_GetTmpDir(bool useConfig);

// errno-style codes.
int FileRenameRetry(const char* oldName, const char* newName, uint32_t budgetMs);
int FileDeletionRetry(const char* name, bool handleLink, uint32_t budgetMs); // the flag has no effect
// Refuses a name of more than 260 UTF-16 units without the prefix "\\?\" before it asks the system: code 38.
int FileCreateDirectoryRetry(const char* name, uint32_t budgetMs);
int FileRemoveDirectoryRetry(const char* name, uint32_t budgetMs);
int FileAttributesRetry(const char* name, uint32_t budgetMs,
                        FileData* data); // data: optional, filled on success

// One attempt each.
bool File_Exists(const char* name);
bool File_IsDirectory(const char* name);
int File_Unlink(const char* name);        // 0, or -1 on failure
int File_UnlinkDelayed(const char* name); // 0, or -1 on failure, logged: deletion at the next restart
bool File_CreateDirectory(const char* name);
bool File_EnsureDirectory(const char* name); // anything that already exists under the name counts as success

// Splitting of names: pure text, no file system. The volume is "C:" or a UNC head "\\server\share"; the
// directory keeps its separators at both ends; a base that would begin inside the volume is empty ("C:x":
// "C:", "", ""). "\\server" alone is all base. Outs are optional.
void File_SplitName(const std::string& name, std::string* volume, std::string* directory, std::string* base);
// The path is volume and directory without any trailing separator: "C:" for "C:\x", "" for "\x".
void File_GetPathName(const std::string& name, std::string* path, std::string* base);
// The name without trailing separators; a directory part that is nothing else keeps one.
std::string File_StripSlashes(const std::string& name);

// Sets the last error to `win32Error`. An error without a code is logged under the operation's name and
// gives 5.
int FileMapWin32Error(const char* operation, uint32_t win32Error);

// Sleeps minMs plus a random part of the span and returns it; the two may be equal. One generator for the
// process, seeded with its id, without a lock: a lost update only changes a pause.
uint32_t FileRandomSleep(uint32_t minMs, uint32_t maxMs);
