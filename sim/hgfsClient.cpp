#include "sim/hgfsClient.h"

#include "hgfslib/hgfsProto.h"
#include "string/str.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

using State = HgfsClient_State;

constexpr std::array<const char*, 17> STATUS_NAMES = {
    "success",           "no such file",      "invalid handle", "not permitted", "file exists",
    "not a directory",   "not empty",         "protocol error", "access denied", "invalid name",
    "generic error",     "sharing violation", "no space",       "not supported", "name too long",
    "invalid parameter", "not same device"};

std::string StatusName(uint32_t status) {
    return status < STATUS_NAMES.size() ? STATUS_NAMES[status]
                                        : Str_Format("status %u", static_cast<unsigned>(status));
}

bool Fail(HgfsClient* client, const std::string& error) {
    client->error = error;
    client->state = State::Failed;
    return false;
}

bool Large(const HgfsClient& client) {
    return client.version >= 3;
}

size_t WriteRoom(const HgfsClient& client) {
    return Large(client) ? kHgfsLargePacketMax - HgfsWriteRequestV3::Data
                         : kHgfsPacketMax - HgfsWriteRequestV1::Data;
}

size_t ReadRoom(const HgfsClient& client) {
    return Large(client) ? kHgfsReadMaxV3 : kHgfsReadMaxV1;
}

// --- Requests
// ------------------------------------------------------------------------------------------------

// Room for a packet at the end of the message, its header filled in.
HgfsPacketWriter NewPacket(HgfsClient* client, std::vector<uint8_t>* message, HgfsOp op, size_t size) {
    size_t start = message->size();
    message->resize(start + size);
    HgfsPacketWriter packet(std::span<uint8_t>(*message).subspan(start));
    client->requestOp = op;
    packet.U32(HgfsRequestHeader::Id, ++client->requestId);
    packet.U32(HgfsRequestHeader::Op, op);
    ++client->requests;
    return packet;
}

void AppendAttributes(HgfsClient* client, std::vector<uint8_t>* message) {
    size_t size = HgfsNameRequestV1::MinimumSize + client->name.size();
    HgfsPacketWriter packet = NewPacket(client, message, HgfsOpGetattr, size);
    packet.U32(HgfsNameRequestV1::Name + HgfsNameV1::Length, static_cast<uint32_t>(client->name.size()));
    packet.Bytes(HgfsNameRequestV1::Name + HgfsNameV1::Bytes, client->name);
}

void AppendOpen(HgfsClient* client, std::vector<uint8_t>* message) {
    bool copy = client->job == HgfsClient_Job::Copy;
    uint32_t mode = copy ? kHgfsModeWrite : kHgfsModeRead;
    uint32_t flags = copy ? kHgfsOpenCreateEmpty : kHgfsOpenExisting;
    uint8_t permissions = kHgfsPermRead | kHgfsPermWrite;
    auto length = static_cast<uint32_t>(client->name.size());
    if (Large(*client)) {
        using Layout = HgfsOpenRequestV3;
        HgfsPacketWriter packet = NewPacket(client, message, HgfsOpOpenV3, Layout::MinimumSize + length);
        packet.U64(Layout::Mask, kHgfsMaskOpenV1);
        packet.U32(Layout::Mode, mode);
        packet.U32(Layout::Flags, flags);
        packet.U8(Layout::OwnerPerms, permissions);
        packet.U32(Layout::Name + HgfsNameV3::Length, length);
        packet.U32(Layout::Name + HgfsNameV3::CaseType, kHgfsCaseDefault);
        packet.Bytes(Layout::Name + HgfsNameV3::Bytes, client->name);
    } else {
        using Layout = HgfsOpenRequestV1;
        HgfsPacketWriter packet = NewPacket(client, message, HgfsOpOpen, Layout::MinimumSize + length);
        packet.U32(Layout::Mode, mode);
        packet.U32(Layout::Flags, flags);
        packet.U8(Layout::Permissions, permissions);
        packet.U32(Layout::Name + HgfsNameV1::Length, length);
        packet.Bytes(Layout::Name + HgfsNameV1::Bytes, client->name);
    }
}

bool AppendWrite(HgfsClient* client, std::vector<uint8_t>* message) {
    size_t data = Large(*client) ? HgfsWriteRequestV3::Data : HgfsWriteRequestV1::Data;
    auto count = static_cast<size_t>(std::min<uint64_t>(WriteRoom(*client), client->limit - client->offset));
    size_t start = message->size();
    HgfsPacketWriter packet =
        NewPacket(client, message, Large(*client) ? HgfsOpWriteV3 : HgfsOpWrite, data + count);
    // The two versions differ in where the data begin, not in the fields before them.
    packet.U32(HgfsWriteRequestV1::Handle, client->handle);
    packet.U64(HgfsWriteRequestV1::Offset, client->offset);
    packet.U32(HgfsWriteRequestV1::Size, static_cast<uint32_t>(count));
    client->requestSize = static_cast<uint32_t>(count);
    const HgfsClient_Source& source = client->source;
    if (!source.read(source.clientData, client->offset, message->data() + start + data, count)) {
        return Fail(client, "the image cannot be read");
    }
    return true;
}

void AppendRead(HgfsClient* client, std::vector<uint8_t>* message) {
    size_t size = Large(*client) ? HgfsReadRequestV3::MinimumSize : HgfsReadRequestV1::MinimumSize;
    HgfsPacketWriter packet = NewPacket(client, message, Large(*client) ? HgfsOpReadV3 : HgfsOpRead, size);
    packet.U32(HgfsReadRequestV1::Handle, client->handle);
    packet.U64(HgfsReadRequestV1::Offset, client->offset);
    client->requestSize = static_cast<uint32_t>(ReadRoom(*client));
    packet.U32(HgfsReadRequestV1::Size, client->requestSize);
}

void AppendClose(HgfsClient* client, std::vector<uint8_t>* message) {
    size_t size = Large(*client) ? HgfsHandleRequestV3::MinimumSize : HgfsHandleRequestV1::MinimumSize;
    HgfsPacketWriter packet = NewPacket(client, message, Large(*client) ? HgfsOpCloseV3 : HgfsOpClose, size);
    packet.U32(HgfsHandleRequestV1::Handle, client->handle);
}

// --- Replies
// -------------------------------------------------------------------------------------------------

bool CheckSize(HgfsClient* client, size_t size, size_t wanted) {
    return size == wanted ||
           Fail(client,
                Str_Format("%s answered with %u bytes instead of %u", kHgfsOps[client->requestOp].name.data(),
                           static_cast<unsigned>(size), static_cast<unsigned>(wanted)));
}

bool TakeAttributes(HgfsClient* client, HgfsPacketReader* reply) {
    if (!CheckSize(client, reply->Size(), HgfsGetattrReplyV1::Size)) {
        return false;
    }
    uint32_t type = reply->U32(HgfsGetattrReplyV1::Attributes + HgfsAttrV1::Type);
    uint64_t size = reply->U64(HgfsGetattrReplyV1::Attributes + HgfsAttrV1::FileSize);
    if (type != kHgfsTypeRegular || size != client->source.size) {
        return Fail(client,
                    Str_Format("the copy has type %u and %" DIAG_I64 "u bytes instead of %" DIAG_I64 "u",
                               static_cast<unsigned>(type), size, client->source.size));
    }
    client->state = State::Open;
    return true;
}

bool TakeOpen(HgfsClient* client, HgfsPacketReader* reply) {
    if (!CheckSize(client, reply->Size(), Large(*client) ? HgfsOpenReplyV3::Size : HgfsOpenReplyV1::Size)) {
        return false;
    }
    client->handle = reply->U32(HgfsOpenReplyV1::Handle);
    bool empty = client->job == HgfsClient_Job::Copy && client->limit == 0;
    client->state = !empty ? State::Transfer : client->source.size == 0 ? State::Close : State::Done;
    return true;
}

bool TakeWrite(HgfsClient* client, HgfsPacketReader* reply) {
    if (!CheckSize(client, reply->Size(), Large(*client) ? HgfsWriteReplyV3::Size : HgfsWriteReplyV1::Size)) {
        return false;
    }
    uint32_t written = reply->U32(HgfsWriteReplyV1::ActualSize);
    if (written == 0 || written > client->requestSize) {
        return Fail(client,
                    Str_Format("%u of %u bytes written at %" DIAG_I64 "u", static_cast<unsigned>(written),
                               static_cast<unsigned>(client->requestSize), client->offset));
    }
    client->offset += written;
    if (client->offset == client->limit) {
        client->state = client->limit == client->source.size ? State::Close : State::Done;
    }
    return true;
}

bool Compare(HgfsClient* client, std::span<const uint8_t> data) {
    client->expected.resize(data.size());
    const HgfsClient_Source& source = client->source;
    if (!source.read(source.clientData, client->offset, client->expected.data(), data.size())) {
        return Fail(client, "the image cannot be read");
    }
    auto [ours, theirs] = std::mismatch(client->expected.begin(), client->expected.end(), data.begin());
    if (ours != client->expected.end()) {
        uint64_t at = client->offset + static_cast<uint64_t>(ours - client->expected.begin());
        return Fail(client, Str_Format("the copy differs from the image at byte %" DIAG_I64 "u", at));
    }
    return true;
}

bool TakeRead(HgfsClient* client, HgfsPacketReader* reply) {
    size_t start = Large(*client) ? HgfsReadReplyV3::Data : HgfsReadReplyV1::Data;
    uint32_t count = reply->U32(HgfsReadReplyV1::ActualSize);
    if (!CheckSize(client, reply->Size(), start + count)) {
        return false;
    }
    uint64_t left = client->source.size - client->offset;
    if (count > left || (count == 0 && left != 0)) {
        return Fail(client, Str_Format("%u bytes read at %" DIAG_I64 "u of %" DIAG_I64 "u",
                                       static_cast<unsigned>(count), client->offset, client->source.size));
    }
    if (count == 0) {
        client->state = State::Close;
        return true;
    }
    if (!Compare(client, reply->Bytes(start, count))) {
        return false;
    }
    client->offset += count;
    return true;
}

bool TakeClose(HgfsClient* client, HgfsPacketReader* reply) {
    size_t wanted = Large(*client) ? HgfsEmptyReplyV3::Size : HgfsEmptyReplyV1::Size;
    if (!CheckSize(client, reply->Size(), wanted)) {
        return false;
    }
    client->state = State::Done;
    return true;
}

// --- Transcript
// ----------------------------------------------------------------------------------------------

std::string NameField(HgfsPacketReader* packet, size_t block, size_t bytes) {
    std::span<const uint8_t> name = packet->Bytes(block + bytes, packet->U32(block));
    std::string text(name.begin(), name.end());
    std::replace(text.begin(), text.end(), '\0', '/');
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

std::string HgfsClient_Name(std::string_view directory, std::string_view file) {
    using namespace std::string_view_literals;
    std::string name;
    std::string_view rest;
    if (directory.size() >= 3 && directory[1] == ':' && directory[2] == '\\') {
        name = "root\0drive\0"sv;
        name += directory[0];
        rest = directory.substr(2);
    } else if (directory.size() > 2 && directory.starts_with("\\\\")) {
        name = "root\0unc"sv;
        rest = directory.substr(1);
    } else {
        return {};
    }
    std::string path = std::string(rest) + '\\' + std::string(file);
    for (size_t begin = 0; begin < path.size();) {
        size_t end = std::min(path.find('\\', begin), path.size());
        if (end > begin) {
            name += '\0';
            name.append(path, begin, end - begin);
        }
        begin = end + 1;
    }
    return name;
}

void HgfsClient_Begin(HgfsClient* client, HgfsClient_Job job, unsigned percent) {
    client->job = job;
    client->state = job == HgfsClient_Job::Verify ? State::Attributes : State::Open;
    client->offset = 0;
    client->limit = percent >= 100 ? client->source.size : client->source.size / 100 * percent;
    client->requests = 0;
    client->error.clear();
}

bool HgfsClient_Append(HgfsClient* client, std::vector<uint8_t>* message) {
    switch (client->state) {
    case State::Attributes:
        AppendAttributes(client, message);
        return true;
    case State::Open:
        AppendOpen(client, message);
        return true;
    case State::Transfer:
        if (client->job == HgfsClient_Job::Copy) {
            return AppendWrite(client, message);
        }
        AppendRead(client, message);
        return true;
    case State::Close:
        AppendClose(client, message);
        return true;
    case State::Done:
    case State::Failed:
        break;
    }
    return false;
}

bool HgfsClient_Take(HgfsClient* client, std::span<const uint8_t> reply) {
    HgfsPacketReader packet(reply);
    uint32_t id = packet.U32(HgfsReplyHeader::Id);
    uint32_t status = packet.U32(HgfsReplyHeader::Status);
    if (!packet.Ok()) {
        return Fail(client, Str_Format("a reply of %u bytes", static_cast<unsigned>(reply.size())));
    }
    if (id != client->requestId) {
        return Fail(client, Str_Format("a reply to request %u instead of %u", static_cast<unsigned>(id),
                                       static_cast<unsigned>(client->requestId)));
    }
    if (status != HgfsStatusSuccess) {
        return Fail(client, std::string(kHgfsOps[client->requestOp].name) + " failed: " + StatusName(status));
    }
    switch (client->state) {
    case State::Attributes:
        return TakeAttributes(client, &packet);
    case State::Open:
        return TakeOpen(client, &packet);
    case State::Transfer:
        return client->job == HgfsClient_Job::Copy ? TakeWrite(client, &packet) : TakeRead(client, &packet);
    case State::Close:
        return TakeClose(client, &packet);
    case State::Done:
    case State::Failed:
        break;
    }
    return Fail(client, "a reply without a request");
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
        return text +
               Str_Format(" handle %u", static_cast<unsigned>(packet.U32(HgfsHandleRequestV1::Handle)));
    case HgfsOpGetattr:
        return text + " '" + NameField(&packet, HgfsNameRequestV1::Name, HgfsNameV1::Bytes) + "'";
    default:
        return text;
    }
}

std::string HgfsClient_DescribeReply(uint32_t op, std::span<const uint8_t> bytes) {
    HgfsPacketReader packet(bytes);
    uint32_t id = packet.U32(HgfsReplyHeader::Id);
    uint32_t status = packet.U32(HgfsReplyHeader::Status);
    if (!packet.Ok()) {
        return Str_Format("a packet of %u bytes", static_cast<unsigned>(bytes.size()));
    }
    std::string text = Str_Format("#%u %s", static_cast<unsigned>(id), StatusName(status).c_str());
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
    default:
        return text;
    }
}
