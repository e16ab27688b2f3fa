// What the tests start. Its first argument says what to do:
//   report FILE ...   writes what it was started with to FILE, then sets the events of PROCMGR_SET
//   exit CODE         ends with that exit code
//   wait NAME         waits for the event NAME, then sets the event NAME-done
#include "unicode/unicode.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <windows.h>

namespace {

std::string Narrow(const wchar_t* text) {
    return text ? Unicode_FromWide(text).value_or("?") : "(none)";
}

// PROCMGR_SET holds handle values, separated by blanks; those that were inherited as events are then set.
void SetInherited() {
    const wchar_t* values = _wgetenv(L"PROCMGR_SET");
    while (values && *values) {
        wchar_t* end = nullptr;
        SetEvent(reinterpret_cast<HANDLE>(static_cast<uintptr_t>(wcstoull(values, &end, 10))));
        values = *end ? end + 1 : end;
    }
}

int Report(const wchar_t* fileName) {
    STARTUPINFOW startup{};
    GetStartupInfoW(&startup);
    wchar_t directory[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, directory);
    FILE* file = _wfopen(fileName, L"wb");
    if (!file) {
        return 1;
    }
    fprintf(file, "command %s\n", Narrow(GetCommandLineW()).c_str());
    fprintf(file, "flags %lu show %u\n", startup.dwFlags & STARTF_USESHOWWINDOW,
            static_cast<unsigned>(startup.wShowWindow));
    fprintf(file, "desktop [%s]\n", Narrow(startup.lpDesktop).c_str());
    fprintf(file, "directory %s\n", Narrow(directory).c_str());
    fclose(file);
    SetInherited();
    return 0;
}

int Wait(const std::wstring& name) {
    HANDLE event = OpenEventW(SYNCHRONIZE, FALSE, name.c_str());
    HANDLE done = OpenEventW(EVENT_MODIFY_STATE, FALSE, (name + L"-done").c_str());
    return WaitForSingleObject(event, 60000) == WAIT_OBJECT_0 && SetEvent(done) ? 0 : 1;
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    std::wstring what = count > 2 ? arguments[1] : L"";
    if (what == L"report") {
        return Report(arguments[2]);
    }
    if (what == L"exit") {
        return static_cast<int>(wcstol(arguments[2], nullptr, 10));
    }
    if (what == L"wait") {
        return Wait(arguments[2]);
    }
    return 99;
}
