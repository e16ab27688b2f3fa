// The channel protocol call by call: what goes into each register, and what becomes of each kind of answer.
#include "hostChannel/hostChannel.h"

#include "support/failingNew.h"
#include "support/scriptedPort.h"

#include <cstring>
#include <deque>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using Sub = HostChannel_SubCommand;

constexpr uint16_t ID = 0x1234;
constexpr uint32_t COOKIE_HIGH = 0xC00C1E01;
constexpr uint32_t COOKIE_LOW = 0xC00C1E02;
constexpr uint8_t OK = HOSTCHANNEL_SUCCESS;
constexpr uint8_t BULK = HOSTCHANNEL_SUCCESS | HOSTCHANNEL_HIGH_BANDWIDTH;
constexpr uint8_t WAITING = HOSTCHANNEL_SUCCESS | HOSTCHANNEL_DO_RECEIVE;
constexpr uint8_t BULK_WAITING = WAITING | HOSTCHANNEL_HIGH_BANDWIDTH;
constexpr uint8_t CHECKPOINT = HOSTCHANNEL_CHECKPOINT;
constexpr uint8_t REFUSED = 0;

// One expected call and its answer.
struct Step {
    PortKind kind;
    Sub subCommand; // low-bandwidth calls
    uint64_t bx;    // low-bandwidth calls
    uint8_t status;
    uint64_t replyBx = 0;
    uint16_t replyDx = 0;
    std::string data = {}; // bulk: bytes expected out, or delivered in
};

class HostChannelTest : public testing::Test {
protected:
    static Step Open(uint64_t protocol, uint8_t status = OK) {
        return {PortKind::Low, Sub::Open, protocol, status};
    }
    static Step Close(uint8_t status = OK) { return {PortKind::Low, Sub::Close, 0, status}; }
    static Step SendSize(uint64_t length, uint8_t status = OK) {
        return {PortKind::Low, Sub::SendSize, length, status};
    }
    static Step SendWord(uint64_t word, uint8_t status = OK) {
        return {PortKind::Low, Sub::SendPayload, word, status};
    }
    static Step BulkOut(std::string data, uint8_t status = OK) {
        return {PortKind::BulkOut, Sub::Open, 0, status, 0, 0, std::move(data)};
    }
    static Step Waiting(uint64_t length, uint8_t status = WAITING, uint16_t direction = 1) {
        return {PortKind::Low, Sub::ReceiveSize, 0, status, length, direction};
    }
    static Step ReceiveWord(uint64_t word, uint8_t status = OK, uint16_t direction = 2) {
        return {PortKind::Low, Sub::ReceivePayload, 1, status, word, direction};
    }
    static Step BulkIn(std::string data, uint8_t status = OK) {
        return {PortKind::BulkIn, Sub::Open, 0, status, 0, 0, std::move(data)};
    }
    static Step Received(uint8_t status = OK) { return {PortKind::Low, Sub::ReceiveStatus, 1, status}; }
    static Step Notice(Sub subCommand) { return {PortKind::Low, subCommand, 0, OK}; }

    HostChannelTest() {
        scriptedPort = [this](PortKind kind, HvPort_Registers* registers) { Answer(kind, registers); };
        Expect({Open(HOSTCHANNEL_TCLO | HOSTCHANNEL_COOKIE_FLAG)});
        channel_ = HostChannel_Open(HOSTCHANNEL_TCLO);
    }
    ~HostChannelTest() override {
        EXPECT_TRUE(steps_.empty()) << steps_.size() << " expected calls were not made";
        steps_ = {Close()};
        EXPECT_TRUE(HostChannel_Close(channel_));
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
    static void AnswerLow(const Step& step, HvPort_Registers* registers) {
        bool open = step.subCommand == Sub::Open;
        EXPECT_EQ(registers->cx, static_cast<uint64_t>(step.subCommand) << 16 | 30);
        EXPECT_EQ(registers->bx, step.bx);
        EXPECT_EQ(registers->dx, HvPort_Word(open ? 0 : ID, HVPORT_LOW_BANDWIDTH));
        EXPECT_EQ(registers->si, open ? 0 : COOKIE_HIGH);
        EXPECT_EQ(registers->di, open ? 0 : COOKIE_LOW);
        if (open) {
            // Only the low halves are cookies.
            registers->si = 0xAAAAAAAA00000000 | COOKIE_HIGH;
            registers->di = 0xBBBBBBBB00000000 | COOKIE_LOW;
        }
        registers->dx = HvPort_Word(open ? ID : step.replyDx, 0);
        registers->bx = step.replyBx;
        // The upper byte of the status does not count.
        registers->cx = HvPort_Word(static_cast<uint16_t>(0xFF00 | step.status), 0);
    }
    static void AnswerBulk(const Step& step, HvPort_Registers* registers) {
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
    Expect({Open(HOSTCHANNEL_RPCI | HOSTCHANNEL_COOKIE_FLAG, REFUSED), Open(HOSTCHANNEL_RPCI), SendSize(0),
            Close(REFUSED)});
    HostChannel* second = HostChannel_Open(HOSTCHANNEL_RPCI);
    ASSERT_TRUE(second);
    EXPECT_TRUE(HostChannel_Send(second, nullptr, 0)) << "the second reply's cookies count";
    EXPECT_FALSE(HostChannel_Close(second)) << "the host's refusal is told, the channel is gone all the same";

    Expect({Open(HOSTCHANNEL_RPCI | HOSTCHANNEL_COOKIE_FLAG, REFUSED), Open(HOSTCHANNEL_RPCI, REFUSED)});
    EXPECT_EQ(HostChannel_Open(HOSTCHANNEL_RPCI), nullptr);
    FailingNew_Set(1);
    EXPECT_EQ(HostChannel_Open(HOSTCHANNEL_RPCI), nullptr) << "no memory, no call";
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
        Expect({SendSize(c.text.size())});
        for (uint64_t word : c.words) {
            Expect({SendWord(word)});
        }
        EXPECT_TRUE(Send(c.text));

        Expect({Waiting(c.text.size())});
        for (uint64_t word : c.words) {
            // Garbage behind the last byte must not be stored.
            Expect({ReceiveWord(word | 0xEEEEEEEE00000000)});
        }
        Expect({Received()});
        EXPECT_EQ(Receive(), c.text);
    }
}

TEST_F(HostChannelTest, HighBandwidthCarriesTheWholeMessage) {
    std::string text(100000, 'x');
    Expect({SendSize(text.size(), BULK), BulkOut(text)});
    EXPECT_TRUE(Send(text));
    Expect({SendSize(0, BULK)});
    EXPECT_TRUE(Send("")) << "an empty message has no transfer";
    Expect({Waiting(text.size(), BULK_WAITING), BulkIn(text), Received()});
    EXPECT_EQ(Receive(), text);
    Expect({Waiting(0, BULK_WAITING), Received()});
    EXPECT_EQ(Receive(), "");
    Expect({Waiting(77, OK)});
    EXPECT_EQ(Receive(), "nothing") << "none is waiting";
}

TEST_F(HostChannelTest, ACheckpointStartsTheTransferAgain) {
    Expect({SendSize(5), SendWord(0x64636261), SendWord(0x65, CHECKPOINT), SendSize(5, BULK),
            BulkOut("abcde", CHECKPOINT), SendSize(5), SendWord(0x64636261), SendWord(0x65)});
    EXPECT_TRUE(Send("abcde"));

    Expect({Waiting(8), ReceiveWord(0x64636261), ReceiveWord(0, CHECKPOINT), Waiting(3, BULK_WAITING),
            BulkIn("xyz", CHECKPOINT), Waiting(2), ReceiveWord(0x6261), Received(CHECKPOINT), Waiting(1),
            ReceiveWord(0x7A), Received()});
    EXPECT_EQ(Receive(), "z");

    Expect({Waiting(4), ReceiveWord(0, CHECKPOINT), Waiting(0, REFUSED)});
    EXPECT_EQ(Receive(), "failed");
}

TEST_F(HostChannelTest, SendFailuresEndTheMessage) {
    for (uint8_t status : {REFUSED, CHECKPOINT}) {
        Expect({SendSize(1, status)});
        EXPECT_FALSE(Send("a"));
    }
    Expect({SendSize(5), SendWord(0x64636261, REFUSED)});
    EXPECT_FALSE(Send("abcde"));
    Expect({SendSize(1, BULK), BulkOut("a", REFUSED)});
    EXPECT_FALSE(Send("a"));
    EXPECT_FALSE(HostChannel_Send(channel_, nullptr, uint64_t{1} << 32))
        << "the size word has 32 bits; no call";
}

TEST_F(HostChannelTest, ReceiveFailuresAreNotifiedInTheFormThatFits) {
    const std::vector<Step> cases[] = {
        // What is wrong with the size reply ends it without a notice.
        {Waiting(0, REFUSED)},
        {Waiting(0, CHECKPOINT)},
        {Waiting(4, WAITING, 2)},
        // Bytes still counted as missing.
        {Waiting(5), ReceiveWord(0, REFUSED), Notice(Sub::ReceivePayload)},
        {Waiting(5), ReceiveWord(0), ReceiveWord(0, OK, 1), Notice(Sub::ReceivePayload)},
        // All bytes there, the partial last word included.
        {Waiting(5), ReceiveWord(0), ReceiveWord(0), Received(REFUSED), Notice(Sub::ReceiveStatus)},
        // After a bulk transfer nothing is counted off, not even when all is there.
        {Waiting(3, BULK_WAITING), BulkIn("abc", REFUSED), Notice(Sub::ReceivePayload)},
        {Waiting(3, BULK_WAITING), BulkIn("abc"), Received(REFUSED), Notice(Sub::ReceivePayload)},
        {Waiting(0, BULK_WAITING), Received(REFUSED), Notice(Sub::ReceiveStatus)},
    };
    for (const std::vector<Step>& steps : cases) {
        steps_.assign(steps.begin(), steps.end());
        EXPECT_EQ(Receive(), "failed");
        EXPECT_TRUE(steps_.empty()) << "case " << &steps - cases;
    }
    FailingNew_Set(1);
    Expect({Waiting(1000), Notice(Sub::ReceivePayload)});
    EXPECT_EQ(Receive(), "failed") << "no memory for the message";
}

} // namespace
