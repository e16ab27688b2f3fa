#include "scriptedPort.h"

#include <cstdio>
#include <cstdlib>

std::function<void(PortKind kind, HvPort_Registers* registers)> scriptedPort;

namespace {

void Answer(PortKind kind, uint16_t port, HvPort_Registers* registers) {
    if (!scriptedPort) {
        std::fputs("the port was used without a script\n", stderr);
        std::abort();
    }
    registers->ax = HVPORT_MAGIC;
    registers->dx = (registers->dx & ~uint64_t{0xFFFF}) | port;
    scriptedPort(kind, registers);
}

} // namespace

void HvPort(HvPort_Registers* registers) {
    Answer(PortKind::Low, HVPORT_LOW_BANDWIDTH, registers);
}
void HvPort_BulkOut(HvPort_Registers* registers) {
    Answer(PortKind::BulkOut, HVPORT_HIGH_BANDWIDTH, registers);
}
void HvPort_BulkIn(HvPort_Registers* registers) {
    Answer(PortKind::BulkIn, HVPORT_HIGH_BANDWIDTH, registers);
}
