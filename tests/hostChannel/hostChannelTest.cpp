// The channel protocol call by call: what goes into each register, and what becomes of each kind of answer.
#include "hostChannel/hostChannel.h"

#include "support/scriptedPort.h"

#include <cstring>
#include <deque>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

constexpr uint16_t ID = 0x1234;
constexpr uint32_t COOKIE_HIGH = 0xC00C1E01;
constexpr uint32_t COOKIE_LOW = 0xC00C1E02;
constexpr uint8_t OK = HOSTCHANNEL_SUCCESS;
constexpr uint8_t BULK = HOSTCHANNEL_SUCCESS | HOSTCHANNEL_HIGH_BANDWIDTH;
constexpr uint8_t WAITING = HOSTCHANNEL_SUCCESS | HOSTCHANNEL_DO_RECEIVE;
constexpr uint8_t BULK_WAITING = WAITING | HOSTCHANNEL_HIGH_BANDWIDTH;
constexpr uint8_t CHECKPOINT = HOSTCHANNEL_CHECKPOINT;
constexpr uint8_t REFUSED = 0;

// One expected call and its answer. Names of sub-commands: "size" is SendSize and so on.
struct Step {
    PortKind kind;
    HostChannel_SubCommand subCommand; // low-bandwidth calls
    uint64_t bx;                       // argument in; for bulk calls the byte count
    uint8_t status;
    uint64_t replyBx = 0;
    uint16_t replyDx = 0;
    std::string data = {}; // bulk: bytes expected out, or delivered in
};

Step Low(HostChannel_SubCommand subCommand, uint64_t bx, uint8_t status, uint64_t replyBx = 0,
         uint16_t replyDx = 0) {
    return {PortKind::Low, subCommand, bx, status, replyBx, replyDx, {}};
}
Step Bulk(PortKind kind, std::string data, uint8_t status) {
    return {kind, HostChannel_SubCommand::Open, data.size(), status, 0, 0, std::move(data)};
}

class HostChannelTest : public testing::Test {
protected:
    using Sub = HostChannel_SubCommand;

    HostChannelTest() {
        scriptedPort = [this](PortKind kind, HvPort_Registers* registers) { Answer(kind, registers); };
        Expect({Low(Sub::Open, HOSTCHANNEL_TCLO | HOSTCHANNEL_COOKIE_FLAG, OK)});
        channel_ = HostChannel_Open(HOSTCHANNEL_TCLO);
    }
    ~HostChannelTest() override {
        EXPECT_TRUE(steps_.empty()) << steps_.size() << " expected calls were not made";
        steps_.clear();
        if (channel_) {
            Expect({Low(Sub::Close, 0, OK)});
            EXPECT_TRUE(HostChannel_Close(channel_));
        }
        scriptedPort = nullptr;
    }

    void Expect(std::initializer_list<Step> steps) { steps_.insert(steps_.end(), steps); }
    bool Send(const std::string& text) {
        return HostChannel_Send(channel_, reinterpret_cast<const uint8_t*>(text.data()), text.size());
    }
    // What arrived, or the word "failed".
    std::string Receive() {
        uint8_t* buffer = nullptr;
        uint64_t length = 0;
        if (!HostChannel_Receive(channel_, &buffer, &length)) {
            return "failed";
        }
        if (!buffer) {
            return "nothing";
        }
        EXPECT_EQ(buffer[length], 0);
        return std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(length));
    }

    void Answer(PortKind kind, HvPort_Registers* registers) {
        ASSERT_FALSE(steps_.empty()) << "one call too many, cx " << std::hex << registers->cx;
        Step step = steps_.front();
        steps_.pop_front();
        ASSERT_EQ(kind, step.kind);
        if (kind == PortKind::Low) {
            AnswerLow(step, registers);
        } else {
            AnswerBulk(step, registers);
        }
    }
    void AnswerLow(const Step& step, HvPort_Registers* registers) {
        EXPECT_EQ(registers->cx, static_cast<uint64_t>(step.subCommand) << 16 | 30);
        EXPECT_EQ(registers->bx, step.bx);
        if (step.subCommand == Sub::Open) {
            EXPECT_EQ(registers->dx, HVPORT_LOW_BANDWIDTH);
            registers->dx = HvPort_Word(ID, 0);
            // Only the low halves are cookies.
            registers->si = 0xAAAAAAAA00000000 | COOKIE_HIGH;
            registers->di = 0xBBBBBBBB00000000 | COOKIE_LOW;
        } else {
            EXPECT_EQ(registers->dx, HvPort_Word(ID, HVPORT_LOW_BANDWIDTH));
            EXPECT_EQ(registers->si, COOKIE_HIGH);
            EXPECT_EQ(registers->di, COOKIE_LOW);
            registers->dx = HvPort_Word(step.replyDx, 0);
        }
        registers->bx = step.replyBx;
        registers->cx = static_cast<uint64_t>(0xFF00 | step.status)
                        << 16; // the upper status byte does not count
    }
    void AnswerBulk(const Step& step, HvPort_Registers* registers) {
        bool out = step.kind == PortKind::BulkOut;
        EXPECT_EQ(registers->bx, 0x10000u);
        EXPECT_EQ(registers->cx, step.data.size());
        EXPECT_EQ(registers->dx, HvPort_Word(ID, HVPORT_HIGH_BANDWIDTH));
        EXPECT_EQ(out ? registers->bp : registers->si, COOKIE_HIGH);
        EXPECT_EQ(out ? registers->di : registers->bp, COOKIE_LOW);
        if (out) {
            EXPECT_EQ(std::string(reinterpret_cast<char*>(registers->si), step.data.size()), step.data);
        } else {
            std::memcpy(reinterpret_cast<char*>(registers->di), step.data.data(), step.data.size());
        }
        registers->bx = HvPort_Word(step.status, 0);
    }

    std::deque<Step> steps_;
    HostChannel* channel_ = nullptr;
};

TEST_F(HostChannelTest, OpenTriesOnceMoreWithoutTheCookieFlag) {
    Expect({Low(Sub::Open, HOSTCHANNEL_RPCI | HOSTCHANNEL_COOKIE_FLAG, REFUSED),
            Low(Sub::Open, HOSTCHANNEL_RPCI, OK), Low(Sub::SendSize, 0, OK), Low(Sub::Close, 0, REFUSED)});
    HostChannel* second = HostChannel_Open(HOSTCHANNEL_RPCI);
    ASSERT_TRUE(second);
    EXPECT_TRUE(HostChannel_Send(second, nullptr, 0)) << "the second reply's cookies count";
    EXPECT_FALSE(HostChannel_Close(second)) << "the host's refusal is told, the channel is gone all the same";

    Expect({Low(Sub::Open, HOSTCHANNEL_RPCI | HOSTCHANNEL_COOKIE_FLAG, REFUSED),
            Low(Sub::Open, HOSTCHANNEL_RPCI, REFUSED)});
    EXPECT_EQ(HostChannel_Open(HOSTCHANNEL_RPCI), nullptr);
}

TEST_F(HostChannelTest, WordsCarryExactlyTheBytesThatRemain) {
    struct {
        std::string text;
        std::vector<uint64_t> words;
    } const cases[] = {
        {"", {}},
        {"\x81", {0x81}},
        {"\x81\x82", {0x8281}},
        {"\x81\x82\x83", {0x838281}},
        {"\x81\x82\x83\x84", {0x84838281}},
        {"\x81\x82\x83\x84\x85", {0x84838281, 0x85}},
    };
    for (const auto& c : cases) {
        Expect({Low(Sub::SendSize, c.text.size(), OK)});
        for (uint64_t word : c.words) {
            Expect({Low(Sub::SendPayload, word, OK)});
        }
        EXPECT_TRUE(Send(c.text));

        Expect({Low(Sub::ReceiveSize, 0, WAITING, c.text.size(), 1)});
        for (uint64_t word : c.words) {
            // Garbage behind the last byte must not be stored.
            Expect({Low(Sub::ReceivePayload, 1, OK, word | 0xEEEEEEEE00000000, 2)});
        }
        Expect({Low(Sub::ReceiveStatus, 1, OK)});
        EXPECT_EQ(Receive(), c.text);
    }
}

TEST_F(HostChannelTest, HighBandwidthCarriesTheWholeMessage) {
    std::string text(100000, 'x');
    Expect({Low(Sub::SendSize, text.size(), BULK), Bulk(PortKind::BulkOut, text, OK)});
    EXPECT_TRUE(Send(text));
    Expect({Low(Sub::SendSize, 0, BULK)});
    EXPECT_TRUE(Send("")) << "an empty message has no transfer";
    Expect({Low(Sub::ReceiveSize, 0, BULK_WAITING, text.size(), 1), Bulk(PortKind::BulkIn, text, OK),
            Low(Sub::ReceiveStatus, 1, OK)});
    EXPECT_EQ(Receive(), text);
    Expect({Low(Sub::ReceiveSize, 0, BULK_WAITING, 0, 1), Low(Sub::ReceiveStatus, 1, OK)});
    EXPECT_EQ(Receive(), "");
}

TEST_F(HostChannelTest, NothingWaitingLeavesTheBufferAlone) {
    Expect({Low(Sub::ReceiveSize, 0, OK, 77, 1)});
    EXPECT_EQ(Receive(), "nothing");
}

TEST_F(HostChannelTest, ACheckpointStartsTheTransferAgain) {
    Expect({Low(Sub::SendSize, 5, OK), Low(Sub::SendPayload, 0x64636261, OK),
            Low(Sub::SendPayload, 0x65, CHECKPOINT), Low(Sub::SendSize, 5, BULK),
            Bulk(PortKind::BulkOut, "abcde", CHECKPOINT), Low(Sub::SendSize, 5, OK),
            Low(Sub::SendPayload, 0x64636261, OK), Low(Sub::SendPayload, 0x65, OK)});
    EXPECT_TRUE(Send("abcde"));

    Expect({Low(Sub::ReceiveSize, 0, WAITING, 8, 1), Low(Sub::ReceivePayload, 1, OK, 0x64636261, 2),
            Low(Sub::ReceivePayload, 1, CHECKPOINT), Low(Sub::ReceiveSize, 0, BULK_WAITING, 3, 1),
            Bulk(PortKind::BulkIn, "xyz", CHECKPOINT), Low(Sub::ReceiveSize, 0, WAITING, 2, 1),
            Low(Sub::ReceivePayload, 1, OK, 0x6261, 2), Low(Sub::ReceiveStatus, 1, CHECKPOINT),
            Low(Sub::ReceiveSize, 0, WAITING, 1, 1), Low(Sub::ReceivePayload, 1, OK, 0x7A, 2),
            Low(Sub::ReceiveStatus, 1, OK)});
    EXPECT_EQ(Receive(), "z");

    Expect({Low(Sub::ReceiveSize, 0, WAITING, 4, 1), Low(Sub::ReceivePayload, 1, CHECKPOINT),
            Low(Sub::ReceiveSize, 0, REFUSED)});
    EXPECT_EQ(Receive(), "failed");
}

TEST_F(HostChannelTest, ACheckpointOnASizeCallIsAFailure) {
    Expect({Low(Sub::SendSize, 1, CHECKPOINT), Low(Sub::ReceiveSize, 0, CHECKPOINT)});
    EXPECT_FALSE(Send("a"));
    EXPECT_EQ(Receive(), "failed");
}

TEST_F(HostChannelTest, SendFailuresEndTheMessage) {
    Expect({Low(Sub::SendSize, 1, REFUSED)});
    EXPECT_FALSE(Send("a"));
    Expect({Low(Sub::SendSize, 5, OK), Low(Sub::SendPayload, 0x64636261, REFUSED)});
    EXPECT_FALSE(Send("abcde"));
    Expect({Low(Sub::SendSize, 1, BULK), Bulk(PortKind::BulkOut, "a", REFUSED)});
    EXPECT_FALSE(Send("a"));
    EXPECT_FALSE(HostChannel_Send(channel_, nullptr, uint64_t{1} << 32))
        << "the size word has 32 bits; no call";
}

TEST_F(HostChannelTest, ReceiveFailuresAreNotifiedInTheFormThatFits) {
    // A wrong direction in the size reply ends it without a notice.
    Expect({Low(Sub::ReceiveSize, 0, WAITING, 4, 2)});
    EXPECT_EQ(Receive(), "failed");
    // Bytes still counted as missing: sub-command 4.
    Expect({Low(Sub::ReceiveSize, 0, WAITING, 5, 1), Low(Sub::ReceivePayload, 1, REFUSED),
            Low(Sub::ReceivePayload, 0, OK)});
    EXPECT_EQ(Receive(), "failed");
    Expect({Low(Sub::ReceiveSize, 0, WAITING, 5, 1), Low(Sub::ReceivePayload, 1, OK, 0, 2),
            Low(Sub::ReceivePayload, 1, OK, 0, 1), Low(Sub::ReceivePayload, 0, OK)});
    EXPECT_EQ(Receive(), "failed");
    // All bytes there, the partial last word included: sub-command 5.
    Expect({Low(Sub::ReceiveSize, 0, WAITING, 5, 1), Low(Sub::ReceivePayload, 1, OK, 0, 2),
            Low(Sub::ReceivePayload, 1, OK, 0, 2), Low(Sub::ReceiveStatus, 1, REFUSED),
            Low(Sub::ReceiveStatus, 0, OK)});
    EXPECT_EQ(Receive(), "failed");
    // After a bulk transfer always sub-command 4, unless the message was empty.
    Expect({Low(Sub::ReceiveSize, 0, BULK_WAITING, 3, 1), Bulk(PortKind::BulkIn, "abc", OK),
            Low(Sub::ReceiveStatus, 1, REFUSED), Low(Sub::ReceivePayload, 0, OK)});
    EXPECT_EQ(Receive(), "failed");
    Expect({Low(Sub::ReceiveSize, 0, BULK_WAITING, 0, 1), Low(Sub::ReceiveStatus, 1, REFUSED),
            Low(Sub::ReceiveStatus, 0, OK)});
    EXPECT_EQ(Receive(), "failed");
}

TEST_F(HostChannelTest, EndlessCheckpointsEnd) {
    unsigned calls = 0;
    bool bulk = false;
    scriptedPort = [&](PortKind kind, HvPort_Registers* registers) {
        ++calls;
        auto sub = static_cast<Sub>(HvPort_High(registers->cx));
        bool size = kind == PortKind::Low && (sub == Sub::SendSize || sub == Sub::ReceiveSize);
        uint8_t status = size ? static_cast<uint8_t>(WAITING | (bulk ? 0x80 : 0)) : CHECKPOINT;
        registers->cx = HvPort_Word(status, 0);
        registers->bx = kind == PortKind::Low ? 4 : HvPort_Word(status, 0);
        registers->dx = HvPort_Word(1, 0);
    };
    for (bool high : {false, true}) {
        bulk = high;
        calls = 0;
        EXPECT_FALSE(Send("abcd"));
        EXPECT_EQ(calls, 2 * (HOSTCHANNEL_MAX_RESTARTS + 1));
        calls = 0;
        EXPECT_EQ(Receive(), "failed");
        EXPECT_EQ(calls, 2 * (HOSTCHANNEL_MAX_RESTARTS + 1));
    }
    scriptedPort = [this](PortKind kind, HvPort_Registers* registers) { Answer(kind, registers); };
}

TEST_F(HostChannelTest, TheReceiveBufferKeepsItsSize) {
    auto receiveFour = [this] {
        Expect({Low(Sub::ReceiveSize, 0, WAITING, 4, 1), Low(Sub::ReceivePayload, 1, OK, 0x64636261, 2),
                Low(Sub::ReceiveStatus, 1, OK)});
        uint8_t* buffer = nullptr;
        uint64_t length = 0;
        EXPECT_TRUE(HostChannel_Receive(channel_, &buffer, &length));
        return buffer;
    };
    Expect({Low(Sub::ReceiveSize, 0, BULK_WAITING, 1000, 1),
            Bulk(PortKind::BulkIn, std::string(1000, 'x'), OK), Low(Sub::ReceiveStatus, 1, OK)});
    EXPECT_EQ(Receive().size(), 1000u);
    uint8_t* first = receiveFour();
    EXPECT_EQ(first, receiveFour());
    EXPECT_EQ(first[5], 'x') << "what lay behind a shorter message is still there";
}

TEST_F(HostChannelTest, AReplacementTakesTheWholeCall) {
    static int calls;
    calls = 0;
    hostChannelTransport = {[](uint32_t) -> HostChannel* { return ++calls, nullptr; },
                            [](HostChannel*, const uint8_t*, uint64_t) { return ++calls, true; },
                            [](HostChannel*, uint8_t**, uint64_t*) { return ++calls, true; },
                            [](HostChannel*) { return ++calls, true; }};
    EXPECT_EQ(HostChannel_Open(1), nullptr);
    EXPECT_TRUE(HostChannel_Send(nullptr, nullptr, 1));
    EXPECT_TRUE(HostChannel_Receive(nullptr, nullptr, nullptr));
    EXPECT_TRUE(HostChannel_Close(nullptr));
    EXPECT_EQ(calls, 4);
    hostChannelTransport = {};
}

} // namespace
