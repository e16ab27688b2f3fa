// Text of the usage box, apart from the box itself.
#pragma once

#include <string>

// The translatable pieces; what a resource does not give stays English.
struct UsageTexts {
    std::string heading = "Options:\n";
    std::string passArguments = "Pass <args> to the installer. Include the double quotes.\n";
    std::string deleteFiles = "Delete rlupgrader-related files when finished\n";
    std::string shutDown = "Shutdown the guest when finished\n";
    std::string help = "Display usage\n";
    std::string usage = "Usage";
    std::string options = "options";
};

// Fits in 1024 bytes with its terminator; a longer text is cut at a character's end.
std::string UsageText_Format(const UsageTexts& texts, const std::string& programName);
