// The host, told message by message what a guest says: one that behaves, and ones that break each rule.

#include "sim/host.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint16_t TCLO = 1;
constexpr uint16_t RPCI = 2;
constexpr char ROOT[] = "upgrader.setGuestFileRoot C:\\Temp\\0a1b2c3d\\";
constexpr char END[] = "toolinstall.end 0";

// A host with a script, and the messages of its guest.
struct Conversation {
    explicit Conversation(std::initializer_list<const char*> steps) {
        for (const char* text : steps) {
            std::string error;
            EXPECT_TRUE(Host_ParseStep(text, &host.steps.emplace_back(), &error)) << error;
        }
        host.client.source.size = 1000;
        host.client.source.read = [](void*, uint64_t, uint8_t* bytes, size_t length) {
            std::fill_n(bytes, length, uint8_t{0x55});
            return true;
        };
        host.observer.clientData = this;
        host.observer.phase = [](void* data, Host_Phase phase) {
            static_cast<Conversation*>(data)->phases.emplace_back(Host_PhaseName(phase));
        };
        host.observer.signal = [](void* data, unsigned event) {
            static_cast<Conversation*>(data)->signals.push_back(event);
        };
        host.observer.transcript = [](void* data, const std::string& line) {
            static_cast<Conversation*>(data)->transcript += line + '\n';
        };
        Host_Start(&host);
        service.opened(&host, TCLO, HOSTCHANNEL_TCLO);
    }

    void Send(uint16_t channel, std::string_view text) {
        service.fromGuest(&host, channel, {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
    }
    std::string Receive(uint16_t channel) {
        std::vector<uint8_t> message;
        bool any = service.forGuest(&host, channel, &message);
        return any ? std::string(message.begin(), message.end()) : "(none)";
    }
    // A request and its reply.
    std::string Ask(std::string_view request) {
        service.opened(&host, RPCI, HOSTCHANNEL_RPCI);
        Send(RPCI, request);
        std::string reply = Receive(RPCI);
        service.closed(&host, RPCI);
        return reply;
    }
    // The reply that is owed, and the next command.
    std::string Turn(std::string_view reply = "") {
        Send(TCLO, reply);
        return Receive(TCLO);
    }
    void Close() { service.closed(&host, TCLO); }

    Host host;
    Hypervisor_Service service = Host_Service(&host);
    std::vector<std::string> phases;
    std::vector<unsigned> signals;
    std::string transcript;
};

TEST(Host, TakesAGuestThroughAnUpgrade) {
    Conversation guest({"greeting", "idle 2", "capabilities", "send x y => ERROR no", "run -q",
                        "log Attempting", "signal break", "end"});
    EXPECT_EQ(guest.Turn(), "(none)");
    EXPECT_EQ(guest.Ask(ROOT), "1 ");
    EXPECT_EQ(guest.Turn(), "(none)");
    EXPECT_EQ(guest.Turn(), "(none)");
    EXPECT_EQ(guest.Turn(), "Capabilities_Register");
    EXPECT_EQ(guest.Ask("tools.capability.upgrader_parameters 1"), "1 ");
    EXPECT_EQ(guest.Turn("OK "), "x y");
    EXPECT_EQ(guest.Turn("ERROR no"), "upgrader.run -q");
    EXPECT_EQ(guest.Turn("OK "), "(none)");
    for (const char* text : {"Upgrader: Beginning installation.\n", "Attempting to launch \"x\"\n",
                             "Setup process returned 0\n"}) {
        Host_GuestSaid(&guest.host, text);
    }
    EXPECT_THAT(guest.signals, ElementsAre(1U));
    EXPECT_EQ(guest.Turn(), "(none)");
    guest.Close();
    Host_Finish(&guest.host);
    EXPECT_TRUE(guest.host.problems.empty()) << guest.host.problems[0].text;
    EXPECT_TRUE(Host_Done(guest.host));
    EXPECT_THAT(guest.phases, ElementsAre("greeting", "extract", "install", "finish", "end"));
    for (const char* line : {"guest request: 'upgrader.setGuestFileRoot C:\\Temp\\0a1b2c3d\\'",
                             "host answers:  '1 '", "host:  'upgrader.run -q'", "guest: 'ERROR no'"}) {
        EXPECT_THAT(guest.transcript, HasSubstr(line));
    }
}

TEST(Host, AnswersTheGreetingAsItIsTold) {
    const std::pair<Host_Greeting, const char*> cases[] = {{Host_Greeting::Unknown, "0 Unknown command"},
                                                           {Host_Greeting::Text, "1 not compatible"}};
    for (const auto& [greeting, answer] : cases) {
        Conversation guest({"greeting", "end"});
        guest.host.greeting = greeting;
        EXPECT_EQ(guest.Ask(ROOT), answer);
        guest.Close();
        Host_Finish(&guest.host);
        EXPECT_THAT(guest.host.problems, IsEmpty());
    }
}

TEST(Host, FindsWhatAGuestDoesWrong) {
    using enum Host_ProblemKind;
    const struct {
        Host_ProblemKind kind;
        const char* said;
        void (*commit)(Conversation& guest);
    } cases[] = {
        {Message, "odd name", [](auto& guest) { guest.Ask("upgrader.setGuestFileRoot Temp\\0a1b2c3d\\"); }},
        {Message, "odd name", [](auto& guest) { guest.Ask("upgrader.setGuestFileRoot C:\\T\\0a1b2c3d"); }},
        {Message, "odd name", [](auto& guest) { guest.Ask("upgrader.setGuestFileRoot C:\\T\\0A1B2C3D\\"); }},
        {Message, "a second directory",
         [](auto& guest) {
             guest.Ask(ROOT);
             guest.Ask(ROOT);
         }},
        {Message, "unknown request 'tools.unknown'", [](auto& guest) { guest.Ask("tools.unknown"); }},
        {Message, "a second end notice",
         [](auto& guest) {
             guest.Ask(END);
             guest.Ask(END);
         }},
        {Message, "a second command channel",
         [](auto& guest) { guest.service.opened(&guest.host, TCLO + 2, HOSTCHANNEL_TCLO); }},
        {Message, "two messages", [](auto& guest) { (guest.Send(TCLO, ""), guest.Send(TCLO, "")); }},
        {Message, "a reply to no command: 'OK '", [](auto& guest) { guest.Turn("OK "); }},
        {Message, "neither OK nor ERROR: 'fine'",
         [](auto& guest) {
             guest.Ask(ROOT);
             guest.Turn();
             guest.Turn("fine");
         }},
        {Script, "answered 'OK x' instead of 'OK '",
         [](auto& guest) {
             guest.Ask(ROOT);
             guest.Turn();
             EXPECT_EQ(guest.Turn("OK x"), "upgrader.cancel");
         }},
        {Script, "gave a command up",
         [](auto& guest) {
             guest.Ask(ROOT);
             guest.Turn();
             guest.service.delivered(&guest.host, TCLO, false);
         }},
        {Script, "closed the command channel in step 'send Cap",
         [](auto& guest) { (guest.Ask(ROOT), guest.Close()); }},
        {Script, "the guest ended in step 'greeting'", [](auto& guest) { Host_Finish(&guest.host); }},
        {Copy, "file request answered 'ERROR x'",
         [](auto& guest) {
             guest.Ask(ROOT);
             guest.Turn();
             guest.Turn("OK ");
             guest.Turn("ERROR x");
         }},
        {Notice, "was sent",
         [](auto& guest) {
             guest.Ask(END);
             guest.host.steps.clear();
             guest.host.step = 0;
             Host_Finish(&guest.host);
         }},
        {Notice, "was not sent",
         [](auto& guest) {
             guest.host.expectedEnd = Host_EndNotice::Sent;
             guest.host.steps.clear();
             Host_Finish(&guest.host);
         }},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.said);
        Conversation guest({"greeting", "capabilities", "copy", "end"});
        test.commit(guest);
        ASSERT_FALSE(guest.host.problems.empty());
        EXPECT_EQ(guest.host.problems.front().kind, test.kind);
        EXPECT_THAT(guest.host.problems.front().text, HasSubstr(test.said));
    }
}

TEST(Host, ReadsStepsFromText) {
    const struct {
        const char* text;
        const char* described; // null: refused
    } cases[] = {
        {"copy", "copy 100"},
        {"copy 50", "copy 50"},
        {"run -p  /x", "send upgrader.run -p  /x"},
        {"send a => ERROR b", "send a"},
        {"signal logoff", "signal logoff"},
        {"copy 101", nullptr},
        {"copy x", nullptr},
        {"idle", nullptr},
        {"idle 0", nullptr},
        {"signal hup", nullptr},
        {"greeting now", nullptr},
        {"", nullptr},
    };
    for (const auto& test : cases) {
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
}

} // namespace
