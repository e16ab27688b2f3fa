#include "fileTestWin32.h"

#include <aclapi.h>
#include <shlobj.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace {

class FileIsWritableDirTest : public FileWin32Test {
protected:
    void ExpectAnswer(bool answer, const std::string& warning) {
        EXPECT_EQ(FileIsWritableDir(directory_.c_str()), answer);
        if (warning.empty()) {
            EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
        } else {
            EXPECT_THAT(DiagCapture_Take().warning, ElementsAre("FILE: FileIsWritableDir: " + warning));
        }
        HANDLE token = nullptr; // nobody is left impersonated
        EXPECT_FALSE(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token));
    }
};

template <DWORD Error>
BOOL WINAPI NoToken(HANDLE, DWORD, BOOL, PHANDLE) {
    SetLastError(Error);
    return FALSE;
}

int tokenCalls;

BOOL WINAPI NoTokenTheSecondTime(HANDLE, DWORD, BOOL, PHANDLE) {
    SetLastError(tokenCalls++ == 0 ? ERROR_NO_TOKEN : ERROR_CANT_OPEN_ANONYMOUS);
    return FALSE;
}

TEST_F(FileIsWritableDirTest, ADirectoryOfOursIs) {
    ExpectAnswer(true, "");
}

TEST_F(FileIsWritableDirTest, WhatIsNoDirectoryIsNot) {
    WriteFileText("file", "");
    EXPECT_FALSE(FileIsWritableDir(Name("file").c_str()));
    EXPECT_FALSE(FileIsWritableDir(Name("missing").c_str()));
    EXPECT_FALSE(FileIsWritableDir(nullptr));
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

TEST_F(FileIsWritableDirTest, WithoutSecurityEverythingIs) {
    fileWin32Calls.openThreadToken = NoToken<ERROR_CALL_NOT_IMPLEMENTED>;
    ExpectAnswer(true, "");
}

TEST_F(FileIsWritableDirTest, ATokenThatCannotBeHadIsNamed) {
    fileWin32Calls.openThreadToken = NoToken<ERROR_ACCESS_DENIED>;
    ExpectAnswer(false, "Cannot get the thread access token (error 5).\n");
    tokenCalls = 0;
    fileWin32Calls.openThreadToken = NoTokenTheSecondTime;
    ExpectAnswer(false, "Cannot get the process access token (error 1347).\n");
    EXPECT_EQ(tokenCalls, 2);
}

TEST_F(FileIsWritableDirTest, AFailedImpersonationIsNamed) {
    fileWin32Calls.openThreadToken = NoToken<ERROR_NO_TOKEN>;
    fileWin32Calls.impersonateSelf = [](SECURITY_IMPERSONATION_LEVEL level) -> BOOL {
        EXPECT_EQ(level, 2);
        SetLastError(ERROR_BAD_IMPERSONATION_LEVEL);
        return FALSE;
    };
    ExpectAnswer(false, "Unable to impersonate self (error 1346).\n");
}

TEST_F(FileIsWritableDirTest, AnUnreadableDescriptorIsNamedWithTheDirectory) {
    fileWin32Calls.getFileSecurity = [](LPCWSTR, SECURITY_INFORMATION asked, PSECURITY_DESCRIPTOR, DWORD,
                                        LPDWORD) -> BOOL {
        EXPECT_EQ(asked, 7u);
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    };
    ExpectAnswer(false, "Cannot get the directory's security descriptor.Directory is \"" + directory_ +
                            "\", error is 5.\n");
}

BOOL WINAPI EverGrowing(LPCWSTR, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR, DWORD size, LPDWORD needed) {
    *needed = size + 1;
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
}

TEST_F(FileIsWritableDirTest, ADescriptorThatKeepsGrowingIsGivenUp) {
    fileWin32Calls.getFileSecurity = EverGrowing;
    ExpectAnswer(false, "Cannot get the directory's security descriptor.Directory is \"" + directory_ +
                            "\", error is 122.\n");
}

BOOL WINAPI NobodysDirectory(LPCWSTR, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR buffer, DWORD size,
                             LPDWORD needed) {
    *needed = sizeof(SECURITY_DESCRIPTOR);
    if (size < *needed) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    return InitializeSecurityDescriptor(buffer, SECURITY_DESCRIPTOR_REVISION);
}

TEST_F(FileIsWritableDirTest, ADirectoryWithoutOwnerAndGroupIs) {
    fileWin32Calls.getFileSecurity = NobodysDirectory;
    fileWin32Calls.accessCheck = nullptr; // not asked
    ExpectAnswer(true, "");
}

BOOL WINAPI Refuse(PSECURITY_DESCRIPTOR, HANDLE, DWORD desired, PGENERIC_MAPPING mapping, PPRIVILEGE_SET,
                   LPDWORD privilegesSize, LPDWORD, LPBOOL status) {
    EXPECT_EQ(desired, 0x120116u);
    EXPECT_EQ(mapping->GenericRead, 0x120089u);
    EXPECT_EQ(mapping->GenericWrite, 0x120116u);
    EXPECT_EQ(mapping->GenericExecute, 0x1200A0u);
    EXPECT_EQ(mapping->GenericAll, 0x1201BFu);
    EXPECT_EQ(*privilegesSize, 20u);
    *status = FALSE;
    return TRUE;
}

TEST_F(FileIsWritableDirTest, TheAccessCheckDecides) {
    fileWin32Calls.accessCheck = Refuse;
    ExpectAnswer(false, "");
    fileWin32Calls.accessCheck = [](PSECURITY_DESCRIPTOR, HANDLE, DWORD, PGENERIC_MAPPING, PPRIVILEGE_SET,
                                    LPDWORD, LPDWORD, LPBOOL) -> BOOL {
        SetLastError(ERROR_INVALID_SECURITY_DESCR);
        return FALSE;
    };
    ExpectAnswer(false, "Unable to check access rights (error 1338).\n");
}

// The places that the system names, for the replaced calls.
std::wstring systemTemp;
std::wstring userFolder;

DWORD WINAPI GiveSystemTemp(DWORD size, LPWSTR buffer) {
    DWORD needed = static_cast<DWORD>(systemTemp.size()) + 1;
    if (size < needed) {
        return systemTemp.empty() ? 0 : needed;
    }
    wcscpy(buffer, systemTemp.c_str());
    return needed - 1;
}

HRESULT GiveUserFolder(int folder, wchar_t* path) {
    EXPECT_EQ(folder, 0x801C);
    if (userFolder.empty()) {
        return E_FAIL;
    }
    wcscpy(path, userFolder.c_str());
    return S_OK;
}

class FileTmpDirTest : public FileWin32Test {
protected:
    FileTmpDirTest() {
        fileWin32Calls.getTempPath = GiveSystemTemp;
        fileWin32Calls.getFolderPath = GiveUserFolder;
        systemTemp = WideText(directory_) + L"\\";
        userFolder = WideName("user");
        CreateDirectoryW(userFolder.c_str(), nullptr);
    }
};

TEST_F(FileTmpDirTest, TheSystemsOneLosesItsSeparator) {
    EXPECT_EQ(File_GetTmpDir(true), directory_);
    EXPECT_EQ(File_GetTmpDir(false), directory_);
    EXPECT_FALSE(File_Exists(Name("user\\Temp").c_str())); // only made when it is needed
    systemTemp = WideText(directory_);
    EXPECT_EQ(File_GetTmpDir(true), directory_);
}

TEST_F(FileTmpDirTest, TheUsersOneIsMadeWhenTheSystemsCannotBeUsed) {
    for (const wchar_t* unusable : {L"C:\\missing\\", L""}) {
        systemTemp = unusable;
        EXPECT_EQ(File_GetTmpDir(true), Name("user\\Temp"));
        EXPECT_TRUE(File_IsDirectory(Name("user\\Temp").c_str()));
    }
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

TEST_F(FileTmpDirTest, NoneIsAWarning) {
    systemTemp = L"C:\\missing\\";
    userFolder = L"C:\\missing";
    EXPECT_EQ(File_GetTmpDir(true), std::nullopt);
    EXPECT_THAT(DiagCapture_Take().warning,
                ElementsAre("FILE: File_GetTmpDir: Couldn't get a temporary directory\n"));
    userFolder.clear();
    EXPECT_EQ(File_GetTmpDir(false), std::nullopt);
}

TEST_F(FileTmpDirTest, EnvironmentReferencesAreExpanded) {
    ASSERT_TRUE(File_CreateDirectory(Name("expanded").c_str()));
    SetEnvironmentVariableW(L"FILE_TEST_DIR", L"expanded");
    systemTemp = WideName("$FILE_TEST_DIR") + L"\\";
    EXPECT_EQ(File_GetTmpDir(true), Name("expanded"));
    SetEnvironmentVariableW(L"FILE_TEST_DIR", nullptr);
}

TEST_F(FileWin32Test, TheRealTemporaryDirectoriesCanBeHad) {
    std::optional<std::string> system = File_GetTmpDir(true);
    ASSERT_TRUE(system);
    EXPECT_TRUE(File_IsDirectory(system->c_str()));
    fileWin32Calls.getTempPath = [](DWORD, LPWSTR) -> DWORD { return 0; };
    std::optional<std::string> user = File_GetTmpDir(true);
    ASSERT_TRUE(user);
    EXPECT_TRUE(File_IsDirectory(user->c_str()));
    EXPECT_TRUE(user->ends_with("\\Temp"));
}

} // namespace
