// Starting the installer and what follows its end, on Windows.
#pragma once

#include "upgrader/upgrader.h"

#include <optional>
#include <string>

// Command line for the installer at `installerPath`; none when it cannot be built. Logs how it came about and
// sets data->rebootSuppressed.
std::optional<std::string> UpgraderGetInstallerCmdLine(UpgraderData* data, const std::string& installerPath);

// Asks whoever sits at the guest whether to reboot now; true for yes. Nobody's answer within 30 seconds is a
// yes, a question that could not be shown is a no.
bool UpgraderAskForReboot();
