// The log on the real system: registry, temporary directory, file.
#include "log/log.h"
#include "log/logState.h"
#include "misc/win32Handle.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr wchar_t KEY[] = L"SOFTWARE\\Wow6432Node\\Ravlin, Inc.";
constexpr wchar_t VALUE[] = L"LogLevel";

std::wstring Variable(const wchar_t* name) {
    std::array<wchar_t, 300> value;
    return {value.data(), GetEnvironmentVariableW(name, value.data(), value.size())};
}

// A temporary directory of its own, and the registry as it was before.
class LogWin32 : public testing::Test {
protected:
    void SetUp() override {
        RegistryKey own;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, KEY, 0, KEY_QUERY_VALUE, own.Receive()) == ERROR_SUCCESS) {
            GTEST_SKIP() << "this machine has a log level of its own, which the test would remove";
        }
        directory_ = fs::temp_directory_path() / (L"log\x0107st " + std::to_wstring(GetCurrentProcessId()));
        fs::create_directories(directory_);
        oldTemp_ = Variable(L"TMP");
        SetEnvironmentVariableW(L"TMP", directory_.c_str());
        oldDirectory_ = fs::current_path();
        fs::current_path(directory_);
        logState = {};
    }
    void TearDown() override {
        if (IsSkipped()) {
            return;
        }
        SetEnvironmentVariableW(L"TMP", oldTemp_.c_str());
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, KEY);
        fs::current_path(oldDirectory_);
        fs::remove_all(directory_);
    }

    static void SetLevel(DWORD type, const void* data, DWORD size) {
        RegistryKey key;
        ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, KEY, 0, nullptr, 0, KEY_SET_VALUE, nullptr,
                                  key.Receive(), nullptr),
                  ERROR_SUCCESS);
        RegSetValueExW(key.Get(), VALUE, 0, type, static_cast<const BYTE*>(data), size);
    }
    static void SetLevel(DWORD mask) { SetLevel(REG_DWORD, &mask, sizeof mask); }

    std::string Content(const char* name = "rlinst.log") const {
        std::ifstream file(directory_ / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    fs::path directory_;

private:
    std::wstring oldTemp_;
    fs::path oldDirectory_;
};

TEST_F(LogWin32, WritesStampedLinesWithCrLf) {
    Log_Begin("Upgrader");
    Log_Level(LOG_DETAIL, "Upgrader [%s]", "na\xC3\xAFve");
    Log_Level(LOG_ALWAYS, "%I64u %S", uint64_t{1} << 40, L"wide");
    Log_End();
    EXPECT_TRUE(std::regex_match(
        Content(),
        std::regex("inst : \\d\\d/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d I1:Upgrader \\[na\xC3\xAFve\\]\r\n"
                   "inst : \\d\\d/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d E1:1099511627776 wide\r\n")))
        << Content();
}

TEST_F(LogWin32, AppendsToWhatIsThere) {
    std::ofstream(directory_ / "rlinst.log", std::ios::binary) << "earlier\r\n";
    Log_Begin("Upgrader");
    Log_Error("later");
    std::ofstream(directory_ / "rlinst.log", std::ios::binary | std::ios::app) << "another's\r\n";
    Log_Error("last");
    Log_End();
    EXPECT_TRUE(
        std::regex_match(Content(), std::regex("earlier\r\n.*E1:later\r\nanother's\r\n.*E1:last\r\n")))
        << Content();
}

TEST_F(LogWin32, TakesTheMaskFromTheRegistry) {
    SetLevel(0x308);
    Log_Begin("Upgrader");
    Log_Level(LOG_ALWAYS, "lost");
    Log_Level(8, "warned");
    Log_End();
    EXPECT_TRUE(
        std::regex_match(Content(), std::regex(".*XX:Begin Logging 'Upgrader' \\(LogLevel 0x00000308\\)\r\n"
                                               ".*W1:warned\r\n.*XX:End Logging\r\n")))
        << Content();
}

TEST_F(LogWin32, CreatesNoFileUnderAMaskOfZero) {
    SetLevel(0);
    Log_Begin("Upgrader");
    Log_Error("lost");
    Log_End();
    EXPECT_FALSE(fs::exists(directory_ / "rlinst.log"));
}

TEST_F(LogWin32, TakesTheDefaultForAValueOfAnotherType) {
    const uint64_t number = 0;
    SetLevel(REG_SZ, L"0", 4);
    Log_Begin("Upgrader");
    EXPECT_EQ(logState.mask, 3U);
    Log_End();
    logState = {};
    SetLevel(REG_QWORD, &number, sizeof number);
    Log_Begin("Upgrader");
    EXPECT_EQ(logState.mask, 3U);
    Log_End();
}

TEST_F(LogWin32, FallsBackToTheCurrentDirectory) {
    fs::create_directory(directory_ / "rlinst.log"); // in the file's way
    Log_Begin("Upgrader");
    Log_Level(LOG_DETAIL, "text");
    Log_End();
    EXPECT_TRUE(std::regex_match(
        Content("inst.log"), std::regex(".*E1:Unable to log to intended file .*\\\\rlinst.log, error 5\r\n"
                                        ".*I1:text\r\n")))
        << Content("inst.log");
}

TEST_F(LogWin32, PreservesTheLastError) {
    Log_Begin("Upgrader");
    for (int i = 0; i < 2; i++) {
        SetLastError(4711 + i);
        Log_Error("text");
        EXPECT_EQ(GetLastError(), 4711U + i);
    }
    Log_End();
}

TEST_F(LogWin32, LetsGoOfTheFileAtTheEnd) {
    for (int round = 0; round < 2; round++) {
        Log_Begin("Upgrader");
        Log_Error("text");
        Log_End();
        const FileHandle alone(CreateFileW((directory_ / "rlinst.log").c_str(), GENERIC_READ | DELETE, 0,
                                           nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_TRUE(alone) << GetLastError();
    }
}

KernelHandle StartWriter(const std::wstring& name, int lines) {
    std::array<wchar_t, MAX_PATH> program;
    GetModuleFileNameW(nullptr, program.data(), program.size());
    const fs::path writer = fs::path(program.data()).parent_path() / "logWriter.exe";
    std::wstring command = L"\"" + writer.wstring() + L"\" " + name + L" " + std::to_wstring(lines);
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(writer.c_str(), command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &process)) {
        return {};
    }
    CloseHandle(process.hThread);
    return KernelHandle(process.hProcess);
}

TEST_F(LogWin32, LosesAndTearsNoLineOfTwoProcesses) {
    constexpr int LINES = 4000;
    const KernelHandle one = StartWriter(L"one", LINES);
    const KernelHandle two = StartWriter(L"two", LINES);
    ASSERT_TRUE(one && two);
    const HANDLE both[] = {one.Get(), two.Get()};
    ASSERT_EQ(WaitForMultipleObjects(2, both, TRUE, 120000), WAIT_OBJECT_0);

    const std::regex shape("inst : [0-9/]{8} [0-9:]{8} E1:(one|two) (\\d{6}) (0+)\r");
    std::ifstream file(directory_ / "rlinst.log", std::ios::binary);
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
    EXPECT_TRUE(std::regex_match(Content(), std::regex(".*E1:text\r\n"))) << Content();
}

} // namespace
