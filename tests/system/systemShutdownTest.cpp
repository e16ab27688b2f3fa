// Which calls ask for a restart or power-off, in which order, for every kind of system and every failure.
#include "system/systemShutdown.h"

#include "misc/hostinfo.h"
#include "string/str.h"

#include <gtest/gtest.h>

#include <deque>
#include <optional>
#include <string>

namespace {

// The system that a test describes, and what was asked of it: "priv", "acpi?", "login?", "exit 6", "init
// reboot".
struct Machine {
    uint32_t family = HOSTINFO_FAMILY_7;
    std::optional<uint32_t> servicePack = 0;
    bool acpi = true;
    bool loginScreen = false;
    uint32_t exitError = 0;
    std::deque<uint32_t> initiateErrors = {}; // one for each call; 0 afterwards
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
        uint32_t error = 0;
        if (!machine.initiateErrors.empty()) {
            error = machine.initiateErrors.front();
            machine.initiateErrors.pop_front();
        }
        return error;
    },
};

std::string CallsFor(const Machine& described, bool reboot, uint32_t expectedError = 0) {
    machine = described;
    EXPECT_EQ(SystemShutdownWith(CALLS, reboot), expectedError);
    return machine.calls;
}

constexpr bool REBOOT = true;
constexpr bool POWER_OFF = false;

TEST(SystemShutdown, BeforeNtTheSessionEndsWithoutPrivilege) {
    for (uint32_t family : {HOSTINFO_FAMILY_95, HOSTINFO_FAMILY_98, HOSTINFO_FAMILY_ME}) {
        EXPECT_EQ(CallsFor({.family = family}, REBOOT), "exit 2");
        EXPECT_EQ(CallsFor({.family = family}, POWER_OFF), "acpi?, exit 8");
        EXPECT_EQ(CallsFor({.family = family, .acpi = false}, POWER_OFF), "acpi?, exit 1");
        EXPECT_EQ(CallsFor({.family = family, .loginScreen = true, .exitError = 5}, REBOOT, 5), "exit 2");
    }
}

TEST(SystemShutdown, Windows2000AndFirstXpEndTheSession) {
    for (uint32_t family : {HOSTINFO_FAMILY_2000, HOSTINFO_FAMILY_XP}) {
        EXPECT_EQ(CallsFor({.family = family}, REBOOT), "priv, login?, exit 2");
        EXPECT_EQ(CallsFor({.family = family, .loginScreen = true}, REBOOT), "priv, login?, exit 6");
        EXPECT_EQ(CallsFor({.family = family}, POWER_OFF), "priv, acpi?, login?, exit 8");
        EXPECT_EQ(CallsFor({.family = family, .loginScreen = true}, POWER_OFF),
                  "priv, acpi?, login?, exit 12");
        EXPECT_EQ(CallsFor({.family = family, .acpi = false}, POWER_OFF), "priv, acpi?, login?, exit 1");
        EXPECT_EQ(CallsFor({.family = family, .acpi = false, .loginScreen = true}, POWER_OFF),
                  "priv, acpi?, login?, exit 5");
        EXPECT_EQ(CallsFor({.family = family, .exitError = 1314}, REBOOT, 1314), "priv, login?, exit 2");
    }
}

TEST(SystemShutdown, OnlyXpLooksAtItsServicePack) {
    const std::optional<uint32_t> laterOrUnknown[] = {1, 2, 3, std::nullopt};
    for (std::optional<uint32_t> servicePack : laterOrUnknown) {
        EXPECT_EQ(CallsFor({.family = HOSTINFO_FAMILY_XP, .servicePack = servicePack}, REBOOT),
                  "priv, init reboot");
        EXPECT_EQ(CallsFor({.family = HOSTINFO_FAMILY_2000, .servicePack = servicePack}, REBOOT),
                  "priv, login?, exit 2");
    }
}

TEST(SystemShutdown, TheOthersInitiateIt) {
    for (uint32_t family : {HOSTINFO_FAMILY_NT4, HOSTINFO_FAMILY_2003, HOSTINFO_FAMILY_VISTA,
                            HOSTINFO_FAMILY_7, HOSTINFO_FAMILY_UNKNOWN}) {
        EXPECT_EQ(CallsFor({.family = family}, REBOOT), "priv, init reboot");
        EXPECT_EQ(CallsFor({.family = family, .loginScreen = true}, POWER_OFF), "priv, acpi?, init");
    }
}

TEST(SystemShutdown, ASecondTryForcesProgramsClosed) {
    for (uint32_t first : {5u, 21u, 1115u}) {
        EXPECT_EQ(CallsFor({.initiateErrors = {first}}, REBOOT), "priv, init reboot, init force reboot");
        EXPECT_EQ(CallsFor({.initiateErrors = {first}}, POWER_OFF), "priv, acpi?, init, init force");
        EXPECT_EQ(CallsFor({.initiateErrors = {first, 1115}}, REBOOT, 1115),
                  "priv, init reboot, init force reboot");
    }
}

TEST(SystemShutdown, ASystemThatIsNotReadyFallsBackToTheSession) {
    EXPECT_EQ(CallsFor({.loginScreen = true, .initiateErrors = {21, 21}}, REBOOT),
              "priv, init reboot, init force reboot, exit 2");
    EXPECT_EQ(CallsFor({.acpi = false, .initiateErrors = {5, 21}}, POWER_OFF),
              "priv, acpi?, init, init force, exit 1");
    EXPECT_EQ(CallsFor({.exitError = 1314, .initiateErrors = {21, 21}}, POWER_OFF, 1314),
              "priv, acpi?, init, init force, exit 8");
}

TEST(SystemAcpi, DescriptionMentionsAcpiInAnyCase) {
    EXPECT_TRUE(SystemIsAcpiDescription("ACPI x64-based PC"));
    EXPECT_TRUE(SystemIsAcpiDescription("Advanced (aCpI) PC"));
    EXPECT_FALSE(SystemIsAcpiDescription("Standard PC"));
    EXPECT_FALSE(SystemIsAcpiDescription("ACP I"));
    EXPECT_FALSE(SystemIsAcpiDescription(""));
}

} // namespace
