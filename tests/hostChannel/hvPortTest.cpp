// The version query, over a scripted port.
#include "hvPort/hvPort.h"

#include "support/diagCapture.h"
#include "support/scriptedPort.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t ASKED_BX = 0xFFFFFFFFADB7BB94;

TEST(HvPort, TheVersionQueryTellsAHypervisorFromNone) {
    struct {
        const char* name;
        uint64_t ax, bx, cx;
        bool answered;
        uint32_t version, type;
        bool mayRun;
        bool message;
    } const cases[] = {
        {"the right one", 6, HVPORT_MAGIC, 0x4, true, 6, 4, true, false},
        {"upper halves do not count", 0x100000006, 0x700000000 + HVPORT_MAGIC, 4, true, 6, 4, true, false},
        {"no type told", 6, HVPORT_MAGIC, 0xFFFF000A, true, 6, 0, true, false},
        {"older", 5, HVPORT_MAGIC, 1, true, 5, 1, false, true},
        {"newer", 7, HVPORT_MAGIC, 1, true, 7, 1, false, true},
        {"all ones", 0xFFFFFFFF, HVPORT_MAGIC, 1, false, 0, 0, false, true},
        {"nobody there", HVPORT_MAGIC, ASKED_BX, 0xFFFF000A, false, 0, 0, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        scriptedPort = [&c](PortKind kind, HvPort_Registers* registers) {
            EXPECT_EQ(kind, PortKind::Low);
            EXPECT_EQ(registers->ax, HVPORT_MAGIC);
            EXPECT_EQ(registers->bx, ASKED_BX);
            EXPECT_EQ(registers->cx, 0xFFFF000Au);
            registers->ax = c.ax;
            registers->bx = c.bx;
            registers->cx = c.cx;
        };
        uint32_t version = 99;
        uint32_t type = 99;
        EXPECT_EQ(HvPort_GetVersion(&version, &type), c.answered);
        EXPECT_EQ(version, c.answered ? c.version : 99);
        EXPECT_EQ(type, c.answered ? c.type : 99);

        DiagCapture_Take();
        EXPECT_EQ(Upgrader_CheckVersion(), c.mayRun);
        auto messages = DiagCapture_Take().debug;
        ASSERT_EQ(messages.size(), c.message ? 1u : 0u);
        if (c.message) {
            EXPECT_EQ(messages[0].find(
                          "The version of this program is incompatible with your Ravlin software.\nFor "
                          "information on updating your Ravlin Tools please see\nhttps://"),
                      0u)
                << messages[0];
            EXPECT_TRUE(messages[0].ends_with("\n\n"));
        }
    }
    scriptedPort = nullptr;
}

} // namespace
