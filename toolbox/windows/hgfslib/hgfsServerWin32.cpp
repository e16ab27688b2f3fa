// The file server's platform table for Windows.
//
// Files are opened and moved with the ordinary calls. What those cannot tell on every release (change times,
// allocation sizes, streams) and the contents of directories come from the native entry points, found at run
// time.
#include "hgfslib/hgfsNative.h"
#include "hgfslib/hgfsPlatform.h"
#include "misc/diag.h"
#include "misc/win32Handle.h"
#include "unicode/unicode.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <windows.h>

#include <ntsecapi.h>
#include <winioctl.h>
#include <winternl.h>

namespace {

// ---- Native entry points ----

enum NativeCall {
    CallCreateFile,
    CallClose,
    CallQueryInformationFile,
    CallSetInformationFile,
    CallQueryDirectoryFile,
    CallQueryVolumeInformationFile,
    CallReadFile,
    CallWriteFile,
    CallQueryEaFile,
    CallSetEaFile,
    CallCount
};
constexpr std::array<const char*, CallCount> kNativeNames = {"NtCreateFile",
                                                             "NtClose",
                                                             "NtQueryInformationFile",
                                                             "NtSetInformationFile",
                                                             "NtQueryDirectoryFile",
                                                             "NtQueryVolumeInformationFile",
                                                             "NtReadFile",
                                                             "NtWriteFile",
                                                             "NtQueryEaFile",
                                                             "NtSetEaFile"};

using CreateFileFunction = NTSTATUS(NTAPI*)(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES, PIO_STATUS_BLOCK,
                                            PLARGE_INTEGER, ULONG, ULONG, ULONG, ULONG, PVOID, ULONG);
using InformationFunction = NTSTATUS(NTAPI*)(HANDLE, PIO_STATUS_BLOCK, PVOID, ULONG, FILE_INFORMATION_CLASS);
using QueryDirectoryFunction = NTSTATUS(NTAPI*)(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK,
                                                PVOID, ULONG, FILE_INFORMATION_CLASS, BOOLEAN,
                                                PUNICODE_STRING, BOOLEAN);

constexpr NTSTATUS kSuccess = 0;
constexpr auto kBufferOverflow = static_cast<NTSTATUS>(0x80000005);
constexpr auto kNoMoreFiles = static_cast<NTSTATUS>(0x80000006);
constexpr auto kNoSuchFile = static_cast<NTSTATUS>(0xC000000F);
constexpr auto kModuleNotFound = static_cast<NTSTATUS>(0xC0000135);
constexpr auto kEntryPointNotFound = static_cast<NTSTATUS>(0xC0000139);

std::array<FARPROC, CallCount> nativeCalls;

template <typename Function>
Function Native(NativeCall call) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(nativeCalls[call]));
}

uint32_t ErrorOf(NTSTATUS status) {
    return status == kSuccess ? ERROR_SUCCESS : LsaNtStatusToWinError(status);
}

NTSTATUS FindNativeCalls() {
    HMODULE module = GetModuleHandleW(L"Ntdll.dll");
    if (module == nullptr) {
        return kModuleNotFound;
    }
    for (size_t i = 0; i < kNativeNames.size(); ++i) {
        nativeCalls[i] = GetProcAddress(module, kNativeNames[i]);
        if (nativeCalls[i] == nullptr) {
            Debug("HgfsServer: Ntdll.dll has no %s\n", kNativeNames[i]);
            return kEntryPointNotFound;
        }
    }
    return kSuccess;
}

// ---- Helpers ----

// The error of the call just made; never "none", which a failing call sometimes leaves behind.
uint32_t LastError() {
    DWORD error = GetLastError();
    return error == ERROR_SUCCESS ? ERROR_GEN_FAILURE : error;
}

// Keeps the system from asking a user who is not there for the disk of an empty drive.
class NoCriticalErrorBox {
public:
    NoCriticalErrorBox() : before_(SetErrorMode(SEM_FAILCRITICALERRORS)) {
        SetErrorMode(before_ | SEM_FAILCRITICALERRORS);
    }
    ~NoCriticalErrorBox() { SetErrorMode(before_); }
    NoCriticalErrorBox(const NoCriticalErrorBox&) = delete;
    NoCriticalErrorBox& operator=(const NoCriticalErrorBox&) = delete;

private:
    UINT before_;
};

uint64_t Join(DWORD high, DWORD low) {
    return static_cast<uint64_t>(high) << 32 | low;
}

uint64_t Join(FILETIME time) {
    return Join(time.dwHighDateTime, time.dwLowDateTime);
}

// ---- Start and stop ----

// One event serves the overlapped calls one after the other; a second thread that finds it in use brings its
// own.
std::atomic<HANDLE> spareEvent;

class BorrowedEvent {
public:
    BorrowedEvent() : event_(spareEvent.exchange(nullptr)) {
        if (!event_) {
            event_.Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        }
    }
    ~BorrowedEvent() { event_.Reset(spareEvent.exchange(event_.Release())); }
    BorrowedEvent(const BorrowedEvent&) = delete;
    BorrowedEvent& operator=(const BorrowedEvent&) = delete;
    HANDLE Get() const { return event_.Get(); }

private:
    KernelHandle event_;
};

uint32_t StartUp() {
    return ErrorOf(FindNativeCalls());
}

void ShutDown() {
    KernelHandle unused(spareEvent.exchange(nullptr));
}

// ---- Open files ----

uint32_t Open(const std::string& path, const HgfsOpenArguments& arguments, HgfsOsHandle* handle,
              bool* existed) {
    auto wide = Unicode_ToWide(path);
    if (!wide) {
        return ERROR_INVALID_NAME;
    }
    NoCriticalErrorBox quiet;
    HANDLE opened = CreateFileW(wide->c_str(), arguments.access, arguments.share, nullptr,
                                arguments.disposition, arguments.flags, nullptr);
    DWORD error = GetLastError();
    if (opened == INVALID_HANDLE_VALUE) {
        return error == ERROR_SUCCESS ? ERROR_GEN_FAILURE : error;
    }
    if (existed != nullptr) {
        const bool mayCreate = arguments.disposition == CREATE_ALWAYS || arguments.disposition == OPEN_ALWAYS;
        *existed = mayCreate ? error == ERROR_ALREADY_EXISTS : arguments.disposition != CREATE_NEW;
    }
    *handle = opened;
    return ERROR_SUCCESS;
}

bool Close(HgfsOsHandle handle) {
    return CloseHandle(handle) != FALSE;
}

// Runs one overlapped call and collects its result. The event is only needed when the call stays pending, but
// has to be given beforehand.
template <typename Call>
uint32_t RunOverlapped(HANDLE handle, DWORD offsetHigh, DWORD offsetLow, uint32_t* actual, Call call) {
    BorrowedEvent event;
    if (event.Get() == nullptr) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    OVERLAPPED overlapped{};
    overlapped.Offset = offsetLow;
    overlapped.OffsetHigh = offsetHigh;
    overlapped.hEvent = event.Get();
    DWORD transferred = 0;
    if (!call(&transferred, &overlapped)) {
        DWORD error = LastError();
        if (error != ERROR_IO_PENDING) {
            return error;
        }
        if (!GetOverlappedResult(handle, &overlapped, &transferred, TRUE)) {
            return LastError();
        }
    }
    *actual = transferred;
    return ERROR_SUCCESS;
}

bool IsOffset(uint64_t offset) {
    // Beyond this the system takes some values for "the end" or "the current position".
    return offset <= INT64_MAX;
}

uint32_t ReadAt(HgfsOsHandle handle, uint64_t offset, std::span<uint8_t> data, uint32_t* actual) {
    if (!IsOffset(offset)) {
        return ERROR_INVALID_PARAMETER;
    }
    return RunOverlapped(handle, static_cast<DWORD>(offset >> 32), static_cast<DWORD>(offset), actual,
                         [&](DWORD* transferred, OVERLAPPED* overlapped) {
                             return ReadFile(handle, data.data(), static_cast<DWORD>(data.size()),
                                             transferred, overlapped);
                         });
}

uint32_t WriteOverlapped(HANDLE handle, DWORD high, DWORD low, std::span<const uint8_t> data,
                         uint32_t* actual) {
    return RunOverlapped(handle, high, low, actual, [&](DWORD* transferred, OVERLAPPED* overlapped) {
        return WriteFile(handle, data.data(), static_cast<DWORD>(data.size()), transferred, overlapped);
    });
}

uint32_t WriteAt(HgfsOsHandle handle, uint64_t offset, std::span<const uint8_t> data, uint32_t* actual) {
    if (!IsOffset(offset)) {
        return ERROR_INVALID_PARAMETER;
    }
    return WriteOverlapped(handle, static_cast<DWORD>(offset >> 32), static_cast<DWORD>(offset), data,
                           actual);
}

uint32_t Append(HgfsOsHandle handle, std::span<const uint8_t> data, uint32_t* actual) {
    // All ones stands for the end of the file, found and written to in one step.
    return WriteOverlapped(handle, 0xFFFFFFFF, 0xFFFFFFFF, data, actual);
}

uint32_t ReadNext(HgfsOsHandle handle, std::span<uint8_t> data, uint32_t* actual) {
    DWORD transferred = 0;
    if (!ReadFile(handle, data.data(), static_cast<DWORD>(data.size()), &transferred, nullptr)) {
        return LastError();
    }
    *actual = transferred;
    return ERROR_SUCCESS;
}

uint32_t WriteNext(HgfsOsHandle handle, std::span<const uint8_t> data, uint32_t* actual) {
    DWORD transferred = 0;
    if (!WriteFile(handle, data.data(), static_cast<DWORD>(data.size()), &transferred, nullptr)) {
        return LastError();
    }
    *actual = transferred;
    return ERROR_SUCCESS;
}

uint32_t GetPosition(HgfsOsHandle handle, uint64_t* position) {
    LARGE_INTEGER none{}, at{};
    if (!SetFilePointerEx(handle, none, &at, FILE_CURRENT)) {
        return LastError();
    }
    *position = static_cast<uint64_t>(at.QuadPart);
    return ERROR_SUCCESS;
}

uint32_t SetPosition(HgfsOsHandle handle, uint64_t position) {
    LARGE_INTEGER to{};
    to.QuadPart = static_cast<LONGLONG>(position);
    return SetFilePointerEx(handle, to, nullptr, FILE_BEGIN) ? ERROR_SUCCESS : LastError();
}

uint32_t GetFileId(HgfsOsHandle handle, HgfsFileId* id) {
    BY_HANDLE_FILE_INFORMATION information;
    if (!GetFileInformationByHandle(handle, &information)) {
        return LastError();
    }
    *id = {information.dwVolumeSerialNumber, Join(information.nFileIndexHigh, information.nFileIndexLow)};
    return ERROR_SUCCESS;
}

// ---- Attributes ----

NTSTATUS Query(HANDLE handle, FILE_INFORMATION_CLASS kind, void* buffer, size_t size,
               size_t* filled = nullptr) {
    IO_STATUS_BLOCK io{};
    NTSTATUS status = Native<InformationFunction>(CallQueryInformationFile)(handle, &io, buffer,
                                                                            static_cast<ULONG>(size), kind);
    if (filled != nullptr) {
        *filled = io.Information;
    }
    return status;
}

NTSTATUS Set(HANDLE handle, FILE_INFORMATION_CLASS kind, void* buffer, size_t size) {
    IO_STATUS_BLOCK io{};
    return Native<InformationFunction>(CallSetInformationFile)(handle, &io, buffer, static_cast<ULONG>(size),
                                                               kind);
}

bool HasMoreStreams(HANDLE handle) {
    alignas(8) uint8_t buffer[4096];
    size_t filled = 0;
    NTSTATUS status = Query(handle, FileStreamInformation, buffer, sizeof buffer, &filled);
    if (status == kBufferOverflow) {
        return true;
    }
    return status == kSuccess && HgfsNative_HasMoreStreams({buffer, std::min(filled, sizeof buffer)});
}

// Everything but the volume.
uint32_t GetEntryInfoByHandle(HANDLE handle, HgfsFileInfo* info) {
    FILE_BASIC_INFORMATION basic{};
    FILE_STANDARD_INFORMATION standard{};
    FILE_INTERNAL_INFORMATION internal{};
    NTSTATUS status = Query(handle, FileBasicInformation, &basic, sizeof basic);
    if (status == kSuccess) {
        status = Query(handle, FileStandardInformation, &standard, sizeof standard);
    }
    if (status == kSuccess) {
        status = Query(handle, FileInternalInformation, &internal, sizeof internal);
    }
    if (status != kSuccess) {
        return ErrorOf(status);
    }
    auto number = [](LARGE_INTEGER value) { return static_cast<uint64_t>(value.QuadPart); };
    const bool directory = (basic.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    *info = {};
    info->id.index = number(internal.IndexNumber);
    info->attributes = basic.FileAttributes;
    info->size = directory ? 0 : number(standard.EndOfFile);
    info->allocationSize = number(standard.AllocationSize);
    info->creationTime = number(basic.CreationTime);
    info->accessTime = number(basic.LastAccessTime);
    info->writeTime = number(basic.LastWriteTime);
    info->changeTime = number(basic.ChangeTime);
    info->hasMoreStreams = HasMoreStreams(handle);
    return ERROR_SUCCESS;
}

uint32_t GetInfoByHandle(HgfsOsHandle handle, HgfsFileInfo* info) {
    HgfsFileId id;
    uint32_t error = GetFileId(handle, &id);
    if (error == ERROR_SUCCESS) {
        error = GetEntryInfoByHandle(handle, info);
    }
    if (error == ERROR_SUCCESS) {
        info->id = id;
        info->knowsVolume = true;
    }
    return error;
}

uint32_t OpenQuietly(const std::string& path, DWORD access, DWORD extraFlags, FileHandle* file) {
    auto wide = Unicode_ToWide(path);
    if (!wide) {
        return ERROR_INVALID_NAME;
    }
    NoCriticalErrorBox quiet;
    file->Reset(CreateFileW(wide->c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                            nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | extraFlags, nullptr));
    return *file ? ERROR_SUCCESS : LastError();
}

// Where a link leads, empty for a reparse point that is no link.
std::string LinkTarget(HANDLE handle) {
    alignas(8) uint8_t buffer[MAXIMUM_REPARSE_DATA_BUFFER_SIZE];
    DWORD filled = 0;
    if (!DeviceIoControl(handle, FSCTL_GET_REPARSE_POINT, nullptr, 0, buffer, sizeof buffer, &filled,
                         nullptr)) {
        return {};
    }
    const std::u16string target = HgfsNative_LinkTarget({buffer, filled});
    return Unicode_FromWide(std::wstring(target.begin(), target.end())).value_or(std::string());
}

using InfoCall = uint32_t (*)(HANDLE handle, HgfsFileInfo* info);

uint32_t GetInfoOfPath(const std::string& path, InfoCall getInfo, HgfsFileInfo* info) {
    FileHandle file;
    uint32_t error = OpenQuietly(path, FILE_READ_ATTRIBUTES, FILE_FLAG_OPEN_REPARSE_POINT, &file);
    if (error == ERROR_SUCCESS) {
        error = getInfo(file.Get(), info);
    }
    if (error != ERROR_SUCCESS || !(info->attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
        return error;
    }
    std::string target = LinkTarget(file.Get());
    if (!target.empty()) {
        FileHandle followed;
        if (OpenQuietly(path, FILE_READ_ATTRIBUTES, 0, &followed) == ERROR_SUCCESS) {
            getInfo(followed.Get(), info);
        }
        info->isLink = true;
        info->linkTarget = std::move(target);
    }
    return ERROR_SUCCESS;
}

uint32_t GetInfo(const std::string& path, HgfsFileInfo* info) {
    return GetInfoOfPath(path, GetInfoByHandle, info);
}

uint32_t GetEntryInfo(const std::string& path, HgfsFileInfo* info) {
    return GetInfoOfPath(path, GetEntryInfoByHandle, info);
}

uint32_t GetAttributes(const std::string& path, uint32_t* attributes) {
    auto wide = Unicode_ToWide(path);
    if (!wide) {
        return ERROR_INVALID_NAME;
    }
    NoCriticalErrorBox quiet;
    DWORD found = GetFileAttributesW(wide->c_str());
    if (found == INVALID_FILE_ATTRIBUTES) {
        return LastError();
    }
    *attributes = found;
    return ERROR_SUCCESS;
}

// ChangeByHandle in two steps: the size needs another right than the rest, and setting it moves the times.
uint32_t ChangeSize(HANDLE handle, const HgfsFileChange& change) {
    if (change.size > INT64_MAX) {
        return ERROR_INVALID_PARAMETER;
    }
    FILE_END_OF_FILE_INFORMATION end{};
    end.EndOfFile.QuadPart = static_cast<LONGLONG>(change.size);
    return ErrorOf(Set(handle, FileEndOfFileInformation, &end, sizeof end));
}

uint32_t ChangeBasics(HANDLE handle, const HgfsFileChange& change) {
    FILE_BASIC_INFORMATION basic{};
    if (change.setReadOnly || change.setAttributes) {
        if (NTSTATUS status = Query(handle, FileBasicInformation, &basic, sizeof basic); status != kSuccess) {
            return ErrorOf(status);
        }
        constexpr ULONG kSettable = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;
        ULONG attributes = basic.FileAttributes;
        if (change.setReadOnly) {
            attributes = (attributes & ~static_cast<ULONG>(FILE_ATTRIBUTE_READONLY)) |
                         (change.readOnly ? FILE_ATTRIBUTE_READONLY : 0);
        }
        if (change.setAttributes) {
            attributes = (attributes & ~kSettable) | (change.attributes & kSettable);
        }
        attributes &= ~static_cast<ULONG>(FILE_ATTRIBUTE_NORMAL);
        basic.FileAttributes = attributes == 0 ? FILE_ATTRIBUTE_NORMAL : attributes; // 0 would change nothing
    }
    basic.CreationTime.QuadPart = static_cast<LONGLONG>(change.creationTime);
    basic.LastAccessTime.QuadPart = static_cast<LONGLONG>(change.accessTime);
    basic.LastWriteTime.QuadPart = static_cast<LONGLONG>(change.writeTime);
    basic.ChangeTime.QuadPart = static_cast<LONGLONG>(change.changeTime);
    return ErrorOf(Set(handle, FileBasicInformation, &basic, sizeof basic));
}

uint32_t ChangeByHandle(HgfsOsHandle handle, const HgfsFileChange& change) {
    if (change.setSize) {
        if (uint32_t error = ChangeSize(handle, change); error != ERROR_SUCCESS) {
            return error;
        }
    }
    return ChangeBasics(handle, change);
}

uint32_t Change(const std::string& path, const HgfsFileChange& change) {
    FileHandle file;
    uint32_t error = OpenQuietly(path, FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES, 0, &file);
    if (error != ERROR_SUCCESS) {
        return error;
    }
    if (change.setSize) {
        HgfsFileChange writable{};
        writable.setReadOnly = true;
        if (change.setReadOnly && !change.readOnly) {
            error = ChangeBasics(file.Get(), writable);
        }
        FileHandle data;
        if (error == ERROR_SUCCESS) {
            error = OpenQuietly(path, FILE_WRITE_DATA, 0, &data);
        }
        if (error == ERROR_SUCCESS) {
            error = ChangeSize(data.Get(), change);
        }
        if (error != ERROR_SUCCESS) {
            return error;
        }
    }
    return ChangeBasics(file.Get(), change);
}

uint64_t Now() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return Join(now);
}

// ---- Names ----

template <typename Call>
uint32_t CallWithPath(const std::string& path, Call call) {
    auto wide = Unicode_ToWide(path);
    if (!wide) {
        return ERROR_INVALID_NAME;
    }
    NoCriticalErrorBox quiet;
    return call(wide->c_str()) ? ERROR_SUCCESS : LastError();
}

uint32_t CreateOneDirectory(const std::string& path) {
    return CallWithPath(path, [](const wchar_t* name) { return CreateDirectoryW(name, nullptr); });
}

uint32_t DeleteOneFile(const std::string& path) {
    return CallWithPath(path, [](const wchar_t* name) { return DeleteFileW(name); });
}

uint32_t DeleteOneDirectory(const std::string& path) {
    return CallWithPath(path, [](const wchar_t* name) { return RemoveDirectoryW(name); });
}

uint32_t Rename(const std::string& from, const std::string& to) {
    auto wideTo = Unicode_ToWide(to);
    if (!wideTo) {
        return ERROR_INVALID_NAME;
    }
    return CallWithPath(from, [&](const wchar_t* name) { return MoveFileExW(name, wideTo->c_str(), 0); });
}

// ---- Directories ----

struct Listing {
    HgfsEntryCallback entry;
    void* data;
};

// Hands one name of the native reader on.
void PassEntry(void* data, std::u16string_view name) {
    if (name == u"." || name == u"..") {
        return;
    }
    auto narrow = Unicode_FromWide(std::wstring(name.begin(), name.end()));
    if (!narrow) {
        Debug("HgfsServer: a directory entry whose name is not Unicode is left out\n");
        return;
    }
    const auto& listing = *static_cast<Listing*>(data);
    listing.entry(listing.data, *narrow);
}

uint32_t OpenDirectory(const std::string& path, FileHandle* directory) {
    auto wide = Unicode_ToWide(path);
    if (!wide) {
        return ERROR_INVALID_NAME;
    }
    const std::u16string form = HgfsNative_Path(std::u16string(wide->begin(), wide->end()));
    std::wstring native(form.begin(), form.end());
    if (native.size() == wide->size()) {
        // The native call does not know network paths.
        return OpenQuietly(path, FILE_LIST_DIRECTORY | SYNCHRONIZE, 0, directory);
    }
    UNICODE_STRING name;
    name.Buffer = native.data();
    name.Length = name.MaximumLength = static_cast<USHORT>(native.size() * sizeof(wchar_t));
    OBJECT_ATTRIBUTES object{};
    object.Length = sizeof object;
    object.ObjectName = &name;
    object.Attributes = OBJ_CASE_INSENSITIVE;
    IO_STATUS_BLOCK io{};
    HANDLE handle = nullptr;
    NoCriticalErrorBox quiet;
    NTSTATUS status = Native<CreateFileFunction>(CallCreateFile)(
        &handle, FILE_LIST_DIRECTORY | SYNCHRONIZE, &object, &io, nullptr, 0,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
        FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (status == kSuccess) {
        directory->Reset(handle);
    }
    return ErrorOf(status);
}

uint32_t ListDirectory(const std::string& path, HgfsEntryCallback entry, void* data) {
    FileHandle directory;
    uint32_t error = OpenDirectory(path, &directory);
    if (error != ERROR_SUCCESS) {
        return error;
    }
    constexpr ULONG kBufferSize = 65536;
    auto buffer = std::make_unique<uint64_t[]>(kBufferSize / sizeof(uint64_t)); // the records want alignment
    Listing listing = {entry, data};
    for (bool first = true;; first = false) {
        IO_STATUS_BLOCK io{};
        NTSTATUS status = Native<QueryDirectoryFunction>(CallQueryDirectoryFile)(
            directory.Get(), nullptr, nullptr, nullptr, &io, buffer.get(), kBufferSize, FileNamesInformation,
            FALSE, nullptr, first ? TRUE : FALSE);
        if (status == kNoMoreFiles || (first && status == kNoSuchFile)) {
            return ERROR_SUCCESS;
        }
        if (status != kSuccess) {
            return ErrorOf(status);
        }
        size_t filled = std::min<size_t>(io.Information, kBufferSize);
        if (filled == 0) {
            return ERROR_SUCCESS; // a file system that never says "no more" ends here
        }
        HgfsNative_WalkNames({reinterpret_cast<const uint8_t*>(buffer.get()), filled}, PassEntry, &listing);
    }
}

// ---- Volumes ----

uint32_t ListVolumes(std::vector<std::string>* roots) {
    wchar_t text[26 * 4 + 1]; // as many drives as there are letters, each "X:\" with its NUL, and a NUL
    DWORD length = GetLogicalDriveStringsW(static_cast<DWORD>(std::size(text)), text);
    if (length == 0 || length >= std::size(text)) {
        return LastError();
    }
    std::vector<std::string> found;
    for (const wchar_t* at = text; *at != L'\0'; at += std::wstring_view(at).size() + 1) {
        found.push_back(Unicode_FromWide(at).value_or(std::string()));
    }
    *roots = std::move(found);
    return ERROR_SUCCESS;
}

uint32_t GetVolumeSpace(const std::string& path, uint64_t* freeBytes, uint64_t* totalBytes) {
    auto wide = Unicode_ToWide(path);
    if (!wide) {
        return ERROR_INVALID_NAME;
    }
    NoCriticalErrorBox quiet;
    std::vector<wchar_t> root(wide->size() + 4); // room for a '\' that the system adds
    if (!GetVolumePathNameW(wide->c_str(), root.data(), static_cast<DWORD>(root.size()))) {
        return LastError();
    }
    ULARGE_INTEGER available{}, total{};
    if (!GetDiskFreeSpaceExW(root.data(), &available, &total, nullptr)) {
        return LastError();
    }
    *freeBytes = available.QuadPart;
    *totalBytes = total.QuadPart;
    return ERROR_SUCCESS;
}

constexpr HgfsPlatform kWindows = {
    .startUp = StartUp,
    .shutDown = ShutDown,
    .open = Open,
    .close = Close,
    .readAt = ReadAt,
    .writeAt = WriteAt,
    .append = Append,
    .readNext = ReadNext,
    .writeNext = WriteNext,
    .getPosition = GetPosition,
    .setPosition = SetPosition,
    .getFileId = GetFileId,
    .getAttributes = GetAttributes,
    .getInfo = GetInfo,
    .getEntryInfo = GetEntryInfo,
    .getInfoByHandle = GetInfoByHandle,
    .change = Change,
    .changeByHandle = ChangeByHandle,
    .now = Now,
    .createDirectory = CreateOneDirectory,
    .deleteFile = DeleteOneFile,
    .deleteDirectory = DeleteOneDirectory,
    .rename = Rename,
    .listDirectory = ListDirectory,
    .listVolumes = ListVolumes,
    .getVolumeSpace = GetVolumeSpace,
};

} // namespace

const HgfsPlatform* HgfsPlatform_System() {
    return &kWindows;
}
