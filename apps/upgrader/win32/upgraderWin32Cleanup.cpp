// Option -c: the program's own directory goes at the next restart.

#include "upgrader/win32/upgraderWin32.h"

#include "file/file.h"
#include "log/log.h"
#include "misc/diag.h"
#include "string/str.h"

#include <string>
#include <vector>

#include <windows.h>

namespace {

void QueueForDeletion(const std::string& path) {
    Debug("Queuing %s for deletion\n", path.c_str());
    File_UnlinkDelayed(path.c_str());
}

} // namespace

// A running program cannot delete itself: everything goes at the next restart, the directory after its files.
void UpgraderRemoveOwnDirectory() {
    DWORD error = 0;
    std::optional<std::string> path = UpgraderOwnPath(&error);
    if (!path) {
        Debug("Error in GetModuleFileName (%d)\n", static_cast<int>(error));
        Log_Level(LOG_ALWAYS, "Nothing will be removed: no path of the program itself, error %u",
                  static_cast<unsigned>(error));
        return;
    }
    std::string directory;
    File_GetPathName(*path, &directory, nullptr);
    Debug("Searching in %s\n", directory.c_str());

    std::vector<std::string> names;
    int count = File_ListDirectory(directory.c_str(), &names);
    error = GetLastError();
    if (count < 0) {
        Debug("Error in File_ListDirectory (%d)\n", static_cast<int>(error));
        Log_Level(LOG_ALWAYS, "Nothing will be removed: the directory cannot be listed, error %u",
                  static_cast<unsigned>(error));
        return;
    }
    Log_Level(LOG_DETAIL, "Removing [%s] at the next restart", directory.c_str());
    for (const std::string& name : names) {
        QueueForDeletion(Str_Format("%s%s%s", directory.c_str(), UPGRADER_SEPARATOR, name.c_str()));
    }
    QueueForDeletion(directory);
}
