// A port for a guest that runs inside this very process, as unit tests and benchmarks do.
//
// On Windows the real port routines execute their instructions, and a vectored exception handler answers them
// from the model. Elsewhere the routines themselves are replaced and call the model.
#pragma once

#include "sim/hypervisor.h"

// Answers this process's port accesses from the model while it lives; the model must have a memory
// (Hypervisor_OwnMemory). One at a time, and one thread at the port at a time.
class InProcess_Port {
public:
    explicit InProcess_Port(Hypervisor* hypervisor);
    ~InProcess_Port();
    InProcess_Port(const InProcess_Port&) = delete;
    InProcess_Port& operator=(const InProcess_Port&) = delete;
};
