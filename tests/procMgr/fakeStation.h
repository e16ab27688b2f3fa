// An interactive window station and desktop with access lists, in place of the system's: the system that the
// tests run on need not keep such lists, and must not be changed by them. Two events stand in for the
// objects, since those have lists everywhere.
#pragma once

#include "misc/win32Handle.h"
#include "procMgr/procMgrAccessWin32.h"

#include <string>
#include <windows.h>

struct FakeStation {
    FakeStation();  // takes the place of the system's calls
    ~FakeStation(); // gives it back

    // Entries of an object's list in order, each by flags and rights; a star marks those for a logon session.
    static std::string ListOf(const KernelHandle& object);

    KernelHandle station; // with entries for everybody: rights 0x20 and 0x40
    KernelHandle desktop; // 0x10
    KernelHandle token;   // of this process
    bool tokenHasLogonSession = true;
    bool anyTokenServes = false; // also what is no token: this process's groups are taken then
    bool listGrowsOnce = false;  // between asking for its size and reading it
    int failCall = 0;            // number of the call that fails, from 1; 0 none
    bool failDeletes = false;

    int callCount = 0;
    int openStations = 0;
    int openDesktops = 0;
    bool onOwnStation = true; // the process is where it was before
    std::string trace;        // writes and deletions, in order: "desktop!", "delete 1"
    std::string opened;       // names and rights of what was opened
};
