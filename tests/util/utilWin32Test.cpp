// The expansion in the environment of a real process.
#include "upgrader/win32/util.h"
#include "upgrader/win32/utilSystem.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <windows.h>

namespace {

TEST(UtilWin32, FindsVariablesAsWindowsDoes) {
    SetEnvironmentVariableW(L"RL_Test", L"na\xEFve \xD83D\xDE00");
    EXPECT_EQ(Util_ExpandString("$RL_Test|$rl_TEST"),
              "na\xC3\xAFve \xF0\x9F\x98\x80|na\xC3\xAFve \xF0\x9F\x98\x80");
    SetEnvironmentVariableW(L"RL_Test", L"");
    EXPECT_EQ(Util_ExpandString("[$RL_Test]"), "[]");
    SetEnvironmentVariableW(L"RL_Test", std::wstring(20000, L'x').c_str());
    EXPECT_EQ(Util_ExpandString("$RL_Test"), std::string(20000, 'x'));
    SetEnvironmentVariableW(L"RL_Test", nullptr);
    EXPECT_EQ(Util_ExpandString("$RL_Test"), "$RL_Test");
}

// It cannot be written in UTF-8, so for this program it is not there.
TEST(UtilWin32, LeavesAloneAVariableThatIsNoText) {
    SetEnvironmentVariableW(L"RL_Test", L"a\xD800z");
    EXPECT_EQ(UtilSystemVariable("RL_Test"), std::nullopt);
    SetEnvironmentVariableW(L"RL_Test", nullptr);
}

TEST(UtilWin32, KnowsTheProcessAndTheUser) {
    EXPECT_EQ(Util_ExpandString("$PID"), std::to_string(GetCurrentProcessId()));
    std::array<char, 300> name;
    DWORD size = name.size();
    ASSERT_TRUE(GetUserNameA(name.data(), &size));
    EXPECT_EQ(UtilSystemUserName(), name.data());
}

} // namespace
