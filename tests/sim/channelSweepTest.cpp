// The real channel against the model, through the real port routines: a failure or a checkpoint at every call
// of a conversation.

#include "hostChannel/hostChannel.h"
#include "sim/inProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::IsEmpty;

// A host that sends back every message it gets.
struct Echo {
    explicit Echo(const Hypervisor_Faults& faults) : port(&hypervisor) {
        hypervisor.memory = Hypervisor_OwnMemory();
        hypervisor.faults = faults;
        hypervisor.service.fromGuest = [](void* data, uint16_t, std::span<const uint8_t> message) {
            static_cast<Echo*>(data)->kept.emplace(message.begin(), message.end());
        };
        hypervisor.service.forGuest = [](void* data, uint16_t, std::vector<uint8_t>* message) {
            auto echo = std::exchange(static_cast<Echo*>(data)->kept, std::nullopt);
            *message = echo.value_or(std::vector<uint8_t>());
            return echo.has_value();
        };
        hypervisor.service.clientData = this;
    }
    ~Echo() {
        EXPECT_THAT(hypervisor.deviations, IsEmpty());
        EXPECT_EQ(Hypervisor_OpenChannels(hypervisor), 0U);
    }

    // What came back; "failed" when any operation failed, the close included.
    std::string Converse(const std::string& message) {
        HostChannel* channel = HostChannel_Open(HOSTCHANNEL_RPCI);
        if (!channel) {
            return "failed";
        }
        uint8_t* buffer = nullptr;
        uint64_t length = 0;
        bool well =
            HostChannel_Send(channel, reinterpret_cast<const uint8_t*>(message.data()), message.size()) &&
            HostChannel_Receive(channel, &buffer, &length);
        std::string echo(reinterpret_cast<const char*>(buffer), well ? static_cast<size_t>(length) : 0);
        return HostChannel_Close(channel) && well ? echo : "failed";
    }

    Hypervisor hypervisor;
    std::optional<std::vector<uint8_t>> kept;
    InProcess_Port port;
};

struct SweepCase {
    bool low;
    size_t length;
};

struct ChannelSweep : testing::TestWithParam<SweepCase> {
    ChannelSweep() {
        faults.lowBandwidth = GetParam().low;
        for (size_t i = 0; i < GetParam().length; ++i) {
            message += static_cast<char>(i * 7 + GetParam().length);
        }
    }

    // The calls after which a conversation has failed; *call is the number of the one with the fault.
    std::vector<uint64_t> FailingCalls(uint64_t* call) {
        std::vector<uint64_t> failing;
        bool fired = true;
        for (*call = 1; fired; ++*call) {
            SCOPED_TRACE(*call);
            Echo echo(faults);
            std::string answer = echo.Converse(message);
            fired = echo.hypervisor.counts.faults != 0;
            if (answer != message) {
                EXPECT_TRUE(fired);
                EXPECT_EQ(answer, "failed");
                failing.push_back(*call);
            }
        }
        *call -= 2; // of the last call there is
        return failing;
    }

    Hypervisor_Faults faults;
    std::string message;
};

// A failed first open is tried again without the cookie flag; that is all.
TEST_P(ChannelSweep, AFailureAtAnyCallIsReportedAndLeavesNothingBehind) {
    std::vector<uint64_t> failing = FailingCalls(&faults.failCall);
    EXPECT_GE(failing.size(), 6U);
    EXPECT_EQ(failing.front(), 2U);
    EXPECT_EQ(failing.size(), faults.failCall - 1);
}

// On a size call or the close, a checkpoint is a failure like any other; elsewhere the transfer starts again.
TEST_P(ChannelSweep, ACheckpointAtAnyPayloadCallGoesUnnoticed) {
    std::vector<uint64_t> failing = FailingCalls(&faults.checkpointCall);
    uint64_t words = faults.lowBandwidth ? (message.size() + 3) / 4 : 1;
    EXPECT_THAT(failing, testing::ElementsAre(2, 3 + words, faults.checkpointCall));
}

INSTANTIATE_TEST_SUITE_P(Lengths, ChannelSweep,
                         testing::Values(SweepCase{false, 100}, SweepCase{false, 65536}, SweepCase{true, 1},
                                         SweepCase{true, 4}, SweepCase{true, 11}),
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
        EXPECT_EQ(echo.Converse("to the host"), "failed");
        echo.kept.emplace(10);
        HostChannel* channel = HostChannel_Open(HOSTCHANNEL_RPCI);
        uint8_t* buffer = nullptr;
        uint64_t length = 0;
        EXPECT_FALSE(HostChannel_Receive(channel, &buffer, &length));
        EXPECT_TRUE(HostChannel_Close(channel));
        EXPECT_EQ(echo.hypervisor.counts.calls, 4 * (HOSTCHANNEL_MAX_RESTARTS + 1) + 4);
    }
}

TEST(Version, IsCheckedThroughTheRealPort) {
    Echo echo({});
    EXPECT_TRUE(Upgrader_CheckVersion());
    echo.hypervisor.faults.version = 5;
    EXPECT_FALSE(Upgrader_CheckVersion());
    echo.hypervisor.faults.silent = true;
    EXPECT_FALSE(Upgrader_CheckVersion());
}

} // namespace
