#include "hvPort/hvPort.h"

#include "hvPort/hvPortGuard.h"
#include "misc/diag.h"

namespace {

constexpr char PRODUCT[] = "Ravlin software";
constexpr char UPDATE_PAGE[] = "https://www.ravlin.example/support/tools";

} // namespace

bool HvPort_GetVersion(uint32_t* version, uint32_t* type) {
    HvPort_Registers registers{};
    registers.cx = HvPort_Word(0xFFFF, HVPORT_COMMAND_GET_VERSION);
    // Anything but the magic would do: a machine without the hypervisor leaves it as it is, the hypervisor
    // puts the magic there. The complement is sign-extended, all upper 32 bits set.
    registers.bx = ~uint64_t{HVPORT_MAGIC};
    HvPort(&registers);

    auto ax = static_cast<uint32_t>(registers.ax);
    if (ax == 0xFFFFFFFF || static_cast<uint32_t>(registers.bx) != HVPORT_MAGIC) {
        return false;
    }
    *version = ax;
    // A hypervisor that tells no type leaves the upper half as it was asked.
    *type = HvPort_High(registers.cx) == 0xFFFF ? 0 : static_cast<uint32_t>(registers.cx);
    return true;
}

int HvPortAskVersion(uint32_t* version, uint32_t* type) {
    return HvPort_GetVersion(version, type) ? HVPORT_GUARD_ANSWERED : HVPORT_GUARD_SILENT;
}

#ifndef _WIN32
// Builds for tests answer the port with a model, which raises nothing.
int HvPortGuardedAskVersion(uint32_t* version, uint32_t* type) {
    return HvPortAskVersion(version, type);
}
#endif

bool Upgrader_CheckVersion() {
    uint32_t version = 0;
    uint32_t type = 0;
    int answer = HvPortGuardedAskVersion(&version, &type);
    if (answer == HVPORT_GUARD_ANSWERED && version == HVPORT_VERSION) {
        return true;
    }
    if (answer != HVPORT_GUARD_FAULT) {
        Debug("The version of this program is incompatible with your %s.\n"
              "For information on updating your Ravlin Tools please see\n%s\n\n",
              PRODUCT, UPDATE_PAGE);
    }
    return false;
}
