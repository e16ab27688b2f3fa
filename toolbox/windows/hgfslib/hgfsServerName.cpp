// Handlers that work on names: attributes, directories, deleting and renaming, volumes.
#include "hgfslib/hgfsServerInt.h"

#include <algorithm>

namespace {

// ---- Attribute blocks ----

uint32_t TypeOf(const HgfsFileInfo& info) {
    return (info.attributes & kHgfsFileDirectory) && !info.isLink ? kHgfsTypeDirectory : kHgfsTypeRegular;
}

// Windows has one answer for all classes of users: everything may be read and entered, and written unless the
// file is read-only.
uint8_t PermissionsOf(const HgfsFileInfo& info) {
    return static_cast<uint8_t>(kHgfsPermRead | kHgfsPermExecute |
                                ((info.attributes & kHgfsFileReadOnly) ? 0 : kHgfsPermWrite));
}

void WriteAttributesV1(HgfsPacketWriter* writer, size_t at, const HgfsFileInfo& info) {
    writer->U32(at + HgfsAttrV1::Type, TypeOf(info));
    writer->U64(at + HgfsAttrV1::FileSize, info.size);
    writer->U64(at + HgfsAttrV1::CreationTime, info.creationTime);
    writer->U64(at + HgfsAttrV1::AccessTime, info.accessTime);
    writer->U64(at + HgfsAttrV1::WriteTime, info.writeTime);
    writer->U64(at + HgfsAttrV1::ChangeTime, info.changeTime);
    writer->U8(at + HgfsAttrV1::Permissions, PermissionsOf(info));
}

constexpr uint64_t kReportedFields = kHgfsBlockType | kHgfsBlockSize | kHgfsBlockCreation | kHgfsBlockAccess |
                                     kHgfsBlockWrite | kHgfsBlockChange | kHgfsBlockOwnerPerms |
                                     kHgfsBlockGroupPerms | kHgfsBlockOtherPerms | kHgfsBlockAttributes |
                                     kHgfsBlockAllocationSize | kHgfsBlockFileId | kHgfsBlockVolumeId |
                                     kHgfsBlockEffectivePerms;

void WriteAttributesV2(HgfsPacketWriter* writer, size_t at, const HgfsFileInfo& info) {
    const uint8_t permissions = PermissionsOf(info);
    writer->U64(at + HgfsAttrV2::Mask, kReportedFields);
    writer->U32(at + HgfsAttrV2::Type, TypeOf(info));
    writer->U64(at + HgfsAttrV2::FileSize, info.size);
    writer->U64(at + HgfsAttrV2::CreationTime, info.creationTime);
    writer->U64(at + HgfsAttrV2::AccessTime, info.accessTime);
    writer->U64(at + HgfsAttrV2::WriteTime, info.writeTime);
    writer->U64(at + HgfsAttrV2::ChangeTime, info.changeTime);
    writer->U8(at + HgfsAttrV2::OwnerPerms, permissions);
    writer->U8(at + HgfsAttrV2::GroupPerms, permissions);
    writer->U8(at + HgfsAttrV2::OtherPerms, permissions);
    writer->U64(at + HgfsAttrV2::Attributes,
                ((info.attributes & kHgfsFileHidden) ? kHgfsAttrHidden : 0) |
                    ((info.attributes & kHgfsFileSystem) ? kHgfsAttrSystem : 0) |
                    ((info.attributes & kHgfsFileArchive) ? kHgfsAttrArchive : 0) |
                    (info.hasMoreStreams ? kHgfsAttrMoreStreams : 0));
    writer->U64(at + HgfsAttrV2::AllocationSize, info.allocationSize);
    writer->U64(at + HgfsAttrV2::FileId, info.id.index);
    writer->U32(at + HgfsAttrV2::VolumeId, static_cast<uint32_t>(info.id.volume));
    writer->U32(at + HgfsAttrV2::EffectivePerms, permissions);
}

// ---- Requests that name a file or give the handle of an open one ----

// What such a request is about. The local name of an open file is the node's.
struct Target {
    bool byHandle = false;
    uint32_t handle = 0;
    std::string path;
    bool writeAllowed = true;
};

struct FileLayout {
    size_t mask; // 0: the version has neither mask nor handle
    size_t handle;
    size_t name;
};

FileLayout FileLayoutOf(HgfsOp op) {
    switch (kHgfsOps[op].version) {
    case 1:
        return {0, 0, HgfsNameRequestV1::Name};
    case 2:
        return {HgfsFileRequestV2::Mask, HgfsFileRequestV2::Handle, HgfsFileRequestV2::Name};
    default:
        return {HgfsFileRequestV3::Mask, HgfsFileRequestV3::Handle, HgfsFileRequestV3::Name};
    }
}

// Reads a target; `next` and `behind` as for HgfsServerReadName, which is called even when the handle counts.
uint32_t ReadTarget(HgfsPacketReader* reader, HgfsOp op, const FileLayout& layout, HgfsSession* session,
                    Target* target, size_t behind = 0, size_t* next = nullptr) {
    HgfsRequestName name;
    uint32_t error = HgfsServerReadName(reader, layout.name, kHgfsOps[op].version, &name, behind, next);
    if (error != HgfsErrorNone) {
        return error;
    }
    if (layout.mask != 0 && (reader->U64(layout.mask) & kHgfsMaskHandle)) {
        target->byHandle = true;
        target->handle = reader->U32(layout.handle);
        HgfsNodeFields fields;
        error = HgfsServerGetNodeFields(session, target->handle, &fields);
        target->path = std::move(fields.localName);
        target->writeAllowed = fields.shareWrite;
        return error;
    }
    HgfsShareInfo share;
    error = HgfsServerResolveName(name, &share);
    target->path = std::move(share.path);
    target->writeAllowed = share.writeAllowed;
    return error;
}

uint32_t GetInfo(HgfsSession* session, const Target& target, HgfsFileInfo* info) {
    const HgfsPlatform& platform = *hgfsServer.platform;
    if (!target.byHandle) {
        return platform.getInfo(target.path, info);
    }
    HgfsOpenFile file;
    uint32_t error = HgfsServerGetFile(session, target.handle, &file);
    return error != HgfsErrorNone ? error : platform.getInfoByHandle(file.osHandle, info);
}

// The reply of an operation that has nothing to tell.
HgfsReply NewEmptyReply(HgfsOp op) {
    return HgfsServerNewReply(kHgfsOps[op].version == 3 ? HgfsEmptyReplyV3::Size : HgfsEmptyReplyV1::Size);
}

HgfsReply NewAttributesReply(HgfsOp op, const HgfsFileInfo& info) {
    const std::string& link = info.linkTarget;
    HgfsReply reply;
    switch (kHgfsOps[op].version) {
    case 1:
        reply = HgfsServerNewReply(HgfsGetattrReplyV1::Size);
        break;
    case 2:
        reply = HgfsServerNewReply(HgfsGetattrReplyV2::Size + link.size());
        break;
    default:
        reply = HgfsServerNewReply(HgfsGetattrReplyV3::Size + link.size());
        break;
    }
    if (!reply) {
        return reply;
    }
    HgfsPacketWriter writer({reply.bytes.get(), reply.size});
    switch (kHgfsOps[op].version) {
    case 1:
        WriteAttributesV1(&writer, HgfsGetattrReplyV1::Attributes, info);
        break;
    case 2:
        WriteAttributesV2(&writer, HgfsGetattrReplyV2::Attributes, info);
        writer.U32(HgfsGetattrReplyV2::Name + HgfsNameV1::Length, static_cast<uint32_t>(link.size()));
        writer.Bytes(HgfsGetattrReplyV2::Name + HgfsNameV1::Bytes, link);
        break;
    default:
        WriteAttributesV2(&writer, HgfsGetattrReplyV3::Attributes, info);
        writer.U32(HgfsGetattrReplyV3::Name + HgfsNameV3::Length, static_cast<uint32_t>(link.size()));
        writer.Bytes(HgfsGetattrReplyV3::Name + HgfsNameV3::Bytes, link);
        break;
    }
    return reply;
}

} // namespace

uint32_t HgfsServerGetattr(std::span<const uint8_t> packet, HgfsSession* session) {
    HgfsPacketReader reader(packet);
    const HgfsOp op = HgfsRequestOp(packet);
    Target target;
    HgfsFileInfo info{};
    uint32_t error = ReadTarget(&reader, op, FileLayoutOf(op), session, &target);
    if (error == HgfsErrorNone) {
        error = GetInfo(session, target, &info);
    }
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsReply reply = NewAttributesReply(op, info);
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    return HgfsServer_QueueReply(session, HgfsRequestId(packet), HgfsErrorNone, std::move(reply));
}

uint32_t HgfsServerCreateDir(std::span<const uint8_t> packet, HgfsSession* session) {
    HgfsPacketReader reader(packet);
    const HgfsOp op = HgfsRequestOp(packet);
    const uint32_t version = kHgfsOps[op].version;
    const size_t nameAt = version == 1   ? HgfsCreateDirRequestV1::Name
                          : version == 2 ? HgfsCreateDirRequestV2::Name
                                         : HgfsCreateDirRequestV3::Name;
    HgfsRequestName name;
    uint32_t error = HgfsServerReadName(&reader, nameAt, version, &name);
    HgfsShareInfo share;
    if (error == HgfsErrorNone) {
        error = HgfsServerResolveForChange(name, &share);
    }
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsReply reply = NewEmptyReply(op);
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    error = hgfsServer.platform->createDirectory(share.path);
    if (error != HgfsErrorNone) {
        return error;
    }
    return HgfsServer_QueueReply(session, HgfsRequestId(packet), HgfsErrorNone, std::move(reply));
}

namespace {

using DeleteCall = uint32_t (*)(const std::string& path);

uint32_t Delete(std::span<const uint8_t> packet, HgfsSession* session, DeleteCall call) {
    HgfsPacketReader reader(packet);
    const HgfsOp op = HgfsRequestOp(packet);
    Target target;
    uint32_t error = ReadTarget(&reader, op, FileLayoutOf(op), session, &target);
    if (error != HgfsErrorNone) {
        return error;
    }
    if (!target.writeAllowed) {
        return HgfsErrorAccessDenied;
    }
    HgfsReply reply = NewEmptyReply(op);
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    error = call(target.path);
    if (error != HgfsErrorNone) {
        return error;
    }
    return HgfsServer_QueueReply(session, HgfsRequestId(packet), HgfsErrorNone, std::move(reply));
}

} // namespace

uint32_t HgfsServerDeleteFile(std::span<const uint8_t> packet, HgfsSession* session) {
    return Delete(packet, session, hgfsServer.platform->deleteFile);
}
