#include "hvPort/hvPortGuard.h"

#include <windows.h>

int HvPortGuardFilter(void* exceptionPointers, void* /*frame*/) {
    const auto* pointers = static_cast<const EXCEPTION_POINTERS*>(exceptionPointers);
    return pointers->ExceptionRecord->ExceptionCode == static_cast<DWORD>(STATUS_PRIVILEGED_INSTRUCTION)
               ? EXCEPTION_EXECUTE_HANDLER
               : EXCEPTION_CONTINUE_SEARCH;
}
