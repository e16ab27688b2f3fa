// The debug loop: runs a guest, hands its port accesses and its debug output on, and says what it died of.
//
// The system does not ask a debugged program's own exception filter, which writes its crash report. A guest
// that crashes is therefore let go: it goes on without a debugger, reports, and ends as it would have ended
// on its own.
#pragma once

#include "sim/hostsim/guestProcessWin32.h"
#include "sim/hostsim/options.h"
#include "sim/hypervisor.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct Debugger_Events {
    // A port access. False when nobody answers it: the guest then sees the exception.
    bool (*port)(void* clientData, Hypervisor_Instruction instruction, bool backwards,
                 HvPort_Registers* registers) = nullptr;
    void (*said)(void* clientData, std::string_view text) = nullptr; // one text of the guest's debug output
    // A serious exception, described; `last`: nobody in the guest has handled it.
    void (*exception)(void* clientData, const std::string& description, bool last) = nullptr;
    // Called after every event and at least every 50 ms. False: the guest has to go.
    bool (*turn)(void* clientData) = nullptr;
    void* clientData = nullptr;
};

struct Debugger_Module {
    uint64_t base = 0;
    uint64_t size = 0;
    std::string name;
};

struct Debugger {
    GuestProcess* guest = nullptr;
    Debugger_Events events;
    Options_Crash crash = Options_Crash::Read;
    uint64_t crashCall = 0; // the port call that crashes in place of an answer; 0: none

    std::vector<Debugger_Module> modules;
    std::map<DWORD, HANDLE> threads;               // owned by the system
    std::map<uint64_t, std::vector<uint8_t>> code; // of the port instructions seen, by address
    bool started = false;                          // the system's own first breakpoint has passed
    bool ended = false;                            // it had to go
    uint64_t portCalls = 0;
    bool crashed = false; // its fatal exception comes next, or has come
    bool letGo = false;   // it goes on without a debugger
};

// Runs the guest to its end. Its exit code, or none when it had to go.
std::optional<uint32_t> Debugger_Run(Debugger* debugger);

// Guest memory, for the hypervisor.
Hypervisor_Memory Debugger_Memory(const GuestProcess* guest);

// Raises a console control event in the guest as the system does: on a thread of its own. May be called from
// the callbacks. False when the guest cannot be reached.
bool Debugger_RaiseConsoleEvent(const Debugger& debugger, unsigned event);

// "module+0x1234" of the main thread.
std::string Debugger_Where(const Debugger& debugger);
