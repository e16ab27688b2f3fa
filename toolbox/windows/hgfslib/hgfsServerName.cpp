// Handlers that work on names: directories, deleting and renaming, volumes.
#include "hgfslib/hgfsServerInt.h"

#include <algorithm>

HgfsTargetLayout HgfsServerTargetLayout(HgfsOp op) {
    switch (kHgfsOps[op].version) {
    case 1:
        return {0, 0, HgfsNameRequestV1::Name};
    case 2:
        return {HgfsFileRequestV2::Mask, HgfsFileRequestV2::Handle, HgfsFileRequestV2::Name};
    default:
        return {HgfsFileRequestV3::Mask, HgfsFileRequestV3::Handle, HgfsFileRequestV3::Name};
    }
}

uint32_t HgfsServerReadTarget(HgfsPacketReader* reader, const HgfsTargetLayout& layout, HgfsSession* session,
                              HgfsTarget* target) {
    const HgfsOp op = static_cast<HgfsOp>(reader->U32(HgfsRequestHeader::Op));
    HgfsRequestName name;
    uint32_t error = HgfsServerReadName(reader, layout.name, kHgfsOps[op].version, &name);
    if (error != HgfsErrorNone) {
        return error;
    }
    if (layout.mask != 0 && (reader->U64(layout.mask) & kHgfsMaskHandle)) {
        HgfsNodeFields fields;
        const uint32_t handle = reader->U32(layout.handle);
        error = HgfsServerGetNodeFields(session, handle, &fields);
        *target = {true, handle, std::move(fields.localName), fields.shareRead, fields.shareWrite};
        return error;
    }
    HgfsShareInfo share;
    error = HgfsServerResolveName(name, &share);
    *target = {false, 0, std::move(share.path), share.readAllowed, share.writeAllowed};
    return error;
}

namespace {

// Hidden and the like can only be given to a directory that is there already.
uint32_t CreateDirectory(const std::string& path, uint32_t attributes) {
    const HgfsPlatform& platform = *hgfsServer.platform;
    uint32_t error = platform.createDirectory(path);
    if (error != HgfsErrorNone || attributes == 0) {
        return error;
    }
    HgfsFileChange change{};
    change.setAttributes = true;
    change.attributes = attributes;
    error = platform.change(path, change);
    if (error != HgfsErrorNone) {
        platform.deleteDirectory(path);
    }
    return error;
}

uint32_t DirectoryAttributes(HgfsPacketReader* reader, HgfsOp op) {
    using Request = HgfsCreateDirRequestV3;
    const bool given = op == HgfsOpCreateDirV3 && (reader->U64(Request::Mask) & kHgfsMaskAttributes);
    return given ? HgfsServerWindowsAttributes(reader->U64(Request::Attributes)) : 0;
}

uint32_t Delete(std::span<const uint8_t> packet, HgfsSession* session,
                uint32_t (*call)(const std::string& path)) {
    HgfsPacketReader reader(packet);
    const HgfsOp op = HgfsRequestOp(packet);
    HgfsTarget target;
    uint32_t error = HgfsServerReadTarget(&reader, HgfsServerTargetLayout(op), session, &target);
    if (error != HgfsErrorNone) {
        return error;
    }
    if (!target.writeAllowed) {
        return HgfsErrorAccessDenied;
    }
    HgfsReply reply = HgfsServerNewEmptyReply(op);
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    error = call(target.path);
    return error != HgfsErrorNone ? error : HgfsServerFinish(session, packet, std::move(reply));
}

HgfsTargetLayout RenameLayout(HgfsOp op) {
    if (kHgfsOps[op].version == 1) {
        return {0, 0, HgfsRenameRequestV1::OldName};
    }
    return {HgfsRenameRequestV2::Mask, HgfsRenameRequestV2::Handle, HgfsRenameRequestV2::OldName};
}

struct Space {
    uint64_t freeBytes;
    uint64_t totalBytes;
};

uint32_t SpaceOf(const std::string& path, Space* space) {
    uint32_t error = hgfsServer.platform->getVolumeSpace(path, &space->freeBytes, &space->totalBytes);
    return error == HgfsErrorNone ? HgfsErrorNone : HgfsErrorIoDevice;
}

// The volume with the least free space, of those that can be asked.
uint32_t LeastSpace(Space* least) {
    std::vector<std::string> roots;
    uint32_t error = hgfsServer.platform->listVolumes(&roots);
    if (error != HgfsErrorNone) {
        return error;
    }
    bool any = false;
    for (const std::string& root : roots) {
        Space space;
        if (SpaceOf(root, &space) == HgfsErrorNone && (!any || space.freeBytes < least->freeBytes)) {
            *least = space;
            any = true;
        }
    }
    return any ? HgfsErrorNone : HgfsErrorIoDevice;
}

// Whether a name stops before it says which volume it means.
bool MeansAllVolumes(HgfsNameStatus status) {
    return status == HgfsNameIncompleteBase || status == HgfsNameIncompleteRoot ||
           status == HgfsNameIncompleteDrive;
}

} // namespace

uint32_t HgfsServerCreateDir(std::span<const uint8_t> packet, HgfsSession* session) {
    HgfsPacketReader reader(packet);
    const HgfsOp op = HgfsRequestOp(packet);
    const uint32_t version = kHgfsOps[op].version;
    const size_t nameAt = version == 1   ? HgfsCreateDirRequestV1::Name
                          : version == 2 ? HgfsCreateDirRequestV2::Name
                                         : HgfsCreateDirRequestV3::Name;
    HgfsRequestName name;
    HgfsShareInfo share;
    uint32_t error = HgfsServerReadName(&reader, nameAt, version, &name);
    if (error == HgfsErrorNone) {
        error = HgfsServerResolveForChange(name, &share);
    }
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsReply reply = HgfsServerNewEmptyReply(op);
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    error = CreateDirectory(share.path, DirectoryAttributes(&reader, op));
    return error != HgfsErrorNone ? error : HgfsServerFinish(session, packet, std::move(reply));
}

uint32_t HgfsServerDeleteFile(std::span<const uint8_t> packet, HgfsSession* session) {
    return Delete(packet, session, hgfsServer.platform->deleteFile);
}

uint32_t HgfsServerDeleteDir(std::span<const uint8_t> packet, HgfsSession* session) {
    return Delete(packet, session, hgfsServer.platform->deleteDirectory);
}

uint32_t HgfsServerRename(std::span<const uint8_t> packet, HgfsSession* session) {
    HgfsPacketReader reader(packet);
    const HgfsOp op = HgfsRequestOp(packet);
    const uint32_t version = kHgfsOps[op].version;
    const size_t emptyName = version == 3 ? HgfsNameV3::EmptySize : HgfsNameV1::EmptySize;
    const HgfsTargetLayout layout = RenameLayout(op);
    HgfsRequestName oldName;
    HgfsRequestName newName;
    size_t newNameAt = 0;
    uint32_t error = HgfsServerReadName(&reader, layout.name, version, &oldName, emptyName, &newNameAt);
    if (error == HgfsErrorNone) {
        error = HgfsServerReadName(&reader, newNameAt, version, &newName);
    }
    HgfsTarget from;
    HgfsShareInfo to;
    if (error == HgfsErrorNone) {
        error = HgfsServerReadTarget(&reader, layout, session, &from);
    }
    if (error == HgfsErrorNone) {
        error = HgfsServerResolveForChange(newName, &to);
    }
    if (error == HgfsErrorNone && !from.writeAllowed) {
        error = HgfsErrorAccessDenied;
    }
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsReply reply = HgfsServerNewEmptyReply(op);
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    std::vector<HgfsNodeRename> renames = HgfsServerPlanNodeRenames(session, from.path, to.path);
    error = hgfsServer.platform->rename(from.path, to.path);
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsServerRenameNodes(session, std::move(renames));
    return HgfsServerFinish(session, packet, std::move(reply));
}

uint32_t HgfsServerQueryVolume(std::span<const uint8_t> packet, HgfsSession* session) {
    HgfsPacketReader reader(packet);
    const uint32_t version = kHgfsOps[HgfsRequestOp(packet)].version;
    HgfsRequestName name;
    uint32_t error = HgfsServerReadName(
        &reader, version == 3 ? HgfsNameRequestV3::Name : HgfsNameRequestV1::Name, version, &name);
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsShareInfo share;
    Space space{};
    HgfsNameStatus status = HgfsServerGetShareInfo(name.bytes, name.caseType, &share);
    if (MeansAllVolumes(status)) {
        error = LeastSpace(&space);
    } else {
        error = HgfsServer_MapNameStatus(status);
        if (error == HgfsErrorNone) {
            error = HgfsServerCheckPath(share.path);
        }
        if (error == HgfsErrorNone) {
            error = SpaceOf(share.path, &space);
        }
    }
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsReply reply =
        HgfsServerNewReply(version == 3 ? HgfsQueryVolumeReplyV3::Size : HgfsQueryVolumeReplyV1::Size);
    if (reply) {
        HgfsPacketWriter writer({reply.bytes.get(), reply.size});
        writer.U64(HgfsQueryVolumeReplyV1::FreeBytes, space.freeBytes);
        writer.U64(HgfsQueryVolumeReplyV1::TotalBytes, space.totalBytes);
    }
    return HgfsServerFinish(session, packet, std::move(reply));
}
