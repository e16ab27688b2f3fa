// The port routines themselves, answered by the model. For builds that are not for Windows.

#include "sim/inProcess.h"

#include "misc/diag.h"

namespace {

Hypervisor* current = nullptr;

void Call(Hypervisor_Instruction instruction, uint16_t port, HvPort_Registers* registers) {
    if (!current) {
        Panic("The port is used without a hypervisor.\n");
    }
    registers->ax = HVPORT_MAGIC;
    registers->dx = (registers->dx & ~uint64_t{0xFFFF}) | port;
    Hypervisor_Call(current, instruction, false, registers);
}

} // namespace

InProcess_Port::InProcess_Port(Hypervisor* hypervisor) {
    current = hypervisor;
}

InProcess_Port::~InProcess_Port() {
    current = nullptr;
}

void HvPort(HvPort_Registers* registers) {
    uint64_t bp = registers->bp;
    Call(Hypervisor_Instruction::In, HVPORT_LOW_BANDWIDTH, registers);
    registers->bp = bp;
}

void HvPort_BulkOut(HvPort_Registers* registers) {
    Call(Hypervisor_Instruction::BulkOut, HVPORT_HIGH_BANDWIDTH, registers);
}

void HvPort_BulkIn(HvPort_Registers* registers) {
    Call(Hypervisor_Instruction::BulkIn, HVPORT_HIGH_BANDWIDTH, registers);
}
