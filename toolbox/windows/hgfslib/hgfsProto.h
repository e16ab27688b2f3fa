// The HGFS wire format: numbers, limits, the operation table and the layout of every packet, shared by the
// guest's server and by whoever plays the host. Constants and byte codecs only; no state, no dependency.
//
// All integers are little-endian and packed without padding, so a 64-bit field may start anywhere. Offsets
// count from the start of the packet, sizes are bytes. A layout is a struct of offsets that is never
// instantiated; a later version inherits what it shares with the one before. Its MinimumSize (requests) or
// Size (replies) is derived from the offsets and checked below against the fixed figures.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

inline constexpr size_t kHgfsHeaderSize = 8;
inline constexpr size_t kHgfsPacketMax = 6144;       // operations of versions 1 and 2
inline constexpr size_t kHgfsLargePacketMax = 63488; // reading and writing in version 3
inline constexpr size_t kHgfsReadMaxV1 = 6132;       // data in one reply
inline constexpr size_t kHgfsReadMaxV3 = 63468;
inline constexpr size_t kHgfsLocalPathMax = 6144; // a local path with its NUL
inline constexpr size_t kHgfsEntryNameMax = 1024; // a directory entry's name with its NUL

enum HgfsOp : uint32_t {
    HgfsOpOpen,
    HgfsOpRead,
    HgfsOpWrite,
    HgfsOpClose,
    HgfsOpSearchOpen,
    HgfsOpSearchRead,
    HgfsOpSearchClose,
    HgfsOpGetattr,
    HgfsOpSetattr,
    HgfsOpCreateDir,
    HgfsOpDeleteFile,
    HgfsOpDeleteDir,
    HgfsOpRename,
    HgfsOpQueryVolumeInfo,
    HgfsOpOpenV2,
    HgfsOpGetattrV2,
    HgfsOpSetattrV2,
    HgfsOpSearchReadV2,
    HgfsOpCreateSymlink,
    HgfsOpServerLockChange,
    HgfsOpCreateDirV2,
    HgfsOpDeleteFileV2,
    HgfsOpDeleteDirV2,
    HgfsOpRenameV2,
    HgfsOpOpenV3,
    HgfsOpReadV3,
    HgfsOpWriteV3,
    HgfsOpCloseV3,
    HgfsOpSearchOpenV3,
    HgfsOpSearchReadV3,
    HgfsOpSearchCloseV3,
    HgfsOpGetattrV3,
    HgfsOpSetattrV3,
    HgfsOpCreateDirV3,
    HgfsOpDeleteFileV3,
    HgfsOpDeleteDirV3,
    HgfsOpRenameV3,
    HgfsOpQueryVolumeInfoV3,
    HgfsOpCreateSymlinkV3,
    HgfsOpServerLockChangeV3,
    HgfsOpCount
};

enum HgfsStatus : uint32_t {
    HgfsStatusSuccess,
    HgfsStatusNoSuchFileOrDir,
    HgfsStatusInvalidHandle,
    HgfsStatusOperationNotPermitted,
    HgfsStatusFileExists,
    HgfsStatusNotDirectory,
    HgfsStatusDirNotEmpty,
    HgfsStatusProtocolError,
    HgfsStatusAccessDenied,
    HgfsStatusInvalidName,
    HgfsStatusGenericError,
    HgfsStatusSharingViolation,
    HgfsStatusNoSpace,
    HgfsStatusOperationNotSupported,
    HgfsStatusNameTooLong,
    HgfsStatusInvalidParameter,
    HgfsStatusNotSameDevice
};

// ---- Values of fields ----

// Open mode: the low two bits are the access, 3 is malformed.
inline constexpr uint32_t kHgfsModeRead = 0;
inline constexpr uint32_t kHgfsModeWrite = 1;
inline constexpr uint32_t kHgfsModeReadWrite = 2;
inline constexpr uint32_t kHgfsModeAccessBits = 3;
inline constexpr uint32_t kHgfsModeSequential = 4; // offsets are ignored; the file's own position counts

// Open flags.
inline constexpr uint32_t kHgfsOpenExisting = 0;
inline constexpr uint32_t kHgfsOpenTruncate = 1; // an existing file, emptied
inline constexpr uint32_t kHgfsOpenCreate = 2;   // created if missing
inline constexpr uint32_t kHgfsOpenCreateNew = 3;
inline constexpr uint32_t kHgfsOpenCreateEmpty = 4; // created, or emptied if it exists

// Permission bits, of one class of users.
inline constexpr uint8_t kHgfsPermRead = 4;
inline constexpr uint8_t kHgfsPermWrite = 2;
inline constexpr uint8_t kHgfsPermExecute = 1;

// File attributes.
inline constexpr uint64_t kHgfsAttrHidden = 0x1;
inline constexpr uint64_t kHgfsAttrSystem = 0x2;
inline constexpr uint64_t kHgfsAttrArchive = 0x4;
inline constexpr uint64_t kHgfsAttrMoreStreams = 0x8; // replies only: data that these operations do not reach

// File types.
inline constexpr uint32_t kHgfsTypeRegular = 0;
inline constexpr uint32_t kHgfsTypeDirectory = 1;

// Write flags.
inline constexpr uint8_t kHgfsWriteAppend = 0x1;

// Valid-field mask of open (versions 2 and 3) and, as far as it has the fields, of create directory.
inline constexpr uint64_t kHgfsMaskMode = 0x1;
inline constexpr uint64_t kHgfsMaskFlags = 0x2;
inline constexpr uint64_t kHgfsMaskSpecialPerms = 0x4;
inline constexpr uint64_t kHgfsMaskOwnerPerms = 0x8;
inline constexpr uint64_t kHgfsMaskGroupPerms = 0x10;
inline constexpr uint64_t kHgfsMaskOtherPerms = 0x20;
inline constexpr uint64_t kHgfsMaskAttributes = 0x40;
inline constexpr uint64_t kHgfsMaskAllocationSize = 0x80;
inline constexpr uint64_t kHgfsMaskDesiredAccess = 0x100;
inline constexpr uint64_t kHgfsMaskShareAccess = 0x200;
inline constexpr uint64_t kHgfsMaskDesiredLock = 0x400;
inline constexpr uint64_t kHgfsMaskName = 0x800;
inline constexpr uint64_t kHgfsMaskOpenV1 = 0x80B; // what a version 1 open amounts to

// Valid-field mask of get and set attributes, delete and rename (versions 2 and 3).
inline constexpr uint64_t kHgfsMaskHandle = 0x1; // act on the handle's file; the (old) name is not looked at

// Update mask of set attributes, version 1.
inline constexpr uint8_t kHgfsUpdateSize = 0x1;
inline constexpr uint8_t kHgfsUpdateCreation = 0x2;
inline constexpr uint8_t kHgfsUpdateAccess = 0x4;
inline constexpr uint8_t kHgfsUpdateWrite = 0x8;
inline constexpr uint8_t kHgfsUpdateChange = 0x10;
inline constexpr uint8_t kHgfsUpdatePermissions = 0x20;

// Mask of the 104-byte attribute block: which fields hold something (replies) or are to be set (requests).
inline constexpr uint64_t kHgfsBlockType = 0x1;
inline constexpr uint64_t kHgfsBlockSize = 0x2;
inline constexpr uint64_t kHgfsBlockCreation = 0x4;
inline constexpr uint64_t kHgfsBlockAccess = 0x8;
inline constexpr uint64_t kHgfsBlockWrite = 0x10;
inline constexpr uint64_t kHgfsBlockChange = 0x20;
inline constexpr uint64_t kHgfsBlockSpecialPerms = 0x40;
inline constexpr uint64_t kHgfsBlockOwnerPerms = 0x80;
inline constexpr uint64_t kHgfsBlockGroupPerms = 0x100;
inline constexpr uint64_t kHgfsBlockOtherPerms = 0x200;
inline constexpr uint64_t kHgfsBlockAttributes = 0x400;
inline constexpr uint64_t kHgfsBlockAllocationSize = 0x800;
inline constexpr uint64_t kHgfsBlockUserId = 0x1000;
inline constexpr uint64_t kHgfsBlockGroupId = 0x2000;
inline constexpr uint64_t kHgfsBlockFileId = 0x4000;
inline constexpr uint64_t kHgfsBlockVolumeId = 0x8000;
inline constexpr uint64_t kHgfsBlockEffectivePerms = 0x10000;

// Case type of a version 3 name. Windows names ignore case either way.
inline constexpr uint32_t kHgfsCaseDefault = 0;
inline constexpr uint32_t kHgfsCaseSensitive = 1;
inline constexpr uint32_t kHgfsCaseInsensitive = 2;

// ---- Blocks inside packets ----

// A name: its length, in version 3 three more words, the bytes, and one NUL that the length does not count.
struct HgfsNameV1 {
    static constexpr size_t Length = 0;
    static constexpr size_t Bytes = 4;
    static constexpr size_t EmptySize = Bytes + 1;
};
struct HgfsNameV3 {
    static constexpr size_t Length = 0;
    static constexpr size_t Flags = 4; // ignored by the server
    static constexpr size_t CaseType = 8;
    static constexpr size_t Handle = 12; // ignored by the server
    static constexpr size_t Bytes = 16;
    static constexpr size_t EmptySize = Bytes + 1;
};

// Times count 100 ns since 1601-01-01 00:00 UTC.
struct HgfsAttrV1 {
    static constexpr size_t Type = 0;
    static constexpr size_t FileSize = 4;
    static constexpr size_t CreationTime = 12;
    static constexpr size_t AccessTime = 20;
    static constexpr size_t WriteTime = 28;
    static constexpr size_t ChangeTime = 36;
    static constexpr size_t Permissions = 44;
    static constexpr size_t Size = 45;
};
struct HgfsAttrV2 {
    static constexpr size_t Mask = 0;
    static constexpr size_t Type = 8;
    static constexpr size_t FileSize = 12;
    static constexpr size_t CreationTime = 20;
    static constexpr size_t AccessTime = 28;
    static constexpr size_t WriteTime = 36;
    static constexpr size_t ChangeTime = 44;
    static constexpr size_t SpecialPerms = 52;
    static constexpr size_t OwnerPerms = 53;
    static constexpr size_t GroupPerms = 54;
    static constexpr size_t OtherPerms = 55;
    static constexpr size_t Attributes = 56;
    static constexpr size_t AllocationSize = 64;
    static constexpr size_t UserId = 72;
    static constexpr size_t GroupId = 76;
    static constexpr size_t FileId = 80;
    static constexpr size_t VolumeId = 88;
    static constexpr size_t EffectivePerms = 92;
    static constexpr size_t Reserved = 96;
    static constexpr size_t Size = 104;
};

// ---- Headers ----

struct HgfsRequestHeader {
    static constexpr size_t Id = 0;
    static constexpr size_t Op = 4;
};
struct HgfsReplyHeader {
    static constexpr size_t Id = 0;
    static constexpr size_t Status = 4;
};

// ---- Requests ----

struct HgfsOpenRequestV1 {
    static constexpr size_t Mode = 8;
    static constexpr size_t Flags = 12;
    static constexpr size_t Permissions = 16; // of the owner
    static constexpr size_t Name = 17;
    static constexpr size_t MinimumSize = Name + HgfsNameV1::EmptySize;
};
struct HgfsOpenRequestV2 {
    static constexpr size_t Mask = 8;
    static constexpr size_t Mode = 16;
    static constexpr size_t Flags = 20;
    static constexpr size_t SpecialPerms = 24;
    static constexpr size_t OwnerPerms = 25;
    static constexpr size_t GroupPerms = 26;
    static constexpr size_t OtherPerms = 27;
    static constexpr size_t Attributes = 28;
    static constexpr size_t AllocationSize = 36;
    static constexpr size_t DesiredAccess = 44;
    static constexpr size_t ShareAccess = 48;
    static constexpr size_t DesiredLock = 52;
    static constexpr size_t Reserved = 56;
    static constexpr size_t Name = 72;
    static constexpr size_t MinimumSize = Name + HgfsNameV1::EmptySize;
};
struct HgfsOpenRequestV3 : HgfsOpenRequestV2 {
    static constexpr size_t MinimumSize = Name + HgfsNameV3::EmptySize;
};

struct HgfsReadRequestV1 {
    static constexpr size_t Handle = 8;
    static constexpr size_t Offset = 12;
    static constexpr size_t Size = 20;
    static constexpr size_t MinimumSize = 24;
};
struct HgfsReadRequestV3 : HgfsReadRequestV1 {
    static constexpr size_t Reserved = 24;
    static constexpr size_t MinimumSize = 32;
};

// The data follow the fixed part; the minimum counts one byte of them.
struct HgfsWriteRequestV1 {
    static constexpr size_t Handle = 8;
    static constexpr size_t Flags = 12;
    static constexpr size_t Offset = 13;
    static constexpr size_t Size = 21;
    static constexpr size_t Data = 25;
    static constexpr size_t MinimumSize = Data + 1;
};
struct HgfsWriteRequestV3 : HgfsWriteRequestV1 {
    static constexpr size_t Reserved = 25;
    static constexpr size_t Data = 33;
    static constexpr size_t MinimumSize = Data + 1;
};

// Close and search close.
struct HgfsHandleRequestV1 {
    static constexpr size_t Handle = 8;
    static constexpr size_t MinimumSize = 12;
};
struct HgfsHandleRequestV3 : HgfsHandleRequestV1 {
    static constexpr size_t Reserved = 12;
    static constexpr size_t MinimumSize = 20;
};

// Get attributes, delete file, delete directory, query volume and search open, version 1.
struct HgfsNameRequestV1 {
    static constexpr size_t Name = 8;
    static constexpr size_t MinimumSize = Name + HgfsNameV1::EmptySize;
};

// Query volume and search open, version 3.
struct HgfsNameRequestV3 {
    static constexpr size_t Mask = 8; // no bit is defined
    static constexpr size_t Name = 16;
    static constexpr size_t MinimumSize = Name + HgfsNameV3::EmptySize;
};

// Get attributes, delete file and delete directory, versions 2 and 3.
struct HgfsFileRequestV2 {
    static constexpr size_t Mask = 8;
    static constexpr size_t Handle = 16; // kHgfsMaskHandle
    static constexpr size_t Name = 20;
    static constexpr size_t MinimumSize = Name + HgfsNameV1::EmptySize;
};
struct HgfsFileRequestV3 : HgfsFileRequestV2 {
    static constexpr size_t Reserved = 20;
    static constexpr size_t Name = 24;
    static constexpr size_t MinimumSize = Name + HgfsNameV3::EmptySize;
};

struct HgfsSetattrRequestV1 {
    static constexpr size_t Update = 8;
    static constexpr size_t Attributes = 9;
    static constexpr size_t Name = Attributes + HgfsAttrV1::Size;
    static constexpr size_t MinimumSize = Name + HgfsNameV1::EmptySize;
};
struct HgfsSetattrRequestV2 {
    static constexpr size_t Mask = 8;
    static constexpr size_t Attributes = 16;
    static constexpr size_t Handle = Attributes + HgfsAttrV2::Size;
    static constexpr size_t Name = Handle + 4;
    static constexpr size_t MinimumSize = Name + HgfsNameV1::EmptySize;
};
struct HgfsSetattrRequestV3 : HgfsSetattrRequestV2 {
    static constexpr size_t Reserved = Handle + 4;
    static constexpr size_t Name = Reserved + 4;
    static constexpr size_t MinimumSize = Name + HgfsNameV3::EmptySize;
};

struct HgfsCreateDirRequestV1 {
    static constexpr size_t Permissions = 8;
    static constexpr size_t Name = 9;
    static constexpr size_t MinimumSize = Name + HgfsNameV1::EmptySize;
};
struct HgfsCreateDirRequestV2 {
    static constexpr size_t Mask = 8;
    static constexpr size_t SpecialPerms = 16;
    static constexpr size_t OwnerPerms = 17;
    static constexpr size_t GroupPerms = 18;
    static constexpr size_t OtherPerms = 19;
    static constexpr size_t Name = 20;
    static constexpr size_t MinimumSize = Name + HgfsNameV1::EmptySize;
};
struct HgfsCreateDirRequestV3 : HgfsCreateDirRequestV2 {
    static constexpr size_t Attributes = 20;
    static constexpr size_t Name = 28;
    static constexpr size_t MinimumSize = Name + HgfsNameV3::EmptySize;
};

// The new name block follows the old one directly.
struct HgfsRenameRequestV1 {
    static constexpr size_t OldName = 8;
    static constexpr size_t MinimumSize = OldName + 2 * HgfsNameV1::EmptySize;
};
struct HgfsRenameRequestV2 {
    static constexpr size_t Mask = 8;
    static constexpr size_t Handle = 16; // kHgfsMaskHandle: the file to rename
    static constexpr size_t Reserved = 20;
    static constexpr size_t OldName = 24;
    static constexpr size_t MinimumSize = OldName + 2 * HgfsNameV1::EmptySize;
};
struct HgfsRenameRequestV3 : HgfsRenameRequestV2 {
    static constexpr size_t MinimumSize = OldName + 2 * HgfsNameV3::EmptySize;
};

// Versions 1 and 2 of search read are the same request.
struct HgfsSearchReadRequestV1 {
    static constexpr size_t Handle = 8;
    static constexpr size_t Index = 12;
    static constexpr size_t MinimumSize = 16;
};
struct HgfsSearchReadRequestV3 : HgfsSearchReadRequestV1 {
    static constexpr size_t Flags = 16; // no bit is defined
    static constexpr size_t Reserved = 20;
    static constexpr size_t MinimumSize = 28;
};

// ---- Replies ----

// Close, search close, set attributes, create directory, the two deletes and rename.
struct HgfsEmptyReplyV1 {
    static constexpr size_t Size = kHgfsHeaderSize;
};
struct HgfsEmptyReplyV3 {
    static constexpr size_t Reserved = 8;
    static constexpr size_t Size = 16;
};

struct HgfsOpenReplyV1 {
    static constexpr size_t Handle = 8;
    static constexpr size_t Size = 12;
};
struct HgfsOpenReplyV2 : HgfsOpenReplyV1 {
    static constexpr size_t AcquiredLock = 12; // 0 unless a lock was asked for
    static constexpr size_t Size = 16;
};
struct HgfsOpenReplyV3 : HgfsOpenReplyV2 {
    static constexpr size_t Reserved = 16;
    static constexpr size_t Size = 24;
};

struct HgfsReadReplyV1 {
    static constexpr size_t ActualSize = 8;
    static constexpr size_t Data = 12;
};
struct HgfsReadReplyV3 : HgfsReadReplyV1 {
    static constexpr size_t Reserved = 12;
    static constexpr size_t Data = 20;
};

struct HgfsWriteReplyV1 {
    static constexpr size_t ActualSize = 8;
    static constexpr size_t Size = 12;
};
struct HgfsWriteReplyV3 : HgfsWriteReplyV1 {
    static constexpr size_t Reserved = 12;
    static constexpr size_t Size = 20;
};

struct HgfsSearchOpenReplyV1 {
    static constexpr size_t Handle = 8;
    static constexpr size_t Size = 12;
};
struct HgfsSearchOpenReplyV3 : HgfsSearchOpenReplyV1 {
    static constexpr size_t Reserved = 12;
    static constexpr size_t Size = 20;
};

struct HgfsGetattrReplyV1 {
    static constexpr size_t Attributes = 8;
    static constexpr size_t Size = Attributes + HgfsAttrV1::Size;
};
// The name is where a link leads to, empty for everything else. Size is that of an empty name.
struct HgfsGetattrReplyV2 {
    static constexpr size_t Attributes = 8;
    static constexpr size_t Name = Attributes + HgfsAttrV2::Size;
    static constexpr size_t Size = Name + HgfsNameV1::EmptySize;
};
struct HgfsGetattrReplyV3 {
    static constexpr size_t Attributes = 8;
    static constexpr size_t Reserved = Attributes + HgfsAttrV2::Size;
    static constexpr size_t Name = Reserved + 8;
    static constexpr size_t Size = Name + HgfsNameV3::EmptySize;
};

// An entry's attributes and name. Behind the last entry the name is empty and the attributes are zeros.
struct HgfsSearchReadReplyV1 {
    static constexpr size_t Attributes = 8;
    static constexpr size_t Name = Attributes + HgfsAttrV1::Size;
    static constexpr size_t Size = Name + HgfsNameV1::EmptySize;
};
struct HgfsSearchReadReplyV2 : HgfsGetattrReplyV2 {};
struct HgfsSearchReadReplyV3 : HgfsGetattrReplyV3 {};

struct HgfsQueryVolumeReplyV1 {
    static constexpr size_t FreeBytes = 8;
    static constexpr size_t TotalBytes = 16;
    static constexpr size_t Size = 24;
};
struct HgfsQueryVolumeReplyV3 : HgfsQueryVolumeReplyV1 {
    static constexpr size_t Reserved = 24;
    static constexpr size_t Size = 32;
};

// ---- The operation table ----

struct HgfsOpInfo {
    std::string_view name;
    uint32_t version;     // of its layout
    uint32_t minimumSize; // of a request, header included
};

inline constexpr std::array<HgfsOpInfo, HgfsOpCount> kHgfsOps = {{
    {"Open", 1, 22},
    {"Read", 1, 24},
    {"Write", 1, 26},
    {"Close", 1, 12},
    {"SearchOpen", 1, 13},
    {"SearchRead", 1, 16},
    {"SearchClose", 1, 12},
    {"Getattr", 1, 13},
    {"Setattr", 1, 59},
    {"CreateDir", 1, 14},
    {"DeleteFile", 1, 13},
    {"DeleteDir", 1, 13},
    {"Rename", 1, 18},
    {"QueryVolumeInfo", 1, 13},
    {"OpenV2", 2, 77},
    {"GetattrV2", 2, 25},
    {"SetattrV2", 2, 129},
    {"SearchReadV2", 2, 16},
    {"CreateSymlink", 1, 18},
    {"ServerLockChange", 1, 16},
    {"CreateDirV2", 2, 25},
    {"DeleteFileV2", 2, 25},
    {"DeleteDirV2", 2, 25},
    {"RenameV2", 2, 34},
    {"OpenV3", 3, 89},
    {"ReadV3", 3, 32},
    {"WriteV3", 3, 34},
    {"CloseV3", 3, 20},
    {"SearchOpenV3", 3, 33},
    {"SearchReadV3", 3, 28},
    {"SearchCloseV3", 3, 20},
    {"GetattrV3", 3, 41},
    {"SetattrV3", 3, 145},
    {"CreateDirV3", 3, 45},
    {"DeleteFileV3", 3, 41},
    {"DeleteDirV3", 3, 41},
    {"RenameV3", 3, 58},
    {"QueryVolumeInfoV3", 3, 33},
    {"CreateSymlinkV3", 3, 50},
    {"ServerLockChangeV3", 3, 16},
}};

// ---- Byte codecs ----

// Reads of a received packet. A read that would leave the packet gives 0 and is remembered.
class HgfsPacketReader {
public:
    explicit HgfsPacketReader(std::span<const uint8_t> packet) : packet_(packet) {}

    uint8_t U8(size_t offset) { return static_cast<uint8_t>(Get(offset, 1)); }
    uint32_t U32(size_t offset) { return static_cast<uint32_t>(Get(offset, 4)); }
    uint64_t U64(size_t offset) { return Get(offset, 8); }
    std::span<const uint8_t> Bytes(size_t offset, size_t length) {
        return Holds(offset, length) ? packet_.subspan(offset, length) : std::span<const uint8_t>();
    }
    size_t Size() const { return packet_.size(); }
    bool Ok() const { return ok_; } // every read so far lay within the packet

private:
    bool Holds(size_t offset, size_t length) {
        bool holds = offset <= packet_.size() && length <= packet_.size() - offset;
        ok_ = ok_ && holds;
        return holds;
    }
    uint64_t Get(size_t offset, size_t length) {
        uint64_t value = 0;
        if (Holds(offset, length)) {
            for (size_t i = length; i-- > 0;) {
                value = value << 8 | packet_[offset + i];
            }
        }
        return value;
    }

    std::span<const uint8_t> packet_;
    bool ok_ = true;
};

// Writes into a packet being built. A write that would leave the packet is left out and remembered.
class HgfsPacketWriter {
public:
    explicit HgfsPacketWriter(std::span<uint8_t> packet) : packet_(packet) {}

    void U8(size_t offset, uint8_t value) { Put(offset, 1, value); }
    void U32(size_t offset, uint32_t value) { Put(offset, 4, value); }
    void U64(size_t offset, uint64_t value) { Put(offset, 8, value); }
    void Bytes(size_t offset, std::string_view bytes) {
        if (Holds(offset, bytes.size())) {
            for (size_t i = 0; i < bytes.size(); ++i) {
                packet_[offset + i] = static_cast<uint8_t>(bytes[i]);
            }
        }
    }
    size_t Size() const { return packet_.size(); }
    bool Ok() const { return ok_; }

private:
    bool Holds(size_t offset, size_t length) {
        bool holds = offset <= packet_.size() && length <= packet_.size() - offset;
        ok_ = ok_ && holds;
        return holds;
    }
    void Put(size_t offset, size_t length, uint64_t value) {
        if (Holds(offset, length)) {
            for (size_t i = 0; i < length; ++i) {
                packet_[offset + i] = static_cast<uint8_t>(value >> (8 * i));
            }
        }
    }

    std::span<uint8_t> packet_;
    bool ok_ = true;
};

// ---- Checks ----

template <typename Layout>
constexpr bool HgfsFits(HgfsOp op) {
    return Layout::MinimumSize == kHgfsOps[op].minimumSize;
}
static_assert(HgfsFits<HgfsOpenRequestV1>(HgfsOpOpen) && HgfsFits<HgfsOpenRequestV2>(HgfsOpOpenV2) &&
              HgfsFits<HgfsOpenRequestV3>(HgfsOpOpenV3));
static_assert(HgfsFits<HgfsReadRequestV1>(HgfsOpRead) && HgfsFits<HgfsReadRequestV3>(HgfsOpReadV3));
static_assert(HgfsFits<HgfsWriteRequestV1>(HgfsOpWrite) && HgfsFits<HgfsWriteRequestV3>(HgfsOpWriteV3));
static_assert(HgfsFits<HgfsHandleRequestV1>(HgfsOpClose) && HgfsFits<HgfsHandleRequestV3>(HgfsOpCloseV3) &&
              HgfsFits<HgfsHandleRequestV1>(HgfsOpSearchClose) &&
              HgfsFits<HgfsHandleRequestV3>(HgfsOpSearchCloseV3));
static_assert(HgfsFits<HgfsNameRequestV1>(HgfsOpGetattr) && HgfsFits<HgfsNameRequestV1>(HgfsOpDeleteFile) &&
              HgfsFits<HgfsNameRequestV1>(HgfsOpDeleteDir) && HgfsFits<HgfsNameRequestV1>(HgfsOpSearchOpen) &&
              HgfsFits<HgfsNameRequestV1>(HgfsOpQueryVolumeInfo));
static_assert(HgfsFits<HgfsNameRequestV3>(HgfsOpSearchOpenV3) &&
              HgfsFits<HgfsNameRequestV3>(HgfsOpQueryVolumeInfoV3));
static_assert(HgfsFits<HgfsFileRequestV2>(HgfsOpGetattrV2) &&
              HgfsFits<HgfsFileRequestV2>(HgfsOpDeleteFileV2) &&
              HgfsFits<HgfsFileRequestV2>(HgfsOpDeleteDirV2));
static_assert(HgfsFits<HgfsFileRequestV3>(HgfsOpGetattrV3) &&
              HgfsFits<HgfsFileRequestV3>(HgfsOpDeleteFileV3) &&
              HgfsFits<HgfsFileRequestV3>(HgfsOpDeleteDirV3));
static_assert(HgfsFits<HgfsSetattrRequestV1>(HgfsOpSetattr) &&
              HgfsFits<HgfsSetattrRequestV2>(HgfsOpSetattrV2) &&
              HgfsFits<HgfsSetattrRequestV3>(HgfsOpSetattrV3));
static_assert(HgfsFits<HgfsCreateDirRequestV1>(HgfsOpCreateDir) &&
              HgfsFits<HgfsCreateDirRequestV2>(HgfsOpCreateDirV2) &&
              HgfsFits<HgfsCreateDirRequestV3>(HgfsOpCreateDirV3));
static_assert(HgfsFits<HgfsRenameRequestV1>(HgfsOpRename) && HgfsFits<HgfsRenameRequestV2>(HgfsOpRenameV2) &&
              HgfsFits<HgfsRenameRequestV3>(HgfsOpRenameV3));
static_assert(HgfsFits<HgfsSearchReadRequestV1>(HgfsOpSearchRead) &&
              HgfsFits<HgfsSearchReadRequestV1>(HgfsOpSearchReadV2) &&
              HgfsFits<HgfsSearchReadRequestV3>(HgfsOpSearchReadV3));
static_assert(HgfsReadReplyV1::Data + kHgfsReadMaxV1 == kHgfsPacketMax);
static_assert(HgfsReadReplyV3::Data + kHgfsReadMaxV3 == kHgfsLargePacketMax);
static_assert(HgfsGetattrReplyV1::Size == 53 && HgfsGetattrReplyV2::Size == 117 &&
              HgfsGetattrReplyV3::Size == 137);
static_assert(HgfsSearchReadReplyV1::Size == 58 && HgfsSearchReadReplyV1::Name == 53);
static_assert(HgfsAttrV1::Permissions + 1 == HgfsAttrV1::Size &&
              HgfsAttrV2::Reserved + 8 == HgfsAttrV2::Size);
