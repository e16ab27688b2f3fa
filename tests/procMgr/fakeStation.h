// An interactive window station and desktop with access lists of their own, in place of the system's: the
// system that the tests run on need not keep such lists, and must not be changed by them.
#pragma once

#include "procMgr/procMgrAccessWin32.h"
#include "procMgr/procMgrAcl.h"

#include <optional>
#include <string>
#include <vector>
#include <windows.h>

class FakeStation {
public:
    FakeStation();  // takes the place of the system's calls
    ~FakeStation(); // gives it back

    static constexpr const char* EVERYBODY = "everybody";

    std::optional<ProcMgrBytes> stationList; // none: the object has no access list
    std::optional<ProcMgrBytes> desktopList;
    bool tokenHasLogonSession = true;
    bool listGrowsOnce = false; // between asking for its size and reading it
    int failCall = 0;           // number of the call that fails, from 1; 0 none
    bool failDeletes = false;
    ProcMgrBytes logonSid;

    int callCount = 0;
    int openStations = 0;
    int openDesktops = 0;
    bool onOwnStation = true; // the process is where it was before
    std::string trace;        // writes and deletions, in order: "desktop!", "delete 1"
    std::string opened;       // names and rights of what was opened
};

// A list holding an access-allowed entry with `rights` for everybody, made by the system.
ProcMgrBytes FakeStation_List(std::initializer_list<DWORD> rights);
