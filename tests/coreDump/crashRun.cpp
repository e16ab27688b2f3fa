#include "crashRun.h"

#include "misc/win32Handle.h"
#include "procMgr/procMgr.h"
#include "support/testFolder.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

#include <gtest/gtest.h>
#include <windows.h>

namespace fs = std::filesystem;

namespace {

constexpr DWORD LIMIT_MS = 60000;

std::string ReadAll(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// Without "\r\n".
std::vector<std::string> Lines(const fs::path& file) {
    std::vector<std::string> lines;
    std::istringstream stream(ReadAll(file));
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line.substr(0, line.find_last_not_of('\r') + 1));
    }
    return lines;
}

FileHandle Redirect(const fs::path& file) {
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    return FileHandle(
        CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0, nullptr));
}

void RunToEnd(const std::string& commandLine, const fs::path& folder, CrashResult* result) {
    const FileHandle output = Redirect(folder / "stdout.txt");
    const FileHandle errors = Redirect(folder / "stderr.txt");
    STARTUPINFOW start = {};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdOutput = output.Get();
    start.hStdError = errors.Get();
    ProcMgr_ProcArgs options;
    options.inheritHandles = TRUE;
    options.currentDirectory = folder.c_str();
    options.startupInfo = &start;
    const std::unique_ptr<ProcMgr_AsyncProc, void (*)(ProcMgr_AsyncProc*)> process(
        ProcMgr_ExecAsync(commandLine.c_str(), &options), ProcMgr_Free);
    ASSERT_TRUE(process);
    HANDLE handle = ProcMgr_GetAsyncProcSelectable(process.get());
    if (WaitForSingleObject(handle, LIMIT_MS) != WAIT_OBJECT_0) {
        ADD_FAILURE() << "the program does not end";
        ProcMgr_Kill(process.get());
        WaitForSingleObject(handle, LIMIT_MS);
    }
    int32_t exitCode = 0;
    ProcMgr_GetExitCode(process.get(), &exitCode);
    result->exitCode = static_cast<uint32_t>(exitCode);
    result->processId = GetProcessId(handle);
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

// The program, and beside it the debug-help library that the run asks for.
fs::path Install(const CrashRun& run, const fs::path& folder) {
    const fs::path program = folder / (run.stub ? "coreDump_stubbed.exe" : "coreDump_crasher.exe");
    fs::copy_file(TestFolder::OfPrograms() / "coreDump_crasher.exe", program);
    if (run.stub) {
        PreferOwnDbgHelp(program.filename());
    }
    if (run.stub && *run.stub) {
        fs::copy_file(TestFolder::OfPrograms() / (std::string("stubDbgHelp_") + run.stub + ".dll"),
                      folder / "dbghelp.dll");
    }
    return program;
}

void Gather(const fs::path& folder, CrashResult* result) {
    sscanf(ReadAll(folder / "stdout.txt").c_str(), "at %llx thread %u", &result->address, &result->thread);
    for (const std::string& line : Lines(folder / "stderr.txt")) {
        if (!line.starts_with("wine: ")) { // the system's own remark
            result->errors.push_back(line + "\n");
        }
    }
    for (const std::string& line : Lines(folder / "rlinst.log")) {
        // Lines without a stamp end a message that had a line end of its own.
        if (line.starts_with("inst : ")) {
            result->log.push_back(line.substr(strlen("inst : 11/21/26 11:38:44 E1:")));
        }
    }
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (entry.path().extension() == ".dmp") {
            result->dumps[TestFolder::Utf8(entry.path().filename())] = ReadAll(entry.path());
        }
    }
}

} // namespace

CrashResult Crash(const CrashRun& run) {
    CrashResult result;
    const TestFolder folder;
    const fs::path& path = folder.Path();
    result.folder = TestFolder::Utf8(path);
    const std::string program = TestFolder::Utf8(Install(run, path));
    const std::string dumps = run.dumpFolder ? run.dumpFolder : result.folder;
    SetEnvironmentVariableW(L"TMP", path.c_str()); // where the log goes
    SetEnvironmentVariableA("STUB_MODE", run.mode);
    RunToEnd("\"" + program + "\" \"" + dumps + "\" " + run.arguments, path, &result);
    Gather(path, &result);
    return result;
}
