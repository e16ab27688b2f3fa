// The guest as a process: started as a debuggee inside a job that ends it and its children on every way out.
#pragma once

#include "misc/win32Handle.h"

#include <cstdint>
#include <string>
#include <vector>

struct GuestProcess {
    KernelHandle job;     // closing it ends everything in it
    KernelHandle process; // all access
    KernelHandle mainThread;
    FileHandle errors; // reading end of the guest's standard error
    DWORD processId = 0;
    DWORD mainThreadId = 0;
};

// Starts program and arguments, suspended by their first debug event. A program that is not where it is said
// to be is looked for beside this one. False with the reason.
bool GuestProcess_Start(const std::vector<std::string>& guest, GuestProcess* started, std::string* error);

// The command line for an argument list, in the program's own quoting: a quoted argument ends at the next
// quote without a backslash before it, and loses its backslashes.
std::wstring GuestProcess_CommandLine(const std::wstring& program, const std::vector<std::string>& arguments);

// Text that the guest has written to its standard error since the last call; does not wait.
std::string GuestProcess_TakeErrors(GuestProcess* guest);

// Waits at most `patience` milliseconds for the job to run empty, then ends what is left in it. Returns the
// file names of the processes that had to be ended.
std::vector<std::string> GuestProcess_End(GuestProcess* guest, uint32_t patience);
