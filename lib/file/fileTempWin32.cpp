// Where temporary files go, and whether a directory can be written to.
#include "file/file.h"

#include "file/fileCallsWin32.h"
#include "misc/diag.h"
#include "misc/win32Handle.h"
#include "unicode/unicode.h"
#include "upgrader/win32/util.h"

#include <memory>
#include <shlobj.h>

namespace {

enum class TokenOutcome { Opened, NoSecurity, Failed };

// A thread without a token of its own gets one by impersonating the process for a moment.
bool FileOpenProcessToken(KernelHandle* token) {
    if (!fileWin32Calls.impersonateSelf(SecurityImpersonation)) {
        Warning("FILE: %s: Unable to impersonate self (error %d).\n", "FileIsWritableDir",
                static_cast<int>(GetLastError()));
        return false;
    }
    bool opened =
        fileWin32Calls.openThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token->Receive()) != FALSE;
    DWORD error = GetLastError();
    fileWin32Calls.revertToSelf();
    if (!opened) {
        Warning("FILE: %s: Cannot get the process access token (error %d).\n", "FileIsWritableDir",
                static_cast<int>(error));
    }
    return opened;
}

TokenOutcome FileOpenCallerToken(KernelHandle* token) {
    if (fileWin32Calls.openThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token->Receive())) {
        return TokenOutcome::Opened;
    }
    DWORD error = GetLastError();
    if (error == ERROR_CALL_NOT_IMPLEMENTED) {
        return TokenOutcome::NoSecurity;
    }
    if (error == ERROR_NO_TOKEN) {
        return FileOpenProcessToken(token) ? TokenOutcome::Opened : TokenOutcome::Failed;
    }
    Warning("FILE: %s: Cannot get the thread access token (error %d).\n", "FileIsWritableDir",
            static_cast<int>(error));
    return TokenOutcome::Failed;
}

constexpr SECURITY_INFORMATION WHO_AND_WHAT =
    OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;

// A descriptor that somebody keeps growing between two questions is given up after this many.
constexpr int MAX_SECURITY_READS = 16;

using SecurityBuffer = std::unique_ptr<uint8_t[]>;

bool FileReadSecurity(const char* directory, const std::wstring& wide, SecurityBuffer* buffer) {
    DWORD size = 0;
    for (int reads = 1;; reads++) {
        DWORD needed = 0;
        if (fileWin32Calls.getFileSecurity(wide.c_str(), WHO_AND_WHAT, buffer->get(), size, &needed)) {
            return true;
        }
        DWORD error = GetLastError();
        if (error != ERROR_INSUFFICIENT_BUFFER || reads == MAX_SECURITY_READS) {
            // The name as it came: the formatter would give the whole message up for a wide character that
            // the C locale lacks.
            Warning("FILE: %s: Cannot get the directory's security descriptor.Directory is \"%s\", error is "
                    "%d.\n",
                    "FileIsWritableDir", directory, static_cast<int>(error));
            return false;
        }
        size = needed;
        buffer->reset(new (std::nothrow) uint8_t[size]);
        if (*buffer == nullptr) {
            Warning("FILE: %s: Couldn't realloc\n", "FileIsWritableDir");
            return false;
        }
    }
}

bool FileHasNoOwnerOrGroup(PSECURITY_DESCRIPTOR security) {
    PSID owner = nullptr;
    PSID group = nullptr;
    BOOL defaulted = FALSE;
    GetSecurityDescriptorOwner(security, &owner, &defaulted);
    GetSecurityDescriptorGroup(security, &group, &defaulted);
    return owner == nullptr && group == nullptr;
}

bool FileGrantsWriting(PSECURITY_DESCRIPTOR security, HANDLE token) {
    GENERIC_MAPPING mapping{FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE,
                            FILE_GENERIC_READ | FILE_GENERIC_WRITE | FILE_GENERIC_EXECUTE};
    static_assert(FILE_GENERIC_READ == 0x120089 && FILE_GENERIC_WRITE == 0x120116 &&
                  FILE_GENERIC_EXECUTE == 0x1200A0);
    DWORD desired = FILE_GENERIC_WRITE;
    MapGenericMask(&desired, &mapping);
    PRIVILEGE_SET privileges;
    DWORD privilegesSize = sizeof privileges;
    static_assert(sizeof privileges == 20);
    DWORD granted = 0;
    BOOL status = FALSE;
    if (!fileWin32Calls.accessCheck(security, token, desired, &mapping, &privileges, &privilegesSize,
                                    &granted, &status)) {
        Warning("FILE: %s: Unable to check access rights (error %d).\n", "FileIsWritableDir",
                static_cast<int>(GetLastError()));
        return false;
    }
    return status != FALSE;
}

std::optional<std::string> FileTryTempDir(const std::optional<std::string>& candidate) {
    if (!candidate) {
        return std::nullopt;
    }
    std::optional<std::string> directory = Util_ExpandString(candidate->c_str());
    if (!directory || !FileIsWritableDir(directory->c_str())) {
        return std::nullopt;
    }
    if (directory->ends_with('\\')) {
        directory->pop_back();
    }
    return directory;
}

// A configuration layer would give the value of "tmpDirectory" here; without one it is its default, none.
std::optional<std::string> FileConfiguredTempDir() {
    return std::nullopt;
}

std::optional<std::string> FileSystemTempDir() {
    DWORD length = fileWin32Calls.getTempPath(0, nullptr);
    std::wstring path(size_t{length} + 1, L'\0');
    DWORD fetched = fileWin32Calls.getTempPath(length + 1, path.data());
    if (fetched == 0 || fetched > length) {
        return std::nullopt;
    }
    path.resize(fetched);
    return Unicode_FromWide(path);
}

std::optional<std::string> FileUserTempDir() {
    wchar_t folder[MAX_PATH];
    if (FAILED(fileWin32Calls.getFolderPath(CSIDL_LOCAL_APPDATA | CSIDL_FLAG_CREATE, folder))) {
        return std::nullopt;
    }
    std::optional<std::string> path = Unicode_FromWide(folder);
    if (path) {
        *path += "\\Temp";
        File_EnsureDirectory(path->c_str()); // one that cannot be had fails the test for writing
    }
    return path;
}

} // namespace

bool FileIsWritableDir(const char* directory) {
    std::wstring wide;
    uint32_t error = FileWideName(directory, &wide);
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return false;
    }
    DWORD attributes = fileWin32Calls.getFileAttributes(wide.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        return false;
    }
    KernelHandle token;
    TokenOutcome outcome = FileOpenCallerToken(&token);
    if (outcome != TokenOutcome::Opened) {
        return outcome == TokenOutcome::NoSecurity;
    }
    SecurityBuffer security;
    if (!FileReadSecurity(directory, wide, &security)) {
        return false;
    }
    return FileHasNoOwnerOrGroup(security.get()) || FileGrantsWriting(security.get(), token.Get());
}

std::optional<std::string> File_GetTmpDir(bool useConfig) {
    std::optional<std::string> directory;
    if (useConfig) {
        directory = FileTryTempDir(FileConfiguredTempDir());
    }
    if (!directory) {
        directory = FileTryTempDir(FileSystemTempDir());
    }
    if (!directory) {
        directory = FileTryTempDir(FileUserTempDir());
    }
    if (!directory) {
        Warning("FILE: %s: Couldn't get a temporary directory\n", "File_GetTmpDir");
    }
    return directory;
}
