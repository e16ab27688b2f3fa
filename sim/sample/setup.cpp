// setup.exe of the sample tools image, a Setup Launcher: it runs the Windows Installer on the package beside
// it with the arguments it was handed, waits, and answers with the installer's exit code.
//
// For tests, a file setup.ini beside it, section [Setup], makes it behave otherwise:
//   Behaviour=install   what is described above, and the default
//   Behaviour=exit      installs nothing
//   Behaviour=crash     writes to address 0
//   Behaviour=hang      never ends
//   DelayMs=n           waits n milliseconds before anything else
//   ExitCode=n          the exit code of `exit`, and of `install` in place of the installer's 0
//   Record=file         writes the command line that it was called with into this file, as UTF-16 text
#include <windows.h>

#include <string>

#include "misc/win32Handle.h"
#include "sim/sample/launcherLine.h"

namespace {

constexpr wchar_t kPackage[] = L"Ravlin Tools.msi";
constexpr UINT kBadCommandLine = ERROR_INVALID_PARAMETER;

std::wstring OwnFolder() {
    wchar_t path[MAX_PATH] = L"";
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring whole(path);
    return whole.substr(0, whole.rfind(L'\\') + 1);
}

std::wstring SystemFolder() {
    wchar_t path[MAX_PATH] = L"";
    GetSystemDirectoryW(path, MAX_PATH);
    return std::wstring(path) + L'\\';
}

std::wstring Setting(const std::wstring& folder, const wchar_t* key, const wchar_t* otherwise) {
    wchar_t value[MAX_PATH] = L"";
    GetPrivateProfileStringW(L"Setup", key, otherwise, value, ARRAYSIZE(value),
                             (folder + L"setup.ini").c_str());
    return value;
}

UINT NumberSetting(const std::wstring& folder, const wchar_t* key) {
    return static_cast<UINT>(wcstoul(Setting(folder, key, L"0").c_str(), nullptr, 0));
}

void RecordCommandLine(const std::wstring& path) {
    const FileHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    const std::wstring text = L'\xFEFF' + std::wstring(GetCommandLineW());
    DWORD written = 0;
    WriteFile(file.Get(), text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)), &written, nullptr);
}

// Runs a program to its end and gives its exit code, or the error that kept it from starting.
DWORD RunToEnd(const std::wstring& program, std::wstring commandLine) {
    STARTUPINFOW start = {};
    start.cb = sizeof start;
    PROCESS_INFORMATION child = {};
    if (!CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &start, &child)) {
        return GetLastError();
    }
    const KernelHandle thread(child.hThread);
    const KernelHandle process(child.hProcess);
    DWORD code = 0;
    WaitForSingleObject(process.Get(), INFINITE);
    GetExitCodeProcess(process.Get(), &code);
    return code;
}

DWORD Install(const std::wstring& folder) {
    std::wstring args;
    if (!LauncherLine_Parse(LauncherLine_SkipProgram(GetCommandLineW()), &args)) {
        return kBadCommandLine;
    }
    const std::wstring msiexec = SystemFolder() + L"msiexec.exe";
    const DWORD code = RunToEnd(msiexec, L"\"" + msiexec + L"\" /i \"" + folder + kPackage + L"\" " + args);
    return code != 0 ? code : NumberSetting(folder, L"ExitCode");
}

} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int) {
    const std::wstring folder = OwnFolder();
    if (const std::wstring record = Setting(folder, L"Record", L""); !record.empty()) {
        RecordCommandLine(record);
    }
    Sleep(NumberSetting(folder, L"DelayMs"));
    const std::wstring behaviour = Setting(folder, L"Behaviour", L"install");
    if (behaviour == L"crash") {
        *static_cast<volatile int*>(nullptr) = 1;
    } else if (behaviour == L"hang") {
        Sleep(INFINITE);
    } else if (behaviour == L"exit") {
        return static_cast<int>(NumberSetting(folder, L"ExitCode"));
    }
    return static_cast<int>(Install(folder));
}
