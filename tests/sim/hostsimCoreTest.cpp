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

TEST(Options, AreReadUpToTheGuestsOwn) {
    Parsed parsed = Parse({"--image", "windows.iso", "-r", "-q", "--fail-call", "12", "--checkpoint-call=3:4",
                           "--version", "5", "--refuse-channel", "RPCI", "rlupgrader.exe", "-s"});
    ASSERT_TRUE(parsed.good) << parsed.error;
    EXPECT_EQ(parsed.options.image, "windows.iso");
    EXPECT_EQ(parsed.options.runArguments, "-q");
    EXPECT_THAT(parsed.options.guest, ElementsAre("rlupgrader.exe", "-s"));
    const Hypervisor_Faults& faults = parsed.options.faults;
    EXPECT_EQ(faults.failCall, 12U);
    EXPECT_EQ(faults.failCount, 1U);
    EXPECT_EQ(faults.checkpointCall, 3U);
    EXPECT_EQ(faults.checkpointCount, 4U);
    EXPECT_EQ(faults.version, 5U);
    EXPECT_EQ(faults.refusedProtocol, HOSTCHANNEL_RPCI);
}

TEST(Options, AreRefusedWhenWrong) {
    const std::vector<std::string> cases[] = {
        {},
        {"--image"},
        {"--image="},
        {"--unknown", "x"},
        {"--fail-call", "0", "x"},
        {"--fail-call", "1:", "x"},
        {"--cancel", "never", "x"},
        {"--cancel", "before", "--break-at", "after", "x"},
        {"--file-version", "2", "x"},
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

TEST(Options, MakeTheScript) {
    using enum Host_EndNotice;
    const std::string caps = "send Capabilities_Register";
    const std::string run = "send upgrader.run";
    const std::string launch = "log Attempting to launch";
    const std::string cancel = "send upgrader.cancel";
    const struct {
        std::vector<std::string> arguments;
        std::vector<std::string> steps;
        uint32_t exit;
        Host_EndNotice end;
    } cases[] = {
        {{"x"}, {"greeting", caps, run, "end"}, 0, None},
        {{"-i", "f", "x"}, {"greeting", caps, "copy 100", "verify", run, "end"}, 0, None},
        {{"-i", "f", "--no-verify", "-r", "-q", "x"},
         {"greeting", caps, "copy 100", run + " -q", "end"},
         0,
         None},
        {{"-i", "f", "--cancel", "before", "x"}, {"greeting", caps, cancel, "end"}, 0, None},
        {{"-i", "f", "--cancel", "during", "x"}, {"greeting", caps, "copy 50", cancel, "end"}, 0, None},
        {{"-i", "f", "--cancel", "after", "x"},
         {"greeting", caps, "copy 100", "verify", cancel, "end"},
         0,
         None},
        {{"--break-at", "installing", "x"}, {"greeting", caps, run, launch, "signal break", "end"}, 0, Sent},
        {{"--break-at", "before", "--signal", "ctrl-c", "x"},
         {"greeting", caps, "signal ctrl-c", "end"},
         0,
         None},
        {{"--refuse-greeting", "x"}, {"greeting", "end"}, 1, None},
        {{"--expect-no-start", "x"}, {}, 1, None},
        {{"--expect-no-start", "--expect-exit", "3", "x"}, {}, 3, None},
        {{"--do", "greeting", "--do", "end", "x"}, {"greeting", "end"}, 0, Any},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.arguments));
        Parsed parsed = Parse(test.arguments);
        ASSERT_TRUE(parsed.good) << parsed.error;
        EXPECT_EQ(parsed.steps, test.steps);
        EXPECT_EQ(Options_ExpectedExit(parsed.options), test.exit);
        EXPECT_EQ(Options_ExpectedEnd(parsed.options), test.end);
    }
}

// A run without a flaw, to be spoilt.
struct Outcome {
    Outcome() {
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

    Report report;
    Host host;
    Hypervisor hypervisor;
};

TEST(Report, SaysWhatWentWell) {
    Outcome run;
    std::string summary = Report_Summary(run.report, run.host, run.hypervisor);
    for (const char* text : {"copy         2.000 s   2.0 MiB at 1.0 MiB/s, 40 packets, 2.50 traps each\n",
                             "install      1.000 s\n", "120 calls", "image gone", "exit code 0, completion",
                             "RESULT     as expected\n"}) {
        EXPECT_THAT(summary, HasSubstr(text));
    }
}

void AddProblem(Outcome& run, Host_ProblemKind kind) {
    run.host.problems.push_back({kind, "no"});
}

// From the least to the most serious: each counts for more than all before it.
TEST(Report, HasACodeForEveryFailure) {
    const struct {
        Report_Exit exit;
        const char* said;
        void (*spoil)(Outcome& run);
    } cases[] = {
        {Report_Exit::NoCompletion, "not signalled", [](auto& run) { run.report.completion = false; }},
        {Report_Exit::ImageLeft, "image was left", [](auto& run) { run.report.imageLeft = true; }},
        {Report_Exit::GuestExit, "exit code 0xc0000005 instead of 0",
         [](auto& run) { run.report.guestExit = 0xC0000005; }},
        {Report_Exit::EndNotice, "no", [](auto& run) { AddProblem(run, Host_ProblemKind::Notice); }},
        {Report_Exit::Deviation, "1 channels were left open",
         [](auto& run) { run.hypervisor.channels[3].open = true; }},
        {Report_Exit::Deviation, "call 1: x", [](auto& run) { run.hypervisor.deviations = {"call 1: x"}; }},
        {Report_Exit::TimedOut, "out of time", [](auto& run) { run.report.timedOut = true; }},
        {Report_Exit::Crashed, "crashed: here", [](auto& run) { run.report.crash = "here"; }},
        {Report_Exit::Interrupted, "interrupted", [](auto& run) { run.report.interrupted = true; }},
    };
    Outcome run;
    for (const auto& test : cases) {
        SCOPED_TRACE(test.said);
        test.spoil(run);
        std::vector<Report_Finding> findings = Report_Findings(run.report, run.host, run.hypervisor);
        EXPECT_EQ(Report_Verdict(findings), test.exit);
        EXPECT_THAT(findings.front().text, HasSubstr(test.said));
    }
    EXPECT_THAT(Report_Summary(run.report, run.host, run.hypervisor), HasSubstr("RESULT     failed (12)\n"));
}

TEST(Report, TakesTheFirstProblemOfTheHost) {
    const std::pair<Host_ProblemKind, Report_Exit> cases[] = {
        {Host_ProblemKind::Script, Report_Exit::Script},
        {Host_ProblemKind::Message, Report_Exit::Deviation},
        {Host_ProblemKind::Copy, Report_Exit::Copy},
    };
    for (const auto& [kind, exit] : cases) {
        Outcome run;
        AddProblem(run, kind);
        AddProblem(run, Host_ProblemKind::Notice);
        EXPECT_EQ(Report_Verdict(Report_Findings(run.report, run.host, run.hypervisor)), exit);
    }
}

TEST(Report, TellsRateAndTimeLeft) {
    constexpr uint64_t MIB = 1024 * 1024;
    EXPECT_EQ(Report_Progress("copy", 10 * MIB, 30 * MIB, 2),
              "copy      10.0 of 30.0 MiB   33 %  5.0 MiB/s  4 s left");
    EXPECT_EQ(Report_Progress("copy", 32 * 1024, 64 * 1024, 8),
              "copy      32.0 of 64.0 KiB   50 %  4.0 KiB/s  8 s left")
        << "as over the slow channel";
    EXPECT_EQ(Report_Progress("verify", 0, 0, 0), "verify     0.0 of 0.0 KiB  100 %  0.0 KiB/s");
}

} // namespace
