#include "rpcin/rpcin.h"

#include "hostChannel/hostChannel.h"
#include "support/diagCapture.h"
#include "support/failingNew.h"
#include "support/transportDouble.h"

#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

uint32_t testMilliseconds = 50000000;

// What the last handler saw, and what it is to answer.
struct Seen {
    std::string handler;
    std::string name;
    std::string args;
    bool status = true;
    std::string result;
} seen;

bool Handle(const char** result, uint64_t* resultLength, const char* name, const char* args,
            uint64_t argsSize, void* clientData) {
    seen.handler = static_cast<const char*>(clientData);
    seen.name = name;
    seen.args.assign(args, static_cast<size_t>(argsSize));
    *result = seen.result.data();
    *resultLength = seen.result.size();
    return seen.status;
}

bool Reset(RpcInCall* call) {
    EXPECT_STREQ(call->name, "reset");
    call->result = strdup(static_cast<const char*>(call->clientData));
    call->resultLen = std::strlen(call->result);
    call->freeResult = true; // a leak if it is not released
    return true;
}

void OnError(void* clientData, const char* text) {
    *static_cast<std::string*>(clientData) += text;
}

class RpcInTest : public testing::Test {
protected:
    RpcInTest() : saved_(eventManagerTickSource) {
        eventManagerTickSource = [] { return testMilliseconds; };
        seen = {};
        queue_ = EventManager_Create();
        in_ = RpcIn_Create(queue_);
    }
    ~RpcInTest() override {
        RpcIn_stop(in_);
        RpcIn_Free(in_);
        EventManager_Destroy(queue_);
        eventManagerTickSource = saved_;
        EXPECT_EQ(host_.opened, host_.closed);
    }

    bool Start() { return RpcIn_start(in_, 10, Reset, resetAnswer_, OnError, &error_); }
    // Waits for the next turn and runs it; gives the ticks waited, or -1 when none is scheduled.
    int Turn() {
        uint64_t sleep = 0;
        if (EventManager_RunNext(queue_, &sleep) != 1) {
            return -1;
        }
        int ticks = static_cast<int>(sleep / 10000);
        if (ticks > 0) {
            testMilliseconds += static_cast<uint32_t>(ticks) * 10;
            EventManager_RunNext(queue_, &sleep);
        }
        return ticks;
    }
    // What the guest answers to a message.
    std::string Answer(std::string message) {
        host_.incoming.push_back(std::move(message));
        Turn();
        Turn();
        return host_.sent.empty() ? "(none)" : host_.sent.back();
    }

    TransportDouble host_;
    uint32_t (*saved_)();
    EventManager* queue_;
    RpcIn* in_;
    std::string error_;
    char resetAnswer_[4] = "ATR";
    char one_[4] = "one";
    char two_[4] = "two";
};

TEST_F(RpcInTest, CommandsReachTheirHandlersAndAreAnswered) {
    ASSERT_TRUE(Start());
    EXPECT_EQ(host_.protocol, HOSTCHANNEL_TCLO);
    RpcIn_RegisterCallback(in_, "f", Handle, one_);
    struct {
        std::string message, name, args;
        bool status;
        std::string result, answer;
    } const cases[] = {
        {"f", "f", "", true, "", "OK "},
        {"f x", "f", " x", true, "fine", "OK fine"},
        {std::string("f \0\0", 4), "f", std::string(" \0\0", 3), true, std::string("\0z", 2),
         std::string("OK \0z", 5)},
        {"  f  y", "f", "  y", false, "why", "ERROR why"},
        {"f ", "f", " ", false, "", "ERROR "},
    };
    for (const auto& c : cases) {
        seen = {};
        seen.status = c.status;
        seen.result = c.result;
        EXPECT_EQ(Answer(c.message), c.answer) << c.message;
        EXPECT_EQ(seen.name, c.name) << c.message;
        EXPECT_EQ(seen.args, c.args) << c.message;
    }
}

TEST_F(RpcInTest, WhatNobodyHandlesIsRefused) {
    ASSERT_TRUE(Start());
    RpcIn_RegisterCallback(in_, "f", Handle, one_);
    for (const char* unknown : {"F x", "ff", "upgrader.run", "\xFF\xFE", "Ping"}) {
        EXPECT_EQ(Answer(unknown), "ERROR Unknown Command") << unknown;
    }
    EXPECT_EQ(Answer(std::string("f\0", 2)), "ERROR Unknown Command") << "a NUL belongs to the name";
    EXPECT_EQ(Answer(" "), "ERROR Bad command");
    EXPECT_EQ(Answer("     "), "ERROR Bad command");
    EXPECT_EQ(seen.handler, "");
}

TEST_F(RpcInTest, TheBuiltInCommandsAnswer) {
    ASSERT_TRUE(Start());
    EXPECT_EQ(Answer("ping"), "OK ");
    EXPECT_EQ(Answer("reset"), "OK ATR");
    EXPECT_THAT(host_.sent, ElementsAre("", "OK ", "", "OK ATR")) << "one message a turn, owed or empty";
}

TEST_F(RpcInTest, TheNewestHandlerOfANameWinsAndGoesFirst) {
    DiagCapture_Take();
    ASSERT_TRUE(Start());
    RpcIn_RegisterCallback(in_, "f", Handle, one_);
    RpcIn_RegisterCallback(in_, "f", Handle, two_);
    Answer("f");
    EXPECT_EQ(seen.handler, "two");
    RpcIn_RegisterCallback(in_, "g", Handle, two_);
    RpcIn_UnregisterCallback(in_, "f");
    Answer("f");
    EXPECT_EQ(seen.handler, "one");
    EXPECT_THAT(DiagCapture_Take().debug,
                ElementsAre("Registering callback 'reset'\n", "Registering callback 'ping'\n",
                            "Registering callback 'f'\n", "Registering callback 'f'\n",
                            "Registering callback 'g'\n", "Unregistering callback 'f'\n"));
}

TEST_F(RpcInTest, PollingBacksOffAndACommandBringsItBack) {
    ASSERT_TRUE(Start());
    std::vector<int> waits;
    for (int i = 0; i < 9; ++i) {
        waits.push_back(Turn());
    }
    EXPECT_THAT(waits, ElementsAre(0, 1, 2, 4, 8, 10, 10, 10, 10));
    host_.incoming.push_back("ping");
    EXPECT_EQ(Turn(), 10);
    EXPECT_EQ(Turn(), 0) << "at once after a command";
    EXPECT_EQ(Turn(), 1);
}

TEST_F(RpcInTest, ErrorsEndTheLoopAndAreTold) {
    struct {
        unsigned sends, receives, failingNew;
        const char* error;
    } const cases[] = {{0, 9, 0, "RpcIn: Unable to send"},
                       {9, 0, 0, "RpcIn: Unable to receive"},
                       {9, 9, 1, "RpcIn: Not enough memory"},
                       {9, 9, 2, "RpcIn: Unable to run the loop"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error);
        error_.clear();
        host_.sendsLeft = c.sends;
        host_.receivesLeft = c.receives;
        host_.incoming = {"reset"};
        ASSERT_TRUE(Start());
        FailingNew_Set(c.failingNew);
        EXPECT_EQ(Turn(), 0) << "the queue itself carries on";
        FailingNew_Set(0);
        EXPECT_EQ(error_, c.error);
        EXPECT_EQ(Turn(), -1) << "nothing is scheduled any more";
        EXPECT_EQ(host_.opened, host_.closed);
    }
}

TEST_F(RpcInTest, StopSendsWhatIsOwedAndStartWorksAgain) {
    ASSERT_TRUE(Start());
    host_.incoming.push_back("ping");
    Turn();
    EXPECT_TRUE(RpcIn_stop(in_));
    EXPECT_EQ(host_.sent.back(), "OK ");
    EXPECT_EQ(Turn(), -1);
    EXPECT_TRUE(RpcIn_stop(in_)) << "stopped already";

    ASSERT_TRUE(Start());
    EXPECT_EQ(Answer("ping"), "OK ");
    host_.canClose = false;
    DiagCapture_Take();
    EXPECT_FALSE(RpcIn_stop(in_));
    EXPECT_THAT(DiagCapture_Take().debug, ElementsAre("RpcIn: couldn't close channel\n"));
    host_.canClose = true;
}

TEST_F(RpcInTest, AFailedStartLeavesNothingBehind) {
    DiagCapture_Take();
    host_.canOpen = false;
    EXPECT_FALSE(Start());
    host_.canOpen = true;
    FailingNew_Set(1);
    EXPECT_FALSE(Start());
    EXPECT_THAT(DiagCapture_Take().debug,
                ElementsAre("RpcIn_start: couldn't open channel with TCLO protocol\n",
                            "RpcIn_start: couldn't start the loop\n"));
    EXPECT_EQ(host_.opened, host_.closed);
    EXPECT_EQ(Turn(), -1);
}

} // namespace
