// The program's own command line and the installer's, out of anything that a person or the host may write.
#include "upgrader/argumentTable.h"
#include "upgrader/installer.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

void Require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// Every argument lies in the line, behind the one before it, and there are no more than fit.
void SplitOwn(const std::string& text) {
    std::vector<char> line(text.c_str(), text.c_str() + std::strlen(text.c_str()) + 1);
    char program[] = "C:\\upgrader\\rlupgrader.exe";
    ArgumentTable table;
    if (!ArgumentTable_Split(line.data(), program, &table)) {
        return;
    }
    Require(table.count >= 1 && table.count <= 1 + ARGUMENT_TABLE_MAX_ARGUMENTS);
    Require(table.arguments[0] == program && table.arguments[static_cast<size_t>(table.count)] == nullptr);
    const char* end = line.data();
    for (int index = 1; index < table.count; index++) {
        const char* argument = table.arguments[static_cast<size_t>(index)];
        Require(argument >= end && argument < line.data() + line.size());
        end = argument + std::strlen(argument);
    }
}

void PlanInstaller(const std::string& text, uint64_t length, bool launcher, bool own) {
    UpgraderInstallerRequest request;
    request.installerPath = "C:\\Temp\\01234567\\setup.exe";
    request.launcher = launcher;
    request.logDirectory = "C:\\Temp\\01234567";
    if (own) {
        request.setupArguments = text;
    } else {
        request.runArguments = text;
        request.runArgumentsLength = length;
    }
    UpgraderInstallerCommand command = UpgraderPlanInstaller(request);
    // Whatever the host writes, the program that is started is the one that was extracted, and a launcher is
    // told to wait.
    Require(command.commandLine.rfind("\"" + request.installerPath + "\" ", 0) == 0);
    Require(!launcher || text.find('\0') != std::string::npos ||
            command.commandLine.compare(command.commandLine.size() - 3, 3, " /w") == 0);
    Require(!command.badInput || !command.arguments);
    Require(!own || command.arguments == text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    uint8_t choice = data[0];
    std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    SplitOwn(text);
    // Mostly the true length; a wrong one must do no harm.
    PlanInstaller(text, (choice & 4) != 0 ? choice : text.size(), (choice & 1) != 0, (choice & 2) != 0);
    return 0;
}
