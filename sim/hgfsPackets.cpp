#include "sim/hgfsPackets.h"

#include <algorithm>

namespace {

// ---- Requests ----

uint32_t VersionOf(HgfsOp op) {
    return kHgfsOps[op].version;
}

size_t EmptyName(uint32_t version) {
    return version == 3 ? HgfsNameV3::EmptySize : HgfsNameV1::EmptySize;
}

// Writes a name block; the packet is zeros before, so its NUL is there.
void PutName(HgfsPacketWriter* packet, size_t at, uint32_t version, const std::string& name,
             uint32_t caseType) {
    packet->U32(at + HgfsNameV1::Length, static_cast<uint32_t>(name.size()));
    if (version == 3) {
        packet->U32(at + HgfsNameV3::CaseType, caseType);
    }
    packet->Bytes(at + EmptyName(version) - 1, name);
}

uint8_t UpdateMaskV1(uint64_t mask) {
    struct Pair {
        uint64_t block;
        uint8_t update;
    };
    constexpr Pair kPairs[] = {
        {kHgfsBlockSize, kHgfsUpdateSize},     {kHgfsBlockCreation, kHgfsUpdateCreation},
        {kHgfsBlockAccess, kHgfsUpdateAccess}, {kHgfsBlockWrite, kHgfsUpdateWrite},
        {kHgfsBlockChange, kHgfsUpdateChange}, {kHgfsBlockOwnerPerms, kHgfsUpdatePermissions}};
    unsigned update = 0;
    for (const Pair& pair : kPairs) {
        update |= (mask & pair.block) ? pair.update : 0u;
    }
    return static_cast<uint8_t>(update);
}

void PutBlockV1(HgfsPacketWriter* packet, size_t at, const HgfsPackets_Attributes& block) {
    packet->U32(at + HgfsAttrV1::Type, block.type);
    packet->U64(at + HgfsAttrV1::FileSize, block.size);
    packet->U64(at + HgfsAttrV1::CreationTime, block.creationTime);
    packet->U64(at + HgfsAttrV1::AccessTime, block.accessTime);
    packet->U64(at + HgfsAttrV1::WriteTime, block.writeTime);
    packet->U64(at + HgfsAttrV1::ChangeTime, block.changeTime);
    packet->U8(at + HgfsAttrV1::Permissions, block.ownerPerms);
}

void PutBlockV2(HgfsPacketWriter* packet, size_t at, const HgfsPackets_Attributes& block) {
    packet->U64(at + HgfsAttrV2::Mask, block.mask);
    packet->U32(at + HgfsAttrV2::Type, block.type);
    packet->U64(at + HgfsAttrV2::FileSize, block.size);
    packet->U64(at + HgfsAttrV2::CreationTime, block.creationTime);
    packet->U64(at + HgfsAttrV2::AccessTime, block.accessTime);
    packet->U64(at + HgfsAttrV2::WriteTime, block.writeTime);
    packet->U64(at + HgfsAttrV2::ChangeTime, block.changeTime);
    packet->U8(at + HgfsAttrV2::SpecialPerms, block.specialPerms);
    packet->U8(at + HgfsAttrV2::OwnerPerms, block.ownerPerms);
    packet->U8(at + HgfsAttrV2::GroupPerms, block.groupPerms);
    packet->U8(at + HgfsAttrV2::OtherPerms, block.otherPerms);
    packet->U64(at + HgfsAttrV2::Attributes, block.attributes);
    packet->U64(at + HgfsAttrV2::AllocationSize, block.allocationSize);
    packet->U32(at + HgfsAttrV2::UserId, block.userId);
    packet->U32(at + HgfsAttrV2::GroupId, block.groupId);
    packet->U64(at + HgfsAttrV2::FileId, block.fileId);
    packet->U32(at + HgfsAttrV2::VolumeId, block.volumeId);
    packet->U32(at + HgfsAttrV2::EffectivePerms, block.effectivePerms);
}

void PutOpen(HgfsPacketWriter* packet, const HgfsPackets_Request& request) {
    const uint32_t version = VersionOf(request.op);
    if (version == 1) {
        packet->U32(HgfsOpenRequestV1::Mode, request.mode);
        packet->U32(HgfsOpenRequestV1::Flags, request.flags);
        packet->U8(HgfsOpenRequestV1::Permissions, request.ownerPerms);
        PutName(packet, HgfsOpenRequestV1::Name, 1, request.name, 0);
        return;
    }
    using Layout = HgfsOpenRequestV2;
    packet->U64(Layout::Mask, request.mask);
    packet->U32(Layout::Mode, request.mode);
    packet->U32(Layout::Flags, request.flags);
    packet->U8(Layout::OwnerPerms, request.ownerPerms);
    packet->U64(Layout::Attributes, request.attributes);
    packet->U64(Layout::AllocationSize, request.allocationSize);
    packet->U32(Layout::DesiredAccess, request.desiredAccess);
    packet->U32(Layout::ShareAccess, request.shareAccess);
    packet->U32(Layout::DesiredLock, request.desiredLock);
    PutName(packet, Layout::Name, version, request.name, request.caseType);
}

void PutWrite(HgfsPacketWriter* packet, const HgfsPackets_Request& request) {
    packet->U32(HgfsWriteRequestV1::Handle, request.handle);
    packet->U8(HgfsWriteRequestV1::Flags, request.writeFlags);
    packet->U64(HgfsWriteRequestV1::Offset, request.offset);
    packet->U32(HgfsWriteRequestV1::Size, request.size);
    packet->Bytes(VersionOf(request.op) == 3 ? HgfsWriteRequestV3::Data : HgfsWriteRequestV1::Data,
                  request.data);
}

// Operations that begin with the handle of something open.
void PutHandle(HgfsPacketWriter* packet, const HgfsPackets_Request& request) {
    packet->U32(HgfsHandleRequestV1::Handle, request.handle);
    if (request.op == HgfsOpRead || request.op == HgfsOpReadV3) {
        packet->U64(HgfsReadRequestV1::Offset, request.offset);
        packet->U32(HgfsReadRequestV1::Size, request.size);
    } else if (request.op == HgfsOpSearchRead || request.op == HgfsOpSearchReadV2 ||
               request.op == HgfsOpSearchReadV3) {
        packet->U32(HgfsSearchReadRequestV1::Index, request.index);
    }
}

// Search open and query volume.
void PutPlainName(HgfsPacketWriter* packet, const HgfsPackets_Request& request) {
    const uint32_t version = VersionOf(request.op);
    if (version == 3) {
        packet->U64(HgfsNameRequestV3::Mask, request.mask);
    }
    PutName(packet, version == 3 ? HgfsNameRequestV3::Name : HgfsNameRequestV1::Name, version, request.name,
            request.caseType);
}

// Get attributes and the two deletes.
void PutFile(HgfsPacketWriter* packet, const HgfsPackets_Request& request) {
    const uint32_t version = VersionOf(request.op);
    size_t name = HgfsNameRequestV1::Name;
    if (version != 1) {
        packet->U64(HgfsFileRequestV2::Mask, request.mask);
        packet->U32(HgfsFileRequestV2::Handle, request.handle);
        name = version == 2 ? HgfsFileRequestV2::Name : HgfsFileRequestV3::Name;
    }
    PutName(packet, name, version, request.name, request.caseType);
}

void PutSetattr(HgfsPacketWriter* packet, const HgfsPackets_Request& request) {
    const uint32_t version = VersionOf(request.op);
    if (version == 1) {
        packet->U8(HgfsSetattrRequestV1::Update, UpdateMaskV1(request.change.mask));
        PutBlockV1(packet, HgfsSetattrRequestV1::Attributes, request.change);
        PutName(packet, HgfsSetattrRequestV1::Name, 1, request.name, 0);
        return;
    }
    packet->U64(HgfsSetattrRequestV2::Mask, request.mask);
    PutBlockV2(packet, HgfsSetattrRequestV2::Attributes, request.change);
    packet->U32(HgfsSetattrRequestV2::Handle, request.handle);
    PutName(packet, version == 2 ? HgfsSetattrRequestV2::Name : HgfsSetattrRequestV3::Name, version,
            request.name, request.caseType);
}

void PutCreateDir(HgfsPacketWriter* packet, const HgfsPackets_Request& request) {
    switch (VersionOf(request.op)) {
    case 1:
        packet->U8(HgfsCreateDirRequestV1::Permissions, request.ownerPerms);
        PutName(packet, HgfsCreateDirRequestV1::Name, 1, request.name, 0);
        break;
    case 2:
        packet->U64(HgfsCreateDirRequestV2::Mask, request.mask);
        packet->U8(HgfsCreateDirRequestV2::OwnerPerms, request.ownerPerms);
        PutName(packet, HgfsCreateDirRequestV2::Name, 2, request.name, 0);
        break;
    default:
        packet->U64(HgfsCreateDirRequestV3::Mask, request.mask);
        packet->U8(HgfsCreateDirRequestV3::OwnerPerms, request.ownerPerms);
        packet->U64(HgfsCreateDirRequestV3::Attributes, request.attributes);
        PutName(packet, HgfsCreateDirRequestV3::Name, 3, request.name, request.caseType);
        break;
    }
}

void PutRename(HgfsPacketWriter* packet, const HgfsPackets_Request& request) {
    const uint32_t version = VersionOf(request.op);
    size_t oldName = HgfsRenameRequestV1::OldName;
    if (version != 1) {
        packet->U64(HgfsRenameRequestV2::Mask, request.mask);
        packet->U32(HgfsRenameRequestV2::Handle, request.handle);
        oldName = HgfsRenameRequestV2::OldName;
    }
    PutName(packet, oldName, version, request.name, request.caseType);
    PutName(packet, oldName + EmptyName(version) + request.name.size(), version, request.newName,
            request.caseType);
}

size_t SizeOf(const HgfsPackets_Request& request) {
    size_t size = kHgfsOps[request.op].minimumSize;
    switch (request.op) {
    case HgfsOpWrite:
        return HgfsWriteRequestV1::Data + request.data.size();
    case HgfsOpWriteV3:
        return HgfsWriteRequestV3::Data + request.data.size();
    case HgfsOpRename:
    case HgfsOpRenameV2:
    case HgfsOpRenameV3:
        return size + request.name.size() + request.newName.size();
    case HgfsOpRead:
    case HgfsOpReadV3:
    case HgfsOpClose:
    case HgfsOpCloseV3:
    case HgfsOpSearchRead:
    case HgfsOpSearchReadV2:
    case HgfsOpSearchReadV3:
    case HgfsOpSearchClose:
    case HgfsOpSearchCloseV3:
    case HgfsOpCreateSymlink:
    case HgfsOpCreateSymlinkV3:
    case HgfsOpServerLockChange:
    case HgfsOpServerLockChangeV3:
        return size;
    default:
        return size + request.name.size();
    }
}

// ---- Replies ----

HgfsPackets_Attributes GetBlockV1(HgfsPacketReader* packet, size_t at) {
    HgfsPackets_Attributes block;
    block.type = packet->U32(at + HgfsAttrV1::Type);
    block.size = packet->U64(at + HgfsAttrV1::FileSize);
    block.creationTime = packet->U64(at + HgfsAttrV1::CreationTime);
    block.accessTime = packet->U64(at + HgfsAttrV1::AccessTime);
    block.writeTime = packet->U64(at + HgfsAttrV1::WriteTime);
    block.changeTime = packet->U64(at + HgfsAttrV1::ChangeTime);
    block.ownerPerms = packet->U8(at + HgfsAttrV1::Permissions);
    return block;
}

HgfsPackets_Attributes GetBlockV2(HgfsPacketReader* packet, size_t at) {
    HgfsPackets_Attributes block;
    block.mask = packet->U64(at + HgfsAttrV2::Mask);
    block.type = packet->U32(at + HgfsAttrV2::Type);
    block.size = packet->U64(at + HgfsAttrV2::FileSize);
    block.creationTime = packet->U64(at + HgfsAttrV2::CreationTime);
    block.accessTime = packet->U64(at + HgfsAttrV2::AccessTime);
    block.writeTime = packet->U64(at + HgfsAttrV2::WriteTime);
    block.changeTime = packet->U64(at + HgfsAttrV2::ChangeTime);
    block.specialPerms = packet->U8(at + HgfsAttrV2::SpecialPerms);
    block.ownerPerms = packet->U8(at + HgfsAttrV2::OwnerPerms);
    block.groupPerms = packet->U8(at + HgfsAttrV2::GroupPerms);
    block.otherPerms = packet->U8(at + HgfsAttrV2::OtherPerms);
    block.attributes = packet->U64(at + HgfsAttrV2::Attributes);
    block.allocationSize = packet->U64(at + HgfsAttrV2::AllocationSize);
    block.userId = packet->U32(at + HgfsAttrV2::UserId);
    block.groupId = packet->U32(at + HgfsAttrV2::GroupId);
    block.fileId = packet->U64(at + HgfsAttrV2::FileId);
    block.volumeId = packet->U32(at + HgfsAttrV2::VolumeId);
    block.effectivePerms = packet->U32(at + HgfsAttrV2::EffectivePerms);
    return block;
}

bool IsZero(HgfsPacketReader* packet, size_t at, size_t size) {
    auto bytes = packet->Bytes(at, size);
    return bytes.size() == size && std::ranges::all_of(bytes, [](uint8_t byte) { return byte == 0; });
}

// A name block that ends the packet.
bool GetName(HgfsPacketReader* packet, size_t at, uint32_t version, std::string* name) {
    const size_t begin = at + EmptyName(version) - 1;
    const uint32_t length = packet->U32(at + HgfsNameV1::Length);
    auto bytes = packet->Bytes(begin, length);
    name->assign(bytes.begin(), bytes.end());
    return packet->Ok() && packet->Size() == begin + length + 1 && packet->U8(begin + length) == 0;
}

bool GetOpen(HgfsPacketReader* packet, uint32_t version, HgfsPackets_Reply* reply) {
    reply->handle = packet->U32(HgfsOpenReplyV1::Handle);
    if (version == 1) {
        return packet->Size() == HgfsOpenReplyV1::Size;
    }
    reply->lock = packet->U32(HgfsOpenReplyV2::AcquiredLock);
    return version == 2
               ? packet->Size() == HgfsOpenReplyV2::Size
               : packet->Size() == HgfsOpenReplyV3::Size && IsZero(packet, HgfsOpenReplyV3::Reserved, 8);
}

bool GetRead(HgfsPacketReader* packet, uint32_t version, HgfsPackets_Reply* reply) {
    const size_t data = version == 3 ? HgfsReadReplyV3::Data : HgfsReadReplyV1::Data;
    reply->actualSize = packet->U32(HgfsReadReplyV1::ActualSize);
    auto bytes = packet->Bytes(data, reply->actualSize);
    reply->data.assign(bytes.begin(), bytes.end());
    return packet->Size() == data + reply->actualSize &&
           (version == 1 || IsZero(packet, HgfsReadReplyV3::Reserved, 8));
}

// Fixed replies of one 32-bit field, behind which version 3 has eight bytes of zeros.
bool GetWord(HgfsPacketReader* packet, uint32_t version, uint32_t* word) {
    static_assert(HgfsWriteReplyV1::ActualSize == HgfsSearchOpenReplyV1::Handle &&
                  HgfsWriteReplyV3::Size == HgfsSearchOpenReplyV3::Size);
    *word = packet->U32(HgfsWriteReplyV1::ActualSize);
    return version == 3
               ? packet->Size() == HgfsWriteReplyV3::Size && IsZero(packet, HgfsWriteReplyV3::Reserved, 8)
               : packet->Size() == HgfsWriteReplyV1::Size;
}

bool GetAttributes(HgfsPacketReader* packet, HgfsOp op, HgfsPackets_Reply* reply) {
    switch (VersionOf(op)) {
    case 1:
        reply->attributes = GetBlockV1(packet, HgfsGetattrReplyV1::Attributes);
        return op == HgfsOpSearchRead ? GetName(packet, HgfsSearchReadReplyV1::Name, 1, &reply->name)
                                      : packet->Size() == HgfsGetattrReplyV1::Size;
    case 2:
        reply->attributes = GetBlockV2(packet, HgfsGetattrReplyV2::Attributes);
        return GetName(packet, HgfsGetattrReplyV2::Name, 2, &reply->name);
    default:
        reply->attributes = GetBlockV2(packet, HgfsGetattrReplyV3::Attributes);
        return IsZero(packet, HgfsGetattrReplyV3::Reserved, 8) &&
               GetName(packet, HgfsGetattrReplyV3::Name, 3, &reply->name);
    }
}

bool GetVolume(HgfsPacketReader* packet, uint32_t version, HgfsPackets_Reply* reply) {
    reply->freeBytes = packet->U64(HgfsQueryVolumeReplyV1::FreeBytes);
    reply->totalBytes = packet->U64(HgfsQueryVolumeReplyV1::TotalBytes);
    return version == 3 ? packet->Size() == HgfsQueryVolumeReplyV3::Size &&
                              IsZero(packet, HgfsQueryVolumeReplyV3::Reserved, 8)
                        : packet->Size() == HgfsQueryVolumeReplyV1::Size;
}

bool GetBody(HgfsPacketReader* packet, HgfsOp op, HgfsPackets_Reply* reply) {
    const uint32_t version = VersionOf(op);
    switch (op) {
    case HgfsOpOpen:
    case HgfsOpOpenV2:
    case HgfsOpOpenV3:
        return GetOpen(packet, version, reply);
    case HgfsOpRead:
    case HgfsOpReadV3:
        return GetRead(packet, version, reply);
    case HgfsOpWrite:
    case HgfsOpWriteV3:
        return GetWord(packet, version, &reply->actualSize);
    case HgfsOpSearchOpen:
    case HgfsOpSearchOpenV3:
        return GetWord(packet, version, &reply->handle);
    case HgfsOpGetattr:
    case HgfsOpGetattrV2:
    case HgfsOpGetattrV3:
    case HgfsOpSearchRead:
    case HgfsOpSearchReadV2:
    case HgfsOpSearchReadV3:
        return GetAttributes(packet, op, reply);
    case HgfsOpQueryVolumeInfo:
    case HgfsOpQueryVolumeInfoV3:
        return GetVolume(packet, version, reply);
    default:
        return version == 3
                   ? packet->Size() == HgfsEmptyReplyV3::Size && IsZero(packet, HgfsEmptyReplyV3::Reserved, 8)
                   : packet->Size() == HgfsEmptyReplyV1::Size;
    }
}

} // namespace

std::vector<uint8_t> HgfsPackets_Encode(const HgfsPackets_Request& request) {
    std::vector<uint8_t> bytes(SizeOf(request));
    HgfsPacketWriter packet(bytes);
    packet.U32(HgfsRequestHeader::Id, request.id);
    packet.U32(HgfsRequestHeader::Op, request.op);
    switch (request.op) {
    case HgfsOpOpen:
    case HgfsOpOpenV2:
    case HgfsOpOpenV3:
        PutOpen(&packet, request);
        break;
    case HgfsOpWrite:
    case HgfsOpWriteV3:
        PutWrite(&packet, request);
        break;
    case HgfsOpSearchOpen:
    case HgfsOpSearchOpenV3:
    case HgfsOpQueryVolumeInfo:
    case HgfsOpQueryVolumeInfoV3:
        PutPlainName(&packet, request);
        break;
    case HgfsOpGetattr:
    case HgfsOpGetattrV2:
    case HgfsOpGetattrV3:
    case HgfsOpDeleteFile:
    case HgfsOpDeleteFileV2:
    case HgfsOpDeleteFileV3:
    case HgfsOpDeleteDir:
    case HgfsOpDeleteDirV2:
    case HgfsOpDeleteDirV3:
        PutFile(&packet, request);
        break;
    case HgfsOpSetattr:
    case HgfsOpSetattrV2:
    case HgfsOpSetattrV3:
        PutSetattr(&packet, request);
        break;
    case HgfsOpCreateDir:
    case HgfsOpCreateDirV2:
    case HgfsOpCreateDirV3:
        PutCreateDir(&packet, request);
        break;
    case HgfsOpRename:
    case HgfsOpRenameV2:
    case HgfsOpRenameV3:
        PutRename(&packet, request);
        break;
    case HgfsOpCreateSymlink:
    case HgfsOpCreateSymlinkV3:
    case HgfsOpServerLockChange:
    case HgfsOpServerLockChangeV3:
        break; // refused by the guest; a header and zeros will do
    default:
        PutHandle(&packet, request);
        break;
    }
    return bytes;
}

bool HgfsPackets_Decode(HgfsOp op, std::span<const uint8_t> packet, HgfsPackets_Reply* reply) {
    HgfsPacketReader reader(packet);
    *reply = {};
    reply->id = reader.U32(HgfsReplyHeader::Id);
    reply->status = reader.U32(HgfsReplyHeader::Status);
    if (reply->status != HgfsStatusSuccess) {
        return packet.size() == kHgfsHeaderSize;
    }
    return GetBody(&reader, op, reply) && reader.Ok();
}
