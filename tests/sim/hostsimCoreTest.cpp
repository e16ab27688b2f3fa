// Command line, script and verdict of hostsim.

#include "sim/hostsim/options.h"
#include "sim/hostsim/report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

struct Parsed {
    bool good = false;
    Options options;
    std::string error;
    std::vector<std::string> steps;
};

Parsed Parse(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "hostsim");
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    Parsed parsed;
    parsed.good =
        Options_Parse(static_cast<int>(arguments.size()), pointers.data(), &parsed.options, &parsed.error);
    std::vector<Host_Step> steps;
    parsed.good = parsed.good && Options_Script(parsed.options, &steps, &parsed.error);
    for (const Host_Step& step : steps) {
        parsed.steps.push_back(Host_DescribeStep(step));
    }
    return parsed;
}

TEST(Options, LeaveTheGuestItsOwn) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--image", "windows.iso", "-r", "-q", "--", "rlupgrader.exe", "-s"},
          std::vector<std::string>{"-i", "windows.iso", "--run-args=-q", "rlupgrader.exe", "-s"}}) {
        Parsed parsed = Parse(arguments);
        ASSERT_TRUE(parsed.good) << parsed.error;
        EXPECT_EQ(parsed.options.image, "windows.iso");
        EXPECT_EQ(parsed.options.runArguments, "-q");
        EXPECT_THAT(parsed.options.guest, ElementsAre("rlupgrader.exe", "-s"));
    }
}

TEST(Options, ReadFaults) {
    Parsed parsed = Parse({"--fail-call", "12", "--checkpoint-call=3:4", "--low-bandwidth", "--version", "5",
                           "--refuse-channel", "RPCI", "x"});
    ASSERT_TRUE(parsed.good) << parsed.error;
    const Hypervisor_Faults& faults = parsed.options.faults;
    EXPECT_EQ(faults.failCall, 12U);
    EXPECT_EQ(faults.failCount, 1U);
    EXPECT_EQ(faults.checkpointCall, 3U);
    EXPECT_EQ(faults.checkpointCount, 4U);
    EXPECT_TRUE(faults.lowBandwidth);
    EXPECT_EQ(faults.version, 5U);
    EXPECT_EQ(faults.refusedProtocol, HOSTCHANNEL_RPCI);
}

TEST(Options, AreRefusedWhenWrong) {
    const std::vector<std::string> cases[] = {
        {},
        {"--image"},
        {"--image="},
        {"--unknown", "x"},
        {"-z", "x"},
        {"--fail-call", "0", "x"},
        {"--fail-call", "1:", "x"},
        {"--fail-call", "x", "x"},
        {"--cancel", "never", "x"},
        {"--cancel", "before", "--break-at", "after", "x"},
        {"--signal", "hup", "x"},
        {"--file-version", "2", "x"},
        {"--timeout", "0", "x"},
        {"--expect-end", "maybe", "x"},
        {"--refuse-greeting=loudly", "x"},
        {"--do", "jump", "x"},
        {"--do", "end", "--cancel", "after", "x"},
    };
    for (const auto& arguments : cases) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        Parsed parsed = Parse(arguments);
        EXPECT_FALSE(parsed.good);
        EXPECT_THAT(parsed.error, Not(IsEmpty()));
    }
    EXPECT_TRUE(Parse({"--help"}).options.help);
}

struct ScriptCase {
    std::vector<std::string> arguments;
    std::vector<std::string> steps;
    uint32_t exit;
    Host_EndNotice end;
};

TEST(Options, MakeTheScript) {
    const std::string greet = "greeting";
    const std::string caps = "send Capabilities_Register";
    const std::string copy = "copy 100";
    const std::string run = "send upgrader.run";
    const std::string launch = "log Attempting to launch";
    const std::string cancel = "send upgrader.cancel";
    const ScriptCase cases[] = {
        {{"-i", "f", "x"}, {greet, caps, copy, "verify", run, "end"}, 0, Host_EndNotice::None},
        {{"-i", "f", "--no-verify", "-r", "-q", "x"},
         {greet, caps, copy, run + " -q", "end"},
         0,
         Host_EndNotice::None},
        {{"x"}, {greet, caps, run, "end"}, 0, Host_EndNotice::None},
        {{"-i", "f", "--cancel", "before", "x"}, {greet, caps, cancel, "end"}, 0, Host_EndNotice::None},
        {{"-i", "f", "--cancel", "during", "x"},
         {greet, caps, "copy 50", cancel, "end"},
         0,
         Host_EndNotice::None},
        {{"-i", "f", "--cancel", "after", "x"},
         {greet, caps, copy, "verify", cancel, "end"},
         0,
         Host_EndNotice::None},
        {{"-i", "f", "--break-at", "installing", "x"},
         {greet, caps, copy, "verify", run, launch, "signal break", "end"},
         0,
         Host_EndNotice::Sent},
        {{"--break-at", "before", "--signal", "ctrl-c", "--expect-end", "none", "x"},
         {greet, caps, "signal ctrl-c", "end"},
         0,
         Host_EndNotice::None},
        {{"--refuse-greeting", "x"}, {greet, "end"}, 1, Host_EndNotice::None},
        {{"--expect-no-start", "x"}, {}, 1, Host_EndNotice::None},
        {{"--expect-no-start", "--expect-exit", "3", "x"}, {}, 3, Host_EndNotice::None},
        {{"--do", "greeting", "--do", "ping", "--do", "end", "x"},
         {greet, "send ping", "end"},
         0,
         Host_EndNotice::Any},
    };
    for (const ScriptCase& test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.arguments));
        Parsed parsed = Parse(test.arguments);
        ASSERT_TRUE(parsed.good) << parsed.error;
        EXPECT_EQ(parsed.steps, test.steps);
        EXPECT_EQ(Options_ExpectedExit(parsed.options), test.exit);
        EXPECT_EQ(Options_ExpectedEnd(parsed.options), test.end);
    }
}

// A run without a flaw, to be spoilt.
struct ReportTest : testing::Test {
    ReportTest() {
        report.guestExit = 0;
        report.completion = true;
        report.seconds = 4;
        report.phases[0] = Report_PhaseStart{0, 0};
        report.phases[2] = Report_PhaseStart{1, 10};
        report.phases[5] = Report_PhaseStart{3, 110};
        report.phases[7] = Report_PhaseStart{4, 120};
        host.root = "C:\\t\\";
        host.copiedBytes = 2 * 1024 * 1024;
        host.copyPackets = 40;
        hypervisor.counts.calls = 120;
    }

    Report_Exit Verdict() const { return Report_Verdict(Report_Findings(report, host, hypervisor)); }

    Report report;
    Host host;
    Hypervisor hypervisor;
};

TEST_F(ReportTest, SaysWhatWentWell) {
    EXPECT_EQ(Verdict(), Report_Exit::AsExpected);
    std::string summary = Report_Summary(report, host, hypervisor);
    for (const char* text : {"copy         2.000 s   2.0 MiB at 1.0 MiB/s, 40 packets, 2.50 traps each\n",
                             "install      1.000 s\n", "120 calls", "image gone", "exit code 0, completion",
                             "RESULT     as expected\n"}) {
        EXPECT_THAT(summary, HasSubstr(text));
    }
}

struct SpoiltCase {
    Report_Exit exit;
    const char* said;
    void (*spoil)(ReportTest* test);
};

TEST_F(ReportTest, HasACodeForEveryFailure) {
    const SpoiltCase cases[] = {
        {Report_Exit::Interrupted, "interrupted", [](auto* t) { t->report.interrupted = true; }},
        {Report_Exit::Crashed, "crashed: here", [](auto* t) { t->report.crash = "here"; }},
        {Report_Exit::TimedOut, "out of time", [](auto* t) { t->report.timedOut = true; }},
        {Report_Exit::Deviation, "call 1: x", [](auto* t) { t->hypervisor.deviations = {"call 1: x"}; }},
        {Report_Exit::Deviation, "1 channels were left open",
         [](auto* t) { t->hypervisor.channels[3].open = true; }},
        {Report_Exit::Script, "no",
         [](auto* t) {
             t->host.problems = {{Host_ProblemKind::Script, "no"}};
         }},
        {Report_Exit::Copy, "no",
         [](auto* t) {
             t->host.problems = {{Host_ProblemKind::Copy, "no"}};
         }},
        {Report_Exit::EndNotice, "no",
         [](auto* t) {
             t->host.problems = {{Host_ProblemKind::Notice, "no"}};
         }},
        {Report_Exit::Deviation, "no",
         [](auto* t) {
             t->host.problems = {{Host_ProblemKind::Message, "no"}};
         }},
        {Report_Exit::GuestExit, "exit code 0xc0000005 instead of 0",
         [](auto* t) { t->report.guestExit = 0xC0000005; }},
        {Report_Exit::ImageLeft, "image was left", [](auto* t) { t->report.imageLeft = true; }},
        {Report_Exit::NoCompletion, "not signalled", [](auto* t) { t->report.completion = false; }},
    };
    for (const SpoiltCase& test : cases) {
        SCOPED_TRACE(test.said);
        ReportTest_HasACodeForEveryFailure_Test copy;
        test.spoil(&copy);
        EXPECT_EQ(copy.Verdict(), test.exit);
        std::string summary = Report_Summary(copy.report, copy.host, copy.hypervisor);
        EXPECT_THAT(summary, HasSubstr(test.said));
        EXPECT_THAT(summary, HasSubstr("RESULT     failed (" + std::to_string(static_cast<int>(test.exit))));
    }
}

TEST_F(ReportTest, FitsOneScreen) {
    for (int i = 0; i < 100; ++i) {
        report.guestErrors.emplace_back("error");
        hypervisor.deviations.emplace_back("deviation");
    }
    std::string summary = Report_Summary(report, host, hypervisor);
    EXPECT_LE(std::count(summary.begin(), summary.end(), '\n'), 40);
    EXPECT_THAT(summary, HasSubstr("and 88 more"));
}

TEST(Progress, TellsRateAndTimeLeft) {
    constexpr uint64_t MIB = 1024 * 1024;
    EXPECT_EQ(Report_Progress("copy", 10 * MIB, 30 * MIB, 2),
              "copy      10.0 of 30.0 MiB   33 %  5.0 MiB/s  4 s left");
    EXPECT_EQ(Report_Progress("copy", 30 * MIB, 30 * MIB, 2),
              "copy      30.0 of 30.0 MiB  100 %  15.0 MiB/s");
    EXPECT_EQ(Report_Progress("copy", 32 * 1024, 64 * 1024, 8),
              "copy      32.0 of 64.0 KiB   50 %  4.0 KiB/s  8 s left")
        << "as over the slow channel";
    EXPECT_EQ(Report_Progress("verify", 0, 0, 0), "verify     0.0 of 0.0 KiB  100 %  0.0 KiB/s");
    EXPECT_EQ(Report_Progress("copy", 0, 30 * MIB, 0), "copy       0.0 of 30.0 MiB    0 %  0.0 KiB/s");
}

} // namespace
