// The lock protocol's edge on Windows: identity, living processes, names, whole-block file access.
#include "file/fileLockEdge.h"

#include "file/file.h"
#include "file/fileCallsWin32.h"
#include "file/fileLockMachine.h"
#include "file/fileLockMember.h"
#include "file/fileRules.h"
#include "misc/diag.h"
#include "misc/win32Handle.h"
#include "string/str.h"
#include "unicode/unicode.h"

#include <mutex>
#include <vector>

namespace {

constexpr std::string_view RAW_DISK_PREFIX = "\\\\.\\PhysicalDrive";

// Systems without process snapshots lack the entry points, so they are looked up; missing ones stay null.
void DynaLink() {
    static std::mutex lock;
    std::lock_guard guard(lock);
    if (fileProcessCalls.linked) {
        return;
    }
    fileProcessCalls.linked = true;
    HMODULE kernel = fileWin32Calls.getModuleHandle(L"kernel32");
    if (kernel == nullptr) {
        Warning("FILE: %s kernel32 missing?\n", "DynaLink");
        return;
    }
    auto find = [kernel]<typename Function>(Function* call, const char* name) {
        *call = Win32_GetProc<Function>(kernel, name);
    };
    find(&fileProcessCalls.createSnapshot, "CreateToolhelp32Snapshot");
    find(&fileProcessCalls.first, "Process32First");
    find(&fileProcessCalls.next, "Process32Next");
    find(&fileProcessCalls.getTimes, "GetProcessTimes");
}

// The creation time of a process as a FILETIME; none when it cannot be read.
std::optional<uint64_t> CreationTime(HANDLE process) {
    FILETIME created;
    FILETIME ended;
    FILETIME kernel;
    FILETIME user;
    if (fileProcessCalls.getTimes == nullptr ||
        !fileProcessCalls.getTimes(process, &created, &ended, &kernel, &user)) {
        return std::nullopt;
    }
    return uint64_t{created.dwHighDateTime} << 32 | created.dwLowDateTime;
}

bool WasCreatedAt(DWORD processId, uint64_t creationTime) {
    KernelHandle process(fileWin32Calls.openProcess(PROCESS_QUERY_INFORMATION, FALSE, processId));
    return !process || CreationTime(process.Get()).value_or(creationTime) == creationTime;
}

std::vector<uint8_t> ReadFirmwareTable() {
    using GetTable = UINT(WINAPI*)(DWORD provider, DWORD table, PVOID buffer, DWORD size);
    constexpr DWORD SMBIOS_PROVIDER = 0x52534D42; // 'RSMB'
    auto getTable = Win32_GetProc<GetTable>(GetModuleHandleW(L"kernel32"), "GetSystemFirmwareTable");
    if (getTable == nullptr) {
        return {};
    }
    std::vector<uint8_t> table(getTable(SMBIOS_PROVIDER, 0, nullptr, 0));
    UINT size = getTable(SMBIOS_PROVIDER, 0, table.data(), static_cast<DWORD>(table.size()));
    table.resize(std::min<size_t>(size, table.size()));
    return table;
}

// From the serial number of the system's volume and the computer's name.
std::string OldMachineID() {
    wchar_t root[MAX_PATH] = L"";
    DWORD serial = 0;
    if (GetWindowsDirectoryW(root, MAX_PATH) >= 3) {
        root[3] = L'\0';
        GetVolumeInformationW(root, nullptr, 0, &serial, nullptr, nullptr, nullptr, 0);
    }
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD length = MAX_COMPUTERNAME_LENGTH + 1;
    std::optional<std::string> computer;
    if (GetComputerNameW(name, &length)) {
        computer = Unicode_FromWide(std::wstring_view(name, length));
    }
    return FileLockMachineIDFromNumbers(serial, FileLockHashName(computer.value_or("")));
}

FileLockIdentity FindIdentity() {
    FileLockIdentity identity;
    identity.machineIDOld = OldMachineID();
    std::optional<MachineUuid> uuid = FileLockFindUuid(ReadFirmwareTable());
    identity.machineID = uuid ? FileLockMachineIDFromUuid(*uuid) : identity.machineIDOld;
    identity.executionID = Str_Format("%d", static_cast<int>(GetCurrentProcessId()));
    return identity;
}

// The access for the low two bits of the open flags.
DWORD AccessOf(uint32_t flags) {
    constexpr DWORD ACCESS[] = {GENERIC_READ, GENERIC_WRITE, GENERIC_READ | GENERIC_WRITE,
                                GENERIC_READ | GENERIC_WRITE};
    return ACCESS[flags & 3];
}

uint32_t OpenOnce(const std::wstring& name, uint32_t flags, FileLockFile* file) {
    HANDLE handle = fileWin32Calls.createFile(
        name.c_str(), AccessOf(flags), FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        (flags & FILELOCK_OPEN_CREATE) != 0 ? OPEN_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        return GetLastError();
    }
    file->handle = handle;
    return ERROR_SUCCESS;
}

} // namespace

FileProcessCalls fileProcessCalls;

const FileLockIdentity& FileLockOwnIdentity() {
    static const FileLockIdentity identity = FindIdentity();
    return identity;
}

std::string FileLockOwnPayload() {
    return Str_Format("%" DIAG_I64 "u", CreationTime(GetCurrentProcess()).value_or(0));
}

uint32_t FileLockDrawNumber() {
    static std::mutex lock;
    static FileLockGenerator generator(
        FileLockSeed(FileLockOwnIdentity().machineID, FileLockOwnIdentity().executionID));
    std::lock_guard guard(lock);
    return FileLockDraw(&generator);
}

int FileLockNormalizePath(const char* name, std::string* path) {
    DynaLink();
    if (name == nullptr) {
        return FileMapWin32Error("FileLockNormalizePath", ERROR_INVALID_ADDRESS);
    }
    std::string_view text(name);
    std::optional<std::string> normalized;
    if (text.starts_with(RAW_DISK_PREFIX)) {
        normalized = File_GetTmpDir(true);
        if (normalized) {
            normalized = Str_Format("%s%s%s", normalized->c_str(), "\\pd", name + RAW_DISK_PREFIX.size());
        }
    } else {
        normalized = File_FullPath(name);
    }
    if (!normalized) {
        return FileMapWin32Error("FileLockNormalizePath", ERROR_INVALID_NAME);
    }
    *path = std::move(*normalized);
    return 0;
}

bool HardProcessValidation(int32_t processId, bool checkTime, uint64_t creationTime) {
    constexpr const char* OPERATION = "HardProcessValidation";
    if (fileProcessCalls.createSnapshot == nullptr || fileProcessCalls.first == nullptr ||
        fileProcessCalls.next == nullptr || fileProcessCalls.getTimes == nullptr) {
        return true;
    }
    FileHandle snapshot(fileProcessCalls.createSnapshot(TH32CS_SNAPPROCESS, 0));
    if (!snapshot) {
        Warning("FILE: %s CreateToolhelp32Snapshot failed.\n", OPERATION);
        return true;
    }
    ProcessEntry entry{};
    entry.dwSize = sizeof entry;
    if (!fileProcessCalls.first(snapshot.Get(), &entry)) {
        Warning("FILE: %s at least one process assertion failure: %d\n", OPERATION,
                static_cast<int>(GetLastError()));
        return true;
    }
    do {
        if (entry.th32ProcessID == static_cast<DWORD>(processId)) {
            return !checkTime || WasCreatedAt(entry.th32ProcessID, creationTime);
        }
    } while (fileProcessCalls.next(snapshot.Get(), &entry));
    DWORD error = GetLastError();
    if (error != ERROR_NO_MORE_FILES) {
        Warning("FILE: %s Process32Next failure: %d\n", OPERATION, static_cast<int>(error));
    }
    return false;
}

void FileLockSleep(uint32_t milliseconds) {
    fileWin32Calls.sleep(milliseconds);
}

int FileLockLastError() {
    return static_cast<int>(GetLastError());
}

FileLockFile::~FileLockFile() {
    if (handle != nullptr) {
        fileWin32Calls.closeHandle(handle);
    }
}

int FileLockOpenFile(const std::string& name, uint32_t flags, FileLockFile* file) {
    constexpr int ATTEMPTS = 6;
    constexpr DWORD PAUSE_MS = 100;
    std::wstring wide;
    uint32_t error = FileWideName(name.c_str(), &wide);
    if (error == ERROR_SUCCESS && FileIsNameTooLong(name, wide.size())) {
        error = ERROR_FILENAME_EXCED_RANGE;
    }
    if (error != ERROR_SUCCESS) {
        return FileMapWin32Error("FileLockOpenFile", error);
    }
    error = OpenOnce(wide, flags, file);
    for (int attempt = 1; attempt < ATTEMPTS && FileIsTransient(error); attempt++) {
        fileWin32Calls.sleep(PAUSE_MS);
        error = OpenOnce(wide, flags, file);
    }
    return FileMapWin32Error("FileLockOpenFile", error);
}

int FileLockCloseFile(FileLockFile* file) {
    HANDLE handle = std::exchange(file->handle, nullptr);
    uint32_t error = fileWin32Calls.closeHandle(handle) ? ERROR_SUCCESS : GetLastError();
    return FileMapWin32Error("FileLockCloseFile", error);
}

int FileLockReadFile(FileLockFile* file, void* buffer, uint32_t length, uint32_t* done) {
    DWORD transferred = 0;
    BOOL succeeded = fileWin32Calls.readFile(file->handle, buffer, length, &transferred, nullptr);
    uint32_t error = succeeded ? ERROR_SUCCESS : GetLastError();
    *done = transferred;
    return FileMapWin32Error("FileLockReadFile", error);
}

int FileLockWriteFile(FileLockFile* file, const void* buffer, uint32_t length, uint32_t* done) {
    DWORD transferred = 0;
    BOOL succeeded = fileWin32Calls.writeFile(file->handle, buffer, length, &transferred, nullptr);
    uint32_t error = succeeded ? ERROR_SUCCESS : GetLastError();
    *done = transferred;
    return FileMapWin32Error("FileLockWriteFile", error);
}
