// What the Windows units of the program share.
#pragma once

#include "upgrader/upgrader.h"

#include <optional>
#include <string>
#include <windows.h>

// Full path of the program's own file in UTF-8; none on failure, with the Windows error, never 0, in *error.
std::optional<std::string> UpgraderOwnPath(DWORD* error);

// Command line for the installer at `installerPath`; none when it cannot be built. Logs how it came about and
// sets data->rebootSuppressed.
std::optional<std::string> UpgraderGetInstallerCmdLine(UpgraderData* data, const std::string& installerPath);
