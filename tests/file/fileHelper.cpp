// The second process of the file tests: fileHelper <verb> <arguments>.
#include <cstdlib>
#include <cwchar>
#include <windows.h>

namespace {

// hold <file> <ms> <event>: opens the file without sharing, as a virus scanner does, tells the event, and
// keeps it.
int Hold(wchar_t** arguments) {
    HANDLE file = CreateFileW(arguments[0], GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, arguments[2]);
    if (file == INVALID_HANDLE_VALUE || event == nullptr) {
        return 1;
    }
    SetEvent(event);
    Sleep(wcstoul(arguments[1], nullptr, 10));
    CloseHandle(file);
    return 0;
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    if (count == 5 && wcscmp(arguments[1], L"hold") == 0) {
        return Hold(arguments + 2);
    }
    return 2;
}
