#include "sim/inProcess.h"

#include "sim/portContextWin32.h"
#include "sim/portInstruction.h"

namespace {

Hypervisor* current = nullptr;
PVOID handler = nullptr;

LONG CALLBACK AnswerPort(EXCEPTION_POINTERS* exception) {
    CONTEXT* context = exception->ContextRecord;
    if (!current ||
        exception->ExceptionRecord->ExceptionCode != static_cast<DWORD>(STATUS_PRIVILEGED_INSTRUCTION)) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    // Three bytes hold each of our instructions, and reading on could leave the code.
    auto* rip = reinterpret_cast<const uint8_t*>(context->Rip); // NOLINT(performance-no-int-to-ptr)
    std::span code(rip, 3);
    PortInstruction instruction{};
    if (!PortInstruction_Decode(code, context->Rdx, &instruction)) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    HvPort_Registers registers = PortContext_Load(*context);
    Hypervisor_Call(current, instruction.kind, (context->EFlags & PORT_CONTEXT_DIRECTION_FLAG) != 0,
                    &registers);
    PortContext_Store(registers, instruction.length, context);
    return EXCEPTION_CONTINUE_EXECUTION;
}

} // namespace

InProcess_Port::InProcess_Port(Hypervisor* hypervisor) {
    current = hypervisor;
    handler = AddVectoredExceptionHandler(1, AnswerPort);
}

InProcess_Port::~InProcess_Port() {
    RemoveVectoredExceptionHandler(handler);
    handler = nullptr;
    current = nullptr;
}
