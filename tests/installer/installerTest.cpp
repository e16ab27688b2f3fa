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
std::string Scan(std::string_view text, std::optional<uint64_t> length = std::nullopt) {
    UpgraderRunScan scan = UpgraderScanRunArguments(text, length.value_or(text.size()));
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

TEST(InstallerScan, OptionsByTheirFirstLetter) {
    EXPECT_EQ(Scan(" -s"), "silent s");
    EXPECT_EQ(Scan("  -q"), "silent q");
    EXPECT_EQ(Scan("-x"), "silent x");
    EXPECT_EQ(Scan("-quiet"), "silent q");
    EXPECT_EQ(Scan("-s -q"), "silent s");
    EXPECT_EQ(Scan("\t\n\v\f\r -x"), "silent x");
    EXPECT_EQ(Scan("-a -q"), "none"); // the first option decides
}

TEST(InstallerScan, EveryOtherLetterMeansNoArguments) {
    for (char letter = 'A'; letter <= 'z'; letter++) {
        if (letter == 's' || letter == 'q' || letter == 'x' || (letter > 'Z' && letter < 'a')) {
            continue;
        }
        EXPECT_EQ(Scan(std::string(" -") + letter), "none") << letter;
    }
}

TEST(InstallerScan, GivenArgumentsKeepTheirLeadingBlank) {
    EXPECT_EQ(Scan(" -p /s /v\"/qn\""), "given [ /s /v\"/qn\"]");
    EXPECT_EQ(Scan("-p\t-q"), "given [\t-q]");
    EXPECT_EQ(Scan("-p "), "given [ ]");
    EXPECT_EQ(Scan("-p"), "none");
    EXPECT_EQ(Scan("-px y"), "none");
}

TEST(InstallerScan, AnythingElseInFrontIsBadInput) {
    EXPECT_EQ(Scan("abc -s"), "bad");
    EXPECT_EQ(Scan("--s"), "bad");
    EXPECT_EQ(Scan("- s"), "bad");
    EXPECT_EQ(Scan("-1"), "bad");
    EXPECT_EQ(Scan("/q"), "bad");
    EXPECT_EQ(Scan("\xC3\xA4-q"), "bad");
    EXPECT_EQ(Scan("-\xE9"), "bad");
}

TEST(InstallerScan, NothingToScan) {
    EXPECT_EQ(Scan(""), "none");
    EXPECT_EQ(Scan("    "), "none");
    EXPECT_EQ(Scan("-"), "none"); // one character is no option, nor worth a complaint
    EXPECT_EQ(Scan("  a"), "none");
}

TEST(InstallerScan, TheTextEndsAtItsFirstNul) {
    EXPECT_EQ(Scan("\0-s"s), "none");
    EXPECT_EQ(Scan("  \0-s"s), "none");
    EXPECT_EQ(Scan("-s\0"s), "silent s");
    EXPECT_EQ(Scan("-\0s"s), "bad");
    EXPECT_EQ(Scan("-p a\0b"s), "given [ a]");
    EXPECT_EQ(Scan("-p\0 a"s), "none");
}

TEST(InstallerScan, LengthIsTheHosts) {
    EXPECT_EQ(Scan("-s", 1), "none");
    EXPECT_EQ(Scan("-s", 0), "none");
    EXPECT_EQ(Scan("-s", 1000), "silent s");
    EXPECT_EQ(Scan("", UINT64_MAX), "none");
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

// Each letter and each kind of installer.
TEST(InstallerCommandLine, Templates) {
    const std::string exe = "\"C:\\Temp\\0a\\setup.exe\" ";
    const std::string log = "\"C:\\Temp\\0a\\rlmsi.log\"";
    EXPECT_EQ(Plan(LAUNCHER, " -s").commandLine,
              exe + "/s /v\"/qb- REBOOT=R RLREBOOTPROMPT=Y /L*v " + log + "\" /w");
    EXPECT_EQ(Plan(BARE, " -s").commandLine, exe + "/s /v\"/qb- REBOOT=R RLREBOOTPROMPT=Y\" /L " + log);
    EXPECT_EQ(Plan(LAUNCHER, " -q").commandLine, exe + "/s /v\"/qn /L*v " + log + "\" /w");
    EXPECT_EQ(Plan(BARE, " -q").commandLine, exe + "/s /v\"/qn\" /L " + log);
    EXPECT_EQ(Plan(LAUNCHER, " -x").commandLine,
              exe + "/s /v\"/qn UPGRADE_AT_SHUTDOWN=1\" /L " + log + " /w");
    EXPECT_EQ(Plan(BARE, " -x").commandLine, exe + "/s /v\"/qn UPGRADE_AT_SHUTDOWN=1\" /L " + log);
}

TEST(InstallerCommandLine, WithoutArguments) {
    for (const char* text : {"", " ", " -z", " -p"}) {
        EXPECT_EQ(Plan(LAUNCHER, text).commandLine, "\"C:\\Temp\\0a\\setup.exe\" /w") << text;
        EXPECT_EQ(Plan(BARE, text).commandLine, "\"C:\\Temp\\0a\\setup.exe\" ") << text;
        EXPECT_FALSE(Plan(BARE, text).arguments);
        EXPECT_FALSE(Plan(BARE, text).badInput);
    }
    EXPECT_EQ(Plan(LAUNCHER, std::nullopt).commandLine, "\"C:\\Temp\\0a\\setup.exe\" /w");
    UpgraderInstallerCommand bad = Plan(BARE, "abc -s");
    EXPECT_TRUE(bad.badInput);
    EXPECT_FALSE(bad.arguments);
    EXPECT_EQ(bad.commandLine, "\"C:\\Temp\\0a\\setup.exe\" ");
}

TEST(InstallerCommandLine, OwnOptionBeatsTheHosts) {
    EXPECT_EQ(Plan(LAUNCHER, " -x", "/a \"b\"").commandLine, "\"C:\\Temp\\0a\\setup.exe\" /a \"b\" /w");
    EXPECT_FALSE(Plan(LAUNCHER, " -x", "/a").rebootSuppressed);
    EXPECT_FALSE(Plan(BARE, "abc", "/a").badInput); // not even looked at
    // An empty text is given all the same.
    EXPECT_EQ(Plan(LAUNCHER, " -q", "").commandLine, "\"C:\\Temp\\0a\\setup.exe\"  /w");
    EXPECT_EQ(Plan(BARE, " -q", "").commandLine, "\"C:\\Temp\\0a\\setup.exe\" ");
}

TEST(InstallerCommandLine, HostsArgumentsAsTheyStand) {
    EXPECT_EQ(Plan(LAUNCHER, " -p  /s %s").commandLine, "\"C:\\Temp\\0a\\setup.exe\"   /s %s /w");
    EXPECT_EQ(Plan(BARE, " -p /s").arguments, " /s");
}

TEST(InstallerReboot, ParameterNeedsABlankOrQuoteInFront) {
    EXPECT_EQ(UpgraderFindRebootParameter("/s /v\"/qn REBOOT=R\""), UpgraderRebootParameter::Detected);
    EXPECT_EQ(UpgraderFindRebootParameter("/v\"REBOOT=ReallySuppress\""), UpgraderRebootParameter::Detected);
    EXPECT_EQ(UpgraderFindRebootParameter("REBOOT=R"), UpgraderRebootParameter::AtStart);
    EXPECT_EQ(UpgraderFindRebootParameter("REBOOT=R REBOOT=R"), UpgraderRebootParameter::AtStart);
    EXPECT_EQ(UpgraderFindRebootParameter("NOREBOOT=R"), UpgraderRebootParameter::Absent);
    EXPECT_EQ(UpgraderFindRebootParameter("NOREBOOT=R REBOOT=R"), UpgraderRebootParameter::Absent);
    EXPECT_EQ(UpgraderFindRebootParameter("/qn\tREBOOT=R"), UpgraderRebootParameter::Absent);
    EXPECT_EQ(UpgraderFindRebootParameter("/qn REBOOT=F"), UpgraderRebootParameter::Absent);
    EXPECT_EQ(UpgraderFindRebootParameter("/qn reboot=r"), UpgraderRebootParameter::Absent);
    EXPECT_EQ(UpgraderFindRebootParameter(""), UpgraderRebootParameter::Absent);
}

TEST(InstallerReboot, Suppression) {
    // With -s the template's own suppression is not looked for: we ask ourselves.
    EXPECT_FALSE(Plan(LAUNCHER, " -s").rebootSuppressed);
    EXPECT_FALSE(Plan(LAUNCHER, " -s").rebootParameter);
    EXPECT_FALSE(Plan(LAUNCHER, " -q").rebootSuppressed);
    EXPECT_EQ(Plan(LAUNCHER, " -q").rebootParameter, UpgraderRebootParameter::Absent);
    EXPECT_TRUE(Plan(LAUNCHER, " -x").rebootSuppressed);
    EXPECT_EQ(Plan(LAUNCHER, " -x").rebootParameter, UpgraderRebootParameter::Absent);
    EXPECT_TRUE(Plan(LAUNCHER, " -p /v\"/qn REBOOT=R\"").rebootSuppressed);
    EXPECT_TRUE(Plan(BARE, " -p REBOOT=R").rebootSuppressed); // its leading blank counts
    EXPECT_TRUE(Plan(BARE, std::nullopt, "/s /v\"/qn REBOOT=R\"").rebootSuppressed);
    EXPECT_FALSE(Plan(BARE, std::nullopt, "REBOOT=R").rebootSuppressed);
    EXPECT_EQ(Plan(BARE, std::nullopt, "REBOOT=R").rebootParameter, UpgraderRebootParameter::AtStart);
    EXPECT_EQ(Plan(BARE, std::nullopt).rebootParameter, UpgraderRebootParameter::Absent);
}

TEST(InstallerVerdict, ExitCodes) {
    for (int32_t code : {0, 1641, 3010}) {
        EXPECT_TRUE(UpgraderJudgeInstaller(code, false, false).succeeded) << code;
        EXPECT_EQ(UpgraderJudgeInstaller(code, false, false).askForReboot, code == 3010);
        EXPECT_FALSE(UpgraderJudgeInstaller(code, true, false).askForReboot);
        EXPECT_FALSE(UpgraderJudgeInstaller(code, false, true).askForReboot);
    }
    for (int32_t code : {-1, 1, 2, 259, 1602, 1603, 1604, 1640, 1642, 3009, 3011, INT32_MIN, INT32_MAX}) {
        EXPECT_FALSE(UpgraderJudgeInstaller(code, false, false).succeeded) << code;
        EXPECT_FALSE(UpgraderJudgeInstaller(code, false, false).askForReboot) << code;
    }
}

} // namespace
