// Attributes of files: their blocks on the wire, and the handlers that get and set them.
#include "hgfslib/hgfsServerInt.h"

namespace {

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
                                     kHgfsBlockAllocationSize | kHgfsBlockFileId | kHgfsBlockEffectivePerms;

void WriteAttributesV2(HgfsPacketWriter* writer, size_t at, const HgfsFileInfo& info) {
    const uint8_t permissions = PermissionsOf(info);
    writer->U64(at + HgfsAttrV2::Mask, kReportedFields | (info.knowsVolume ? kHgfsBlockVolumeId : 0));
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

constexpr uint64_t kTimeMax = INT64_MAX; // the system reads more as something else

uint32_t CheckTimes(const HgfsFileChange& change) {
    const bool fit = change.creationTime <= kTimeMax && change.accessTime <= kTimeMax &&
                     change.writeTime <= kTimeMax && change.changeTime <= kTimeMax;
    return fit ? HgfsErrorNone : HgfsErrorInvalidParameter;
}

HgfsFileChange ReadChangeV1(HgfsPacketReader* reader) {
    using Request = HgfsSetattrRequestV1;
    const uint8_t update = reader->U8(Request::Update);
    auto time = [&](uint8_t flag, size_t field) {
        return (update & flag) ? reader->U64(Request::Attributes + field) : 0;
    };
    HgfsFileChange change{};
    change.setSize = (update & kHgfsUpdateSize) != 0;
    change.size = reader->U64(Request::Attributes + HgfsAttrV1::FileSize);
    change.creationTime = time(kHgfsUpdateCreation, HgfsAttrV1::CreationTime);
    change.accessTime = time(kHgfsUpdateAccess, HgfsAttrV1::AccessTime);
    change.writeTime = time(kHgfsUpdateWrite, HgfsAttrV1::WriteTime);
    change.changeTime = time(kHgfsUpdateChange, HgfsAttrV1::ChangeTime);
    change.setReadOnly = (update & kHgfsUpdatePermissions) != 0;
    change.readOnly = !(reader->U8(Request::Attributes + HgfsAttrV1::Permissions) & kHgfsPermWrite);
    return change;
}

// Versions 2 and 3 have the block in the same place.
HgfsFileChange ReadChangeV2(HgfsPacketReader* reader) {
    constexpr size_t kBlock = HgfsSetattrRequestV2::Attributes;
    const uint64_t mask = reader->U64(kBlock + HgfsAttrV2::Mask);
    auto time = [&](uint64_t flag, size_t field) { return (mask & flag) ? reader->U64(kBlock + field) : 0; };
    HgfsFileChange change{};
    change.setSize = (mask & kHgfsBlockSize) != 0;
    change.size = reader->U64(kBlock + HgfsAttrV2::FileSize);
    change.creationTime = time(kHgfsBlockCreation, HgfsAttrV2::CreationTime);
    change.accessTime = time(kHgfsBlockAccess, HgfsAttrV2::AccessTime);
    change.writeTime = time(kHgfsBlockWrite, HgfsAttrV2::WriteTime);
    change.changeTime = time(kHgfsBlockChange, HgfsAttrV2::ChangeTime);
    change.setReadOnly = (mask & kHgfsBlockOwnerPerms) != 0;
    change.readOnly = !(reader->U8(kBlock + HgfsAttrV2::OwnerPerms) & kHgfsPermWrite);
    change.setAttributes = (mask & kHgfsBlockAttributes) != 0;
    change.attributes = HgfsServerWindowsAttributes(reader->U64(kBlock + HgfsAttrV2::Attributes));
    return change;
}

HgfsTargetLayout SetattrLayout(HgfsOp op) {
    switch (kHgfsOps[op].version) {
    case 1:
        return {0, 0, HgfsSetattrRequestV1::Name};
    case 2:
        return {HgfsSetattrRequestV2::Mask, HgfsSetattrRequestV2::Handle, HgfsSetattrRequestV2::Name};
    default:
        return {HgfsSetattrRequestV3::Mask, HgfsSetattrRequestV3::Handle, HgfsSetattrRequestV3::Name};
    }
}

uint32_t GetInfo(HgfsSession* session, const HgfsTarget& target, HgfsFileInfo* info) {
    const HgfsPlatform& platform = *hgfsServer.platform;
    if (!target.byHandle) {
        return platform.getInfo(target.path, info);
    }
    HgfsOpenFile file;
    uint32_t error = HgfsServerGetFile(session, target.handle, &file);
    return error != HgfsErrorNone ? error : platform.getInfoByHandle(file.osHandle, info);
}

uint32_t Change(HgfsSession* session, const HgfsTarget& target, const HgfsFileChange& change) {
    const HgfsPlatform& platform = *hgfsServer.platform;
    if (target.byHandle) {
        HgfsOpenFile file;
        uint32_t error = HgfsServerGetFile(session, target.handle, &file);
        if (error == HgfsErrorNone) {
            error = platform.changeByHandle(file.osHandle, change);
        }
        // The file may have been opened with less access than the change takes.
        if (error != HgfsErrorAccessDenied) {
            return error;
        }
    }
    return platform.change(target.path, change);
}

} // namespace

uint32_t HgfsServerWindowsAttributes(uint64_t attributes) {
    return ((attributes & kHgfsAttrHidden) ? kHgfsFileHidden : 0) |
           ((attributes & kHgfsAttrSystem) ? kHgfsFileSystem : 0) |
           ((attributes & kHgfsAttrArchive) ? kHgfsFileArchive : 0);
}

HgfsReply HgfsServerNewAttributesReply(HgfsOp op, const HgfsFileInfo* info, std::string_view name) {
    const bool entry = op == HgfsOpSearchRead;
    const uint32_t version = kHgfsOps[op].version;
    const size_t size = version == 1   ? (entry ? HgfsSearchReadReplyV1::Size : HgfsGetattrReplyV1::Size)
                        : version == 2 ? HgfsGetattrReplyV2::Size
                                       : HgfsGetattrReplyV3::Size;
    const bool named = version != 1 || entry;
    if (name.size() > kHgfsPacketMax - size) {
        name = {}; // a link's target, which may be as long as the system likes
    }
    HgfsReply reply = HgfsServerNewReply(size + (named ? name.size() : 0));
    if (!reply) {
        return reply;
    }
    HgfsPacketWriter writer({reply.bytes.get(), reply.size});
    if (info != nullptr && version == 1) {
        WriteAttributesV1(&writer, HgfsGetattrReplyV1::Attributes, *info);
    } else if (info != nullptr) {
        WriteAttributesV2(&writer, HgfsGetattrReplyV2::Attributes, *info);
    }
    if (named) {
        const size_t at = version == 1   ? HgfsSearchReadReplyV1::Name
                          : version == 2 ? HgfsGetattrReplyV2::Name
                                         : HgfsGetattrReplyV3::Name;
        writer.U32(at + HgfsNameV1::Length, static_cast<uint32_t>(name.size()));
        writer.Bytes(at + (version == 3 ? HgfsNameV3::Bytes : HgfsNameV1::Bytes), name);
    }
    return reply;
}

uint32_t HgfsServerGetattr(std::span<const uint8_t> packet, HgfsSession* session) {
    HgfsPacketReader reader(packet);
    const HgfsOp op = HgfsRequestOp(packet);
    HgfsTarget target;
    uint32_t error = HgfsServerReadTarget(&reader, HgfsServerTargetLayout(op), session, &target);
    if (error != HgfsErrorNone) {
        return error;
    }
    if (!target.readAllowed) {
        return HgfsErrorAccessDenied;
    }
    HgfsFileInfo info{};
    error = GetInfo(session, target, &info);
    if (error != HgfsErrorNone) {
        return error;
    }
    return HgfsServerFinish(session, packet, HgfsServerNewAttributesReply(op, &info, info.linkTarget));
}

uint32_t HgfsServerSetattr(std::span<const uint8_t> packet, HgfsSession* session) {
    HgfsPacketReader reader(packet);
    const HgfsOp op = HgfsRequestOp(packet);
    const HgfsFileChange change = kHgfsOps[op].version == 1 ? ReadChangeV1(&reader) : ReadChangeV2(&reader);
    HgfsTarget target;
    uint32_t error = HgfsServerReadTarget(&reader, SetattrLayout(op), session, &target);
    if (error == HgfsErrorNone) {
        error = target.writeAllowed ? CheckTimes(change) : HgfsErrorAccessDenied;
    }
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsReply reply = HgfsServerNewEmptyReply(op);
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    error = Change(session, target, change);
    return error != HgfsErrorNone ? error : HgfsServerFinish(session, packet, std::move(reply));
}
