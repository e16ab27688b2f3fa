// Which calls ask for a restart or power-off, in which order, for every kind of system and every failure.
#include "system/systemShutdown.h"

#include "misc/hostinfo.h"
#include "string/str.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

// The system that a test describes, and what was asked of it: "priv", "acpi?", "login?", "exit 6", "init
// reboot".
struct Machine {
    uint32_t family = HOSTINFO_FAMILY_7;
    std::optional<uint32_t> servicePack = 0;
    bool acpi = true;
    bool loginScreen = false;
    uint32_t exitError = 0;
    uint32_t firstTry = 0; // errors of initiating it, without and with force
    uint32_t secondTry = 0;
    std::string calls = {};
};
Machine machine;

void Note(const std::string& call) {
    machine.calls += (machine.calls.empty() ? "" : ", ") + call;
}

const SystemShutdownCalls CALLS = {
    [] { return machine.family; },
    [] { return machine.servicePack; },
    [] {
        Note("acpi?");
        return machine.acpi;
    },
    [] {
        Note("login?");
        return machine.loginScreen;
    },
    [] { Note("priv"); },
    [](uint32_t flags) {
        Note(Str_Format("exit %u", flags));
        return machine.exitError;
    },
    [](bool force, bool reboot) {
        Note(Str_Format("init%s%s", force ? " force" : "", reboot ? " reboot" : ""));
        return force ? machine.secondTry : machine.firstTry;
    },
};

constexpr bool REBOOT = true;
constexpr bool POWER_OFF = false;

using Families = std::vector<uint32_t>;
const Families BEFORE_NT = {HOSTINFO_FAMILY_95, HOSTINFO_FAMILY_98, HOSTINFO_FAMILY_ME};
const Families THROUGH_SESSION = {HOSTINFO_FAMILY_2000, HOSTINFO_FAMILY_XP};
const Families OTHERS = {HOSTINFO_FAMILY_NT4, HOSTINFO_FAMILY_2003, HOSTINFO_FAMILY_VISTA, HOSTINFO_FAMILY_7,
                         HOSTINFO_FAMILY_UNKNOWN};
const Families XP = {HOSTINFO_FAMILY_XP};

TEST(SystemShutdown, AsksInTheWayOfTheSystem) {
    struct {
        Families families;
        Machine described;
        bool reboot;
        const char* calls;
        uint32_t error = 0;
    } cases[] = {
        {BEFORE_NT, {}, REBOOT, "exit 2"},
        {BEFORE_NT, {}, POWER_OFF, "acpi?, exit 8"},
        {BEFORE_NT, {.acpi = false}, POWER_OFF, "acpi?, exit 1"},
        {BEFORE_NT, {.loginScreen = true, .exitError = 5}, REBOOT, "exit 2", 5},
        // Nobody answers behind the log-on screen.
        {THROUGH_SESSION, {}, REBOOT, "priv, login?, exit 2"},
        {THROUGH_SESSION, {.loginScreen = true}, REBOOT, "priv, login?, exit 6"},
        {THROUGH_SESSION, {.loginScreen = true}, POWER_OFF, "priv, acpi?, login?, exit 12"},
        {THROUGH_SESSION, {.acpi = false}, POWER_OFF, "priv, acpi?, login?, exit 1"},
        {THROUGH_SESSION, {.exitError = 1314}, REBOOT, "priv, login?, exit 2", 1314},
        // Only XP is another with a service pack, or with one that cannot be found out.
        {XP, {.servicePack = 1}, REBOOT, "priv, init reboot"},
        {XP, {.servicePack = std::nullopt}, REBOOT, "priv, init reboot"},
        {{HOSTINFO_FAMILY_2000}, {.servicePack = 4}, REBOOT, "priv, login?, exit 2"},
        // The second try forces programs closed; a system that is not ready falls back to the session.
        {OTHERS, {}, REBOOT, "priv, init reboot"},
        {OTHERS, {.loginScreen = true}, POWER_OFF, "priv, acpi?, init"},
        {OTHERS, {.firstTry = 5}, REBOOT, "priv, init reboot, init force reboot"},
        {OTHERS, {.firstTry = 21}, POWER_OFF, "priv, acpi?, init, init force"},
        {OTHERS, {.firstTry = 5, .secondTry = 1115}, POWER_OFF, "priv, acpi?, init, init force", 1115},
        {OTHERS, {.firstTry = 21, .secondTry = 5}, REBOOT, "priv, init reboot, init force reboot", 5},
        {OTHERS,
         {.loginScreen = true, .exitError = 1314, .firstTry = 5, .secondTry = 21},
         REBOOT,
         "priv, init reboot, init force reboot, exit 2",
         1314},
        {OTHERS, {.firstTry = 21, .secondTry = 21}, POWER_OFF, "priv, acpi?, init, init force, exit 8"},
    };
    for (const auto& c : cases) {
        for (uint32_t family : c.families) {
            machine = c.described;
            machine.family = family;
            EXPECT_EQ(SystemShutdownWith(CALLS, c.reboot), c.error) << family << ": " << c.calls;
            EXPECT_EQ(machine.calls, c.calls) << family;
        }
    }
}

} // namespace
