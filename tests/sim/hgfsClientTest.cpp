// The file client against the real file server, and against replies that no server should give.

#include "sim/hgfsClient.h"
#include "hgfs/hgfsFixture.h"

namespace {

using namespace std::string_view_literals;
using testing::HasSubstr;

constexpr char COPY[] = "C:\\tmp\\windows.iso";

TEST(HgfsClientName, IsMadeFromDrivesAndShares) {
    EXPECT_EQ(HgfsClient_Name("C:\\Temp\\0a1b2c3d\\", "windows.iso"),
              "root\0drive\0C\0Temp\0000a1b2c3d\0windows.iso"sv);
    EXPECT_EQ(HgfsClient_Name("C:\\", "f"), "root\0drive\0C\0f"sv);
    EXPECT_EQ(HgfsClient_Name("\\\\server\\share\\dir", "f"), "root\0unc\0server\0share\0dir\0f"sv);
    EXPECT_EQ(HgfsClient_Name("Temp", "f"), "");
    EXPECT_EQ(HgfsClient_Name("", "f"), "");
}

struct ClientTest : HgfsMemoryTest {
    ClientTest() {
        client.source.clientData = this;
        client.source.read = [](void* data, uint64_t offset, uint8_t* bytes, size_t length) {
            std::string part = static_cast<ClientTest*>(data)->image.substr(offset, length);
            std::copy(part.begin(), part.end(), bytes);
            return part.size() == length;
        };
        client.name = HgfsClient_Name("C:\\tmp\\", "windows.iso");
        Image(200000);
    }

    void Image(size_t size) {
        image.resize(size);
        for (size_t i = 0; i < size; ++i) {
            image[i] = static_cast<char>(i * 31 >> 3);
        }
        client.source.size = size;
    }

    // Whether the job came to its end; the reply to packet `spoiltPacket` goes through `spoil` first.
    bool Run(HgfsClient_Job job, unsigned spoiltPacket = 0, void (*spoil)(std::vector<uint8_t>*) = nullptr) {
        HgfsClient_Begin(&client, job);
        std::vector<uint8_t> packet;
        while (HgfsClient_Append(&client, &packet)) {
            std::vector<uint8_t> reply = SendBytes(packet);
            if (client.requests == spoiltPacket) {
                spoil(&reply);
            }
            if (!HgfsClient_Take(&client, reply)) {
                return false;
            }
            packet.clear();
        }
        return client.state == HgfsClient_State::Done;
    }

    std::string image;
    HgfsClient client;
};

TEST_F(ClientTest, CopiesAndVerifiesInBothVersions) {
    for (uint32_t version : {1U, 3U}) {
        client.version = version;
        for (size_t size : {0U, 1U, 63455U, 63456U, 200000U}) {
            SCOPED_TRACE(testing::Message() << "version " << version << ", " << size << " bytes");
            Image(size);
            ASSERT_TRUE(Run(HgfsClient_Job::Copy)) << client.error;
            const std::vector<uint8_t>& copy = MemoryFs_Find(COPY)->data;
            EXPECT_TRUE(std::equal(copy.begin(), copy.end(), image.begin(), image.end(),
                                   [](uint8_t a, char b) { return a == static_cast<uint8_t>(b); }));
            ASSERT_TRUE(Run(HgfsClient_Job::Verify)) << client.error;
            EXPECT_EQ(client.offset, size);
        }
    }
    EXPECT_EQ(client.requests, 1U + 1U + 4U + 1U + 1U) << "attributes, open, full packets, the end, close";
}

TEST_F(ClientTest, FindsEveryDifference) {
    ASSERT_TRUE(Run(HgfsClient_Job::Copy));
    for (size_t at : {size_t{0}, size_t{63468}, image.size() - 1}) {
        image[at] ^= 1;
        EXPECT_FALSE(Run(HgfsClient_Job::Verify));
        EXPECT_THAT(client.error, HasSubstr("differs from the image at byte " + std::to_string(at)));
        image[at] ^= 1;
    }
    MemoryFs_Find(COPY)->data.pop_back();
    EXPECT_FALSE(Run(HgfsClient_Job::Verify));
    EXPECT_THAT(client.error, HasSubstr("199999 bytes instead of 200000"));
    client.source.size = image.size() + 1;
    EXPECT_FALSE(Run(HgfsClient_Job::Copy));
    EXPECT_EQ(client.error, "the image cannot be read");
}

void Refuse(std::vector<uint8_t>* reply, uint8_t status) {
    reply->resize(kHgfsHeaderSize);
    (*reply)[HgfsReplyHeader::Status] = status;
}

TEST_F(ClientTest, RefusesWrongReplies) {
    const struct {
        const char* said;
        void (*spoil)(std::vector<uint8_t>* reply);
    } cases[] = {
        {"malformed reply of 7 bytes", [](auto* reply) { reply->resize(7); }},
        {"malformed reply of 0 bytes", [](auto* reply) { reply->clear(); }},
        {"malformed reply", [](auto* reply) { reply->push_back(0); }},
        {"a reply to request", [](auto* reply) { ++(*reply)[HgfsReplyHeader::Id]; }},
        {"access denied", [](auto* reply) { Refuse(reply, HgfsStatusAccessDenied); }},
        {"status 200", [](auto* reply) { Refuse(reply, 200); }},
    };
    for (const auto& wrong : cases) {
        for (unsigned packet : {1U, 2U, 6U}) {
            SCOPED_TRACE(testing::Message() << wrong.said << ", packet " << packet);
            EXPECT_FALSE(Run(HgfsClient_Job::Copy, packet, wrong.spoil));
            EXPECT_EQ(client.requests, packet);
            EXPECT_THAT(client.error, HasSubstr(wrong.said));
        }
    }
    auto writeNothing = [](auto* reply) { HgfsPacketWriter(*reply).U32(HgfsWriteReplyV1::ActualSize, 0); };
    EXPECT_FALSE(Run(HgfsClient_Job::Copy, 2, writeNothing));
    EXPECT_THAT(client.error, HasSubstr("0 of 63455 bytes written"));
}

} // namespace
