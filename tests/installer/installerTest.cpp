// Run arguments, templates, reboot suppression, command lines and exit codes.
#include "upgrader/installer.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>

namespace {

using namespace std::string_literals;

constexpr bool LAUNCHER = true;
constexpr bool BARE = false;

// "none", "bad", "silent X" or "given [REST]".
std::string Scan(std::string_view text, uint64_t length) {
    UpgraderRunScan scan = UpgraderScanRunArguments(text, length);
    switch (scan.request) {
    case UpgraderRunRequest::None:
        return "none";
    case UpgraderRunRequest::BadInput:
        return "bad";
    case UpgraderRunRequest::Silent:
        return std::string("silent ") + scan.letter;
    case UpgraderRunRequest::AsGiven:
        return "given [" + std::string(scan.rest) + "]";
    }
    return "?";
}

TEST(InstallerScan, TheFirstOptionDecides) {
    struct {
        std::string text;
        const char* found;
        std::optional<uint64_t> length = std::nullopt; // as the host says, if not the true one
    } const cases[] = {
        {" -s", "silent s"},
        {"  -quiet", "silent q"},
        {"-s -q", "silent s"},
        {"\t\n\v\f\r -x", "silent x"},
        {" -a -q", "none"},
        {" -S", "none"},
        // What -p hands on keeps its leading blank.
        {" -p /s /v\"/qn\"", "given [ /s /v\"/qn\"]"},
        {"-p\t-q", "given [\t-q]"},
        {"-p ", "given [ ]"},
        {"-p", "none"},
        {"-px y", "none"},
        // In front of an option only white space may stand.
        {"abc -s", "bad"},
        {"--s", "bad"},
        {"- s", "bad"},
        {"-1", "bad"},
        {"/q", "bad"},
        {"\xC3\xA4-q", "bad"},
        {"-\xE9", "bad"},
        // One character is no option, nor worth a complaint.
        {"", "none"},
        {"    ", "none"},
        {"-", "none"},
        {"  a", "none"},
        // The text ends at its first NUL.
        {"  \0-s"s, "none"},
        {"-s\0"s, "silent s"},
        {"-\0s"s, "bad"},
        {"-p a\0b"s, "given [ a]"},
        {"-p\0 a"s, "none"},
        {"-s", "none", 1},
        {"-s", "none", 0},
        {"-s", "silent s", 1000},
        {"", "none", UINT64_MAX},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Scan(c.text, c.length.value_or(c.text.size())), c.found) << c.text;
    }
}

UpgraderInstallerCommand Plan(bool launcher, std::optional<std::string> runArguments,
                              std::optional<std::string> setupArguments = std::nullopt) {
    UpgraderInstallerRequest request;
    request.installerPath = "C:\\Temp\\0a\\setup.exe";
    request.launcher = launcher;
    request.logDirectory = "C:\\Temp\\0a";
    request.runArgumentsLength = runArguments ? runArguments->size() : 0;
    request.runArguments = std::move(runArguments);
    request.setupArguments = std::move(setupArguments);
    return UpgraderPlanInstaller(request);
}

TEST(InstallerCommandLine, OfEveryLetterAndKindOfInstaller) {
    const std::string log = "\"C:\\Temp\\0a\\rlmsi.log\"";
    struct {
        bool launcher;
        std::optional<std::string> run, setup;
        std::string arguments; // of the installer's command line, behind its name and a blank
    } const cases[] = {
        {LAUNCHER, " -s", {}, "/s /v\"/qb- REBOOT=R RLREBOOTPROMPT=Y /L*v " + log + "\" /w"},
        {BARE, " -s", {}, "/s /v\"/qb- REBOOT=R RLREBOOTPROMPT=Y\" /L " + log},
        {LAUNCHER, " -q", {}, "/s /v\"/qn /L*v " + log + "\" /w"},
        {BARE, " -q", {}, "/s /v\"/qn\" /L " + log},
        {LAUNCHER, " -x", {}, "/s /v\"/qn UPGRADE_AT_SHUTDOWN=1\" /L " + log + " /w"},
        {BARE, " -x", {}, "/s /v\"/qn UPGRADE_AT_SHUTDOWN=1\" /L " + log},
        {LAUNCHER, " -z", {}, "/w"},
        {BARE, " -z", {}, ""},
        {LAUNCHER, {}, {}, "/w"},
        {LAUNCHER, "abc -s", {}, "/w"},
        {LAUNCHER, " -p  /s %s", {}, "  /s %s /w"},
        // Our own option beats the host's, even with an empty text.
        {LAUNCHER, " -x", "/a \"b\"", "/a \"b\" /w"},
        {LAUNCHER, " -q", "", " /w"},
        {BARE, " -q", "", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Plan(c.launcher, c.run, c.setup).commandLine, "\"C:\\Temp\\0a\\setup.exe\" " + c.arguments);
    }
    EXPECT_TRUE(Plan(BARE, "abc -s").badInput);
    EXPECT_FALSE(Plan(BARE, "abc -s", "/a").badInput) << "not even looked at";
}

TEST(InstallerReboot, TheParameterNeedsABlankOrQuoteInFront) {
    using enum UpgraderRebootParameter;
    struct {
        const char* arguments;
        UpgraderRebootParameter found;
    } const cases[] = {
        {"/s /v\"/qn REBOOT=R\"", Detected},
        {"/v\"REBOOT=ReallySuppress\"", Detected},
        {"REBOOT=R REBOOT=R", AtStart},
        {"NOREBOOT=R REBOOT=R", Absent},
        {"/qn\tREBOOT=R", Absent},
        {"/qn REBOOT=F", Absent},
        {"/qn reboot=r", Absent},
        {"", Absent},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(UpgraderFindRebootParameter(c.arguments), c.found) << c.arguments;
    }
}

TEST(InstallerReboot, SuppressionIsLookedForExceptInTheTemplateThatLeavesTheQuestionToUs) {
    using enum UpgraderRebootParameter;
    struct {
        std::optional<std::string> run, setup;
        bool suppressed;
        std::optional<UpgraderRebootParameter> parameter;
    } const cases[] = {
        {" -s", {}, false, std::nullopt},
        {" -q", {}, false, Absent},
        {" -x", {}, true, Absent},
        {" -x", "/a", false, Absent},
        {" -p REBOOT=R", {}, true, Detected}, // its leading blank counts
        {{}, "/s /v\"/qn REBOOT=R\"", true, Detected},
        {{}, "REBOOT=R", false, AtStart},
        {{}, {}, false, Absent},
    };
    for (const auto& c : cases) {
        UpgraderInstallerCommand command = Plan(LAUNCHER, c.run, c.setup);
        EXPECT_EQ(command.rebootSuppressed, c.suppressed) << command.commandLine;
        EXPECT_EQ(command.rebootParameter, c.parameter) << command.commandLine;
    }
}

TEST(InstallerVerdict, ExitCodes) {
    for (int32_t code : {0, 1641, 3010}) {
        EXPECT_TRUE(UpgraderJudgeInstaller(code, false, false).succeeded) << code;
        EXPECT_EQ(UpgraderJudgeInstaller(code, false, false).askForReboot, code == 3010);
        EXPECT_FALSE(UpgraderJudgeInstaller(code, true, false).askForReboot);
        EXPECT_FALSE(UpgraderJudgeInstaller(code, false, true).askForReboot);
    }
    for (int32_t code : {-1, 1, 259, 1603, 1640, 1642, 3009, 3011, INT32_MIN}) {
        EXPECT_FALSE(UpgraderJudgeInstaller(code, false, false).succeeded) << code;
        EXPECT_FALSE(UpgraderJudgeInstaller(code, false, false).askForReboot) << code;
    }
}

} // namespace
