// What a run came to: the summary for people and the exit code for scripts.
#pragma once

#include "sim/host.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum class Report_Exit : int {
    AsExpected = 0,
    Usage = 1,
    NotStarted = 2,
    TimedOut = 3,
    Crashed = 4,
    GuestExit = 5,
    Deviation = 6,
    Script = 7,
    Copy = 8,
    EndNotice = 9,
    ImageLeft = 10,
    NoCompletion = 11,
    Interrupted = 12,
};

// Seconds on the run's own clock, and port calls, when a phase was entered.
struct Report_PhaseStart {
    double time = 0;
    uint64_t calls = 0;
};

struct Report {
    // How it ended.
    std::optional<uint32_t> guestExit; // none when the guest had to be ended
    uint32_t expectedExit = 0;
    std::string crash;     // "exception 0xc0000005 ... at rlupgrader.exe+0x1234", empty when there was none
    std::string exception; // the last serious exception seen, handled or not
    std::string stuck;     // where a guest was that ran out of time
    bool timedOut = false;
    bool interrupted = false;
    bool completion = false; // the completion event was set
    bool imageLeft = false;
    uint64_t filesLeft = 0; // in the announced directory
    uint64_t bytesLeft = 0;
    std::vector<std::string> processesLeft; // file names of the guest's children that had to be ended

    // What was seen.
    std::array<std::optional<Report_PhaseStart>, HOST_PHASES> phases;
    double seconds = 0;
    std::vector<std::string> guestErrors; // lines of the guest's standard error
};

// Everything that is not as it should be, most serious first.
struct Report_Finding {
    Report_Exit exit;
    std::string text;
};
std::vector<Report_Finding> Report_Findings(const Report& report, const Host& host,
                                            const Hypervisor& hypervisor);

// The exit code of the most serious finding.
Report_Exit Report_Verdict(const std::vector<Report_Finding>& findings);

// One screen of text, lines ended by '\n'.
std::string Report_Summary(const Report& report, const Host& host, const Hypervisor& hypervisor);

// "copy  12.3 of 30.0 MiB  41 %  18.2 MiB/s  1 s left".
std::string Report_Progress(const char* what, uint64_t done, uint64_t total, double seconds);
