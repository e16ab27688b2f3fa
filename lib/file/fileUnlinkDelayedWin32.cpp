// Deletion at the next restart: the system's own list, or the rename list file of systems that have none.
#include "file/file.h"

#include "file/fileCallsWin32.h"
#include "file/fileRules.h"
#include "log/log.h"
#include "misc/win32Handle.h"
#include "string/str.h"
#include "unicode/unicode.h"

namespace {

constexpr const char* OPERATION = "File_UnlinkDelayed";

struct ViewTraits {
    using Value = void*;
    static void* Invalid() { return nullptr; }
    static void Close(void* view) { UnmapViewOfFile(view); }
};
using View = Win32Owner<ViewTraits>;

std::optional<std::string> FileRenameListName() {
    wchar_t directory[MAX_PATH];
    UINT length = fileWin32Calls.getWindowsDirectory(directory, MAX_PATH);
    std::optional<std::string> name;
    if (length != 0 && length < MAX_PATH) {
        name = Unicode_FromWide(std::wstring_view(directory, length));
    }
    if (!name) {
        Log_Level(LOG_ALWAYS, "FILE: %s: GetWindowsDirectory failed, code %d\n", OPERATION,
                  static_cast<int>(GetLastError()));
        return std::nullopt;
    }
    return Str_Format("%s%s%s", name->c_str(), "\\", "WININIT.INI");
}

// Adds the line to the mapped file; the bytes of list it then holds, or none when it cannot be mapped.
// Mapping lengthens the file to the room asked for.
std::optional<size_t> FileAddLine(HANDLE file, size_t size, const std::string& line) {
    size_t room = size + line.size() + FILE_RENAME_SECTION.size();
    // A failed mapping is null, and is let through to fail as a view; only the all-ones value, which the call
    // does not give, is named a mapping failure. Support knows the message of the view.
    HANDLE mapped =
        fileWin32Calls.createFileMapping(file, nullptr, PAGE_READWRITE, 0, static_cast<DWORD>(room), nullptr);
    if (mapped == INVALID_HANDLE_VALUE) {
        Log_Level(LOG_ALWAYS, "FILE: %s: CreateFileMapping failed, code %d\n", OPERATION,
                  static_cast<int>(GetLastError()));
        return std::nullopt;
    }
    KernelHandle mapping(mapped);
    View view(fileWin32Calls.mapViewOfFile(mapping.Get(), FILE_MAP_WRITE, 0, 0, 0));
    if (!view) {
        Log_Level(LOG_ALWAYS, "FILE: %s: MapViewOfFile failed, code %d\n", OPERATION,
                  static_cast<int>(GetLastError()));
        return std::nullopt;
    }
    return FileRenameListInsert({static_cast<char*>(view.Get()), room}, size, line);
}

// The list file is open; on return it ends where its text ends.
bool FileEditRenameList(HANDLE file, const char* listName, const std::string& line) {
    std::optional<size_t> used;
    bool added = false;
    DWORD size = fileWin32Calls.getFileSize(file, nullptr);
    if (size == INVALID_FILE_SIZE) {
        Log_Level(LOG_ALWAYS, "FILE: %s: GetFileSize on %s failed, code %d\n", OPERATION, listName,
                  static_cast<int>(GetLastError()));
    } else {
        std::optional<size_t> grown = FileAddLine(file, size, line);
        added = grown.has_value();
        used = grown.value_or(size);
    }
    // Of an unknown length the position is still the start, and the list ends up empty.
    if (used) {
        fileWin32Calls.setFilePointer(file, static_cast<LONG>(*used), nullptr, FILE_BEGIN);
    }
    fileWin32Calls.setEndOfFile(file);
    return added;
}

int FileUnlinkByRenameList(const char* name) {
    std::optional<std::string> listName = FileRenameListName();
    if (!listName) {
        return -1;
    }
    std::optional<std::string> fullPath = File_FullPath(name);
    if (!fullPath) {
        Log_Level(LOG_ALWAYS, "FILE: %s: File_Fullpath failed\n", OPERATION);
        return -1;
    }
    std::wstring wideList;
    FileWideName(listName->c_str(), &wideList);
    FileHandle file(fileWin32Calls.createFile(wideList.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                              OPEN_ALWAYS, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file) {
        Log_Level(LOG_ALWAYS, "FILE: %s: CreateFile on %s failed, code %d\n", OPERATION, listName->c_str(),
                  static_cast<int>(GetLastError()));
        return -1;
    }
    std::string line = Str_Format("NUL=%s\r\n", fullPath->c_str());
    return FileEditRenameList(file.Get(), listName->c_str(), line) ? 0 : -1;
}

} // namespace

int File_UnlinkDelayed(const char* name) {
    std::wstring wide;
    uint32_t error = FileWideName(name, &wide);
    if (error == ERROR_SUCCESS) {
        if (fileWin32Calls.moveFileEx(wide.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT)) {
            return 0;
        }
        error = GetLastError();
    }
    if (error == ERROR_CALL_NOT_IMPLEMENTED) {
        return FileUnlinkByRenameList(name);
    }
    Log_Level(LOG_ALWAYS, "FILE: %s: MoveFileExW failed on %s, code %d\n", OPERATION,
              name == nullptr ? "" : name, static_cast<int>(error));
    SetLastError(error);
    return -1;
}
