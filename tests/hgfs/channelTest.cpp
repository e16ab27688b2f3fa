// The server on its channel: registration, the command "f" and the capability, over scripted messages.
#include "hgfsFixture.h"

#include "hgfslib/hgfsServer.h"
#include "support/transportDouble.h"

namespace {

using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char kOn[] = "tools.capability.hgfs_server tools-upgrader 1";
const char kOff[] = "tools.capability.hgfs_server tools-upgrader 0";

uint32_t milliseconds = 1000;

class HgfsChannel : public ::testing::Test {
protected:
    HgfsChannel() : savedClock_(eventManagerTickSource) {
        eventManagerTickSource = [] { return milliseconds; };
        MemoryFs_Reset();
        queue_ = EventManager_Create();
        in_ = RpcIn_Create(queue_);
    }
    ~HgfsChannel() override {
        RpcIn_stop(in_);
        RpcIn_Free(in_);
        EventManager_Destroy(queue_);
        eventManagerTickSource = savedClock_;
        EXPECT_EQ(host_.opened, host_.closed);
        EXPECT_THAT(hgfsServer.shares, IsEmpty());
        DiagCapture_Take();
    }

    // Runs the next turn of the command loop, however far away it is.
    void Turn() {
        uint64_t sleep = 0;
        ASSERT_EQ(EventManager_RunNext(queue_, &sleep), 1);
        if (sleep > 0) {
            milliseconds += static_cast<uint32_t>(sleep / 1000);
            ASSERT_EQ(EventManager_RunNext(queue_, &sleep), 1);
        }
    }
    std::string Answer(std::string message) {
        host_.incoming.push_back(std::move(message));
        Turn();
        Turn();
        return host_.sent.back();
    }

    TransportDouble host_;
    uint32_t (*savedClock_)();
    EventManager* queue_;
    RpcIn* in_;
};

TEST_F(HgfsChannel, AnswersPacketsBehindTheBlank) {
    ASSERT_TRUE(RpcIn_start(
        in_, 10, nullptr, nullptr, [](void*, const char*) {}, nullptr));
    host_.incoming.push_back("1 ");
    ASSERT_TRUE(HgfsServer_RegisterWithChannel(in_, "tools-upgrader"));
    EXPECT_THAT(host_.sent, ElementsAre(kOn));
    EXPECT_EQ(Answer("f"), "ERROR 1 argument required");
    EXPECT_EQ(Answer("f "), "OK ");
    EXPECT_EQ(hgfsServer.session, nullptr);
    EXPECT_EQ(Answer("f \x01\x02\x03\x04\0\0\0"s), "OK \x01\x02\x03\x04\x07\0\0\0"s);
    EXPECT_NE(hgfsServer.session, nullptr);
    const std::vector<uint8_t> packet = HgfsPackets_Encode(OnHandle(HgfsOpClose, 5));
    EXPECT_EQ(Answer("f " + std::string(packet.begin(), packet.end())), "OK \0\0\0\0\x0A\0\0\0"s);
    host_.incoming.push_back("1 ");
    HgfsServer_UnregisterFromChannel(in_, "tools-upgrader");
    EXPECT_EQ(hgfsServer.session, nullptr);
    EXPECT_EQ(host_.sent.back(), kOff);
    EXPECT_EQ(Answer("f "), "ERROR Unknown Command");
}

TEST_F(HgfsChannel, RegistersWhateverTheHostSays) {
    host_.canOpen = false;
    ASSERT_TRUE(HgfsServer_RegisterWithChannel(in_, "tools-upgrader"));
    EXPECT_FALSE(HgfsServer_SendCapability("tools-upgrader", true));
    HgfsServer_UnregisterFromChannel(in_, "tools-upgrader");
    host_.canOpen = true;
    host_.incoming = {"0 unknown", "1 "};
    EXPECT_FALSE(HgfsServer_SendCapability("tools-upgrader", true));
    EXPECT_TRUE(HgfsServer_SendCapability("other", false));
    EXPECT_THAT(host_.sent, ElementsAre(kOn, "tools.capability.hgfs_server other 0"));
}

TEST_F(HgfsChannel, LeavesTheChannelAloneWithoutOne) {
    ASSERT_TRUE(HgfsServer_RegisterWithChannel(nullptr, "tools-upgrader"));
    EXPECT_THAT(host_.sent, IsEmpty());
    HgfsServerShutDown();
}

#ifndef _WIN32 // the system of tests in memory fails on request
TEST_F(HgfsChannel, DoesNotRegisterWithoutItsPlatform) {
    MemoryFs_Get().startUpError = 127;
    EXPECT_FALSE(HgfsServer_RegisterWithChannel(in_, "tools-upgrader"));
    EXPECT_THAT(host_.sent, IsEmpty());
}
#endif

} // namespace
