// Descriptor-level file access: open, read, write, seek, close, with a small portable set of flags.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

enum class FileIOResult : uint32_t {
    Success = 0,
    Error = 2,
    FileExists = 3, // create-new met an existing file
    LockFailed = 4, // the advisory lock could not be taken
    EndOfFile = 5,  // fewer bytes than asked for were left
    FileNotFound = 6,
    NoPermission = 7,
    NameTooLong = 8,
};

// Access and option bits.
inline constexpr uint32_t FILEIO_OPEN_READ = 0x1;
inline constexpr uint32_t FILEIO_OPEN_WRITE = 0x2;
inline constexpr uint32_t FILEIO_OPEN_SYNC = 0x4;
inline constexpr uint32_t FILEIO_OPEN_DELETE_ON_CLOSE = 0x8;
inline constexpr uint32_t FILEIO_OPEN_UNBUFFERED = 0x10;
inline constexpr uint32_t FILEIO_OPEN_LOCKED = 0x20;
inline constexpr uint32_t FILEIO_OPEN_ASYNC = 0x40;
inline constexpr uint32_t FILEIO_OPEN_EXCLUSIVE_READ = 0x200;
inline constexpr uint32_t FILEIO_OPEN_EXCLUSIVE_WRITE = 0x400;
inline constexpr uint32_t FILEIO_OPEN_SEQUENTIAL = 0x800;

// FileIO_Access modes.
inline constexpr uint32_t FILEIO_ACCESS_WRITE = 0x2;
inline constexpr uint32_t FILEIO_ACCESS_EXISTS = 0x8;

enum class FileIOOpenAction : uint32_t {
    Open = 0,        // must exist
    OpenEmpty = 1,   // must exist, is emptied
    OpenCreate = 2,  // created if absent
    CreateSafe = 3,  // must not exist
    CreateEmpty = 4, // created, emptied if present
};

enum class FileIOSeekOrigin : uint32_t { Begin = 0, Current = 1, End = 2 };

// One thread at a time. All zero when invalid.
struct FileIODescriptor {
    void* handle = nullptr; // Windows file handle, null when invalid
    uint32_t flags = 0;     // as given at open
    std::string fileName;
    void* lockToken = nullptr; // advisory lock held on the name, or null
};

void FileIO_Invalidate(FileIODescriptor* descriptor);
bool FileIO_IsValid(const FileIODescriptor* descriptor);

FileIOResult FileIO_Open(FileIODescriptor* descriptor, const char* name, uint32_t flags,
                         FileIOOpenAction action);
FileIOResult FileIO_Create(FileIODescriptor* descriptor, const char* name, uint32_t flags,
                           FileIOOpenAction action, uint32_t permissions);
int64_t FileIO_Seek(FileIODescriptor* descriptor, int64_t distance, FileIOSeekOrigin origin);
FileIOResult FileIO_Write(FileIODescriptor* descriptor, const void* buffer, size_t length, size_t* actual);
FileIOResult FileIO_Read(FileIODescriptor* descriptor, void* buffer, size_t length, size_t* actual);
bool FileIO_Close(FileIODescriptor* descriptor); // true when closing FAILED
FileIOResult FileIO_Access(const char* name, uint32_t mode);
FileIOResult FileIO_Lock(FileIODescriptor* descriptor, uint32_t flags);
FileIOResult FileIO_Unlock(FileIODescriptor* descriptor);
