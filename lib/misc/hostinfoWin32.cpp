#include "hostinfoNames.h"

#include "misc/diag.h"
#include "misc/win32Handle.h"

#include <windows.h>

namespace {

constexpr char UNIT[] = "lib/misc/hostinfoWin32";
constexpr int LINE_NO_VERSION = 172;
constexpr DWORD MAX_PRODUCT_TYPE = 100; // bytes

struct VersionNumbers {
    uint32_t major;
    uint32_t minor;
    uint32_t build;
    uint32_t servicePackMajor;
};

// The basic or the extended record, whichever has the size given.
bool GetVersionRecord(OSVERSIONINFOEXA* version, DWORD size) {
    *version = {};
    version->dwOSVersionInfoSize = size;
    return GetVersionExA(reinterpret_cast<OSVERSIONINFOA*>(version));
}

VersionNumbers ReadVersionNumbers() {
    OSVERSIONINFOEXA version;
    if (!GetVersionRecord(&version, sizeof(OSVERSIONINFOA))) {
        Warning("Unable to get OS version.\n");
        Diag_NotImplemented(UNIT, LINE_NO_VERSION);
    }
    VersionNumbers numbers{version.dwMajorVersion, version.dwMinorVersion, version.dwBuildNumber, 0};
    if (GetVersionRecord(&version, sizeof(OSVERSIONINFOEXA))) {
        numbers.servicePackMajor = version.wServicePackMajor;
    }
    return numbers;
}

std::optional<std::string> ReadRegistryProductType() {
    RegistryKey key;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SYSTEM\\CurrentControlSet\\Control\\ProductOptions", 0,
                      KEY_QUERY_VALUE, key.Receive()) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    char value[MAX_PRODUCT_TYPE + 1] = {}; // the system need not terminate it
    DWORD size = MAX_PRODUCT_TYPE;
    if (RegQueryValueExA(key.Get(), "ProductType", nullptr, nullptr, reinterpret_cast<BYTE*>(value), &size) !=
        ERROR_SUCCESS) {
        return std::nullopt;
    }
    return value;
}

bool HasHotfixSp6a() {
    RegistryKey key;
    return RegOpenKeyExA(HKEY_LOCAL_MACHINE,
                         "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Hotfix\\Q246009", 0,
                         KEY_QUERY_VALUE, key.Receive()) == ERROR_SUCCESS;
}

// The edition, on systems that tell it (6.0 and later).
uint32_t ReadProduct() {
    using GetProductInfoFunction = BOOL(WINAPI*)(DWORD, DWORD, DWORD, DWORD, DWORD*);
    auto getProductInfo =
        Win32_GetProc<GetProductInfoFunction>(GetModuleHandleW(L"kernel32.dll"), "GetProductInfo");
    DWORD product = 0;
    return getProductInfo && getProductInfo(6, 0, 0, 0, &product) ? product : 0;
}

bool ReadVersion(HostinfoVersion* out) {
    OSVERSIONINFOEXA version;
    out->extended = GetVersionRecord(&version, sizeof(OSVERSIONINFOEXA));
    if (!out->extended && !GetVersionRecord(&version, sizeof(OSVERSIONINFOA))) {
        return false;
    }
    out->platform = version.dwPlatformId;
    out->major = version.dwMajorVersion;
    out->minor = version.dwMinorVersion;
    out->build = version.dwBuildNumber;
    out->servicePack = version.szCSDVersion;
    out->productType = version.wProductType;
    out->suiteMask = version.wSuiteMask;
    out->product = ReadProduct();
    out->is64Bit = HostinfoOSBitness() == 64;
    out->registryProductType = ReadRegistryProductType();
    out->hotfixSp6a = HasHotfixSp6a();
    return true;
}

} // namespace

uint32_t Hostinfo_OSVersion(uint32_t index) {
    static const VersionNumbers numbers = ReadVersionNumbers();
    switch (index) {
    case 0:
        return numbers.major;
    case 1:
        return numbers.minor;
    case 2:
        return numbers.build;
    case 3:
        return numbers.servicePackMajor;
    default:
        return 0;
    }
}

int HostinfoOSBitness() {
    using IsWow64ProcessFunction = BOOL(WINAPI*)(HANDLE, BOOL*);
    using GetNativeSystemInfoFunction = void(WINAPI*)(SYSTEM_INFO*);
    HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
    auto isWow64Process = Win32_GetProc<IsWow64ProcessFunction>(kernel, "IsWow64Process");
    auto getNativeSystemInfo = Win32_GetProc<GetNativeSystemInfoFunction>(kernel, "GetNativeSystemInfo");
    BOOL wow64 = FALSE;
    SYSTEM_INFO info{};
    if (isWow64Process && getNativeSystemInfo && isWow64Process(GetCurrentProcess(), &wow64) && wow64) {
        getNativeSystemInfo(&info);
    } else {
        GetSystemInfo(&info);
    }
    switch (info.wProcessorArchitecture) {
    case PROCESSOR_ARCHITECTURE_AMD64:
        return 64;
    case PROCESSOR_ARCHITECTURE_INTEL:
        return 32;
    default:
        return -1;
    }
}

const Hostinfo_OSName* Hostinfo_GetOSName() {
    if (const Hostinfo_OSName* known = HostinfoPublished()) {
        return known;
    }
    HostinfoVersion version;
    if (!ReadVersion(&version)) {
        return nullptr;
    }
    std::optional<Hostinfo_OSName> name = HostinfoNameRelease(version);
    return name ? HostinfoPublish(std::move(*name)) : nullptr;
}
