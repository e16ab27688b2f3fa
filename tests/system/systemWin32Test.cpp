// The calls themselves: registry, input desktop, privilege.
#include "system/system.h"

#include "misc/win32Handle.h"
#include "support/diagCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <windows.h>

namespace {

using testing::ElementsAre;
using testing::StartsWith;

// Describes the system's first device, and forgets that again.
bool IsAcpiWith(DWORD type, const std::string& description) {
    constexpr char KEY[] =
        "SYSTEM\\CurrentControlSet\\Control\\Class\\{4D36E966-E325-11CE-BFC1-08002BE10318}\\0000";
    RegistryKey key;
    EXPECT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, KEY, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.Receive(),
                              nullptr),
              ERROR_SUCCESS);
    RegSetValueExA(key.Get(), "DriverDesc", 0, type, reinterpret_cast<const BYTE*>(description.data()),
                   static_cast<DWORD>(description.size()));
    const bool isAcpi = System_IsAcpi();
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, KEY);
    return isAcpi;
}

TEST(SystemAcpi, TheDescriptionDecides) {
    EXPECT_TRUE(IsAcpiWith(REG_SZ, "Microsoft ACPI-Compliant System"));
    EXPECT_FALSE(IsAcpiWith(REG_SZ, "MPS Multiprocessor PC"));
    EXPECT_TRUE(IsAcpiWith(REG_BINARY, "acpi")); // not terminated
    EXPECT_TRUE(IsAcpiWith(REG_BINARY, "acpi" + std::string(1019, '.')));
    EXPECT_FALSE(IsAcpiWith(REG_BINARY, "acpi" + std::string(1020, '.'))); // too long
    EXPECT_FALSE(System_IsAcpi());                                         // no key
}

TEST(SystemLoginScreen, TellsTheInputDesktopByName) {
    DiagCapture_Take();
    EXPECT_FALSE(System_IsLoginScreenActive());
    EXPECT_THAT(DiagCapture_Take().debug,
                ElementsAre("System_IsLoginScreenActive: able to open desktop\n",
                            StartsWith("System_IsLoginScreenActive: desktop name is ")));
}

// Changes the privilege of this process; true when it was enabled before.
bool ChangeShutdownPrivilege(DWORD attributes) {
    KernelHandle token;
    TOKEN_PRIVILEGES change{};
    TOKEN_PRIVILEGES before{};
    DWORD size = 0;
    change.PrivilegeCount = 1;
    change.Privileges[0].Attributes = attributes;
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, token.Receive()));
    EXPECT_TRUE(LookupPrivilegeValueW(nullptr, L"SeShutdownPrivilege", &change.Privileges[0].Luid));
    EXPECT_TRUE(AdjustTokenPrivileges(token.Get(), FALSE, &change, sizeof before, &before, &size));
    return before.PrivilegeCount == 1 && (before.Privileges[0].Attributes & SE_PRIVILEGE_ENABLED) != 0;
}

TEST(SystemPrivilege, IsEnabledOnTheProcess) {
    ChangeShutdownPrivilege(0);
    DiagCapture_Take();
    DWORD handlesBefore = 0;
    DWORD handlesAfter = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handlesBefore);
    System_SetProcessPrivilege();
    GetProcessHandleCount(GetCurrentProcess(), &handlesAfter);
    EXPECT_EQ(handlesAfter, handlesBefore);
    EXPECT_TRUE(ChangeShutdownPrivilege(0));
    EXPECT_THAT(DiagCapture_Take().debug, ElementsAre());
}

// Removing it is for good, so this comes last: the adjustment then succeeds and grants nothing.
TEST(SystemPrivilege, ZLastAMissingPrivilegeIsLogged) {
    ChangeShutdownPrivilege(SE_PRIVILEGE_REMOVED);
    DiagCapture_Take();
    System_SetProcessPrivilege();
    EXPECT_THAT(DiagCapture_Take().debug,
                ElementsAre("System_SetProcessPrivilege: AdjustTokenPrivileges failed: 1300\n"));
}

} // namespace
