// A program that installs the crash filter and then fails in the way its arguments name. It says beforehand,
// on its standard output, where and on which thread that will be.
//
//   coreDump_crasher KIND [--thread] [--dir FOLDER] [--take-names] [--no-heap] [--fault-in-warning N]
//   [--defer MODE]
#include "coreDump/coreDump.h"
#include "coreDump/coreDumpText.h"
#include "coreDump/coreDumpWin32.h"
#include "log/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <string>

#include <windows.h>

// Each fails in its very first instruction. They are leaf functions, so they can be unwound without tables.
extern "C" {
void CrashRead(volatile int* address);
void CrashWrite(volatile int* address);
void CrashIllegal(volatile int*);
void CrashBreakpoint(volatile int*);
void CrashDivide(volatile int*);
}
__asm__(".text\n"
        ".globl CrashRead\nCrashRead: movl (%rcx), %eax\n ret\n"
        ".globl CrashWrite\nCrashWrite: movl $1, (%rcx)\n ret\n"
        ".globl CrashIllegal\nCrashIllegal: ud2\n ret\n"
        ".globl CrashBreakpoint\nCrashBreakpoint: int3\n ret\n"
        ".globl CrashDivide\nCrashDivide: divl zero(%rip)\n ret\n"
        ".data\nzero: .long 0\n.text\n");

namespace {

bool heapIsGone = false;
int warningsUntilFault = 0;

struct Options {
    std::string kind;
    bool onThread = false;
    bool noHeap = false;
};

volatile bool goesDeeper = true;

int CrashOverflow(volatile char* above) {
    volatile char here[512];
    here[0] = above ? above[0] : '\0';
    return (goesDeeper ? CrashOverflow(here) : 0) + here[0];
}

void RaiseWithParameters(DWORD code, DWORD count) {
    ULONG_PTR parameters[EXCEPTION_MAXIMUM_PARAMETERS];
    for (DWORD i = 0; i < count; i++) {
        parameters[i] = 0x100000000 + i;
    }
    RaiseException(code, 0, count, parameters);
}

struct Crash {
    const char* kind;
    void (*function)(volatile int*);
};
constexpr Crash CRASHES[] = {
    {"read", CrashRead},       {"write", CrashWrite},
    {"illegal", CrashIllegal}, {"breakpoint", CrashBreakpoint},
    {"divide", CrashDivide},
};

void Fail(const Options& options) {
    for (const Crash& crash : CRASHES) {
        if (options.kind == crash.kind) {
            printf("at %p thread %lu\n", reinterpret_cast<void*>(crash.function), GetCurrentThreadId());
            fflush(stdout);
            heapIsGone = options.noHeap;
            crash.function(reinterpret_cast<volatile int*>(0x10));
        }
    }
    printf("thread %lu\n", GetCurrentThreadId());
    fflush(stdout);
    if (options.kind == "overflow") {
        CrashOverflow(nullptr);
    } else if (options.kind == "in-page") {
        RaiseWithParameters(COREDUMP_IN_PAGE_ERROR, 3);
    } else if (options.kind == "bare") {
        RaiseWithParameters(0xE0000001, 0);
    } else if (options.kind == "many") {
        RaiseWithParameters(0xE0000002, EXCEPTION_MAXIMUM_PARAMETERS);
    } else if (options.kind == "twice") {
        // The system ends a program after its first unhandled exception; here the filter is asked once more,
        // twice.
        EXCEPTION_RECORD record = {};
        record.ExceptionCode = 0xE0000003;
        CONTEXT context = {};
        RtlCaptureContext(&context);
        EXCEPTION_POINTERS pointers = {&record, &context};
        for (int i = 0; i < 5; i++) {
            printf("result %ld\n", CoreDumpExceptionFilter(&pointers));
            fprintf(stderr, "--- %d\n", i);
        }
    } else if (options.kind == "dump-only") {
        const bool written = CoreDump_CoreDump(nullptr);
        printf("dump %d %s\n", written, CoreDumpLastDump().c_str());
    }
}

DWORD WINAPI FailOnThread(void* options) {
    Fail(*static_cast<const Options*>(options));
    return 0;
}

// What another program may do between the choice of the names and the crash.
void TakeNames(const char* folder) {
    const CoreDumpNames names = CoreDumpChooseNames(folder, "coreDump_crasher", GetCurrentProcessId(),
                                                    [](const char*) { return false; });
    for (const std::string& name : names) {
        fclose(fopen(name.c_str(), "wb"));
    }
}

void TakeAllSlots() {
    while (TlsAlloc() != TLS_OUT_OF_INDEXES) {
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

int main(int argc, char** argv) {
    Options options;
    const char* folder = nullptr;
    bool takeNames = false;
    for (int i = 1; i < argc; i++) {
        const std::string argument = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : "";
        if (argument == "--thread") {
            options.onThread = true;
        } else if (argument == "--dir") {
            folder = value;
            i++;
        } else if (argument == "--take-names") {
            takeNames = true;
        } else if (argument == "--no-heap") {
            options.noHeap = true;
        } else if (argument == "--fault-in-warning") {
            warningsUntilFault = atoi(value);
            i++;
        } else if (argument == "--defer") {
            coreDumpSettings.breakOnException = static_cast<uint32_t>(atoi(value));
            i++;
        } else {
            options.kind = argument;
        }
    }
    // Neither a debugger nor a message box of the system shall wait for somebody.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    if (options.kind == "no-slot") {
        TakeAllSlots();
    }
    Log_Begin("crasher");
    if (CoreDump_SetUnhandledExceptionFilter() != CoreDumpExceptionFilter) {
        return 1;
    }
    if (folder) {
        CoreDumpInit(folder);
    }
    if (takeNames) {
        TakeNames(folder);
    }
    if (options.onThread) {
        HANDLE thread = CreateThread(nullptr, 0, FailOnThread, &options, 0, nullptr);
        WaitForSingleObject(thread, INFINITE);
    } else {
        Fail(options);
    }
    Log_End();
    return 0;
}
