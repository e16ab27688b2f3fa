// Starting the installer and what follows its end, on Windows.
#pragma once

#include "upgrader/upgrader.h"

#include <optional>
#include <string>
#include <windows.h>

// Command line for the installer at `installerPath`; none when it cannot be built. Logs how it came about and
// sets data->rebootSuppressed.
std::optional<std::string> UpgraderGetInstallerCmdLine(UpgraderData* data, const std::string& installerPath);

// The way to the person at the console for a program that runs in a session of its own, as services do.
// Either member is null where the system has no such call.
struct UpgraderConsoleSession {
    DWORD(WINAPI* activeSession)() = nullptr;
    BOOL(WINAPI* sendMessage)
    (HANDLE server, DWORD session, wchar_t* title, DWORD titleBytes, wchar_t* message, DWORD messageBytes,
     DWORD style, DWORD seconds, DWORD* answer, BOOL wait) = nullptr;
};

// Asks whoever sits at the guest whether to reboot now; true for yes. The question goes to the console
// session, or to our own desktop if there is no way there. Nobody's answer within 30 seconds is a yes, a
// question that could not be shown is a no; the installer log tells which.
bool UpgraderAskForReboot();
bool UpgraderAskForRebootOn(const UpgraderConsoleSession& console);
