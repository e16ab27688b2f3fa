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

// A protocol name of components; below a drive of the root share with DriveName, in C:\tmp with Tmp.
inline std::string Name(std::initializer_list<std::string_view> components) {
    std::string name;
    for (std::string_view component : components) {
        name += (name.empty() ? "" : std::string(1, '\0')) + std::string(component);
    }
    return name;
}
inline std::string DriveName(std::initializer_list<std::string_view> components) {
    return Name({"root", "drive", Name(components)});
}
inline std::string Tmp(std::string_view child) {
    return DriveName({"C", "tmp", child});
}

inline std::vector<uint8_t> SendBytes(const std::vector<uint8_t>& packet) {
    // Both buffers are exactly as large as they have to be, so that a step outside is seen.
    std::vector<uint8_t> out(kHgfsLargePacketMax);
    size_t size = packet.size();
    HgfsServer_HandlePacket(packet.data(), out.data(), &size);
    out.resize(size);
    return out;
}

inline HgfsPackets_Reply Ask(const HgfsPackets_Request& request) {
    const std::vector<uint8_t> bytes = SendBytes(HgfsPackets_Encode(request));
    HgfsPackets_Reply reply;
    EXPECT_TRUE(HgfsPackets_Decode(request.op, bytes, &reply))
        << kHgfsOps[request.op].name << " was answered with " << bytes.size() << " bytes, status "
        << reply.status;
    EXPECT_EQ(reply.id, request.id);
    return reply;
}

inline uint32_t Status(const HgfsPackets_Request& request) {
    return Ask(request).status;
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

inline HgfsPackets_Request Renaming(std::string from, std::string to, HgfsOp op = HgfsOpRename) {
    HgfsPackets_Request request = OnName(op, std::move(from));
    request.newName = std::move(to);
    return request;
}

inline HgfsPackets_Request Opening(std::string name, uint32_t mode = kHgfsModeReadWrite,
                                   uint32_t flags = kHgfsOpenCreate) {
    HgfsPackets_Request request = OnName(HgfsOpOpenV3, std::move(name));
    request.id = 0xA1B2C3D4;
    request.mask = kHgfsMaskOpenV1;
    request.mode = mode;
    request.flags = flags;
    return request;
}

inline uint32_t MustOpen(std::string name, uint32_t mode = kHgfsModeReadWrite) {
    HgfsPackets_Reply reply = Ask(Opening(std::move(name), mode));
    EXPECT_EQ(reply.status, HgfsStatusSuccess);
    return reply.handle;
}

inline HgfsPackets_Reply ReadHandle(uint32_t handle, uint64_t offset, uint32_t size,
                                    HgfsOp op = HgfsOpReadV3) {
    HgfsPackets_Request request = OnHandle(op, handle);
    request.offset = offset;
    request.size = size;
    return Ask(request);
}

inline HgfsPackets_Reply WriteHandle(uint32_t handle, uint64_t offset, std::string_view data,
                                     HgfsOp op = HgfsOpWriteV3, uint8_t writeFlags = 0) {
    HgfsPackets_Request request = OnHandle(op, handle);
    request.offset = offset;
    request.size = static_cast<uint32_t>(data.size());
    request.data = data;
    request.writeFlags = writeFlags;
    return Ask(request);
}

// All entries of a directory.
inline std::vector<HgfsPackets_Reply> List(std::string directory) {
    HgfsPackets_Request request = OnName(HgfsOpSearchOpenV3, std::move(directory));
    request.handle = Ask(request).handle;
    request.op = HgfsOpSearchReadV3;
    std::vector<HgfsPackets_Reply> entries;
    for (HgfsPackets_Reply reply = Ask(request); !reply.name.empty(); reply = Ask(request)) {
        entries.push_back(reply);
        ++request.index;
    }
    request.op = HgfsOpSearchCloseV3;
    EXPECT_EQ(Status(request), HgfsStatusSuccess);
    EXPECT_EQ(Status(request), HgfsStatusGenericError);
    return entries;
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
