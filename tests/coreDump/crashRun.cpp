#include "crashRun.h"

#include "misc/win32Handle.h"

#include <fstream>
#include <iterator>
#include <sstream>

#include <gtest/gtest.h>
#include <windows.h>

namespace fs = std::filesystem;

namespace {

constexpr DWORD LIMIT_MS = 60000;

fs::path OwnFolder() {
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return fs::path(path).parent_path();
}

std::string ReadAll(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        lines.push_back(line);
    }
    return lines;
}

// "inst : 11/21/26 11:38:44 E1:text": what follows the tag. Lines without a stamp end a message that had a
// line end of its own.
std::vector<std::string> Messages(const fs::path& log) {
    std::vector<std::string> messages;
    for (const std::string& line : Lines(ReadAll(log))) {
        if (line.starts_with("inst : ")) {
            messages.push_back(line.substr(sizeof "inst : 11/21/26 11:38:44 E1:" - 1));
        }
    }
    return messages;
}

FileHandle Redirect(const fs::path& file) {
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    return FileHandle(
        CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0, nullptr));
}

// The exit code, when the program ends in time.
uint32_t RunToEnd(const std::wstring& commandLine, const fs::path& folder, uint32_t* processId) {
    const FileHandle output = Redirect(folder / "stdout.txt");
    const FileHandle errors = Redirect(folder / "stderr.txt");
    STARTUPINFOW start = {};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdOutput = output.Get();
    start.hStdError = errors.Get();
    PROCESS_INFORMATION process = {};
    std::wstring line = commandLine;
    SetEnvironmentVariableW(L"TMP", folder.c_str()); // where the log goes
    const BOOL started = CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                        folder.c_str(), &start, &process);
    const DWORD error = GetLastError();
    EXPECT_TRUE(started) << error;
    if (!started) {
        return 0;
    }
    const KernelHandle owner(process.hProcess);
    const KernelHandle thread(process.hThread);
    *processId = process.dwProcessId;
    if (WaitForSingleObject(process.hProcess, LIMIT_MS) != WAIT_OBJECT_0) {
        ADD_FAILURE() << "the program does not end";
        TerminateProcess(process.hProcess, 1);
        WaitForSingleObject(process.hProcess, LIMIT_MS);
    }
    DWORD exitCode = 0;
    GetExitCodeProcess(process.hProcess, &exitCode);
    return exitCode;
}

// Wine takes its own debug-help library, whatever lies beside a program, unless it is told otherwise.
void PreferOwnDbgHelp(const fs::path& program) {
    constexpr wchar_t NATIVE[] = L"native";
    const std::wstring key = L"Software\\Wine\\AppDefaults\\" + program.wstring() + L"\\DllOverrides";
    RegistryKey opened;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, key.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr,
                              opened.Receive(), nullptr),
              ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExW(opened.Get(), L"dbghelp", 0, REG_SZ, reinterpret_cast<const BYTE*>(NATIVE),
                             sizeof NATIVE),
              ERROR_SUCCESS);
}

} // namespace

CrashFolder::CrashFolder(const char* stub) {
    static const fs::path base = fs::temp_directory_path(); // each run changes the variable behind it
    static int count = 0;
    path_ = base / ("crash" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++count));
    std::error_code ignored;
    fs::remove_all(path_, ignored); // of an earlier process with this number
    fs::create_directories(path_);
    program_ = path_ / (stub ? "coreDump_stubbed.exe" : "coreDump_crasher.exe");
    fs::copy_file(OwnFolder() / "coreDump_crasher.exe", program_);
    if (!stub) {
        return;
    }
    PreferOwnDbgHelp(program_.filename());
    if (*stub) {
        fs::copy_file(OwnFolder() / (std::string("stubDbgHelp_") + stub + ".dll"), path_ / "dbghelp.dll");
    }
}

CrashFolder::~CrashFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

CrashResult CrashFolder::CrashByDefault(const std::string& arguments) const {
    CrashResult result;
    const std::wstring line =
        L"\"" + program_.wstring() + L"\" " + std::wstring(arguments.begin(), arguments.end());
    result.exitCode = RunToEnd(line, path_, &result.processId);
    result.output = ReadAll(path_ / "stdout.txt");
    for (const std::string& text : Lines(ReadAll(path_ / "stderr.txt"))) {
        if (!text.starts_with("wine: ")) { // the system's own remark
            result.errors.push_back(text + "\n");
        }
    }
    result.log = Messages(path_ / "rlinst.log");
    for (const auto& entry : fs::directory_iterator(path_)) {
        if (entry.path().extension() == ".dmp") {
            result.dumps.push_back(entry.path());
        }
    }
    return result;
}

CrashResult CrashFolder::Crash(const std::string& arguments) const {
    return CrashByDefault(arguments + " --dir \"" + path_.string() + "\"");
}

Minidump ReadOnlyDump(const CrashResult& result) {
    EXPECT_EQ(result.dumps.size(), 1u);
    if (result.dumps.size() != 1) {
        return {};
    }
    const std::string bytes = ReadAll(result.dumps[0]);
    std::string error;
    auto dump = Minidump_Read({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, &error);
    EXPECT_TRUE(dump) << error;
    return dump.value_or(Minidump{});
}
