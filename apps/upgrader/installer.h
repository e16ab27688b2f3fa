// How the extracted installer is started and how its exit code is judged: pure decisions, no system calls.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

inline constexpr char UPGRADER_MSI_LOG_NAME[] = "rlmsi.log"; // the Windows Installer's own log

// A launcher is an installer that hands what stands in /v"..." on to the Windows Installer, and with "/w"
// waits for it. It is known by the beginning of its file description.
inline constexpr char UPGRADER_LAUNCHER_DESCRIPTION[] = "Setup Launcher";

// What the text of "upgrader.run" asks for.
enum class UpgraderRunRequest {
    None,     // nothing that concerns the installer
    BadInput, // text in front of the option; worth a line in the log
    AsGiven,  // -p: the rest of the text
    Silent,   // -s, -q or -x: arguments of ours
};
struct UpgraderRunScan {
    UpgraderRunRequest request = UpgraderRunRequest::None;
    char letter = 0;       // Silent: 's', 'q' or 'x'
    std::string_view rest; // AsGiven: with its leading blank; part of the scanned text
};
// The first hyphen with a letter behind it decides, by that letter alone ("-quiet" is "-q"). Only white space
// may stand before it. The text ends at its first NUL; `length` is its length as the host sent it.
UpgraderRunScan UpgraderScanRunArguments(std::string_view text, uint64_t length);

// Arguments for 's' (progress bar, asks nothing), 'q' (nothing on the screen) or 'x' (as 'q', and the upgrade
// itself happens at the next shutdown). `logDirectory` has no trailing separator.
std::string UpgraderSilentArguments(char letter, bool launcher, const std::string& logDirectory);

// Looks for "REBOOT=R", the beginning of the property that keeps the Windows Installer from restarting,
// behind a blank or a double quote. Only the first occurrence counts.
enum class UpgraderRebootParameter { Absent, Detected, AtStart };
UpgraderRebootParameter UpgraderFindRebootParameter(std::string_view arguments);

struct UpgraderInstallerRequest {
    std::string installerPath;
    bool launcher = false;
    std::string logDirectory;                  // without a trailing separator
    std::optional<std::string> setupArguments; // -p of our own command line; counts even if empty
    std::optional<std::string> runArguments;   // text of "upgrader.run"; not looked at if -p was given
    uint64_t runArgumentsLength = 0;
};
struct UpgraderInstallerCommand {
    std::optional<std::string> arguments;
    bool badInput = false;                                  // the run arguments were not understood
    std::optional<UpgraderRebootParameter> rebootParameter; // none when not looked for
    bool rebootSuppressed = false; // the installer will not restart, and nobody is to be asked for a restart
    std::string commandLine;
};
UpgraderInstallerCommand UpgraderPlanInstaller(const UpgraderInstallerRequest& request);

// Exit codes of the Windows Installer that count as success.
inline constexpr int32_t UPGRADER_EXIT_SUCCESS = 0;
inline constexpr int32_t UPGRADER_EXIT_REBOOT_INITIATED = 1641;
inline constexpr int32_t UPGRADER_EXIT_REBOOT_REQUIRED = 3010;

struct UpgraderInstallerVerdict {
    bool succeeded;
    bool askForReboot;
};
UpgraderInstallerVerdict UpgraderJudgeInstaller(int32_t exitCode, bool shutdown, bool rebootSuppressed);
