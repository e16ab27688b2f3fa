// Handlers that work on open files: open, read, write and close.
#include "hgfslib/hgfsServerInt.h"

#include <algorithm>

namespace {

size_t OpenReplySize(HgfsOp op) {
    switch (op) {
    case HgfsOpOpen:
        return HgfsOpenReplyV1::Size;
    case HgfsOpOpenV2:
        return HgfsOpenReplyV2::Size;
    default:
        return HgfsOpenReplyV3::Size;
    }
}

// Opens the file and makes its node. The file is closed again when the node cannot be made.
uint32_t OpenNode(HgfsSession* session, const HgfsOpenRequest& request, HgfsShareInfo share,
                  uint32_t* handle) {
    HgfsOpenArguments plan;
    uint32_t error = HgfsServerPlanOpen(request, &plan);
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsNode node;
    node.requestName = request.name.bytes;
    node.shareName = std::move(share.shareName);
    node.localName = share.path;
    node.desiredAccess = plan.access;
    node.shareAccess = plan.share;
    node.shareRead = share.readAllowed;
    node.shareWrite = share.writeAllowed;
    bool existed = true;
    HgfsOsHandle opened;
    error = HgfsServerOpenFile(share, plan, &opened, &existed);
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsFileOwner file(opened);
    error = hgfsServer.platform->getFileId(file.Get(), &node.fileId);
    if (error != HgfsErrorNone) {
        return error;
    }
    const bool appends = (plan.access & kHgfsAccessAppendData) && !(plan.access & kHgfsAccessWriteData);
    node.osHandle = file.Get();
    node.flags = static_cast<uint8_t>((appends ? kHgfsNodeAppend : 0) |
                                      ((request.mode & kHgfsModeSequential) ? kHgfsNodeSequential : 0) |
                                      (existed ? 0 : kHgfsNodeCreated));
    error = HgfsServerAddNode(session, std::move(node), handle);
    if (error == HgfsErrorNone) {
        file.Release();
    }
    return error;
}

} // namespace

uint32_t HgfsServerOpen(std::span<const uint8_t> packet, HgfsSession* session) {
    HgfsOpenRequest request;
    uint32_t error = HgfsServerUnpackOpen(packet, &request);
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsShareInfo share;
    error = HgfsServerResolveName(request.name, &share);
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsReply reply = HgfsServerNewReply(OpenReplySize(HgfsRequestOp(packet)));
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    uint32_t handle;
    error = OpenNode(session, request, std::move(share), &handle);
    if (error != HgfsErrorNone) {
        return error;
    }
    // No lock is ever granted, so the acquired lock stays 0.
    HgfsPacketWriter({reply.bytes.get(), reply.size}).U32(HgfsOpenReplyV1::Handle, handle);
    return HgfsServerFinish(session, packet, std::move(reply));
}

uint32_t HgfsServerRead(std::span<const uint8_t> packet, HgfsSession* session) {
    using Request = HgfsReadRequestV1; // version 3 adds reserved bytes behind it
    HgfsPacketReader reader(packet);
    const bool large = HgfsRequestOp(packet) == HgfsOpReadV3;
    const size_t dataOffset = large ? HgfsReadReplyV3::Data : HgfsReadReplyV1::Data;
    const size_t most = large ? kHgfsReadMaxV3 : kHgfsReadMaxV1;
    const uint64_t offset = reader.U64(Request::Offset);
    const size_t size = std::min<size_t>(reader.U32(Request::Size), most);
    HgfsOpenFile file;
    uint32_t error = HgfsServerGetFile(session, reader.U32(Request::Handle), &file);
    if (error != HgfsErrorNone) {
        return error;
    }
    if (!file.shareRead) {
        return HgfsErrorAccessDenied;
    }
    HgfsReply reply = HgfsServerNewDataReply(dataOffset, size);
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    const HgfsPlatform& platform = *hgfsServer.platform;
    std::span<uint8_t> data(reply.bytes.get() + dataOffset, size);
    uint32_t actual = 0;
    error = (file.flags & kHgfsNodeSequential) ? platform.readNext(file.osHandle, data, &actual)
                                               : platform.readAt(file.osHandle, offset, data, &actual);
    if (error != HgfsErrorNone && error != HgfsErrorHandleEof) {
        return error;
    }
    HgfsPacketWriter({reply.bytes.get(), reply.size}).U32(HgfsReadReplyV1::ActualSize, actual);
    reply.size = dataOffset + actual;
    return HgfsServerFinish(session, packet, std::move(reply));
}

uint32_t HgfsServerWrite(std::span<const uint8_t> packet, HgfsSession* session) {
    using Request = HgfsWriteRequestV1; // version 3 has reserved bytes in front of the data
    HgfsPacketReader reader(packet);
    const bool large = HgfsRequestOp(packet) == HgfsOpWriteV3;
    const size_t dataOffset = large ? HgfsWriteRequestV3::Data : HgfsWriteRequestV1::Data;
    const bool append = (reader.U8(Request::Flags) & kHgfsWriteAppend) != 0;
    const uint64_t offset = reader.U64(Request::Offset);
    const size_t size = std::min<size_t>(reader.U32(Request::Size), packet.size() - dataOffset);
    HgfsOpenFile file;
    uint32_t error = HgfsServerGetFile(session, reader.U32(Request::Handle), &file);
    if (error != HgfsErrorNone) {
        return error;
    }
    if (!file.shareWrite) {
        return HgfsErrorAccessDenied;
    }
    HgfsReply reply = HgfsServerNewReply(large ? HgfsWriteReplyV3::Size : HgfsWriteReplyV1::Size);
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    const HgfsPlatform& platform = *hgfsServer.platform;
    std::span<const uint8_t> data = packet.subspan(dataOffset, size);
    uint32_t actual = 0;
    if (file.flags & kHgfsNodeSequential) {
        error = append ? HgfsErrorInvalidFunction : platform.writeNext(file.osHandle, data, &actual);
    } else {
        error = append ? platform.append(file.osHandle, data, &actual)
                       : platform.writeAt(file.osHandle, offset, data, &actual);
    }
    if (error != HgfsErrorNone) {
        return error;
    }
    HgfsPacketWriter({reply.bytes.get(), reply.size}).U32(HgfsWriteReplyV1::ActualSize, actual);
    return HgfsServerFinish(session, packet, std::move(reply));
}

uint32_t HgfsServerClose(std::span<const uint8_t> packet, HgfsSession* session) {
    HgfsReply reply = HgfsServerNewEmptyReply(HgfsRequestOp(packet));
    if (!reply) {
        return HgfsErrorNotEnoughMemory;
    }
    if (!HgfsServerCloseNode(session, HgfsPacketReader(packet).U32(HgfsHandleRequestV1::Handle))) {
        return HgfsErrorInternal;
    }
    return HgfsServerFinish(session, packet, std::move(reply));
}
