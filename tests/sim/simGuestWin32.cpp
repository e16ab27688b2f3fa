// A guest process for hostsim's own tests: sim_guest WHAT. It opens the command channel, announces a
// directory, misbehaves as WHAT says, and ends.

#include "hostChannel/hostChannel.h"
#include "hvPort/hvPort.h"
#include "misc/win32Handle.h"
#include "rpcout/rpcout.h"

#include <string>

namespace {

void Misbehave(const std::string& what) {
    if (what == "crash") {
        *reinterpret_cast<volatile int*>(uintptr_t{0x10}) = 1;
    } else if (what == "hang") {
        Sleep(INFINITE);
    } else if (what == "deviate") {
        HvPort_Registers registers{};
        registers.cx = 9;
        HvPort(&registers);
    }
}

} // namespace

int main(int count, char** arguments) {
    const std::string what = count > 1 ? arguments[1] : "";
    HostChannel* commands = HostChannel_Open(HOSTCHANNEL_TCLO);
    if (!commands ||
        !RpcOut_SendRequest(nullptr, nullptr, "upgrader.setGuestFileRoot %s", "C:\\Temp\\0a1b2c3d\\")) {
        return 1;
    }
    Misbehave(what);
    HostChannel_Close(commands);
    if (what != "silent") {
        const KernelHandle completion(CreateEventW(nullptr, TRUE, FALSE, L"Global\\ToolsUpgradeComplete"));
        SetEvent(completion.Get());
    }
    return what == "seven" ? 7 : 0;
}
