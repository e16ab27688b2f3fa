#include "rpcout/rpcout.h"

#include "hostChannel/hostChannel.h"
#include "support/diagCapture.h"
#include "support/failingNew.h"
#include "support/transportDouble.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

constexpr char INVALID[] = "RpcOut: Invalid format for the result of the RPCI command";

struct Outcome {
    bool status;
    std::optional<std::string> reply;
};

Outcome Request(const char* text) {
    char* reply = nullptr;
    uint64_t length = 4711;
    bool status = RpcOut_SendRequest(&reply, &length, "%s", text);
    Outcome outcome{status, std::nullopt};
    if (reply) {
        EXPECT_EQ(reply[length], '\0');
        outcome.reply.emplace(reply, static_cast<size_t>(length));
        std::free(reply);
    }
    return outcome;
}

TEST(RpcOut, TheHostsPrefixDecides) {
    struct {
        std::string received;
        bool status;
        std::string reply;
    } const cases[] = {
        {"1 ", true, ""},
        {"1 some text", true, "some text"},
        {std::string("1 a\0b", 5), true, std::string("a\0b", 3)},
        {"0 ", false, ""},
        {"0 Unknown command", false, "Unknown command"},
        {"1", false, INVALID},
        {"", false, INVALID},
        {"11 ", false, INVALID},
        {"2 ", false, INVALID},
    };
    for (const auto& c : cases) {
        TransportDouble host;
        host.incoming.push_back(c.received);
        Outcome outcome = Request("do something");
        EXPECT_EQ(outcome.status, c.status) << c.received;
        EXPECT_EQ(outcome.reply, c.reply) << c.received;
        EXPECT_EQ(host.protocol, HOSTCHANNEL_RPCI);
        EXPECT_THAT(host.sent, testing::ElementsAre("do something"));
        EXPECT_EQ(host.closed, 1);
    }
}

TEST(RpcOut, EveryFailureExplainsItselfAndLeavesNoChannelOpen) {
    struct {
        unsigned failingNew;
        bool canOpen;
        unsigned sends, receives;
        std::string reply;
    } const cases[] = {
        {1, true, 1, 1, "RpcOut: Unable to create the RpcOut object"},
        {0, false, 1, 1, "RpcOut: Unable to open the communication channel"},
        {0, true, 0, 1, "RpcOut: Unable to send the RPCI command"},
        {0, true, 1, 0, "RpcOut: Unable to receive the result of the RPCI command"},
    };
    for (const auto& c : cases) {
        TransportDouble host;
        host.incoming.push_back("1 ");
        FailingNew_Set(c.failingNew);
        host.canOpen = c.canOpen;
        host.sendsLeft = c.sends;
        host.receivesLeft = c.receives;
        Outcome outcome = Request("do something");
        EXPECT_FALSE(outcome.status);
        EXPECT_EQ(outcome.reply, c.reply);
        EXPECT_EQ(host.opened, host.closed);
    }
}

TEST(RpcOut, WhatCannotBeFormattedIsNotSent) {
    TransportDouble host;
    char none[] = "none";
    char* reply = none;
    EXPECT_FALSE(
        RpcOut_SendRequest(&reply, nullptr, "%ls", L"\x4E00")); // not in the C locale's character set
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(host.opened, 0);
}

TEST(RpcOut, AFailedCloseTakesTheReplyBack) {
    TransportDouble host;
    host.incoming.push_back("1 fine");
    host.canClose = false;
    DiagCapture_Take();
    Outcome outcome = Request("do something");
    EXPECT_FALSE(outcome.status);
    EXPECT_EQ(outcome.reply, std::nullopt);
    EXPECT_THAT(DiagCapture_Take().debug,
                testing::ElementsAre("Rpci: Sending request='do something'\n",
                                     "Rpci: Sent request='do something', reply='fine', len=4, status=1\n",
                                     "RpcOut: couldn't close channel\n",
                                     "Rpci: unable to close the communication channel\n"));
}

TEST(RpcOut, TheBlankBehindARequestWithoutArgumentsStaysHere) {
    TransportDouble host;
    host.incoming.push_back("1 ");
    DiagCapture_Take();
    EXPECT_TRUE(RpcOut_SendRequest(nullptr, nullptr, "%s", "toolinstall.end"));
    EXPECT_THAT(host.sent, testing::ElementsAre("toolinstall.end"));
    EXPECT_EQ(DiagCapture_Take().debug.front(), "Rpci: Sending request='toolinstall.end '\n");
}

} // namespace
