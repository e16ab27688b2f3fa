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

#include <cwchar>

#include "misc/win32Handle.h"
#include "sim/sample/launcherLine.h"

namespace {

constexpr wchar_t PACKAGE[] = L"Ravlin Tools.msi";
constexpr size_t COMMAND_LINE_MAX = 32768; // of Windows, with the terminator

wchar_t folder[MAX_PATH];   // that this program is in, with its trailing separator
wchar_t settings[MAX_PATH]; // setup.ini

void FindOwnFiles() {
    GetModuleFileNameW(nullptr, folder, ARRAYSIZE(folder));
    *(wcsrchr(folder, L'\\') + 1) = L'\0';
    _snwprintf(settings, ARRAYSIZE(settings) - 1, L"%lssetup.ini", folder);
}

UINT NumberSetting(const wchar_t* key) {
    return GetPrivateProfileIntW(L"Setup", key, 0, settings);
}

void RecordCommandLine() {
    wchar_t path[MAX_PATH] = L"";
    GetPrivateProfileStringW(L"Setup", L"Record", L"", path, ARRAYSIZE(path), settings);
    if (path[0] == L'\0') {
        return;
    }
    const FileHandle file(CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    const wchar_t mark = L'\xFEFF';
    const wchar_t* line = GetCommandLineW();
    DWORD written = 0;
    WriteFile(file.Get(), &mark, sizeof mark, &written, nullptr);
    WriteFile(file.Get(), line, static_cast<DWORD>(wcslen(line) * sizeof *line), &written, nullptr);
}

// Runs a program to its end and gives its exit code, or the error that kept it from starting.
DWORD RunToEnd(const wchar_t* program, wchar_t* commandLine) {
    STARTUPINFOW start = {};
    start.cb = sizeof start;
    PROCESS_INFORMATION child = {};
    if (!CreateProcessW(program, commandLine, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &start, &child)) {
        return GetLastError();
    }
    const KernelHandle thread(child.hThread);
    const KernelHandle process(child.hProcess);
    DWORD code = 0;
    WaitForSingleObject(process.Get(), INFINITE);
    GetExitCodeProcess(process.Get(), &code);
    return code;
}

DWORD Install() {
    static wchar_t args[COMMAND_LINE_MAX];
    static wchar_t line[COMMAND_LINE_MAX];
    if (!LauncherLine_Parse(LauncherLine_SkipProgram(GetCommandLineW()), args)) {
        return ERROR_INVALID_PARAMETER;
    }
    wchar_t msiexec[MAX_PATH] = L"";
    GetSystemDirectoryW(msiexec, ARRAYSIZE(msiexec));
    wcsncat(msiexec, L"\\msiexec.exe", ARRAYSIZE(msiexec) - wcslen(msiexec) - 1);
    if (_snwprintf(line, ARRAYSIZE(line) - 1, L"\"%ls\" /i \"%ls%ls\" %ls", msiexec, folder, PACKAGE, args) <
        0) {
        return ERROR_BUFFER_OVERFLOW;
    }
    const DWORD code = RunToEnd(msiexec, line);
    return code != 0 ? code : NumberSetting(L"ExitCode");
}

} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int) {
    FindOwnFiles();
    RecordCommandLine();
    Sleep(NumberSetting(L"DelayMs"));
    wchar_t behaviour[16] = L"";
    GetPrivateProfileStringW(L"Setup", L"Behaviour", L"install", behaviour, ARRAYSIZE(behaviour), settings);
    if (wcscmp(behaviour, L"crash") == 0) {
        *static_cast<volatile int*>(nullptr) = 1;
    } else if (wcscmp(behaviour, L"hang") == 0) {
        Sleep(INFINITE);
    } else if (wcscmp(behaviour, L"exit") == 0) {
        return static_cast<int>(NumberSetting(L"ExitCode"));
    }
    return static_cast<int>(Install());
}
