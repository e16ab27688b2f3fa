#include "sim/sample/launcherLine.h"

#include <cwchar>
#include <gtest/gtest.h>
#include <vector>

namespace {

struct Case {
    const wchar_t* line;
    bool ok;
    const wchar_t* installerArgs;
};

TEST(LauncherLine, HandsToTheInstallerWhatStandsBehindV) {
    const Case cases[] = {
        {LR"( /s /v"/qn /L*v "C:\Temp\rlmsi.log"" /w)", true, LR"(/qn /L*v "C:\Temp\rlmsi.log")"},
        {LR"(/s /v"/qn /L*v "C:\My Temp\a b\rlmsi.log"" /w)", true,
         LR"(/qn /L*v "C:\My Temp\a b\rlmsi.log")"},
        {LR"(/s /v"/qb- REBOOT=R RLREBOOTPROMPT=Y /L*v "C:\t\rlmsi.log"")", true,
         LR"(/qb- REBOOT=R RLREBOOTPROMPT=Y /L*v "C:\t\rlmsi.log")"},
        {LR"(/s /v"/qn REBOOT=R")", true, LR"(/qn REBOOT=R)"},
        {LR"(/s /v"/qn INSTALLDIR="C:\Ravlin Tools\" X=1" /w)", true,
         LR"(/qn INSTALLDIR="C:\Ravlin Tools\" X=1)"},
        {LR"(/v"/L*v \"C:\a b\log.txt\" /qn" /w)", true, LR"(/L*v "C:\a b\log.txt" /qn)"},
        {LR"(/v"/qn " /w)", true, LR"(/qn )"},
        {LR"(/v/qn /w)", true, L"/qn"},
        {LR"(/v"")", true, L""},
        {LR"( /w)", true, L""},
        {L"", true, L""},
        {LR"(/v"/qn)", false, nullptr},
        {LR"(/v"/qn /L*v "C:\t" /w)", false, nullptr},
        {LR"(/s /v"/qn A=1" /L "C:\a b\rlmsi.log" /w)", true, L"/qn A=1"},
        {LR"(/L 1033 /s)", true, L""},
        {LR"(/L 1033)", true, L""},
        {LR"(/L)", false, nullptr},
        {LR"(/L  )", false, nullptr},
        {LR"(/L"1033")", false, nullptr},
        {LR"(/L "1033)", false, nullptr},
        {LR"(/L "1033"/s)", false, nullptr},
        {LR"(/v"/qn"/w)", false, nullptr},
        {L"/", false, nullptr},
        {L"x", false, nullptr},
    };
    for (const Case& c : cases) {
        std::vector<wchar_t> args(wcslen(c.line) + 1); // no more than what is promised
        const bool ok = LauncherLine_Parse(c.line, args.data());
        EXPECT_EQ(ok, c.ok) << testing::PrintToString(c.line);
        if (ok && c.ok) {
            EXPECT_STREQ(args.data(), c.installerArgs) << testing::PrintToString(c.line);
        }
    }
}

TEST(LauncherLine, FindsTheEndOfTheProgramsName) {
    EXPECT_EQ(LauncherLine_SkipProgram(LR"("C:\a b\setup.exe" /s)"), L" /s");
    EXPECT_EQ(LauncherLine_SkipProgram(LR"(setup.exe /s)"), L" /s");
    EXPECT_EQ(LauncherLine_SkipProgram(LR"("C:\a b\setup.exe")"), L"");
    EXPECT_EQ(LauncherLine_SkipProgram(LR"("C:\a b)"), L"");
    EXPECT_EQ(LauncherLine_SkipProgram(L"setup.exe"), L"");
    EXPECT_EQ(LauncherLine_SkipProgram(L""), L"");
}

} // namespace
