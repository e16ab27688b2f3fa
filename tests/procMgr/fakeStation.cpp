#include "fakeStation.h"

#include "string/str.h"

#include <initializer_list>
#include <vector>

#include <gtest/gtest.h>

namespace {

FakeStation* fake = nullptr;
ProcMgrAccessCalls systemCalls;

// Counts a call; true when it is the one to fail.
bool Fails() {
    if (++fake->callCount == fake->failCall) {
        SetLastError(ERROR_ACCESS_DENIED);
        return true;
    }
    return false;
}

// Gives the object a list of access-allowed entries with these rights for everybody.
void SetList(const KernelHandle& object, std::initializer_list<DWORD> rights) {
    SID everybody = {SID_REVISION, 1, SECURITY_WORLD_SID_AUTHORITY, {SECURITY_WORLD_RID}};
    std::vector<DWORD> list(50);
    auto* acl = reinterpret_cast<ACL*>(list.data());
    InitializeAcl(acl, static_cast<DWORD>(8 + 20 * rights.size()), ACL_REVISION);
    for (DWORD each : rights) {
        AddAccessAllowedAce(acl, ACL_REVISION, each, &everybody);
    }
    SECURITY_DESCRIPTOR descriptor;
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&descriptor, TRUE, acl, FALSE);
    EXPECT_TRUE(SetKernelObjectSecurity(object.Get(), DACL_SECURITY_INFORMATION, &descriptor));
}

HWINSTA WINAPI GetStation() {
    return nullptr;
}

HWINSTA WINAPI OpenStation(LPCWSTR name, BOOL inherit, ACCESS_MASK rights) {
    fake->opened += Str_Format("%S %d %lx;", name, inherit, rights);
    if (Fails()) {
        return nullptr;
    }
    fake->openStations++;
    return static_cast<HWINSTA>(fake->station.Get());
}

BOOL WINAPI SetStation(HWINSTA station) {
    if (Fails()) {
        return FALSE;
    }
    fake->onOwnStation = station == nullptr;
    return TRUE;
}

BOOL WINAPI CloseStation(HWINSTA station) {
    if (station == nullptr || !fake->onOwnStation) {
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
    return static_cast<HDESK>(fake->desktop.Get());
}

BOOL WINAPI CloseDefault(HDESK) {
    fake->openDesktops--;
    return TRUE;
}

BOOL WINAPI GetSecurity(HANDLE object, PSECURITY_INFORMATION what, PSECURITY_DESCRIPTOR out, DWORD size,
                        LPDWORD needed) {
    if (Fails()) {
        return FALSE;
    }
    if (GetKernelObjectSecurity(object, *what, out, size, needed)) {
        return TRUE;
    }
    if (std::exchange(fake->listGrowsOnce, false)) {
        SetList(fake->station, {1, 2, 3, 4, 5, 6, 7, 8});
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
    }
    return FALSE;
}

BOOL WINAPI SetSecurity(HANDLE object, PSECURITY_INFORMATION what, PSECURITY_DESCRIPTOR in) {
    if (Fails() || !SetKernelObjectSecurity(object, *what, in)) {
        return FALSE;
    }
    fake->trace += object == fake->desktop.Get() ? "desktop! " : "station! ";
    return TRUE;
}

BOOL WINAPI GetGroups(HANDLE token, TOKEN_INFORMATION_CLASS kind, void* out, DWORD size, PDWORD needed) {
    HANDLE readable = fake->anyTokenServes ? fake->token.Get() : token;
    if (Fails() || !GetTokenInformation(readable, kind, out, size, needed)) {
        return FALSE;
    }
    auto* groups = static_cast<TOKEN_GROUPS*>(out);
    for (DWORD i = 0; i < groups->GroupCount && !fake->tokenHasLogonSession; i++) {
        groups->Groups[i].Attributes &= ~0x40000000u; // one of the two bits that make a logon session
    }
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
    : station(CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      desktop(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, token.Receive()));
    SetList(station, {0x20, 0x40});
    SetList(desktop, {0x10});
    fake = this;
    systemCalls = procMgrAccessCalls;
    procMgrAccessCalls = {GetStation,   OpenStation, SetStation,  CloseStation, OpenDefault,
                          CloseDefault, GetSecurity, SetSecurity, GetGroups,    Delete};
}

FakeStation::~FakeStation() {
    procMgrAccessCalls = systemCalls;
    fake = nullptr;
}

std::string FakeStation::ListOf(const KernelHandle& object) {
    std::vector<DWORD> descriptor(250);
    DWORD needed = 0;
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    ACL* acl = nullptr;
    EXPECT_TRUE(
        GetKernelObjectSecurity(object.Get(), DACL_SECURITY_INFORMATION, descriptor.data(), 1000, &needed));
    EXPECT_TRUE(GetSecurityDescriptorDacl(descriptor.data(), &present, &acl, &defaulted));
    std::string entries;
    for (DWORD index = 0; present && acl && index < acl->AceCount; index++) {
        void* entry = nullptr;
        EXPECT_TRUE(GetAce(acl, index, &entry));
        auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
        EXPECT_EQ(allowed->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
        const bool isLogon = *GetSidSubAuthority(&allowed->SidStart, 0) == SECURITY_LOGON_IDS_RID;
        entries += Str_Format("%d:%lx%s ", allowed->Header.AceFlags, allowed->Mask, isLogon ? "*" : "");
    }
    return entries;
}
