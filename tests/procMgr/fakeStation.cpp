#include "fakeStation.h"

#include "string/str.h"

#include <cstring>

namespace {

FakeStation* fake = nullptr;
ProcMgrAccessCalls systemCalls;

constexpr uintptr_t OWN_STATION = 0x1001;
constexpr uintptr_t INTERACTIVE_STATION = 0x1003;
constexpr uintptr_t DEFAULT_DESKTOP = 0x1005;

template <typename Handle>
Handle ToHandle(uintptr_t value) {
    return reinterpret_cast<Handle>(value);
}
uintptr_t ToValue(const void* handle) {
    return reinterpret_cast<uintptr_t>(handle);
}

// Counts a call; true when it is the one to fail.
bool Fails() {
    if (++fake->callCount == fake->failCall) {
        SetLastError(ERROR_ACCESS_DENIED);
        return true;
    }
    return false;
}

HWINSTA WINAPI GetStation() {
    return ToHandle<HWINSTA>(OWN_STATION);
}

HWINSTA WINAPI OpenStation(LPCWSTR name, BOOL inherit, ACCESS_MASK rights) {
    fake->opened += Str_Format("%S %d %lx;", name, inherit, rights);
    if (Fails()) {
        return nullptr;
    }
    fake->openStations++;
    return ToHandle<HWINSTA>(INTERACTIVE_STATION);
}

BOOL WINAPI SetStation(HWINSTA station) {
    if (Fails()) {
        return FALSE;
    }
    fake->onOwnStation = ToValue(station) == OWN_STATION;
    return TRUE;
}

BOOL WINAPI CloseStation(HWINSTA station) {
    if (ToValue(station) != INTERACTIVE_STATION || !fake->onOwnStation) {
        return FALSE; // the system refuses to close the process's own station
    }
    fake->openStations--;
    return TRUE;
}

HDESK WINAPI OpenDefault(LPCWSTR name, DWORD flags, BOOL inherit, ACCESS_MASK rights) {
    fake->opened += Str_Format("%S %lx %d %lx;", name, flags, inherit, rights);
    if (Fails()) {
        return nullptr;
    }
    fake->openDesktops++;
    return ToHandle<HDESK>(DEFAULT_DESKTOP);
}

BOOL WINAPI CloseDefault(HDESK) {
    fake->openDesktops--;
    return TRUE;
}

std::optional<ProcMgrBytes>& ListOf(HANDLE object) {
    return ToValue(object) == DEFAULT_DESKTOP ? fake->desktopList : fake->stationList;
}

BOOL WINAPI GetSecurity(HANDLE object, PSECURITY_INFORMATION what, PSECURITY_DESCRIPTOR out, DWORD size,
                        LPDWORD needed) {
    if (Fails() || *what != DACL_SECURITY_INFORMATION) {
        return FALSE;
    }
    std::optional<ProcMgrBytes>& list = ListOf(object);
    SECURITY_DESCRIPTOR absolute;
    InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION);
    if (list) {
        SetSecurityDescriptorDacl(&absolute, TRUE, reinterpret_cast<ACL*>(list->data()), FALSE);
    }
    *needed = size;
    BOOL done = MakeSelfRelativeSD(&absolute, out, needed);
    DWORD error = GetLastError();
    if (!done && fake->listGrowsOnce) {
        fake->listGrowsOnce = false;
        list = FakeStation_List({1, 2, 3, 4, 5, 6, 7, 8});
    }
    SetLastError(error);
    return done;
}

BOOL WINAPI SetSecurity(HANDLE object, PSECURITY_INFORMATION what, PSECURITY_DESCRIPTOR in) {
    if (Fails() || *what != DACL_SECURITY_INFORMATION || !IsValidSecurityDescriptor(in)) {
        return FALSE;
    }
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    ACL* acl = nullptr;
    GetSecurityDescriptorDacl(in, &present, &acl, &defaulted);
    if (!present || !acl || !IsValidAcl(acl)) {
        return FALSE;
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(acl);
    ListOf(object) = ProcMgrBytes(bytes, bytes + acl->AclSize);
    fake->trace += ToValue(object) == DEFAULT_DESKTOP ? "desktop! " : "station! ";
    return TRUE;
}

BOOL WINAPI GetGroups(HANDLE, TOKEN_INFORMATION_CLASS, void* out, DWORD size, PDWORD needed) {
    if (Fails()) {
        return FALSE;
    }
    // Two groups; the first carries one of the two bits that the second one has.
    size_t groupsSize = sizeof(TOKEN_GROUPS) + sizeof(SID_AND_ATTRIBUTES);
    *needed = static_cast<DWORD>(groupsSize + fake->logonSid.size());
    if (size < *needed) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    auto* groups = static_cast<TOKEN_GROUPS*>(out);
    auto* sid = static_cast<uint8_t*>(out) + groupsSize;
    memcpy(sid, fake->logonSid.data(), fake->logonSid.size());
    groups->GroupCount = 2;
    SID_AND_ATTRIBUTES* group = groups->Groups;
    group[0] = {nullptr, 0x40000007};
    group[1] = {sid, fake->tokenHasLogonSession ? 0xC0000007 : 0x80000007};
    return TRUE;
}

BOOL WINAPI Delete(PACL acl, DWORD index) {
    fake->trace += Str_Format("delete %lu ", index);
    if (fake->failDeletes) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return systemCalls.deleteAce(acl, index);
}

} // namespace

FakeStation::FakeStation()
    : stationList(FakeStation_List({0x20, 0x40})), desktopList(FakeStation_List({0x10})),
      logonSid({1, 3, 0, 0, 0, 0, 0, 5, 5, 0, 0, 0, 0, 0, 0, 0, 0x87, 0xD6, 0x12, 0}) {
    fake = this;
    systemCalls = procMgrAccessCalls;
    procMgrAccessCalls = {GetStation,   OpenStation, SetStation,  CloseStation, OpenDefault,
                          CloseDefault, GetSecurity, SetSecurity, GetGroups,    Delete};
}

FakeStation::~FakeStation() {
    procMgrAccessCalls = systemCalls;
    fake = nullptr;
}

ProcMgrBytes FakeStation_List(std::initializer_list<DWORD> rights) {
    SID_IDENTIFIER_AUTHORITY world = SECURITY_WORLD_SID_AUTHORITY;
    PSID everybody = nullptr;
    AllocateAndInitializeSid(&world, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, &everybody);
    ProcMgrBytes list(8 + rights.size() * 20);
    auto* acl = reinterpret_cast<ACL*>(list.data());
    InitializeAcl(acl, static_cast<DWORD>(list.size()), ACL_REVISION);
    for (DWORD each : rights) {
        AddAccessAllowedAce(acl, ACL_REVISION, each, everybody);
    }
    FreeSid(everybody);
    return list;
}
