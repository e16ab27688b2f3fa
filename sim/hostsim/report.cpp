#include "sim/hostsim/report.h"

#include "string/str.h"

#include <algorithm>

namespace {

constexpr double KIB = 1024;
constexpr double MIB = 1024.0 * 1024.0;
constexpr size_t SHOWN_FINDINGS = 12;
constexpr size_t SHOWN_ERRORS = 6;

Report_Exit ExitOf(Host_ProblemKind kind) {
    switch (kind) {
    case Host_ProblemKind::Script:
        return Report_Exit::Script;
    case Host_ProblemKind::Message:
        return Report_Exit::Deviation;
    case Host_ProblemKind::Copy:
        return Report_Exit::Copy;
    case Host_ProblemKind::Notice:
        break;
    }
    return Report_Exit::EndNotice;
}

// How an exit code is read: small numbers are the program's own, large ones the system's.
std::string ExitText(uint32_t code) {
    return Str_Format(code < 0x10000 ? "%u" : "0x%08x", static_cast<unsigned>(code));
}

double Rate(uint64_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / seconds : 0;
}

// The unit in which an amount is read with ease.
struct Unit {
    const char* name;
    double bytes;
};
Unit UnitFor(double bytes) {
    return bytes < MIB ? Unit{"KiB", KIB} : Unit{"MiB", MIB};
}
std::string Amount(double bytes) {
    Unit unit = UnitFor(bytes);
    return Str_Format("%.1f %s", bytes / unit.bytes, unit.name);
}

// A phase that was entered, with the start of the one that followed it.
struct Phase {
    Host_Phase phase;
    double seconds;
    uint64_t calls;
};

std::vector<Phase> Phases(const Report& report, const Hypervisor& hypervisor) {
    std::vector<Phase> phases;
    for (size_t i = 0; i < HOST_PHASES - 1; ++i) {
        if (!report.phases[i]) {
            continue;
        }
        Report_PhaseStart next{report.seconds, hypervisor.counts.calls};
        for (size_t later = i + 1; later < HOST_PHASES; ++later) {
            if (report.phases[later]) {
                next = *report.phases[later];
                break;
            }
        }
        phases.push_back({static_cast<Host_Phase>(i), next.time - report.phases[i]->time,
                          next.calls - report.phases[i]->calls});
    }
    return phases;
}

std::string PhaseLine(const Phase& phase, const Host& host) {
    std::string line = Str_Format("  %-9s %8.3f s", Host_PhaseName(phase.phase), phase.seconds);
    bool copy = phase.phase == Host_Phase::Copying;
    if (copy || phase.phase == Host_Phase::Verifying) {
        uint64_t bytes = copy ? host.copiedBytes : host.verifiedBytes;
        uint64_t packets = copy ? host.copyPackets : host.verifyPackets;
        line += "   " + Amount(static_cast<double>(bytes)) + " at " + Amount(Rate(bytes, phase.seconds)) +
                Str_Format("/s, %u packets", static_cast<unsigned>(packets));
        if (packets > 0) {
            line += Str_Format(", %.2f traps each",
                               static_cast<double>(phase.calls) / static_cast<double>(packets));
        }
    }
    return line + '\n';
}

std::string GuestLine(const Report& report) {
    if (!report.guestExit) {
        return "guest      had to be ended\n";
    }
    return "guest      exit code " + ExitText(*report.guestExit) +
           (report.completion ? ", completion signalled\n" : ", completion not signalled\n");
}

std::string LeftLine(const Report& report, const Host& host) {
    if (host.root.empty()) {
        return "directory  none was announced\n";
    }
    return "directory  " + host.root +
           Str_Format(": %u files, %s left, image %s\n", static_cast<unsigned>(report.filesLeft),
                      Amount(static_cast<double>(report.bytesLeft)).c_str(),
                      report.imageLeft ? "left" : "gone");
}

std::string PortLine(const Hypervisor& hypervisor) {
    const Hypervisor_Counts& counts = hypervisor.counts;
    std::string line = Str_Format("port       %" DIAG_I64 "u calls (%" DIAG_I64 "u bulk)", counts.calls,
                                  counts.bulkIns + counts.bulkOuts);
    if (counts.faults > 0) {
        line += Str_Format(", %" DIAG_I64 "u answered with a fault", counts.faults);
    }
    return line + Str_Format(", %" DIAG_I64 "u deviations\n", hypervisor.deviationCount);
}

} // namespace

std::vector<Report_Finding> Report_Findings(const Report& report, const Host& host,
                                            const Hypervisor& hypervisor) {
    std::vector<Report_Finding> findings;
    auto find = [&findings](bool found, Report_Exit exit, const std::string& text) {
        if (found) {
            findings.push_back({exit, text});
        }
    };
    find(report.interrupted, Report_Exit::Interrupted, "interrupted");
    find(!report.crash.empty(), Report_Exit::Crashed, "the guest crashed: " + report.crash);
    find(report.timedOut, Report_Exit::TimedOut, "the guest ran out of time" + report.stuck);
    for (const std::string& deviation : hypervisor.deviations) {
        find(true, Report_Exit::Deviation, deviation);
    }
    auto leftOpen = static_cast<unsigned>(Hypervisor_OpenChannels(hypervisor));
    find(report.guestExit && leftOpen != 0, Report_Exit::Deviation,
         Str_Format("%u channels were left open", leftOpen));
    for (const Host_Problem& problem : host.problems) {
        find(true, ExitOf(problem.kind), problem.text);
    }
    find(report.guestExit && *report.guestExit != report.expectedExit, Report_Exit::GuestExit,
         "exit code " + ExitText(report.guestExit.value_or(0)) + " instead of " +
             ExitText(report.expectedExit));
    find(report.imageLeft, Report_Exit::ImageLeft, "the image was left in the guest");
    find(report.guestExit && report.crash.empty() && !report.completion, Report_Exit::NoCompletion,
         "completion was not signalled");
    return findings;
}

Report_Exit Report_Verdict(const std::vector<Report_Finding>& findings) {
    return findings.empty() ? Report_Exit::AsExpected : findings.front().exit;
}

std::string Report_Summary(const Report& report, const Host& host, const Hypervisor& hypervisor) {
    std::string text = Str_Format("\nphases     %.3f s in all\n", report.seconds);
    for (const Phase& phase : Phases(report, hypervisor)) {
        text += PhaseLine(phase, host);
    }
    text += PortLine(hypervisor);
    text += std::string("end notice ") +
            (host.endSent ? "\"toolinstall.end 0\" was sent\n" : "\"toolinstall.end 0\" was not sent\n");
    text += GuestLine(report);
    text += LeftLine(report, host);
    for (const std::string& name : report.processesLeft) {
        text += "process    " + name + ", started by the guest, was still running and has been ended\n";
    }
    if (!report.exception.empty() && report.crash.empty()) {
        text += "exception  " + report.exception + '\n';
    }
    size_t hidden = report.guestErrors.size() - std::min(report.guestErrors.size(), SHOWN_ERRORS);
    for (size_t i = hidden; i < report.guestErrors.size(); ++i) {
        text += "stderr     " + report.guestErrors[i] + '\n';
    }
    std::vector<Report_Finding> findings = Report_Findings(report, host, hypervisor);
    for (size_t i = 0; i < findings.size() && i < SHOWN_FINDINGS; ++i) {
        text += "problem    " + findings[i].text + '\n';
    }
    if (findings.size() > SHOWN_FINDINGS) {
        text +=
            Str_Format("problem    and %u more\n", static_cast<unsigned>(findings.size() - SHOWN_FINDINGS));
    }
    int verdict = static_cast<int>(Report_Verdict(findings));
    return text +
           (verdict == 0 ? "RESULT     as expected\n" : Str_Format("RESULT     failed (%d)\n", verdict));
}

std::string Report_Progress(const char* what, uint64_t done, uint64_t total, double seconds) {
    double rate = Rate(done, seconds);
    Unit unit = UnitFor(static_cast<double>(total));
    std::string line =
        Str_Format("%-7s %6.1f of %.1f %s  %3u %%  %s/s", what, static_cast<double>(done) / unit.bytes,
                   static_cast<double>(total) / unit.bytes, unit.name,
                   static_cast<unsigned>(total == 0 ? 100 : done * 100 / total), Amount(rate).c_str());
    if (rate > 0 && done < total) {
        line += Str_Format("  %.0f s left", static_cast<double>(total - done) / rate);
    }
    return line;
}
