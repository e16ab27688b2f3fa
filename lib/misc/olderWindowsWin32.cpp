// Entry points of kernel32 that ICU and the compiler's thread library import by name, but that Windows XP x64
// and Server 2003 lack: a program that imports one of them does not start there. The symbols below take the
// place of the imports; each looks the real entry point up when it is called, and fails as documented where
// there is none. None of what the program uses needs them: ICU asks for the system's locale and time zone,
// the thread library for a clock.
#include "misc/win32Handle.h"

namespace {

template <typename Function>
Function Kernel32(const char* name) {
    return Win32_GetProc<Function>(GetModuleHandleW(L"kernel32.dll"), name);
}

DWORD WINAPI DynamicTimeZoneInformation(void* information) {
    using Function = DWORD(WINAPI*)(void*);
    const auto real = Kernel32<Function>("GetDynamicTimeZoneInformation");
    return real ? real(information) : TIME_ZONE_ID_INVALID;
}

int WINAPI LocaleInfoEx(LPCWSTR locale, LCTYPE type, LPWSTR data, int size) {
    using Function = int(WINAPI*)(LPCWSTR, LCTYPE, LPWSTR, int);
    const auto real = Kernel32<Function>("GetLocaleInfoEx");
    return real ? real(locale, type, data, size) : 0;
}

int WINAPI LcidToLocaleName(LCID locale, LPWSTR name, int size, DWORD flags) {
    using Function = int(WINAPI*)(LCID, LPWSTR, int, DWORD);
    const auto real = Kernel32<Function>("LCIDToLocaleName");
    return real ? real(locale, name, size, flags) : 0;
}

LCID WINAPI LocaleNameToLcid(LPCWSTR name, DWORD flags) {
    using Function = LCID(WINAPI*)(LPCWSTR, DWORD);
    const auto real = Kernel32<Function>("LocaleNameToLCID");
    return real ? real(name, flags) : 0;
}

ULONGLONG WINAPI TickCount64() {
    using Function = ULONGLONG(WINAPI*)();
    const auto real = Kernel32<Function>("GetTickCount64");
    return real ? real() : GetTickCount();
}

} // namespace

// The names under which the linker looks for the addresses of imported functions.
extern "C" {
extern decltype(&DynamicTimeZoneInformation) const __imp_GetDynamicTimeZoneInformation;
extern decltype(&LocaleInfoEx) const __imp_GetLocaleInfoEx;
extern decltype(&LcidToLocaleName) const __imp_LCIDToLocaleName;
extern decltype(&LocaleNameToLcid) const __imp_LocaleNameToLCID;
extern decltype(&TickCount64) const __imp_GetTickCount64;

decltype(&DynamicTimeZoneInformation) const __imp_GetDynamicTimeZoneInformation = DynamicTimeZoneInformation;
decltype(&LocaleInfoEx) const __imp_GetLocaleInfoEx = LocaleInfoEx;
decltype(&LcidToLocaleName) const __imp_LCIDToLocaleName = LcidToLocaleName;
decltype(&LocaleNameToLcid) const __imp_LocaleNameToLCID = LocaleNameToLcid;
decltype(&TickCount64) const __imp_GetTickCount64 = TickCount64;
}
