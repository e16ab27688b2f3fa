// The expansion's rules, with an environment that the test makes up, and with memory that runs out.
#include "upgrader/win32/util.h"
#include "support/diagCapture.h"
#include "upgrader/win32/utilSystem.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <new>
#include <string>

namespace {

std::map<std::string, std::string> environment;
std::optional<std::string> user;
long failingAllocation = 0; // counts down to the one that fails; 0 for none

} // namespace

void* operator new(size_t size) {
    if (failingAllocation > 0 && --failingAllocation == 0) {
        throw std::bad_alloc();
    }
    void* memory = malloc(size > 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void operator delete(void* memory) noexcept {
    free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    free(memory);
}

std::optional<std::string> UtilSystemVariable(const std::string& name) {
    const auto found = environment.find(name);
    return found != environment.end() ? std::optional(found->second) : std::nullopt;
}
unsigned long UtilSystemProcessId() {
    return 4294967295UL;
}
std::optional<std::string> UtilSystemUserName() {
    return user;
}

namespace {

using Messages = std::vector<std::string>;

class Util : public testing::Test {
protected:
    void SetUp() override {
        environment = {{"TEMP", "C:\\Temp"}, {"EMPTY", ""}, {"A1_z", "x"}};
        user = "Zo\xC3\xAB";
        DiagCapture_Take();
    }
};

std::string Repeat(const char* text, int count) {
    std::string result;
    for (int i = 0; i < count; i++) {
        result += text;
    }
    return result;
}

TEST_F(Util, ExpandsReferences) {
    struct Case {
        std::string name;
        const char* expanded;
    };
    const Case cases[] = {
        {"", ""},
        {"C:\\plain", "C:\\plain"},
        {"$TEMP\\x", "C:\\Temp\\x"},
        {"a$TEMP", "aC:\\Temp"},
        {"$TEMP$TEMP", "C:\\TempC:\\Temp"},
        {"$EMPTY|$EMPTY", "|"},
        {"$A1_z-$A1_z\xC3\xA9", "x-x\xC3\xA9"},
        {"$PID.tmp", "4294967295.tmp"},
        {"$USER", "Zo\xC3\xAB"},
        {"a$", "a$"},
        {"$$", "$$"},
        {"$$TEMP", "$C:\\Temp"},
        {"$-x", "$-x"},
        {"~", "~"},
        {"~\\x", "~\\x"},
        {"~$TEMP", "~C:\\Temp"},
        {"%TEMP%", "%TEMP%"},
    };
    for (const Case& one : cases) {
        EXPECT_EQ(Util_ExpandString(one.name.c_str()), one.expanded) << one.name;
    }
    EXPECT_EQ(DiagCapture_Take().warning, Messages{});
    EXPECT_EQ(Util_ExpandString(nullptr), std::nullopt);
}

TEST_F(Util, PrefersAVariableToItsOwnNames) {
    user.reset();
    EXPECT_EQ(Util_ExpandString("$USER"), "unknown");
    environment["PID"] = "";
    environment["USER"] = "variable";
    EXPECT_EQ(Util_ExpandString("[$PID]$USER"), "[]variable");
}

TEST_F(Util, LeavesUndefinedNamesAndWarns) {
    const std::string name = "NOPE" + std::string(146, 'N');
    EXPECT_EQ(Util_ExpandString(("$" + name + "-tail").c_str()), "$" + name.substr(0, 99) + "-tail");
    EXPECT_EQ(DiagCapture_Take().warning,
              Messages{"Environment variable '" + name + "' not defined in '$" + name + "-tail'.\n"});
}

TEST_F(Util, RefusesMoreThanAHundredChunks) {
    EXPECT_EQ(Util_ExpandString(Repeat("$TEMP-", 50).c_str()), Repeat("C:\\Temp-", 50));
    EXPECT_EQ(DiagCapture_Take().warning, Messages{});
    const std::string name = Repeat("$TEMP-", 50) + "$TEMP";
    EXPECT_EQ(Util_ExpandString(name.c_str()), std::nullopt);
    EXPECT_EQ(DiagCapture_Take().warning,
              Messages{"Msg_Append: @&!*@*@(msg.util.expandStringTooManyChunks)Filename \"" + name +
                       "\" has too many chunks.\n\n"});
}

TEST_F(Util, CutsMessagesAt999Bytes) {
    Msg_Append("%s", std::string(1000, 'y').c_str());
    Msg_Append("short");
    EXPECT_EQ(DiagCapture_Take().warning,
              (Messages{"Msg_Append: " + std::string(999, 'y') + "\n", "Msg_Append: short\n"}));
}

constexpr char NO_MEMORY_FOR_CHUNK[] =
    "Msg_Append: @&!*@*@(msg.util.ExpandStringNoMemForChunk)Cannot allocate memory to expand \"";
const std::string NO_MEMORY_FOR_RESULT =
    "Msg_Append: @&!*@*@(msg.util.expandStringNoMemForResult)Cannot allocate memory for the expansion of \"";

// Whichever allocation fails: no result, one of the two messages, and the next call works.
TEST_F(Util, ReportsEveryAllocationThatFails) {
    const std::string name =
        Repeat("$TEMP\\a long directory name that needs memory of its own\\", 3) + "$PID$USER";
    const std::optional<std::string> expected = Util_ExpandString(name.c_str());
    ASSERT_TRUE(expected);
    int failures = 0;
    for (long n = 1;; n++) {
        failingAllocation = n;
        const std::optional<std::string> result = Util_ExpandString(name.c_str());
        const bool fired = failingAllocation == 0;
        failingAllocation = 0;
        const Messages warnings = DiagCapture_Take().warning;
        if (!fired) {
            EXPECT_EQ(result, expected);
            EXPECT_EQ(warnings, Messages{});
            break;
        }
        failures++;
        EXPECT_EQ(result, std::nullopt) << n;
        ASSERT_EQ(warnings.size(), 1U) << n;
        EXPECT_TRUE(warnings[0].starts_with(NO_MEMORY_FOR_CHUNK) ||
                    warnings[0] == NO_MEMORY_FOR_RESULT + name + "\".\n\n")
            << warnings[0];
    }
    EXPECT_GT(failures, 5);
}

} // namespace
