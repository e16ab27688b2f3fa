// Option -c: the program's own directory goes at the next restart.

#include "upgrader/upgrader.h"

#include "file/file.h"
#include "log/log.h"
#include "misc/diag.h"
#include "string/str.h"
#include "unicode/unicode.h"

#include <string>
#include <vector>

#include <windows.h>

namespace {

constexpr size_t LONGEST_PATH = 32768; // of a path in UTF-16 units, the system's own limit

void QueueForDeletion(const std::string& path) {
    Debug("Queuing %s for deletion\n", path.c_str());
    File_UnlinkDelayed(path.c_str());
}

} // namespace

// A running program cannot delete itself: everything goes at the next restart, the directory after its files.
void UpgraderRemoveOwnDirectory() {
    std::wstring program(LONGEST_PATH, L'\0');
    DWORD length = GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size()));
    DWORD error = GetLastError();
    program.resize(length);
    std::optional<std::string> path = Unicode_FromWide(program);
    if (length == 0 || !path) {
        Debug("Error in GetModuleFileName (%d)\n", static_cast<int>(error));
        return;
    }
    std::string directory;
    File_GetPathName(*path, &directory, nullptr);
    Debug("Searching in %s\n", directory.c_str());
    Log_Level(LOG_DETAIL, "Removing [%s] at the next restart", directory.c_str());

    std::vector<std::string> names;
    int count = File_ListDirectory(directory.c_str(), &names);
    error = GetLastError();
    if (count < 0) {
        Debug("Error in File_ListDirectory (%d)\n", static_cast<int>(error));
        return;
    }
    for (const std::string& name : names) {
        QueueForDeletion(Str_Format("%s%s%s", directory.c_str(), UPGRADER_SEPARATOR, name.c_str()));
    }
    QueueForDeletion(directory);
}
