#include "systemShutdown.h"

#include "misc/hostinfo.h"

#include <algorithm>
#include <cctype>
#include <string>

namespace {

// Releases that carry the request out for the session on the screen. The others have a call of their own,
// which also works with nobody logged on.
bool ExitsThroughSession(const SystemShutdownCalls& calls, uint32_t family) {
    return family == HOSTINFO_FAMILY_2000 || (family == HOSTINFO_FAMILY_XP && calls.servicePackMajor() == 0u);
}

} // namespace

uint32_t SystemShutdownWith(const SystemShutdownCalls& calls, bool reboot) {
    uint32_t family = calls.family();
    bool isNt = family >= HOSTINFO_FAMILY_NT4;
    if (isNt) {
        calls.enablePrivilege();
    }
    uint32_t flags = SYSTEM_EXIT_REBOOT;
    if (!reboot) {
        flags = calls.isAcpi() ? SYSTEM_EXIT_POWER_OFF : SYSTEM_EXIT_SHUTDOWN;
    }
    if (!isNt) {
        return calls.exitWindows(flags);
    }
    if (ExitsThroughSession(calls, family)) {
        // Nobody can answer a program that will not close behind the log-on screen.
        return calls.exitWindows(calls.isLoginScreenActive() ? flags | SYSTEM_EXIT_FORCE : flags);
    }
    uint32_t error = calls.initiateShutdown(false, reboot);
    if (error != 0) {
        error = calls.initiateShutdown(true, reboot);
    }
    return error == SYSTEM_ERROR_NOT_READY ? calls.exitWindows(flags) : error;
}

bool SystemIsAcpiDescription(std::string_view description) {
    std::string lower(description);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char each) { return static_cast<char>(std::tolower(each)); });
    return lower.find("acpi") != std::string::npos;
}
