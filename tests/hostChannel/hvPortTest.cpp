// The version query, over a scripted port.
#include "hvPort/hvPort.h"

#include "support/diagCapture.h"
#include "support/scriptedPort.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t ASKED_BX = 0xFFFFFFFFADB7BB94;
constexpr uint32_t UNTOUCHED = 99;
constexpr char MESSAGE[] = "The version of this program is incompatible with your Ravlin software.\n"
                           "For information on updating your Ravlin Tools please see\nhttps://";

TEST(HvPort, TheVersionQueryTellsAHypervisorFromNone) {
    struct {
        const char* name;
        uint64_t ax, bx, cx;
        uint32_t version, type; // UNTOUCHED: nobody has answered
    } const cases[] = {
        {"the right one", 6, HVPORT_MAGIC, 0x4, 6, 4},
        {"upper halves do not count", 0x100000006, 0x700000000 + HVPORT_MAGIC, 4, 6, 4},
        {"no type told", 6, HVPORT_MAGIC, 0xFFFF000A, 6, 0},
        {"older", 5, HVPORT_MAGIC, 1, 5, 1},
        {"newer", 7, HVPORT_MAGIC, 1, 7, 1},
        {"all ones", 0xFFFFFFFF, HVPORT_MAGIC, 1, UNTOUCHED, UNTOUCHED},
        {"nobody there", HVPORT_MAGIC, ASKED_BX, 0xFFFF000A, UNTOUCHED, UNTOUCHED},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        scriptedPort = [&c](PortKind kind, HvPort_Registers* registers) {
            EXPECT_EQ(kind, PortKind::Low);
            EXPECT_EQ(registers->bx, ASKED_BX);
            EXPECT_EQ(registers->cx, 0xFFFF000Au);
            registers->ax = c.ax;
            registers->bx = c.bx;
            registers->cx = c.cx;
        };
        uint32_t version = UNTOUCHED;
        uint32_t type = UNTOUCHED;
        EXPECT_EQ(HvPort_GetVersion(&version, &type), c.version != UNTOUCHED);
        EXPECT_EQ(version, c.version);
        EXPECT_EQ(type, c.type);

        DiagCapture_Take();
        bool mayRun = Upgrader_CheckVersion();
        EXPECT_EQ(mayRun, c.version == 6);
        std::vector<std::string> said = DiagCapture_Take().debug;
        ASSERT_EQ(said.size(), mayRun ? 0u : 1u);
        EXPECT_TRUE(mayRun || (said[0].starts_with(MESSAGE) && said[0].ends_with("\n\n"))) << said[0];
    }
    scriptedPort = nullptr;
}

} // namespace
