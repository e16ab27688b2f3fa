#include "fileTestWin32.h"

using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

BOOL WINAPI NoTokenEither(HANDLE, DWORD, BOOL, PHANDLE) {
    // For the second question the thread is somebody.
    HANDLE token = nullptr;
    SetLastError(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token) ? ERROR_CANT_OPEN_ANONYMOUS
                                                                                : ERROR_NO_TOKEN);
    KernelHandle closed(token);
    return FALSE;
}

BOOL WINAPI EverGrowing(LPCWSTR, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR, DWORD size, LPDWORD needed) {
    *needed = size + 1;
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
}

BOOL WINAPI Nobodys(LPCWSTR, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR buffer, DWORD size, LPDWORD needed) {
    *needed = sizeof(SECURITY_DESCRIPTOR);
    if (size < *needed) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    return InitializeSecurityDescriptor(buffer, SECURITY_DESCRIPTOR_REVISION);
}

BOOL WINAPI Refuse(PSECURITY_DESCRIPTOR, HANDLE, DWORD desired, PGENERIC_MAPPING mapping, PPRIVILEGE_SET,
                   LPDWORD, LPDWORD, LPBOOL status) {
    EXPECT_EQ(desired, 0x120116u);
    EXPECT_EQ(mapping->GenericAll, 0x1201BFu);
    *status = FALSE;
    return TRUE;
}

TEST_F(FileWin32Test, WhetherADirectoryIsWritable) {
    const std::string directory = Name("\xC3\xA4\xE2\x82\xAC");
    ASSERT_TRUE(File_CreateDirectory(directory.c_str()));
    const std::string unreadable =
        "Cannot get the directory's security descriptor.Directory is \"" + directory + "\", error is ";
    const FileWin32Calls real = fileWin32Calls;
    struct {
        void (*replace)();
        bool answer;
        std::string warning;
    } const cases[] = {
        {[] {}, true, ""},
        {[] { FailWith<ERROR_CALL_NOT_IMPLEMENTED>(&fileWin32Calls.openThreadToken); }, true, ""},
        {[] { FailWith<ERROR_ACCESS_DENIED>(&fileWin32Calls.openThreadToken); }, false,
         "Cannot get the thread access token (error 5).\n"},
        {[] { fileWin32Calls.openThreadToken = NoTokenEither; }, false,
         "Cannot get the process access token (error 1347).\n"},
        {[] { FailWith<ERROR_BAD_IMPERSONATION_LEVEL>(&fileWin32Calls.impersonateSelf); }, false,
         "Unable to impersonate self (error 1346).\n"},
        {[] { FailWith<ERROR_ACCESS_DENIED>(&fileWin32Calls.getFileSecurity); }, false, unreadable + "5.\n"},
        {[] { fileWin32Calls.getFileSecurity = EverGrowing; }, false, unreadable + "122.\n"},
        {[] {
             fileWin32Calls.getFileSecurity = Nobodys;
             fileWin32Calls.accessCheck = nullptr; // not asked
         },
         true, ""},
        {[] { fileWin32Calls.accessCheck = Refuse; }, false, ""},
        {[] { FailWith<ERROR_INVALID_SECURITY_DESCR>(&fileWin32Calls.accessCheck); }, false,
         "Unable to check access rights (error 1338).\n"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.warning);
        row.replace();
        EXPECT_EQ(FileIsWritableDir(directory.c_str()), row.answer);
        fileWin32Calls = real;
        std::vector<std::string> warnings;
        if (!row.warning.empty()) {
            warnings = {"FILE: FileIsWritableDir: " + row.warning};
        }
        EXPECT_THAT(DiagCapture_Take().warning, ElementsAreArray(warnings));
        HANDLE token = nullptr; // nobody is left impersonated
        EXPECT_FALSE(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token));
    }
}

TEST_F(FileWin32Test, WhatIsNoDirectoryIsNotWritable) {
    WriteFileText("file", "");
    EXPECT_FALSE(FileIsWritableDir(Name("file").c_str()));
    EXPECT_FALSE(FileIsWritableDir(Name("missing").c_str()));
    EXPECT_FALSE(FileIsWritableDir(nullptr));
    EXPECT_THAT(DiagCapture_Take().warning, IsEmpty());
}

// The places that the system names, for the replaced calls; empty ones it does not know.
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
    wcscpy(path, userFolder.c_str());
    return userFolder.empty() ? E_FAIL : S_OK;
}

TEST_F(FileWin32Test, TheFirstUsableTemporaryDirectoryIsTaken) {
    fileWin32Calls.getTempPath = GiveSystemTemp;
    fileWin32Calls.getFolderPath = GiveUserFolder;
    ASSERT_TRUE(File_CreateDirectory(Name("system").c_str()));
    ASSERT_TRUE(File_CreateDirectory(Name("user").c_str()));
    SetEnvironmentVariableW(L"FILE_TEST_DIR", L"system");
    struct {
        std::wstring system;
        std::wstring user;
        std::optional<std::string> directory;
    } const cases[] = {
        {WideName("system\\"), WideName("user"), Name("system")},
        {WideName("system"), L"", Name("system")},
        {WideName("$FILE_TEST_DIR\\"), L"", Name("system")},
        {WideName("missing\\"), WideName("user"), Name("user\\Temp")},
        {L"", WideName("user"), Name("user\\Temp")},
        {L"", WideName("missing"), std::nullopt},
        {WideName("missing\\"), L"", std::nullopt},
    };
    for (const auto& row : cases) {
        systemTemp = row.system;
        userFolder = row.user;
        EXPECT_EQ(File_GetTmpDir(true), row.directory);
        std::vector<std::string> warnings;
        if (!row.directory) {
            warnings = {"FILE: File_GetTmpDir: Couldn't get a temporary directory\n"};
        }
        EXPECT_THAT(DiagCapture_Take().warning, ElementsAreArray(warnings));
    }
    SetEnvironmentVariableW(L"FILE_TEST_DIR", nullptr);
}

TEST_F(FileWin32Test, TheRealTemporaryDirectoriesCanBeHad) {
    EXPECT_TRUE(File_IsDirectory(File_GetTmpDir(true).value_or("").c_str()));
    FailWith<ERROR_NOT_ENOUGH_MEMORY>(&fileWin32Calls.getTempPath);
    std::string user = File_GetTmpDir(true).value_or("");
    EXPECT_TRUE(File_IsDirectory(user.c_str()));
    EXPECT_TRUE(user.ends_with("\\Temp"));
}

} // namespace
