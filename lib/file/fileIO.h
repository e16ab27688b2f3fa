// Descriptor-level file access: open, read, write, seek, close, with a small portable set of flags.
//
// Every failure leaves the Windows error in the thread's last-error slot. A descriptor belongs to one thread
// at a time; different descriptors are independent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct FileLock_Token;

// The numbers are part of the contract; 1 is not used.
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
inline constexpr uint32_t FILEIO_OPEN_SYNC = 0x4;            // writes go through to the disk
inline constexpr uint32_t FILEIO_OPEN_DELETE_ON_CLOSE = 0x8; // and hidden until then
inline constexpr uint32_t FILEIO_OPEN_UNBUFFERED = 0x10;     // transfers must be whole sectors
inline constexpr uint32_t FILEIO_OPEN_LOCKED = 0x20; // advisory lock on the name, exclusive when writing
inline constexpr uint32_t FILEIO_OPEN_ASYNC = 0x40;  // passed on; this layer starts no overlapped transfer
inline constexpr uint32_t FILEIO_OPEN_EXCLUSIVE_READ = 0x200;  // nobody else reads
inline constexpr uint32_t FILEIO_OPEN_EXCLUSIVE_WRITE = 0x400; // nobody else writes
inline constexpr uint32_t FILEIO_OPEN_SEQUENTIAL = 0x800;

// FileIO_Access modes. Reading (0x1) and executing (0x4) are granted to whatever exists.
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
    FileLock_Token* lockToken = nullptr; // advisory lock held on the name, or null
};

void FileIO_Invalidate(FileIODescriptor* descriptor); // forgets what it holds; closes nothing
bool FileIO_IsValid(const FileIODescriptor* descriptor);

// Whatever the descriptor held is forgotten, not closed. After a failure it is invalid and holds no lock. A
// name of more than 260 UTF-16 units without the prefix "\\?\" gives NameTooLong. Permissions are ignored.
FileIOResult FileIO_Open(FileIODescriptor* descriptor, const char* name, uint32_t flags,
                         FileIOOpenAction action);
FileIOResult FileIO_Create(FileIODescriptor* descriptor, const char* name, uint32_t flags,
                           FileIOOpenAction action, uint32_t permissions);

// The new position in bytes, or -1.
int64_t FileIO_Seek(FileIODescriptor* descriptor, int64_t distance, FileIOSeekOrigin origin);

// Transfer the whole length or fail; `actual` (optional) receives the bytes transferred in either case. A
// length of 2 GiB or more stops the program.
FileIOResult FileIO_Write(FileIODescriptor* descriptor, const void* buffer, size_t length, size_t* actual);
FileIOResult FileIO_Read(FileIODescriptor* descriptor, void* buffer, size_t length, size_t* actual);

// The descriptor is invalid afterwards in either case.
bool FileIO_Close(FileIODescriptor* descriptor); // true when closing FAILED

// Success or Error. Only a file with the read-only attribute refuses writing; a directory never does.
FileIOResult FileIO_Access(const char* name, uint32_t mode);

// Take and give back the advisory lock on the descriptor's name, as open and close do; callable alone.
// Without FILEIO_OPEN_LOCKED, or without a lock held, nothing happens. Waits at most 2.5 s for other holders.
FileIOResult FileIO_Lock(FileIODescriptor* descriptor, uint32_t flags);
FileIOResult FileIO_Unlock(FileIODescriptor* descriptor);
