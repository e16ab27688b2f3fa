// The log on the real system: registry, temporary directory, file.
#include "log/log.h"
#include "log/logState.h"
#include "misc/win32Handle.h"
#include "procMgr/procMgr.h"
#include "support/testFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <string>

namespace {

namespace fs = std::filesystem;

constexpr wchar_t KEY[] = L"SOFTWARE\\Wow6432Node\\Ravlin, Inc.";

// A temporary directory of its own, which is also the current one, and no key in the registry.
class LogWin32 : public testing::Test {
protected:
    void SetUp() override {
        RegistryKey own;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, KEY, 0, KEY_QUERY_VALUE, own.Receive()) == ERROR_SUCCESS) {
            GTEST_SKIP() << "this machine has a log level of its own, which the test would remove";
        }
        oldTemp = _wgetenv(L"TMP");
        SetEnvironmentVariableW(L"TMP", directory.c_str());
        fs::current_path(directory);
        logState = {};
    }
    void TearDown() override {
        if (!IsSkipped()) {
            SetEnvironmentVariableW(L"TMP", oldTemp.c_str());
            RegDeleteKeyW(HKEY_LOCAL_MACHINE, KEY);
            fs::current_path(directory.parent_path());
        }
    }

    static void SetLevel(DWORD type, uint64_t value, DWORD size) {
        RegistryKey key;
        ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, KEY, 0, nullptr, 0, KEY_SET_VALUE, nullptr,
                                  key.Receive(), nullptr),
                  ERROR_SUCCESS);
        RegSetValueExW(key.Get(), L"LogLevel", 0, type, reinterpret_cast<const BYTE*>(&value), size);
    }

    void ExpectContent(const std::string& pattern, const char* name = "rlinst.log") const {
        std::ifstream file(directory / name, std::ios::binary);
        const std::string content{std::istreambuf_iterator<char>(file), {}};
        EXPECT_TRUE(std::regex_match(content, std::regex(pattern))) << content;
    }

    TestFolder folder;
    const fs::path& directory = folder.Path();

private:
    std::wstring oldTemp;
};

TEST_F(LogWin32, WritesStampedLinesWithCrLfAndPreservesTheLastError) {
    Log_Begin("Upgrader");
    SetLastError(4711);
    Log_Level(LOG_DETAIL, "Upgrader [%s]", "na\xC3\xAFve"); // opens the file
    EXPECT_EQ(GetLastError(), 4711U);
    Log_Level(LOG_ALWAYS, "%I64u %S", uint64_t{1} << 40, L"wide");
    EXPECT_EQ(GetLastError(), 4711U);
    Log_End();
    ExpectContent("inst : \\d\\d/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d I1:Upgrader \\[na\xC3\xAFve\\]\r\n"
                  "inst : \\d\\d/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d E1:1099511627776 wide\r\n");
}

TEST_F(LogWin32, AppendsToWhatIsThereAndLetsGoAtTheEnd) {
    std::ofstream(directory / "rlinst.log", std::ios::binary) << "earlier\r\n";
    Log_Begin("Upgrader");
    Log_Error("later");
    std::ofstream(directory / "rlinst.log", std::ios::binary | std::ios::app) << "another's\r\n";
    Log_Error("last");
    Log_End();
    ExpectContent("earlier\r\n.*E1:later\r\nanother's\r\n.*E1:last\r\n");
    EXPECT_TRUE(FileHandle(CreateFileW(L"rlinst.log", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr)));
}

TEST_F(LogWin32, TakesTheMaskFromTheRegistry) {
    SetLevel(REG_DWORD, 0x308, 4);
    Log_Begin("Upgrader");
    Log_Level(LOG_ALWAYS, "lost");
    Log_Level(8, "warned");
    Log_End();
    ExpectContent(".*XX:Begin Logging 'Upgrader' \\(LogLevel 0x00000308\\)\r\n"
                  ".*W1:warned\r\n.*XX:End Logging\r\n");
}

TEST_F(LogWin32, TakesTheDefaultForAValueOfAnotherType) {
    for (DWORD type : {REG_SZ, REG_QWORD, REG_BINARY}) {
        SetLevel(type, 0, type == REG_QWORD ? 8 : 4);
        logState = {};
        Log_Begin("Upgrader");
        EXPECT_EQ(logState.mask, 3U) << type;
        Log_End();
    }
}

TEST_F(LogWin32, FallsBackToTheCurrentDirectory) {
    fs::create_directory(directory / "rlinst.log"); // in the file's way
    Log_Begin("Upgrader");
    Log_Level(LOG_DETAIL, "text");
    Log_End();
    ExpectContent(".*E1:Unable to log to intended file .*\\\\rlinst.log, error 5\r\n.*I1:text\r\n",
                  "inst.log");
}

TEST_F(LogWin32, LosesAndTearsNoLineOfTwoProcesses) {
    constexpr int LINES = 4000;
    const fs::path writer = TestFolder::OfPrograms() / "logWriter.exe";
    using Process = std::unique_ptr<ProcMgr_AsyncProc, void (*)(ProcMgr_AsyncProc*)>;
    const auto start = [&writer](const char* name) {
        const std::string command =
            "\"" + TestFolder::Utf8(writer) + "\" " + name + " " + std::to_string(LINES);
        return Process(ProcMgr_ExecAsync(command.c_str(), nullptr), ProcMgr_Free);
    };
    const Process one = start("one");
    const Process two = start("two");
    ASSERT_TRUE(one && two);
    for (const Process* each : {&one, &two}) {
        ASSERT_EQ(WaitForSingleObject(ProcMgr_GetAsyncProcSelectable(each->get()), 120000), WAIT_OBJECT_0);
    }
    const std::regex shape("inst : [0-9/]{8} [0-9:]{8} E1:(one|two) (\\d{6}) (0+)\r");
    std::ifstream file(directory / "rlinst.log", std::ios::binary);
    int next[2] = {};
    for (std::string line; std::getline(file, line);) {
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(line, parts, shape)) << line;
        int& expected = next[parts[1] == "one" ? 0 : 1];
        ASSERT_EQ(std::stoi(parts[2]), expected);
        ASSERT_EQ(parts[3].length(), 20 + expected % 80);
        expected++;
    }
    EXPECT_EQ(next[0], LINES);
    EXPECT_EQ(next[1], LINES);
}

// A process that was killed between taking the lock and giving it back.
TEST_F(LogWin32, DoesNotWaitForADeadWriter) {
    KernelHandle mapping(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(LONG),
                                            L"Global\\rlinst.log"));
    auto* word = static_cast<volatile LONG*>(MapViewOfFile(mapping.Get(), FILE_MAP_WRITE, 0, 0, 0));
    ASSERT_NE(word, nullptr);
    *word = 0x7FFFFFF0;
    Log_Begin("Upgrader");
    Log_Error("text");
    Log_End();
    EXPECT_EQ(*word, 0);
    UnmapViewOfFile(const_cast<LONG*>(word));
    ExpectContent(".*E1:text\r\n");
}

} // namespace
