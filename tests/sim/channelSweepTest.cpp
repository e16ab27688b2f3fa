// The real channel against the model, through the real port routines: every size at both bandwidths, and a
// fault or a checkpoint at every call of a conversation.

#include "hostChannel/hostChannel.h"
#include "sim/inProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::IsEmpty;

std::string Pattern(size_t length) {
    std::string text(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>(i * 7 + length);
    }
    return text;
}

// A host that sends back every message it gets.
struct Echo {
    explicit Echo(const Hypervisor_Faults& faults = {}) : port(&hypervisor) {
        hypervisor.memory = Hypervisor_OwnMemory();
        hypervisor.faults = faults;
        hypervisor.service.fromGuest = [](void* data, uint16_t, std::span<const uint8_t> message) {
            static_cast<Echo*>(data)->kept.emplace(message.begin(), message.end());
        };
        hypervisor.service.forGuest = [](void* data, uint16_t, std::vector<uint8_t>* message) {
            auto* self = static_cast<Echo*>(data);
            if (!self->kept) {
                return false;
            }
            *message = *std::exchange(self->kept, std::nullopt);
            return true;
        };
        hypervisor.service.clientData = this;
    }

    Hypervisor hypervisor;
    std::optional<std::vector<uint8_t>> kept;
    InProcess_Port port;
};

struct Outcome {
    bool opened = false;
    bool sent = false;
    bool received = false;
    bool closed = false;
    std::string echo;

    bool Whole(const std::string& message) const {
        return opened && sent && received && closed && echo == message;
    }
};

Outcome Converse(const std::string& message) {
    Outcome outcome;
    HostChannel* channel = HostChannel_Open(HOSTCHANNEL_RPCI);
    outcome.opened = channel != nullptr;
    if (!channel) {
        return outcome;
    }
    outcome.sent =
        HostChannel_Send(channel, reinterpret_cast<const uint8_t*>(message.data()), message.size());
    if (outcome.sent) {
        uint8_t* buffer = nullptr;
        uint64_t length = 0;
        outcome.received = HostChannel_Receive(channel, &buffer, &length);
        if (outcome.received && buffer) {
            outcome.echo.assign(reinterpret_cast<const char*>(buffer), static_cast<size_t>(length));
        }
    }
    outcome.closed = HostChannel_Close(channel);
    return outcome;
}

TEST(Channel, CarriesEveryShortLengthAtBothBandwidths) {
    for (bool low : {false, true}) {
        Hypervisor_Faults faults;
        faults.lowBandwidth = low;
        Echo echo(faults);
        for (size_t length : {0U, 1U, 2U, 3U, 4U, 5U, 7U, 8U, 9U, 1000U, 65536U}) {
            std::string message = Pattern(length);
            EXPECT_TRUE(Converse(message).Whole(message)) << length << (low ? " low" : " high");
        }
        EXPECT_THAT(echo.hypervisor.deviations, IsEmpty());
        EXPECT_EQ(Hypervisor_OpenChannels(echo.hypervisor), 0U);
    }
}

// What one bulk packet costs: open 1, send 2, receive 3, close 1.
TEST(Channel, NeedsSevenCallsForAConversationAtHighBandwidth) {
    Echo echo;
    Converse(Pattern(63488));
    EXPECT_EQ(echo.hypervisor.counts.calls, 7U);
}

struct SweepCase {
    bool low;
    size_t length;
};

struct ChannelSweep : testing::TestWithParam<SweepCase> {};

TEST_P(ChannelSweep, AFailureAtAnyCallIsReportedAndLeavesNothingBehind) {
    std::string message = Pattern(GetParam().length);
    Hypervisor_Faults faults;
    faults.lowBandwidth = GetParam().low;
    bool fired = true;
    for (faults.failCall = 1; fired; ++faults.failCall) {
        SCOPED_TRACE(faults.failCall);
        Echo echo(faults);
        Outcome outcome = Converse(message);
        fired = echo.hypervisor.counts.faults != 0;
        // A failed first open is tried again without the cookie flag.
        EXPECT_EQ(outcome.Whole(message), !fired || faults.failCall == 1);
        EXPECT_THAT(echo.hypervisor.deviations, IsEmpty());
        EXPECT_EQ(Hypervisor_OpenChannels(echo.hypervisor), 0U);
    }
    EXPECT_GT(faults.failCall, 5U);
}

// A checkpoint starts the transfer again; on a size call, an open or a close it is a failure like any other.
TEST_P(ChannelSweep, ACheckpointAtAnyPayloadCallGoesUnnoticed) {
    std::string message = Pattern(GetParam().length);
    Hypervisor_Faults faults;
    faults.lowBandwidth = GetParam().low;
    unsigned survived = 0;
    bool fired = true;
    for (faults.checkpointCall = 1; fired; ++faults.checkpointCall) {
        SCOPED_TRACE(faults.checkpointCall);
        Echo echo(faults);
        Outcome outcome = Converse(message);
        fired = echo.hypervisor.counts.faults != 0;
        survived += outcome.Whole(message) ? 1 : 0;
        EXPECT_TRUE(outcome.echo.empty() || outcome.echo == message);
        EXPECT_THAT(echo.hypervisor.deviations, IsEmpty());
        EXPECT_EQ(Hypervisor_OpenChannels(echo.hypervisor), 0U);
    }
    // Everything but the two size calls and the close, and the run without a fault.
    EXPECT_EQ(survived, faults.checkpointCall - 1 - 3);
}

INSTANTIATE_TEST_SUITE_P(Lengths, ChannelSweep,
                         testing::Values(SweepCase{false, 100}, SweepCase{true, 1}, SweepCase{true, 4},
                                         SweepCase{true, 11}),
                         [](const auto& test) {
                             return std::string(test.param.low ? "Low" : "High") +
                                    std::to_string(test.param.length);
                         });

TEST(Channel, GivesUpOnAHypervisorThatAnswersCheckpointForEver) {
    for (bool low : {false, true}) {
        Hypervisor_Faults faults;
        faults.lowBandwidth = low;
        faults.checkpointPayloads = true;
        Echo echo(faults);
        EXPECT_FALSE(Converse(Pattern(6)).sent);
        EXPECT_LE(echo.hypervisor.counts.calls, 2 * (HOSTCHANNEL_MAX_RESTARTS + 1) + 4);
        EXPECT_THAT(echo.hypervisor.deviations, IsEmpty());
    }
}

TEST(Channel, OpensWithoutCookieFlagWhereItIsUnknown) {
    Hypervisor_Faults faults;
    faults.refuseCookieOpen = true;
    Echo echo(faults);
    EXPECT_TRUE(Converse("text").Whole("text"));
    EXPECT_THAT(echo.hypervisor.deviations, IsEmpty());
}

TEST(Channel, IsRefusedAProtocol) {
    Hypervisor_Faults faults;
    faults.refusedProtocol = HOSTCHANNEL_RPCI;
    Echo echo(faults);
    EXPECT_EQ(HostChannel_Open(HOSTCHANNEL_RPCI), nullptr);
    EXPECT_EQ(echo.hypervisor.counts.calls, 2U);
}

TEST(Version, IsCheckedThroughTheRealPort) {
    Echo echo;
    EXPECT_TRUE(Upgrader_CheckVersion());
    echo.hypervisor.faults.version = 5;
    EXPECT_FALSE(Upgrader_CheckVersion());
    echo.hypervisor.faults.silent = true;
    EXPECT_FALSE(Upgrader_CheckVersion());
    EXPECT_THAT(echo.hypervisor.deviations, IsEmpty());
}

} // namespace
