// The file client against replies that a server could send, right and wrong.

#include "sim/hgfsClient.h"
#include "fileServer.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace std::string_view_literals;
using testing::HasSubstr;

TEST(HgfsClientName, IsMadeFromDrivesAndShares) {
    EXPECT_EQ(HgfsClient_Name("C:\\Temp\\0a1b2c3d\\", "windows.iso"),
              "root\0drive\0C\0Temp\0000a1b2c3d\0windows.iso"sv);
    EXPECT_EQ(HgfsClient_Name("C:\\", "f"), "root\0drive\0C\0f"sv);
    EXPECT_EQ(HgfsClient_Name("\\\\server\\share\\dir", "f"), "root\0unc\0server\0share\0dir\0f"sv);
    EXPECT_EQ(HgfsClient_Name("Temp", "f"), "");
    EXPECT_EQ(HgfsClient_Name("", "f"), "");
}

struct ClientTest : testing::Test {
    ClientTest() { Image(200000); }

    void Image(size_t size) {
        image.resize(size);
        for (size_t i = 0; i < size; ++i) {
            image[i] = static_cast<char>(i * 31 >> 3);
        }
        client.source.size = size;
        client.source.clientData = this;
        client.source.read = [](void* data, uint64_t offset, uint8_t* bytes, size_t length) {
            const std::string& whole = static_cast<ClientTest*>(data)->image;
            if (offset > whole.size() || length > whole.size() - offset) {
                return false;
            }
            std::memcpy(bytes, whole.data() + offset, length);
            return true;
        };
        client.name = HgfsClient_Name("C:\\t\\", "windows.iso");
    }

    void TearDown() override { EXPECT_EQ(server.wrong, 0U); }

    bool Run(HgfsClient_Job job, unsigned percent = 100) {
        HgfsClient_Begin(&client, job, percent);
        std::vector<uint8_t> packet;
        while (HgfsClient_Append(&client, &packet)) {
            if (!HgfsClient_Take(&client, server.Answer(packet))) {
                return false;
            }
            packet.clear();
        }
        return client.state == HgfsClient_State::Done;
    }

    std::string image;
    HgfsClient client;
    FileServer server;
};

TEST_F(ClientTest, CopiesAndVerifiesInBothVersions) {
    for (uint32_t version : {1U, 3U}) {
        client.version = version;
        for (size_t size : {0U, 1U, 63455U, 63456U, 200000U}) {
            SCOPED_TRACE(testing::Message() << "version " << version << ", " << size << " bytes");
            Image(size);
            server = FileServer{};
            ASSERT_TRUE(Run(HgfsClient_Job::Copy)) << client.error;
            EXPECT_TRUE(server.file == image);
            EXPECT_FALSE(server.open);
            EXPECT_LE(server.largest, version == 1 ? kHgfsPacketMax : kHgfsLargePacketMax);
            ASSERT_TRUE(Run(HgfsClient_Job::Verify)) << client.error;
            EXPECT_EQ(client.offset, size);
        }
    }
}

TEST_F(ClientTest, FillsEveryPacket) {
    ASSERT_TRUE(Run(HgfsClient_Job::Copy));
    EXPECT_EQ(server.largest, kHgfsLargePacketMax);
    EXPECT_EQ(server.packets, 1U + 4U + 1U);
}

TEST_F(ClientTest, CopiesAPartAndLeavesTheFileOpen) {
    ASSERT_TRUE(Run(HgfsClient_Job::Copy, 50));
    EXPECT_EQ(server.file.size(), image.size() / 2);
    EXPECT_TRUE(server.open);
}

TEST_F(ClientTest, GoesOnAfterAShortWrite) {
    server.writeLimit = 1000;
    ASSERT_TRUE(Run(HgfsClient_Job::Copy));
    EXPECT_TRUE(server.file == image);
}

TEST_F(ClientTest, FindsEveryDifference) {
    for (size_t at : {size_t{0}, size_t{63468}, image.size() - 1}) {
        server.file = image;
        server.file[at] = static_cast<char>(server.file[at] ^ 1);
        EXPECT_FALSE(Run(HgfsClient_Job::Verify));
        EXPECT_THAT(client.error, HasSubstr("differs from the image at byte " + std::to_string(at)));
    }
    server.file = image.substr(1);
    EXPECT_FALSE(Run(HgfsClient_Job::Verify));
    EXPECT_THAT(client.error, HasSubstr("199999 bytes instead of 200000"));
}

TEST_F(ClientTest, FailsWhenTheImageCannotBeRead) {
    client.source.size = image.size() + 1;
    EXPECT_FALSE(Run(HgfsClient_Job::Copy));
    EXPECT_EQ(client.error, "the image cannot be read");
}

void Refuse(std::vector<uint8_t>* reply, uint8_t status) {
    reply->resize(kHgfsHeaderSize);
    (*reply)[HgfsReplyHeader::Status] = status;
}

struct WrongReply {
    const char* said;
    void (*spoil)(std::vector<uint8_t>* reply);
};

TEST_F(ClientTest, RefusesWrongReplies) {
    const WrongReply cases[] = {
        {"malformed reply of 7 bytes", [](auto* reply) { reply->resize(7); }},
        {"malformed reply of 0 bytes", [](auto* reply) { reply->clear(); }},
        {"a reply to request", [](auto* reply) { ++(*reply)[HgfsReplyHeader::Id]; }},
        {"access denied", [](auto* reply) { Refuse(reply, HgfsStatusAccessDenied); }},
        {"status 200", [](auto* reply) { Refuse(reply, 200); }},
        {"malformed reply", [](auto* reply) { reply->push_back(0); }},
    };
    for (const WrongReply& wrong : cases) {
        for (unsigned wrongPacket : {1U, 2U, 6U}) {
            SCOPED_TRACE(testing::Message() << wrong.said << ", packet " << wrongPacket);
            server = FileServer{};
            HgfsClient_Begin(&client, HgfsClient_Job::Copy);
            std::vector<uint8_t> packet;
            bool taken = true;
            while (taken && HgfsClient_Append(&client, &packet)) {
                std::vector<uint8_t> reply = server.Answer(packet);
                if (server.packets == wrongPacket) {
                    wrong.spoil(&reply);
                }
                taken = HgfsClient_Take(&client, reply);
                packet.clear();
            }
            EXPECT_FALSE(taken);
            EXPECT_EQ(server.packets, wrongPacket);
            EXPECT_THAT(client.error, HasSubstr(wrong.said));
            EXPECT_FALSE(HgfsClient_Append(&client, &packet));
        }
    }
}

TEST_F(ClientTest, DescribesPackets) {
    HgfsClient_Begin(&client, HgfsClient_Job::Copy);
    std::vector<uint8_t> packet;
    ASSERT_TRUE(HgfsClient_Append(&client, &packet));
    EXPECT_EQ(HgfsClient_DescribeRequest(packet), "#1 OpenV3 mode 1 flags 4 'root/drive/C/t/windows.iso'");
    EXPECT_EQ(HgfsClient_DescribeReply(HgfsOpOpenV3, server.Answer(packet)), "#1 success handle 0");
    EXPECT_EQ(HgfsClient_DescribeRequest(std::span(packet).first(5)), "a packet of 5 bytes");
}

} // namespace
