// The calls themselves: registry, input desktop, privilege.
#include "system/system.h"

#include "support/diagCapture.h"
#include "misc/win32Handle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>
#include <windows.h>

namespace {

using testing::ElementsAre;
using testing::StartsWith;

constexpr char CLASS_KEY[] =
    "SYSTEM\\CurrentControlSet\\Control\\Class\\{4D36E966-E325-11CE-BFC1-08002BE10318}";

// The registry key of the system's first device, put back to "not there" afterwards.
class SystemAcpi : public testing::Test {
protected:
    SystemAcpi() { RegDeleteKeyA(HKEY_LOCAL_MACHINE, (std::string(CLASS_KEY) + "\\0000").c_str()); }
    ~SystemAcpi() override { RegDeleteKeyA(HKEY_LOCAL_MACHINE, (std::string(CLASS_KEY) + "\\0000").c_str()); }

    static void Describe(DWORD type, const std::string& description) {
        RegistryKey key;
        ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, (std::string(CLASS_KEY) + "\\0000").c_str(), 0, nullptr,
                                  0, KEY_ALL_ACCESS, nullptr, key.Receive(), nullptr),
                  ERROR_SUCCESS);
        ASSERT_EQ(RegSetValueExA(key.Get(), "DriverDesc", 0, type,
                                 reinterpret_cast<const BYTE*>(description.data()),
                                 static_cast<DWORD>(description.size())),
                  ERROR_SUCCESS);
    }
};

TEST_F(SystemAcpi, NoKeyMeansNo) {
    EXPECT_FALSE(System_IsAcpi());
}

TEST_F(SystemAcpi, DescriptionDecides) {
    Describe(REG_SZ, "Microsoft ACPI-Compliant System");
    EXPECT_TRUE(System_IsAcpi());
    Describe(REG_SZ, "MPS Multiprocessor PC");
    EXPECT_FALSE(System_IsAcpi());
    Describe(REG_BINARY, "acpi"); // not terminated
    EXPECT_TRUE(System_IsAcpi());
}

TEST_F(SystemAcpi, TooLongADescriptionIsAFailure) {
    Describe(REG_BINARY, "acpi" + std::string(1019, '.'));
    EXPECT_TRUE(System_IsAcpi());
    Describe(REG_BINARY, "acpi" + std::string(1020, '.'));
    EXPECT_FALSE(System_IsAcpi());
}

TEST(SystemLoginScreen, TellsTheInputDesktopByName) {
    DiagCapture_Take();
    EXPECT_FALSE(System_IsLoginScreenActive());
    std::vector<std::string> debug = DiagCapture_Take().debug;
    ASSERT_EQ(debug.size(), 2u);
    EXPECT_EQ(debug[0], "System_IsLoginScreenActive: able to open desktop\n");
    EXPECT_THAT(debug[1], StartsWith("System_IsLoginScreenActive: desktop name is "));
}

bool HoldsShutdownPrivilege() {
    KernelHandle token;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Receive());
    PRIVILEGE_SET wanted{};
    wanted.PrivilegeCount = 1;
    wanted.Control = PRIVILEGE_SET_ALL_NECESSARY;
    LookupPrivilegeValueW(nullptr, L"SeShutdownPrivilege", &wanted.Privilege[0].Luid);
    DWORD size = 0;
    GetTokenInformation(token.Get(), TokenPrivileges, nullptr, 0, &size);
    std::vector<DWORD> buffer(size / sizeof(DWORD) + 1);
    EXPECT_TRUE(GetTokenInformation(token.Get(), TokenPrivileges, buffer.data(), size, &size));
    const auto* held = reinterpret_cast<const TOKEN_PRIVILEGES*>(buffer.data());
    for (DWORD index = 0; index < held->PrivilegeCount; index++) {
        const LUID_AND_ATTRIBUTES& each = held->Privileges[index];
        if (each.Luid.LowPart == wanted.Privilege[0].Luid.LowPart &&
            each.Luid.HighPart == wanted.Privilege[0].Luid.HighPart) {
            return (each.Attributes & SE_PRIVILEGE_ENABLED) != 0;
        }
    }
    return false;
}

void DisableShutdownPrivilege(DWORD attributes) {
    KernelHandle token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, token.Receive()));
    TOKEN_PRIVILEGES change{};
    change.PrivilegeCount = 1;
    change.Privileges[0].Attributes = attributes;
    ASSERT_TRUE(LookupPrivilegeValueW(nullptr, L"SeShutdownPrivilege", &change.Privileges[0].Luid));
    ASSERT_TRUE(AdjustTokenPrivileges(token.Get(), FALSE, &change, 0, nullptr, nullptr));
}

TEST(SystemPrivilege, IsEnabledOnTheProcess) {
    DisableShutdownPrivilege(0);
    ASSERT_FALSE(HoldsShutdownPrivilege());
    DiagCapture_Take();
    DWORD handlesBefore = 0;
    DWORD handlesAfter = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handlesBefore);
    System_SetProcessPrivilege();
    GetProcessHandleCount(GetCurrentProcess(), &handlesAfter);
    EXPECT_TRUE(HoldsShutdownPrivilege());
    EXPECT_THAT(DiagCapture_Take().debug, ElementsAre());
    EXPECT_EQ(handlesAfter, handlesBefore);
}

// Removing it is for good, so this comes last: the adjustment then succeeds and grants nothing.
TEST(SystemPrivilege, ZLastAMissingPrivilegeIsLogged) {
    DisableShutdownPrivilege(SE_PRIVILEGE_REMOVED);
    DiagCapture_Take();
    System_SetProcessPrivilege();
    EXPECT_FALSE(HoldsShutdownPrivilege());
    EXPECT_THAT(DiagCapture_Take().debug,
                ElementsAre("System_SetProcessPrivilege: AdjustTokenPrivileges failed: 1300\n"));
}

} // namespace
