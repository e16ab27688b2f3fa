// A guest process for hostsim's own tests: sim_guest WHAT. See BEHAVIOURS.

#include "hvPort/hvPort.h"
#include "misc/diag.h"
#include "tinyGuest.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <windows.h>

namespace {

void Output(const char* format, va_list arguments) {
    char text[1024] = "";
    _vsnprintf(text, sizeof text - 1, format, arguments);
    OutputDebugStringA((std::string("[RLToolsUpgrader]: ") + text).c_str());
}

volatile LONG signalled = -1;

BOOL WINAPI OnConsole(DWORD event) {
    InterlockedExchange(&signalled, static_cast<LONG>(event));
    return TRUE;
}

void WaitForSignal(TinyGuest* guest) {
    while (signalled < 0) {
        Sleep(1);
    }
    Debug("console event %ld\n", static_cast<long>(signalled));
    guest->stop = true;
}

void Crash(TinyGuest* /*guest*/) {
    *reinterpret_cast<volatile int*>(uintptr_t{0x10}) = 1;
}

void Hang(TinyGuest* /*guest*/) {
    Sleep(INFINITE);
}

// A child that outlives the guest unless somebody ends it.
void LeaveChild(TinyGuest* guest) {
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string line = std::string("\"") + path + "\" sleep";
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION information{};
    if (CreateProcessA(path, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &information)) {
        CloseHandle(information.hProcess);
        CloseHandle(information.hThread);
    }
    guest->sendEnd = false;
    guest->stop = true;
}

void Complain(TinyGuest* guest) {
    Warning("first line\nsecond line");
    guest->sendEnd = false;
    guest->stop = true;
}

void Deviate(TinyGuest* guest) {
    HvPort_Registers registers{};
    registers.cx = 9;
    HvPort(&registers);
    guest->sendEnd = false;
    guest->stop = true;
}

struct Behaviour {
    const char* name;
    void (*onRun)(TinyGuest* guest);
    bool completes;
    int exitCode;
};
constexpr Behaviour BEHAVIOURS[] = {
    {"well", nullptr, true, 0},      {"seven", nullptr, true, 7},   {"silent", nullptr, false, 0},
    {"crash", Crash, true, 0},       {"hang", Hang, true, 0},       {"child", LeaveChild, true, 0},
    {"complain", Complain, true, 0}, {"deviate", Deviate, true, 0}, {"signal", WaitForSignal, true, 0},
};

void Complete() {
    if (HANDLE event = CreateEventW(nullptr, TRUE, FALSE, L"Global\\ToolsUpgradeComplete")) {
        SetEvent(event);
        CloseHandle(event);
    }
}

int Live(const Behaviour& behaviour) {
    SetConsoleCtrlHandler(OnConsole, TRUE);
    bool started = Upgrader_CheckVersion();
    if (started) {
        TinyGuest guest;
        guest.onRun = behaviour.onRun;
        guest.say = [](void*, const char* text) { Debug("%s", text); };
        guest.sleep = [](uint64_t microseconds) { Sleep(static_cast<DWORD>(microseconds / 1000)); };
        started = TinyGuest_Live(&guest);
    }
    if (behaviour.completes) {
        Complete();
    }
    return started ? behaviour.exitCode : 1;
}

} // namespace

void Debug(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Output(format, arguments);
    va_end(arguments);
}

void Warning(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
}

void Panic(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::exit(255);
}

int main(int count, char** arguments) {
    std::string what = count > 1 ? arguments[1] : "well";
    if (what == "sleep") {
        Sleep(INFINITE);
    }
    for (const Behaviour& behaviour : BEHAVIOURS) {
        if (what == behaviour.name) {
            return Live(behaviour);
        }
    }
    return 99;
}
