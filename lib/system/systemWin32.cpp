#include "system.h"

#include "systemShutdown.h"

#include "misc/diag.h"
#include "misc/hostinfo.h"
#include "misc/win32Handle.h"
#include "unicode/unicode.h"

#include <optional>
#include <string>
#include <windows.h>

namespace {

constexpr char SYSTEM_DEVICE_KEY[] =
    "SYSTEM\\CurrentControlSet\\Control\\Class\\{4D36E966-E325-11CE-BFC1-08002BE10318}\\0000";
constexpr DWORD MAX_DESCRIPTION = 1023;                       // bytes
constexpr DWORD MAX_DESKTOP_NAME = 256;                       // characters
constexpr char LOGIN_SCREEN[] = "System_IsLoginScreenActive"; // as its messages name it

static_assert(SYSTEM_EXIT_SHUTDOWN == EWX_SHUTDOWN && SYSTEM_EXIT_REBOOT == EWX_REBOOT &&
              SYSTEM_EXIT_FORCE == EWX_FORCE && SYSTEM_EXIT_POWER_OFF == EWX_POWEROFF &&
              SYSTEM_ERROR_NOT_READY == ERROR_NOT_READY);

struct DesktopTraits {
    using Value = HDESK;
    static HDESK Invalid() { return nullptr; }
    static void Close(HDESK desktop) { CloseDesktop(desktop); }
};

uint32_t Family() {
    const Hostinfo_OSName* name = Hostinfo_GetOSName();
    return name ? name->family : HOSTINFO_FAMILY_UNKNOWN;
}

std::optional<uint32_t> ServicePackMajor() {
    OSVERSIONINFOEXA version{};
    // The short record leaves the service pack at 0.
    for (size_t size : {sizeof(OSVERSIONINFOEXA), sizeof(OSVERSIONINFOA)}) {
        version.dwOSVersionInfoSize = static_cast<DWORD>(size);
        if (GetVersionExA(reinterpret_cast<OSVERSIONINFOA*>(&version))) {
            return version.wServicePackMajor;
        }
    }
    return std::nullopt;
}

uint32_t ExitSession(uint32_t flags) {
    if (ExitWindowsEx(flags, 0)) {
        return 0;
    }
    DWORD error = GetLastError();
    Debug("System_Shutdown: ExitWindowsEx(%u) failed: %u\n", flags, static_cast<unsigned>(error));
    return error;
}

uint32_t InitiateShutdown(bool force, bool reboot) {
    if (InitiateSystemShutdownA(nullptr, nullptr, 0, force, reboot)) {
        return 0;
    }
    DWORD error = GetLastError();
    Debug("System_Shutdown: InitiateSystemShutdown failed: %u\n", static_cast<unsigned>(error));
    return error;
}

void EnablePrivilege(HANDLE token) {
    TOKEN_PRIVILEGES privileges{};
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    if (!LookupPrivilegeValueW(nullptr, L"SeShutdownPrivilege", &privileges.Privileges[0].Luid)) {
        DWORD error = GetLastError();
        Debug("System_SetProcessPrivilege: LookupPrivilegeValue error: %u\n", static_cast<unsigned>(error));
        return;
    }
    // The call succeeds without granting anything, too: only the error tells.
    AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr);
    DWORD error = GetLastError();
    if (error != ERROR_SUCCESS) {
        Debug("System_SetProcessPrivilege: AdjustTokenPrivileges failed: %u\n", static_cast<unsigned>(error));
    }
}

// None when the name cannot be read.
std::optional<std::string> DesktopName(HDESK desktop) {
    wchar_t name[MAX_DESKTOP_NAME + 1] = {};
    DWORD needed = 0;
    if (!GetUserObjectInformationW(desktop, UOI_NAME, name, MAX_DESKTOP_NAME * sizeof name[0], &needed)) {
        return std::nullopt;
    }
    return Unicode_FromWide(name);
}

} // namespace

uint32_t System_Shutdown(bool reboot) {
    constexpr SystemShutdownCalls calls = {
        Family,      ServicePackMajor, System_IsAcpi, System_IsLoginScreenActive, System_SetProcessPrivilege,
        ExitSession, InitiateShutdown,
    };
    return SystemShutdownWith(calls, reboot);
}

bool System_IsLoginScreenActive() {
    Win32Owner<DesktopTraits> desktop(OpenInputDesktop(0, FALSE, DESKTOP_SWITCHDESKTOP));
    if (!desktop) {
        Debug("%s: unable to open desktop\n", LOGIN_SCREEN);
        return true;
    }
    Debug("%s: able to open desktop\n", LOGIN_SCREEN);
    std::optional<std::string> name = DesktopName(desktop.Get());
    if (!name) {
        return true;
    }
    Debug("%s: desktop name is %s\n", LOGIN_SCREEN, name->c_str());
    return *name == "Winlogon";
}

bool System_IsAcpi() {
    RegistryKey key;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, SYSTEM_DEVICE_KEY, 0, KEY_READ, key.Receive()) != ERROR_SUCCESS) {
        return false;
    }
    char description[MAX_DESCRIPTION + 1] = {}; // the system need not terminate it
    DWORD size = MAX_DESCRIPTION;
    return RegQueryValueExA(key.Get(), "DriverDesc", nullptr, nullptr, reinterpret_cast<BYTE*>(description),
                            &size) == ERROR_SUCCESS &&
           SystemIsAcpiDescription(description);
}

void System_SetProcessPrivilege() {
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token)) {
        DWORD error = GetLastError();
        Debug("OpenThreadToken failed: %u\n", static_cast<unsigned>(error));
        return;
    }
    EnablePrivilege(token);
    if (!CloseHandle(token)) {
        DWORD error = GetLastError();
        Debug("System_SetProcessPrivilege: CloseHandle failed: %u\n", static_cast<unsigned>(error));
    }
}
