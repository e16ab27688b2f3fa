// A program that installs the crash filter and then fails as its arguments say:
//
//   coreDump_crasher FOLDER KIND [no-heap | fault-in-warning N]
//
// Dumps go to FOLDER; "-" leaves the place to the library. Beforehand it says on its standard output at which
// instruction and on which thread that will be.
#include "coreDump/coreDump.h"
#include "coreDump/coreDumpText.h"
#include "coreDump/coreDumpWin32.h"
#include "log/log.h"
#include "unicode/unicode.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include <windows.h>

// Each fails in its very first instruction. They are leaf functions, so they can be unwound without tables.
extern "C" {
void CrashRead(volatile int* address);
void CrashWrite(volatile int* address);
void CrashIllegal(volatile int*);
}
__asm__(".globl CrashRead\nCrashRead: movl (%rcx), %eax\n ret\n"
        ".globl CrashWrite\nCrashWrite: movl $1, (%rcx)\n ret\n"
        ".globl CrashIllegal\nCrashIllegal: ud2\n ret\n");

namespace {

bool heapIsGone = false;
int warningsUntilFault = 0;

// As the system raises it for a page that it cannot read: access, address, reason.
void RaiseInPage(volatile int*) {
    const ULONG_PTR parameters[] = {0, 0x100000001, 0x100000002};
    RaiseException(COREDUMP_IN_PAGE_ERROR, 0, 3, parameters);
}

struct Crash {
    const wchar_t* kind;
    void (*function)(volatile int*);
};
constexpr Crash CRASHES[] = {
    {L"read", CrashRead}, {L"write", CrashWrite}, {L"illegal", CrashIllegal}, {L"in-page", RaiseInPage}};

void Fail(const std::wstring& kind, bool withoutHeap) {
    for (const Crash& crash : CRASHES) {
        if (kind == crash.kind) {
            printf("at %p thread %lu\n", reinterpret_cast<void*>(crash.function), GetCurrentThreadId());
            fflush(stdout);
            heapIsGone = withoutHeap;
            crash.function(reinterpret_cast<volatile int*>(0x10));
        }
    }
}

} // namespace

void* operator new(size_t size) {
    void* block = heapIsGone ? nullptr : malloc(size);
    if (!block) {
        throw std::bad_alloc();
    }
    return block;
}
void operator delete(void* block) noexcept {
    free(block);
}
void operator delete(void* block, size_t) noexcept {
    free(block);
}

void Warning(const char* format, ...) {
    if (warningsUntilFault > 0 && --warningsUntilFault == 0) {
        CrashRead(reinterpret_cast<volatile int*>(0x20));
    }
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
}

void Debug(const char*, ...) {}

void Panic(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    ExitProcess(255);
}

int wmain(int argc, wchar_t** argv) {
    const std::wstring folder = argv[1];
    const std::wstring kind = argv[2];
    const std::wstring modifier = argc > 3 ? argv[3] : L"";
    // Neither a debugger nor a message box of the system shall wait for somebody.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    while (kind == L"no-slot" && TlsAlloc() != TLS_OUT_OF_INDEXES) {
    }
    Log_Begin("crasher");
    CoreDump_SetUnhandledExceptionFilter();
    if (folder != L"-") {
        CoreDumpInit(Unicode_FromWide(folder)->c_str());
    }
    if (modifier == L"fault-in-warning") {
        warningsUntilFault = _wtoi(argv[4]);
    }
    Fail(kind, modifier == L"no-heap");
    Log_End();
    return 0;
}
