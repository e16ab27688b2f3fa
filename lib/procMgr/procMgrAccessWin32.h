// Grants a token's logon session the interactive window station and desktop, and revokes that again.
// Internal to procMgr; main thread only.
#pragma once

#include <optional>
#include <utility>
#include <windows.h>

// The process on the window station "winsta0"; goes back to its previous one when it ends. A station cannot
// be closed while it is the process's own, so the two belong together.
class ProcMgrStationSwitch {
public:
    // None when the station cannot be opened or entered.
    static std::optional<ProcMgrStationSwitch> Enter();

    ProcMgrStationSwitch(ProcMgrStationSwitch&& other) noexcept
        : previous_(other.previous_), station_(std::exchange(other.station_, nullptr)) {}
    ProcMgrStationSwitch& operator=(ProcMgrStationSwitch&&) = delete;
    ~ProcMgrStationSwitch();

    HWINSTA Station() const { return station_; }

private:
    ProcMgrStationSwitch(HWINSTA previous, HWINSTA station) : previous_(previous), station_(station) {}

    HWINSTA previous_; // the system's, never closed
    HWINSTA station_;
};

// On success the process is on the interactive station until the result ends. None on failure, with the
// process on its previous station; rights that were granted before the failure stay granted.
std::optional<ProcMgrStationSwitch> ProcMgr_GrantInteractiveAccess(HANDLE token);

// Undoes one grant. What cannot be revoked stays.
void ProcMgr_RevokeInteractiveAccess(HANDLE token);

// The system calls of the two, so that a test can stand in for a system whose stations have access lists.
struct ProcMgrAccessCalls {
    decltype(&GetProcessWindowStation) getProcessWindowStation;
    decltype(&OpenWindowStationW) openWindowStation;
    decltype(&SetProcessWindowStation) setProcessWindowStation;
    decltype(&CloseWindowStation) closeWindowStation;
    decltype(&OpenDesktopW) openDesktop;
    decltype(&CloseDesktop) closeDesktop;
    decltype(&GetUserObjectSecurity) getUserObjectSecurity;
    decltype(&SetUserObjectSecurity) setUserObjectSecurity;
    decltype(&GetTokenInformation) getTokenInformation;
    decltype(&DeleteAce) deleteAce;
};
extern ProcMgrAccessCalls procMgrAccessCalls;
