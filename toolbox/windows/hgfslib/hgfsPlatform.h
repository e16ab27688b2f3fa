// What the file server needs from the system under it. One table per system: Windows in the product, a file
// system in memory for tests and fuzzing.
//
// Paths are local paths in UTF-8 that have passed HgfsServerCheckPath: valid, without NUL, and short enough.
// Every function that returns uint32_t returns a Windows error, 0 for success, and leaves its outputs
// untouched when it fails. Times count 100 ns since 1601-01-01 UTC. The functions may be called from several
// threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// The Windows errors that the server itself gives out or looks for.
enum HgfsError : uint32_t {
    HgfsErrorNone = 0,
    HgfsErrorInvalidFunction = 1,
    HgfsErrorFileNotFound = 2,
    HgfsErrorPathNotFound = 3,
    HgfsErrorAccessDenied = 5,
    HgfsErrorInvalidHandle = 6,
    HgfsErrorNotEnoughMemory = 8,
    HgfsErrorNotSameDevice = 17,
    HgfsErrorSharingViolation = 32,
    HgfsErrorHandleEof = 38,
    HgfsErrorHandleDiskFull = 39,
    HgfsErrorNotSupported = 50,
    HgfsErrorFileExists = 80,
    HgfsErrorInvalidParameter = 87,
    HgfsErrorDiskFull = 112,
    HgfsErrorInvalidName = 123,
    HgfsErrorDirNotEmpty = 145,
    HgfsErrorAlreadyExists = 183,
    HgfsErrorDirectory = 267, // not a directory
    HgfsErrorIoDevice = 1117,
    HgfsErrorProtocol = 1728, // the request is malformed
    HgfsErrorInternal = 0xFFFFFFFF,
};

// Access rights, share bits, dispositions, attributes and flags of an open, with the system's own values.
inline constexpr uint32_t kHgfsAccessReadData = 0x1;
inline constexpr uint32_t kHgfsAccessWriteData = 0x2;
inline constexpr uint32_t kHgfsAccessAppendData = 0x4;
inline constexpr uint32_t kHgfsAccessReadAttributes = 0x80;
inline constexpr uint32_t kHgfsAccessWriteAttributes = 0x100;
inline constexpr uint32_t kHgfsAccessReadControl = 0x20000;
inline constexpr uint32_t kHgfsAccessSynchronize = 0x100000;
inline constexpr uint32_t kHgfsAccessGenericRead = 0x80000000;
inline constexpr uint32_t kHgfsAccessGenericWrite = 0x40000000;
inline constexpr uint32_t kHgfsAccessWriting = 0x50010156; // every right that changes a file
inline constexpr uint32_t kHgfsShareRead = 1;
inline constexpr uint32_t kHgfsShareAll = 7; // reading, writing and deleting
enum HgfsDisposition : uint32_t {
    HgfsCreateNew = 1,
    HgfsCreateAlways = 2,
    HgfsOpenExisting = 3,
    HgfsOpenAlways = 4,
    HgfsTruncateExisting = 5,
};
inline constexpr uint32_t kHgfsFileReadOnly = 0x1;
inline constexpr uint32_t kHgfsFileHidden = 0x2;
inline constexpr uint32_t kHgfsFileSystem = 0x4;
inline constexpr uint32_t kHgfsFileDirectory = 0x10;
inline constexpr uint32_t kHgfsFileArchive = 0x20;
inline constexpr uint32_t kHgfsFileNormal = 0x80;
inline constexpr uint32_t kHgfsFlagBackupSemantics = 0x2000000; // directories too
inline constexpr uint32_t kHgfsFlagOverlapped = 0x40000000;

using HgfsOsHandle = void*;

struct HgfsOpenArguments {
    uint32_t access;
    uint32_t share;
    uint32_t disposition;
    uint32_t flags; // attributes of a created file, and flags
};

struct HgfsFileId {
    uint64_t volume;
    uint64_t index;
    bool operator==(const HgfsFileId&) const = default;
};

struct HgfsFileInfo {
    HgfsFileId id; // without the volume, unless that is known
    bool knowsVolume;
    uint64_t size;
    uint64_t allocationSize;
    uint64_t creationTime;
    uint64_t accessTime;
    uint64_t writeTime;
    uint64_t changeTime;
    uint32_t attributes;
    bool isLink; // the file named is a link; the rest describes what it leads to, or the link if that is gone
    bool hasMoreStreams;    // besides the default one
    std::string linkTarget; // UTF-8, empty when unknown
};

// What to change of a file; a field without its flag is left alone.
struct HgfsFileChange {
    bool setSize;
    bool setReadOnly;   // from readOnly
    bool setAttributes; // hidden, system and archive, from attributes
    bool readOnly;
    uint32_t attributes;
    uint64_t size;
    uint64_t creationTime; // times: 0 leaves the file's alone
    uint64_t accessTime;
    uint64_t writeTime;
    uint64_t changeTime;
};

using HgfsEntryCallback = void (*)(void* data, std::string_view name);

struct HgfsPlatform {
    // Bracket all other calls. A failed startUp leaves nothing to shut down.
    uint32_t (*startUp)();
    void (*shutDown)();

    // `existed` (optional): whether the file was there before. The caller closes the handle.
    uint32_t (*open)(const std::string& path, const HgfsOpenArguments& arguments, HgfsOsHandle* handle,
                     bool* existed);
    bool (*close)(HgfsOsHandle handle);

    // Reads or writes at `offset` of an overlapped handle, and collects the result however long it takes.
    uint32_t (*readAt)(HgfsOsHandle handle, uint64_t offset, std::span<uint8_t> data, uint32_t* actual);
    uint32_t (*writeAt)(HgfsOsHandle handle, uint64_t offset, std::span<const uint8_t> data,
                        uint32_t* actual);
    // At the current end of the file.
    uint32_t (*append)(HgfsOsHandle handle, std::span<const uint8_t> data, uint32_t* actual);
    // At the position of a handle that is not overlapped.
    uint32_t (*readNext)(HgfsOsHandle handle, std::span<uint8_t> data, uint32_t* actual);
    uint32_t (*writeNext)(HgfsOsHandle handle, std::span<const uint8_t> data, uint32_t* actual);
    uint32_t (*getPosition)(HgfsOsHandle handle, uint64_t* position);
    uint32_t (*setPosition)(HgfsOsHandle handle, uint64_t position);

    uint32_t (*getFileId)(HgfsOsHandle handle, HgfsFileId* id);
    uint32_t (*getAttributes)(const std::string& path, uint32_t* attributes);
    uint32_t (*getInfo)(const std::string& path, HgfsFileInfo* info);
    // The volume is what takes longest to find out; this leaves it open.
    uint32_t (*getEntryInfo)(const std::string& path, HgfsFileInfo* info);
    uint32_t (*getInfoByHandle)(HgfsOsHandle handle, HgfsFileInfo* info);
    uint32_t (*change)(const std::string& path, const HgfsFileChange& change);
    uint32_t (*changeByHandle)(HgfsOsHandle handle, const HgfsFileChange& change);
    uint64_t (*now)();

    uint32_t (*createDirectory)(const std::string& path);
    uint32_t (*deleteFile)(const std::string& path);
    uint32_t (*deleteDirectory)(const std::string& path);
    uint32_t (*rename)(const std::string& from, const std::string& to);

    // Calls `entry`, which may throw, for every name in a directory except "." and "..", in the order of the
    // file system. Names that UTF-8 cannot carry are left out.
    uint32_t (*listDirectory)(const std::string& path, HgfsEntryCallback entry, void* data);

    // The roots of all volumes that the machine has at this moment.
    uint32_t (*listVolumes)(std::vector<std::string>* roots);
    // Of the volume that holds the path.
    uint32_t (*getVolumeSpace)(const std::string& path, uint64_t* freeBytes, uint64_t* totalBytes);
};

// The system's own table.
const HgfsPlatform* HgfsPlatform_System();
