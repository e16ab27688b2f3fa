// What the file server's tests share: the server over a file system in memory, asked the way the host asks.
#pragma once

#include "memoryFs.h"

#include "hgfslib/hgfsServerInt.h"
#include "sim/hgfsPackets.h"
#include "support/diagCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

// A protocol name of components; below a drive of the root share with DriveName.
inline std::string Name(std::initializer_list<std::string_view> components) {
    std::string name;
    for (std::string_view component : components) {
        name += (name.empty() ? "" : std::string(1, '\0')) + std::string(component);
    }
    return name;
}
inline std::string DriveName(std::initializer_list<std::string_view> components) {
    return Name({"root", "drive"}) + '\0' + Name(components);
}

// One packet's answer as it came, and taken apart.
struct Answer {
    std::vector<uint8_t> bytes;
    HgfsPackets_Reply reply;
};

inline std::vector<uint8_t> SendBytes(const std::vector<uint8_t>& packet) {
    // Both buffers are exactly as large as they have to be, so that a step outside is seen.
    std::vector<uint8_t> out(kHgfsLargePacketMax);
    size_t size = packet.size();
    HgfsServer_HandlePacket(packet.data(), out.data(), &size);
    out.resize(size);
    return out;
}

inline Answer Ask(const HgfsPackets_Request& request) {
    Answer answer;
    answer.bytes = SendBytes(HgfsPackets_Encode(request));
    EXPECT_TRUE(HgfsPackets_Decode(request.op, answer.bytes, &answer.reply))
        << kHgfsOps[request.op].name << " was answered with " << answer.bytes.size() << " bytes, status "
        << answer.reply.status;
    EXPECT_EQ(answer.reply.id, request.id);
    return answer;
}

inline uint32_t Status(const HgfsPackets_Request& request) {
    return Ask(request).reply.status;
}

// The open that most tests want: version 3, to be created if missing, for reading and writing.
inline HgfsPackets_Request OpenRequest(std::string name) {
    HgfsPackets_Request request;
    request.op = HgfsOpOpenV3;
    request.id = 0xA1B2C3D4;
    request.mask = kHgfsMaskOpenV1;
    request.mode = kHgfsModeReadWrite;
    request.flags = kHgfsOpenCreate;
    request.name = std::move(name);
    return request;
}

inline HgfsPackets_Request OnHandle(HgfsOp op, uint32_t handle) {
    HgfsPackets_Request request;
    request.op = op;
    request.handle = handle;
    return request;
}

inline HgfsPackets_Request OnName(HgfsOp op, std::string name) {
    HgfsPackets_Request request;
    request.op = op;
    request.name = std::move(name);
    return request;
}

inline uint32_t MustOpen(std::string name) {
    Answer answer = Ask(OpenRequest(std::move(name)));
    EXPECT_EQ(answer.reply.status, HgfsStatusSuccess);
    return answer.reply.handle;
}

inline HgfsPackets_Reply ReadHandle(uint32_t handle, uint64_t offset, uint32_t size,
                                    HgfsOp op = HgfsOpReadV3) {
    HgfsPackets_Request request = OnHandle(op, handle);
    request.offset = offset;
    request.size = size;
    return Ask(request).reply;
}

inline HgfsPackets_Reply WriteHandle(uint32_t handle, uint64_t offset, std::string_view data,
                                     HgfsOp op = HgfsOpWriteV3, uint8_t writeFlags = 0) {
    HgfsPackets_Request request = OnHandle(op, handle);
    request.offset = offset;
    request.size = static_cast<uint32_t>(data.size());
    request.data = data;
    request.writeFlags = writeFlags;
    return Ask(request).reply;
}

class HgfsMemoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        MemoryFs_Reset();
        ASSERT_TRUE(HgfsServerStartUp(MemoryFs_Platform(), kHgfsMaxCachedNodes, nullptr));
    }
    void TearDown() override {
        HgfsServerShutDown();
        EXPECT_EQ(fs.openHandles, 0u);
        DiagCapture_Take();
    }

    MemoryFs& fs = MemoryFs_Get();
};
