// Packets in writing, for transcripts.
#include "sim/hgfsClient.h"

#include "string/str.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::array<const char*, 17> STATUS_NAMES = {
    "success",           "no such file",      "invalid handle", "not permitted", "file exists",
    "not a directory",   "not empty",         "protocol error", "access denied", "invalid name",
    "generic error",     "sharing violation", "no space",       "not supported", "name too long",
    "invalid parameter", "not same device"};

std::string NameField(HgfsPacketReader* packet, size_t block, size_t bytes) {
    std::span<const uint8_t> name = packet->Bytes(block + bytes, packet->U32(block));
    std::string text(name.begin(), name.end());
    std::replace(text.begin(), text.end(), '\0', '/');
    return text;
}

// Where the (first) name of an operation stands that is not an open; 0 for one without.
size_t NameOffset(uint32_t op) {
    switch (op) {
    case HgfsOpGetattr:
    case HgfsOpDeleteFile:
    case HgfsOpDeleteDir:
    case HgfsOpSearchOpen:
    case HgfsOpQueryVolumeInfo:
        return HgfsNameRequestV1::Name;
    case HgfsOpGetattrV2:
    case HgfsOpDeleteFileV2:
    case HgfsOpDeleteDirV2:
        return HgfsFileRequestV2::Name;
    case HgfsOpGetattrV3:
    case HgfsOpDeleteFileV3:
    case HgfsOpDeleteDirV3:
        return HgfsFileRequestV3::Name;
    case HgfsOpSearchOpenV3:
    case HgfsOpQueryVolumeInfoV3:
        return HgfsNameRequestV3::Name;
    case HgfsOpSetattr:
        return HgfsSetattrRequestV1::Name;
    case HgfsOpSetattrV2:
        return HgfsSetattrRequestV2::Name;
    case HgfsOpSetattrV3:
        return HgfsSetattrRequestV3::Name;
    case HgfsOpCreateDir:
        return HgfsCreateDirRequestV1::Name;
    case HgfsOpCreateDirV2:
        return HgfsCreateDirRequestV2::Name;
    case HgfsOpCreateDirV3:
        return HgfsCreateDirRequestV3::Name;
    case HgfsOpRename:
        return HgfsRenameRequestV1::OldName;
    case HgfsOpRenameV2:
    case HgfsOpRenameV3:
        return HgfsRenameRequestV2::OldName;
    default:
        return 0;
    }
}

std::string DescribeName(HgfsPacketReader* packet, uint32_t op) {
    const bool large = kHgfsOps[op].version == 3;
    const size_t at = NameOffset(op);
    const size_t bytes = large ? HgfsNameV3::Bytes : HgfsNameV1::Bytes;
    std::string text = " '" + NameField(packet, at, bytes) + "'";
    if (op == HgfsOpRename || op == HgfsOpRenameV2 || op == HgfsOpRenameV3) {
        text += " to '" + NameField(packet, at + bytes + packet->U32(at) + 1, bytes) + "'";
    }
    return text;
}

std::string DescribeOpen(HgfsPacketReader* packet, uint32_t op) {
    bool first = op == HgfsOpOpen;
    size_t mode = first ? HgfsOpenRequestV1::Mode : HgfsOpenRequestV2::Mode;
    size_t flags = first ? HgfsOpenRequestV1::Flags : HgfsOpenRequestV2::Flags;
    size_t name = first ? HgfsOpenRequestV1::Name : HgfsOpenRequestV2::Name;
    size_t bytes = op == HgfsOpOpenV3 ? HgfsNameV3::Bytes : HgfsNameV1::Bytes;
    return Str_Format(" mode %u flags %u '%s'", static_cast<unsigned>(packet->U32(mode)),
                      static_cast<unsigned>(packet->U32(flags)), NameField(packet, name, bytes).c_str());
}

} // namespace

std::string HgfsClient_StatusName(uint32_t status) {
    return status < STATUS_NAMES.size() ? STATUS_NAMES[status]
                                        : Str_Format("status %u", static_cast<unsigned>(status));
}

std::string HgfsClient_DescribeRequest(std::span<const uint8_t> bytes) {
    HgfsPacketReader packet(bytes);
    uint32_t id = packet.U32(HgfsRequestHeader::Id);
    uint32_t op = packet.U32(HgfsRequestHeader::Op);
    if (!packet.Ok() || op >= HgfsOpCount) {
        return Str_Format("a packet of %u bytes", static_cast<unsigned>(bytes.size()));
    }
    std::string text = Str_Format("#%u %s", static_cast<unsigned>(id), kHgfsOps[op].name.data());
    switch (op) {
    case HgfsOpOpen:
    case HgfsOpOpenV2:
    case HgfsOpOpenV3:
        return text + DescribeOpen(&packet, op);
    case HgfsOpRead:
    case HgfsOpReadV3:
        return text + Str_Format(" handle %u offset %" DIAG_I64 "u size %u",
                                 static_cast<unsigned>(packet.U32(HgfsReadRequestV1::Handle)),
                                 packet.U64(HgfsReadRequestV1::Offset),
                                 static_cast<unsigned>(packet.U32(HgfsReadRequestV1::Size)));
    case HgfsOpWrite:
    case HgfsOpWriteV3:
        return text + Str_Format(" handle %u offset %" DIAG_I64 "u size %u",
                                 static_cast<unsigned>(packet.U32(HgfsWriteRequestV1::Handle)),
                                 packet.U64(HgfsWriteRequestV1::Offset),
                                 static_cast<unsigned>(packet.U32(HgfsWriteRequestV1::Size)));
    case HgfsOpClose:
    case HgfsOpCloseV3:
    case HgfsOpSearchClose:
    case HgfsOpSearchCloseV3:
        return text +
               Str_Format(" handle %u", static_cast<unsigned>(packet.U32(HgfsHandleRequestV1::Handle)));
    case HgfsOpSearchRead:
    case HgfsOpSearchReadV2:
    case HgfsOpSearchReadV3:
        return text + Str_Format(" handle %u index %u",
                                 static_cast<unsigned>(packet.U32(HgfsSearchReadRequestV1::Handle)),
                                 static_cast<unsigned>(packet.U32(HgfsSearchReadRequestV1::Index)));
    default:
        return NameOffset(op) == 0 ? text : text + DescribeName(&packet, op);
    }
}

std::string HgfsClient_DescribeReply(uint32_t op, std::span<const uint8_t> bytes) {
    HgfsPacketReader packet(bytes);
    uint32_t id = packet.U32(HgfsReplyHeader::Id);
    uint32_t status = packet.U32(HgfsReplyHeader::Status);
    if (!packet.Ok()) {
        return Str_Format("a packet of %u bytes", static_cast<unsigned>(bytes.size()));
    }
    std::string text = Str_Format("#%u %s", static_cast<unsigned>(id), HgfsClient_StatusName(status).c_str());
    if (status != HgfsStatusSuccess) {
        return text;
    }
    switch (op) {
    case HgfsOpOpen:
    case HgfsOpOpenV2:
    case HgfsOpOpenV3:
        return text + Str_Format(" handle %u", static_cast<unsigned>(packet.U32(HgfsOpenReplyV1::Handle)));
    case HgfsOpRead:
    case HgfsOpReadV3:
    case HgfsOpWrite:
    case HgfsOpWriteV3:
        return text + Str_Format(" %u bytes", static_cast<unsigned>(packet.U32(HgfsReadReplyV1::ActualSize)));
    case HgfsOpGetattr:
        return text + Str_Format(" size %" DIAG_I64 "u",
                                 packet.U64(HgfsGetattrReplyV1::Attributes + HgfsAttrV1::FileSize));
    case HgfsOpGetattrV2:
    case HgfsOpGetattrV3:
        return text + Str_Format(" size %" DIAG_I64 "u",
                                 packet.U64(HgfsGetattrReplyV2::Attributes + HgfsAttrV2::FileSize));
    case HgfsOpSearchOpen:
    case HgfsOpSearchOpenV3:
        return text +
               Str_Format(" handle %u", static_cast<unsigned>(packet.U32(HgfsSearchOpenReplyV1::Handle)));
    case HgfsOpSearchRead:
        return text + " '" + NameField(&packet, HgfsSearchReadReplyV1::Name, HgfsNameV1::Bytes) + "'";
    case HgfsOpSearchReadV2:
        return text + " '" + NameField(&packet, HgfsSearchReadReplyV2::Name, HgfsNameV1::Bytes) + "'";
    case HgfsOpSearchReadV3:
        return text + " '" + NameField(&packet, HgfsSearchReadReplyV3::Name, HgfsNameV3::Bytes) + "'";
    case HgfsOpQueryVolumeInfo:
    case HgfsOpQueryVolumeInfoV3:
        return text + Str_Format(" %" DIAG_I64 "u of %" DIAG_I64 "u bytes free",
                                 packet.U64(HgfsQueryVolumeReplyV1::FreeBytes),
                                 packet.U64(HgfsQueryVolumeReplyV1::TotalBytes));
    default:
        return text;
    }
}

std::string HgfsClient_Hex(std::span<const uint8_t> packet) {
    constexpr size_t MOST = 256;
    std::string text;
    for (uint8_t byte : packet.first(std::min(packet.size(), MOST))) {
        text += Str_Format(text.empty() ? "%02x" : " %02x", static_cast<unsigned>(byte));
    }
    return packet.size() > MOST
               ? text + Str_Format(" and %u bytes", static_cast<unsigned>(packet.size() - MOST))
               : text;
}
