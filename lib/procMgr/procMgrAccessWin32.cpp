#include "procMgrAccessWin32.h"

#include "procMgrAcl.h"

#include "misc/diag.h"

#include <span>
#include <vector>

ProcMgrAccessCalls procMgrAccessCalls = {
    GetProcessWindowStation,
    OpenWindowStationW,
    SetProcessWindowStation,
    CloseWindowStation,
    OpenDesktopW,
    CloseDesktop,
    GetUserObjectSecurity,
    SetUserObjectSecurity,
    GetTokenInformation,
    DeleteAce,
};

namespace {

const ProcMgrAccessCalls& calls = procMgrAccessCalls;

constexpr DWORD LOGON_SESSION_GROUP = 0xC0000000; // attribute bits that mark a token's logon identifier
constexpr int SIZE_ATTEMPTS = 4;                  // a list may grow between asking its size and reading it

class Desktop {
public:
    explicit Desktop(HDESK desktop) : desktop_(desktop) {}
    Desktop(const Desktop&) = delete;
    Desktop& operator=(const Desktop&) = delete;
    ~Desktop() {
        if (desktop_) {
            calls.closeDesktop(desktop_);
        }
    }
    HDESK Get() const { return desktop_; }

private:
    HDESK desktop_;
};

// Logs the failure of a system call and gives false.
bool Failed(const char* call) {
    DWORD error = GetLastError();
    Warning("ProcMgr: %s failed %d\n", call, static_cast<int>(error));
    return false;
}

HDESK OpenDefaultDesktop() {
    return calls.openDesktop(L"default", 0, FALSE,
                             READ_CONTROL | WRITE_DAC | DESKTOP_READOBJECTS | DESKTOP_WRITEOBJECTS);
}

// Calls `read`(buffer, size, &needed) until the buffer is large enough.
template <typename Read>
bool ReadSized(ProcMgrBytes* buffer, const char* call, Read read) {
    for (int attempt = 0; attempt < SIZE_ATTEMPTS; attempt++) {
        DWORD needed = 0;
        if (read(buffer->data(), static_cast<DWORD>(buffer->size()), &needed)) {
            return true;
        }
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || needed <= buffer->size()) {
            break;
        }
        buffer->resize(needed);
    }
    return Failed(call);
}

// The identifier of the token's logon session; empty when it has none.
ProcMgrBytes FindLogonSid(HANDLE token) {
    ProcMgrBytes buffer;
    if (!ReadSized(&buffer, "GetTokenInformation", [&](void* data, DWORD size, DWORD* needed) {
            return calls.getTokenInformation(token, TokenGroups, data, size, needed);
        })) {
        return {};
    }
    // The system lays the groups out inside the buffer, aligned as heap memory is.
    const auto* groups = static_cast<const TOKEN_GROUPS*>(static_cast<const void*>(buffer.data()));
    for (const SID_AND_ATTRIBUTES& group : std::span(groups->Groups, groups->GroupCount)) {
        if ((group.Attributes & LOGON_SESSION_GROUP) == LOGON_SESSION_GROUP) {
            const auto* sid = static_cast<const uint8_t*>(group.Sid);
            return ProcMgrBytes(sid, sid + GetLengthSid(group.Sid));
        }
    }
    Warning("ProcMgr: the user token has no logon session\n");
    return {};
}

// The access list of a station or desktop, inside the descriptor that was read with it.
struct AccessList {
    ProcMgrBytes descriptor;
    ACL* acl = nullptr; // null: the object has none, which lets everybody in

    std::span<const uint8_t> Bytes() const {
        return {static_cast<const uint8_t*>(static_cast<const void*>(acl)), acl->AclSize};
    }
};

bool ReadAccessList(HANDLE object, AccessList* out) {
    SECURITY_INFORMATION what = DACL_SECURITY_INFORMATION;
    if (!ReadSized(&out->descriptor, "GetUserObjectSecurity", [&](void* data, DWORD size, DWORD* needed) {
            return calls.getUserObjectSecurity(object, &what, data, size, needed);
        })) {
        return false;
    }
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    if (!GetSecurityDescriptorDacl(out->descriptor.data(), &present, &out->acl, &defaulted)) {
        return Failed("GetSecurityDescriptorDacl");
    }
    if (!present) {
        out->acl = nullptr;
    }
    return true;
}

bool WriteAccessList(HANDLE object, void* acl) {
    SECURITY_DESCRIPTOR descriptor;
    SECURITY_INFORMATION what = DACL_SECURITY_INFORMATION;
    if (!InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorDacl(&descriptor, TRUE, static_cast<ACL*>(acl), FALSE)) {
        return Failed("SetSecurityDescriptorDacl");
    }
    return calls.setUserObjectSecurity(object, &what, &descriptor) || Failed("SetUserObjectSecurity");
}

bool AppendToAccessList(HANDLE object, std::span<const ProcMgrAce> aces, std::span<const uint8_t> sid) {
    AccessList list;
    if (!ReadAccessList(object, &list)) {
        return false;
    }
    if (!list.acl) {
        return true; // a list with our entries alone would shut everybody else out
    }
    std::optional<ProcMgrBytes> longer = ProcMgrAclAppend(list.Bytes(), aces, sid);
    if (!longer) {
        Warning("ProcMgr: cannot extend an access list of %d bytes\n", static_cast<int>(list.acl->AclSize));
        return false;
    }
    return WriteAccessList(object, longer->data());
}

void DeleteFromAccessList(HANDLE object, std::span<const ProcMgrAce> aces, std::span<const uint8_t> sid) {
    AccessList list;
    if (!ReadAccessList(object, &list) || !list.acl) {
        return;
    }
    bool changed = false;
    for (const ProcMgrAce& ace : aces) {
        std::optional<uint32_t> index = ProcMgrAclFindLast(list.Bytes(), ace, sid);
        if (!index) {
            continue;
        }
        if (calls.deleteAce(list.acl, *index)) {
            changed = true;
        } else {
            DWORD error = GetLastError();
            Warning("Unable to delete ace at index %d: %d\n", static_cast<int>(*index),
                    static_cast<int>(error));
        }
    }
    if (changed) {
        WriteAccessList(object, list.acl);
    }
}

} // namespace

std::optional<ProcMgrStationSwitch> ProcMgrStationSwitch::Enter() {
    HWINSTA previous = calls.getProcessWindowStation();
    HWINSTA station = calls.openWindowStation(L"winsta0", FALSE, READ_CONTROL | WRITE_DAC);
    if (!station) {
        Failed("OpenWindowStation");
        return std::nullopt;
    }
    if (!calls.setProcessWindowStation(station)) {
        Failed("SetProcessWindowStation");
        calls.closeWindowStation(station);
        return std::nullopt;
    }
    return ProcMgrStationSwitch(previous, station);
}

ProcMgrStationSwitch::~ProcMgrStationSwitch() {
    if (!station_) {
        return;
    }
    if (!calls.setProcessWindowStation(previous_)) {
        Failed("SetProcessWindowStation");
    }
    calls.closeWindowStation(station_);
}

std::optional<ProcMgrStationSwitch> ProcMgr_GrantInteractiveAccess(HANDLE token) {
    std::optional<ProcMgrStationSwitch> onStation = ProcMgrStationSwitch::Enter();
    if (!onStation) {
        return std::nullopt;
    }
    Desktop desktop(OpenDefaultDesktop());
    if (!desktop.Get()) {
        Failed("OpenDesktop");
        return std::nullopt;
    }
    ProcMgrBytes sid = FindLogonSid(token);
    if (sid.empty() || !AppendToAccessList(onStation->Station(), PROCMGR_STATION_ACES, sid) ||
        !AppendToAccessList(desktop.Get(), PROCMGR_DESKTOP_ACES, sid)) {
        return std::nullopt;
    }
    return onStation;
}

void ProcMgr_RevokeInteractiveAccess(HANDLE token) {
    std::optional<ProcMgrStationSwitch> onStation = ProcMgrStationSwitch::Enter();
    if (!onStation) {
        return;
    }
    Desktop desktop(OpenDefaultDesktop());
    if (!desktop.Get()) {
        Failed("OpenDesktop");
        return;
    }
    ProcMgrBytes sid = FindLogonSid(token);
    if (sid.empty()) {
        return;
    }
    DeleteFromAccessList(desktop.Get(), PROCMGR_DESKTOP_ACES, sid);
    DeleteFromAccessList(onStation->Station(), PROCMGR_STATION_ACES, sid);
}
