// A setup.exe that leaves its work to a second process and returns at once, as some installers do. The second
// one ends when its time is over, or with the test's clean-up.
#include <string>
#include <windows.h>

namespace {

constexpr DWORD WORK_MS = 120000;

} // namespace

int WINAPI WinMain(HINSTANCE, HINSTANCE, char* arguments, int) {
    if (std::string(arguments) == "work") {
        Sleep(WORK_MS);
        return 0;
    }
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring line = L"\"" + std::wstring(self) + L"\" work";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    if (!CreateProcessW(self, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &started)) {
        return 1603;
    }
    CloseHandle(started.hThread);
    CloseHandle(started.hProcess);
    return 0;
}
