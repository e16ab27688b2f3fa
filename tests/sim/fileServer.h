#pragma once

#include "hgfslib/hgfsProto.h"

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

// A guest's file server in memory. It keeps one file, whatever its name.
struct FileServer {
    std::string file;
    uint64_t writeLimit = UINT64_MAX; // bytes taken from one write
    bool open = false;
    unsigned packets = 0;
    size_t largest = 0;
    unsigned wrong = 0; // requests that no host should send

    std::vector<uint8_t> Answer(std::span<const uint8_t> packet) {
        ++packets;
        largest = std::max(largest, packet.size());
        HgfsPacketReader request(packet);
        uint32_t op = request.U32(HgfsRequestHeader::Op);
        if (op >= HgfsOpCount || packet.size() < kHgfsOps[op].minimumSize) {
            ++wrong;
            return {};
        }
        std::vector<uint8_t> reply = Body(op, &request, packet);
        HgfsPacketWriter(reply).U32(HgfsReplyHeader::Id, request.U32(HgfsRequestHeader::Id));
        return reply;
    }

private:
    std::vector<uint8_t> Body(uint32_t op, HgfsPacketReader* request, std::span<const uint8_t> packet) {
        switch (op) {
        case HgfsOpOpen:
        case HgfsOpOpenV3:
            return Open(request, op == HgfsOpOpenV3);
        case HgfsOpWrite:
        case HgfsOpWriteV3:
            return Write(request, packet, op == HgfsOpWriteV3);
        case HgfsOpRead:
        case HgfsOpReadV3:
            return Read(request, op == HgfsOpReadV3);
        case HgfsOpGetattr: {
            std::vector<uint8_t> reply(HgfsGetattrReplyV1::Size);
            HgfsPacketWriter(reply).U64(HgfsGetattrReplyV1::Attributes + HgfsAttrV1::FileSize, file.size());
            return reply;
        }
        default:
            wrong += op != HgfsOpClose && op != HgfsOpCloseV3;
            open = false;
            return std::vector<uint8_t>(op == HgfsOpClose ? HgfsEmptyReplyV1::Size : HgfsEmptyReplyV3::Size);
        }
    }

    std::vector<uint8_t> Open(HgfsPacketReader* request, bool large) {
        uint32_t flags = request->U32(large ? HgfsOpenRequestV3::Flags : HgfsOpenRequestV1::Flags);
        if (flags == kHgfsOpenCreateEmpty) {
            file.clear();
        }
        open = true;
        return std::vector<uint8_t>(large ? HgfsOpenReplyV3::Size : HgfsOpenReplyV1::Size);
    }

    std::vector<uint8_t> Write(HgfsPacketReader* request, std::span<const uint8_t> packet, bool large) {
        std::span<const uint8_t> data =
            packet.subspan(large ? HgfsWriteRequestV3::Data : HgfsWriteRequestV1::Data);
        wrong += request->U32(HgfsWriteRequestV1::Size) != data.size();
        wrong += request->U64(HgfsWriteRequestV1::Offset) != file.size();
        data = data.first(static_cast<size_t>(std::min<uint64_t>(data.size(), writeLimit)));
        file.append(data.begin(), data.end());
        std::vector<uint8_t> reply(large ? HgfsWriteReplyV3::Size : HgfsWriteReplyV1::Size);
        HgfsPacketWriter(reply).U32(HgfsWriteReplyV1::ActualSize, static_cast<uint32_t>(data.size()));
        return reply;
    }

    std::vector<uint8_t> Read(HgfsPacketReader* request, bool large) {
        size_t start = large ? HgfsReadReplyV3::Data : HgfsReadReplyV1::Data;
        auto offset = static_cast<size_t>(request->U64(HgfsReadRequestV1::Offset));
        std::string data = file.substr(offset, request->U32(HgfsReadRequestV1::Size));
        std::vector<uint8_t> reply(start + data.size());
        HgfsPacketWriter writer(reply);
        writer.U32(HgfsReadReplyV1::ActualSize, static_cast<uint32_t>(data.size()));
        writer.Bytes(start, data);
        return reply;
    }
};
