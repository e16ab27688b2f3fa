// The host with a small guest: the real channel, command loop, requests and event queue, and a file server in
// memory, on a clock of the test's own.

#include "sim/host.h"
#include "rpcout/rpcout.h"
#include "sim/inProcess.h"
#include "support/diagCapture.h"
#include "tinyGuest.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

uint32_t now = 0; // milliseconds, moved by the guest's sleep

struct HostTest : testing::Test {
    HostTest() {
        eventManagerTickSource = [] { return now; };
        image.resize(150000);
        for (size_t i = 0; i < image.size(); ++i) {
            image[i] = static_cast<char>(i * 13 >> 2);
        }
        host.client.source.size = image.size();
        host.client.source.clientData = this;
        host.client.source.read = [](void* data, uint64_t offset, uint8_t* bytes, size_t length) {
            std::memcpy(bytes, static_cast<HostTest*>(data)->image.data() + offset, length);
            return true;
        };
        host.observer.clientData = this;
        host.observer.phase = [](void* data, Host_Phase phase) {
            static_cast<HostTest*>(data)->phases.emplace_back(Host_PhaseName(phase));
        };
        host.observer.signal = [](void* data, unsigned event) {
            auto* self = static_cast<HostTest*>(data);
            self->signals.push_back(event);
            self->guest.stop = true;
        };
        host.observer.transcript = [](void* data, const std::string& line) {
            static_cast<HostTest*>(data)->transcript += line + '\n';
        };
        Connect();
        hypervisor.memory = Hypervisor_OwnMemory();
        hypervisor.service = Host_Service(&host);
    }
    ~HostTest() override { DiagCapture_Take(); }

    void Connect() {
        guest.clientData = &host;
        guest.say = [](void* data, const char* text) { Host_GuestSaid(static_cast<Host*>(data), text); };
        guest.sleep = [](uint64_t microseconds) { now += static_cast<uint32_t>(microseconds / 1000); };
    }

    void Script(std::initializer_list<const char*> steps) {
        for (const char* text : steps) {
            std::string error;
            host.steps.emplace_back();
            ASSERT_TRUE(Host_ParseStep(text, &host.steps.back(), &error)) << error;
        }
    }

    void Upgrade() {
        {
            InProcess_Port port(&hypervisor);
            Host_Start(&host);
            TinyGuest_Live(&guest);
        }
        Host_Finish(&host);
        EXPECT_THAT(hypervisor.deviations, IsEmpty());
        EXPECT_EQ(Hypervisor_OpenChannels(hypervisor), 0U);
    }

    std::vector<std::string> Problems() const {
        std::vector<std::string> texts;
        for (const Host_Problem& problem : host.problems) {
            texts.push_back(problem.text);
        }
        return texts;
    }

    std::string image;
    Host host;
    Hypervisor hypervisor;
    TinyGuest guest;
    std::vector<std::string> phases;
    std::vector<unsigned> signals;
    std::string transcript;
};

TEST_F(HostTest, TakesAGuestThroughAnUpgrade) {
    for (bool low : {false, true}) {
        SCOPED_TRACE(low);
        hypervisor = Hypervisor{};
        hypervisor.memory = Hypervisor_OwnMemory();
        hypervisor.service = Host_Service(&host);
        hypervisor.faults.lowBandwidth = low;
        host.steps.clear();
        host.step = 0;
        host.root.clear();
        host.phase = Host_Phase::Starting;
        guest = TinyGuest{};
        Connect();
        phases.clear();
        Script({"greeting", "capabilities", "ping", "reset", "copy", "verify", "run -q", "end"});
        Upgrade();
        EXPECT_THAT(Problems(), IsEmpty());
        EXPECT_TRUE(Host_Done(host));
        EXPECT_TRUE(guest.server.file == image);
        EXPECT_THAT(guest.ran, ElementsAre(" -q"));
        EXPECT_THAT(phases, ElementsAre("greeting", "copy", "verify", "extract", "install", "finish", "end"));
        EXPECT_EQ(host.copiedBytes, image.size());
        EXPECT_EQ(host.copyPackets, 1U + 3U + 1U);
    }
}

TEST_F(HostTest, WritesEveryMessageDown) {
    Script({"greeting", "copy", "run", "end"});
    Upgrade();
    for (const char* line :
         {"guest request: 'upgrader.setGuestFileRoot C:\\Temp\\0a1b2c3d\\'", "host answers:  '1 '",
          "host:  f #1 OpenV3 mode 1 flags 4 'root/drive/C/Temp/0a1b2c3d/windows.iso'",
          "guest: #1 success handle 0", "host:  f #2 WriteV3 handle 0 offset 0 size 63455",
          "guest: #2 success 63455 bytes", "host:  'upgrader.run'", "guest: 'OK '",
          "guest closed the command channel"}) {
        EXPECT_THAT(transcript, HasSubstr(line));
    }
}

TEST_F(HostTest, CancelsAtAnyPoint) {
    Script({"greeting", "capabilities", "copy 40", "cancel", "end"});
    Upgrade();
    EXPECT_THAT(Problems(), IsEmpty());
    EXPECT_TRUE(guest.server.open);
    EXPECT_FALSE(host.endSent);
}

TEST_F(HostTest, ExpectsTheEndNoticeWhereItBelongs) {
    guest.installs = false;
    Script({"greeting", "run", "end"});
    Upgrade();
    EXPECT_THAT(Problems(), ElementsAre("\"toolinstall.end 0\" was sent"));

    host.problems.clear();
    host.endSent = false;
    host.expectedEnd = Host_EndNotice::Sent;
    host.root.clear();
    host.step = 0;
    guest.installs = true;
    guest.stop = false;
    guest.sendEnd = true;
    Upgrade();
    EXPECT_THAT(Problems(), ElementsAre("\"toolinstall.end 0\" was not sent"));
}

TEST_F(HostTest, RefusesTheGreetingInBothWays) {
    for (Host_Greeting greeting : {Host_Greeting::Unknown, Host_Greeting::Text}) {
        host = Host{};
        host.greeting = greeting;
        guest = TinyGuest{};
        Connect();
        hypervisor.service = Host_Service(&host);
        Script({"greeting", "end"});
        Upgrade();
        EXPECT_THAT(Problems(), IsEmpty());
        EXPECT_EQ(guest.turns, 0U);
    }
}

TEST_F(HostTest, RaisesASignalAndWaitsForTheLog) {
    Script({"greeting", "run", "log Attempting to launch", "signal break", "end"});
    Upgrade();
    EXPECT_THAT(signals, ElementsAre(1U));
    EXPECT_THAT(Problems(), IsEmpty());
}

TEST_F(HostTest, LetsTheGuestIdle) {
    Script({"greeting", "idle 8", "cancel", "end"});
    uint32_t start = now;
    Upgrade();
    EXPECT_EQ(host.polls, 8U);
    // 0, 10, 20, 40, 80, 100, 100, 100, 100 ms between the polls.
    EXPECT_EQ(now - start, 10U + 20U + 40U + 80U + 4 * 100U);
    EXPECT_THAT(Problems(), IsEmpty());
}

struct BadGuest {
    const char* name;
    void (*spoil)(TinyGuest*);
    Host_ProblemKind kind;
    const char* said;
};

TEST_F(HostTest, FindsWhatAGuestDoesWrong) {
    const BadGuest cases[] = {
        {"relative directory", [](TinyGuest* bad) { bad->root = "Temp\\0a1b2c3d\\"; },
         Host_ProblemKind::Message, "odd name"},
        {"no separator", [](TinyGuest* bad) { bad->root = "C:\\Temp\\0a1b2c3d"; }, Host_ProblemKind::Message,
         "odd name"},
        {"capital digits", [](TinyGuest* bad) { bad->root = "C:\\Temp\\0A1B2C3D\\"; },
         Host_ProblemKind::Message, "odd name"},
        {"text in a reply", [](TinyGuest* bad) { bad->capabilityReply = "x"; }, Host_ProblemKind::Script,
         "answered 'OK x' instead of 'OK '"},
        {"failure in a reply", [](TinyGuest* bad) { bad->capabilityStatus = false; },
         Host_ProblemKind::Script, "answered 'ERROR ' instead of 'OK '"},
        {"early end", [](TinyGuest* bad) { bad->stopAfter = 3; }, Host_ProblemKind::Script,
         "closed the command channel in step"},
        {"short writes", [](TinyGuest* bad) { bad->server.writeLimit = 0; }, Host_ProblemKind::Copy,
         "0 of 63455 bytes written"},
    };
    for (const BadGuest& test : cases) {
        SCOPED_TRACE(test.name);
        HgfsClient_Source source = host.client.source;
        host = Host{};
        host.client.source = source;
        host.expectedEnd = Host_EndNotice::Any;
        guest = TinyGuest{};
        Connect();
        hypervisor.service = Host_Service(&host);
        test.spoil(&guest);
        Script({"greeting", "capabilities", "copy", "verify", "run", "end"});
        Upgrade();
        ASSERT_THAT(host.problems, testing::Not(IsEmpty()));
        EXPECT_EQ(host.problems.front().kind, test.kind);
        EXPECT_THAT(host.problems.front().text, HasSubstr(test.said));
    }
}

TEST_F(HostTest, FindsASecondEndNoticeAndUnknownRequests) {
    guest.installs = false;
    guest.endsTwice = true;
    host.expectedEnd = Host_EndNotice::Sent;
    Script({"greeting", "run", "end"});
    Upgrade();
    EXPECT_THAT(Problems(), ElementsAre("a second end notice"));

    InProcess_Port port(&hypervisor);
    EXPECT_FALSE(RpcOut_SendRequest(nullptr, nullptr, "tools.unknown"));
    EXPECT_THAT(Problems(), ElementsAre("a second end notice", "unknown request 'tools.unknown'"));
}

// Whatever call of a whole run fails, guest and model end in order: no deviation and no channel left open,
// and a run that was not disturbed succeeds.
TEST_F(HostTest, SurvivesAFaultAtAnyCallOfARun) {
    HgfsClient_Source source = host.client.source;
    source.size = 70000;
    for (bool checkpoint : {false, true}) {
        bool fired = true;
        for (uint64_t call = 1; fired; ++call) {
            SCOPED_TRACE(testing::Message()
                         << (checkpoint ? "checkpoint" : "failure") << " at call " << call);
            host = Host{};
            host.client.source = source;
            host.expectedEnd = Host_EndNotice::Any;
            guest = TinyGuest{};
            Connect();
            hypervisor = Hypervisor{};
            hypervisor.memory = Hypervisor_OwnMemory();
            hypervisor.service = Host_Service(&host);
            (checkpoint ? hypervisor.faults.checkpointCall : hypervisor.faults.failCall) = call;
            Script({"greeting", "capabilities", "copy", "verify", "run", "end"});
            Upgrade();
            fired = hypervisor.counts.faults != 0;
            if (!fired) {
                EXPECT_THAT(Problems(), IsEmpty());
                EXPECT_GT(call, 60U);
            }
            EXPECT_LT(guest.turns, 1000U);
            DiagCapture_Take();
        }
    }
}

struct StepCase {
    const char* text;
    const char* described; // null: refused
};

TEST(HostSteps, AreReadFromText) {
    const StepCase cases[] = {
        {"greeting", "greeting"},
        {"capabilities", "send Capabilities_Register"},
        {"copy", "copy 100"},
        {"copy 50", "copy 50"},
        {"verify", "verify"},
        {"run", "send upgrader.run"},
        {"run -p  /x", "send upgrader.run -p  /x"},
        {"send a => ERROR b", "send a"},
        {"log two words", "log two words"},
        {"idle 3", "idle 3"},
        {"signal logoff", "signal logoff"},
        {"end", "end"},
        {"copy 101", nullptr},
        {"copy x", nullptr},
        {"idle", nullptr},
        {"idle 0", nullptr},
        {"signal hup", nullptr},
        {"greeting now", nullptr},
        {"", nullptr},
        {"unknown", nullptr},
    };
    for (const StepCase& test : cases) {
        SCOPED_TRACE(test.text);
        Host_Step step;
        std::string error;
        ASSERT_EQ(Host_ParseStep(test.text, &step, &error), test.described != nullptr);
        if (test.described) {
            EXPECT_EQ(Host_DescribeStep(step), test.described);
        } else {
            EXPECT_THAT(error, HasSubstr("no such step"));
        }
    }
    Host_Step step;
    std::string error;
    ASSERT_TRUE(Host_ParseStep("send a => ERROR b", &step, &error));
    EXPECT_EQ(step.expected, "ERROR b");
}

} // namespace
