#include "installer.h"

#include "string/str.h"

namespace {

struct SilentTemplate {
    char letter;
    bool launcher;
    const char* format; // with the directory of the log
};

constexpr char AT_SHUTDOWN[] = "/s /v\"/qn UPGRADE_AT_SHUTDOWN=1\" /L \"%s\\rlmsi.log\"";
constexpr SilentTemplate SILENT_TEMPLATES[] = {
    {'s', true, "/s /v\"/qb- REBOOT=R RLREBOOTPROMPT=Y /L*v \"%s\\rlmsi.log\"\""},
    {'s', false, "/s /v\"/qb- REBOOT=R RLREBOOTPROMPT=Y\" /L \"%s\\rlmsi.log\""},
    {'q', true, "/s /v\"/qn /L*v \"%s\\rlmsi.log\"\""},
    {'q', false, "/s /v\"/qn\" /L \"%s\\rlmsi.log\""},
    {'x', true, AT_SHUTDOWN},
    {'x', false, AT_SHUTDOWN},
};
constexpr std::string_view SILENT_LETTERS = "sqx";
constexpr char LETTER_AT_SHUTDOWN = 'x';
constexpr char LETTER_OWN_PROMPT = 's'; // its template suppresses the restart and leaves the question to us
constexpr char LETTER_AS_GIVEN = 'p';

// Independent of the locale, unlike the C library's tests.
bool IsSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}
bool IsLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Decides by the option at the beginning of `text`, which is a hyphen and a letter.
UpgraderRunScan ReadOption(std::string_view text) {
    char letter = text[1];
    if (SILENT_LETTERS.find(letter) != std::string_view::npos) {
        return {UpgraderRunRequest::Silent, letter, {}};
    }
    if (letter == LETTER_AS_GIVEN && text.size() > 2 && IsSpace(text[2])) {
        return {UpgraderRunRequest::AsGiven, 0, text.substr(2)};
    }
    return {};
}

std::string BuildCommandLine(const UpgraderInstallerRequest& request,
                             const std::optional<std::string>& arguments) {
    const char* path = request.installerPath.c_str();
    if (!request.launcher) {
        return Str_Format("\"%s\" %s", path, arguments.value_or("").c_str());
    }
    return arguments ? Str_Format("\"%s\" %s %s", path, arguments->c_str(), "/w")
                     : Str_Format("\"%s\" %s", path, "/w");
}

} // namespace

UpgraderRunScan UpgraderScanRunArguments(std::string_view text, uint64_t length) {
    text = text.substr(0, text.find('\0'));
    size_t position = 0;
    while (position < text.size() && IsSpace(text[position])) {
        position++;
    }
    if (position == text.size() || position + 1 >= length) { // an option takes two characters
        return {};
    }
    if (text[position] == '-' && position + 1 < text.size() && IsLetter(text[position + 1])) {
        return ReadOption(text.substr(position));
    }
    return {UpgraderRunRequest::BadInput, 0, {}};
}

std::string UpgraderSilentArguments(char letter, bool launcher, const std::string& logDirectory) {
    for (const SilentTemplate& each : SILENT_TEMPLATES) {
        if (each.letter == letter && each.launcher == launcher) {
            return Str_Format(each.format, logDirectory.c_str());
        }
    }
    return {};
}

UpgraderRebootParameter UpgraderFindRebootParameter(std::string_view arguments) {
    size_t position = arguments.find("REBOOT=R");
    if (position == std::string_view::npos) {
        return UpgraderRebootParameter::Absent;
    }
    if (position == 0) {
        return UpgraderRebootParameter::AtStart;
    }
    char before = arguments[position - 1];
    return before == ' ' || before == '"' ? UpgraderRebootParameter::Detected
                                          : UpgraderRebootParameter::Absent;
}

UpgraderInstallerCommand UpgraderPlanInstaller(const UpgraderInstallerRequest& request) {
    UpgraderInstallerCommand command;
    UpgraderRunScan scan;
    if (request.setupArguments) {
        command.arguments = request.setupArguments;
    } else if (request.runArguments) {
        scan = UpgraderScanRunArguments(*request.runArguments, request.runArgumentsLength);
        command.badInput = scan.request == UpgraderRunRequest::BadInput;
        if (scan.request == UpgraderRunRequest::AsGiven) {
            command.arguments = scan.rest;
        } else if (scan.request == UpgraderRunRequest::Silent) {
            command.arguments = UpgraderSilentArguments(scan.letter, request.launcher, request.logDirectory);
        }
    }
    if (scan.letter != LETTER_OWN_PROMPT) {
        command.rebootParameter = UpgraderFindRebootParameter(command.arguments.value_or(""));
        command.rebootSuppressed =
            command.rebootParameter == UpgraderRebootParameter::Detected || scan.letter == LETTER_AT_SHUTDOWN;
    }
    command.commandLine = BuildCommandLine(request, command.arguments);
    return command;
}

UpgraderInstallerVerdict UpgraderJudgeInstaller(int32_t exitCode, bool shutdown, bool rebootSuppressed) {
    bool succeeded = exitCode == UPGRADER_EXIT_SUCCESS || exitCode == UPGRADER_EXIT_REBOOT_INITIATED ||
                     exitCode == UPGRADER_EXIT_REBOOT_REQUIRED;
    return {succeeded, exitCode == UPGRADER_EXIT_REBOOT_REQUIRED && !shutdown && !rebootSuppressed};
}
