#include "sim/hostsim/guestProcessWin32.h"

#include "sim/hostsim/textWin32.h"
#include "string/str.h"

#include <span>

#include <psapi.h>

namespace {

constexpr DWORD END_LIMIT = 10000; // milliseconds

// Gives the reason of a failure in words, and false for the caller to return.
bool Failed(const std::string& what, DWORD code, std::string* error) {
    *error = Str_Format("%s failed with error %u", what.c_str(), static_cast<unsigned>(code));
    return false;
}

bool IsFile(const std::wstring& path) {
    DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

std::wstring FullPath(const std::wstring& path) {
    std::wstring full(32768, L'\0');
    DWORD length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    full.resize(length < full.size() ? length : 0);
    return full;
}

std::wstring OwnFolder() {
    std::wstring path(32768, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path.substr(0, path.find_last_of(L'\\') + 1);
}

// Full path of the program, empty when there is none.
std::wstring FindProgram(const std::string& name) {
    std::wstring wide = Text_ToWide(name);
    for (const std::wstring& path :
         {FullPath(wide), FullPath(wide + L".exe"), OwnFolder() + wide, OwnFolder() + wide + L".exe"}) {
        if (IsFile(path)) {
            return path;
        }
    }
    return {};
}

bool MakeJob(KernelHandle* job) {
    job->Reset(CreateJobObjectW(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    return *job &&
           SetInformationJobObject(job->Get(), JobObjectExtendedLimitInformation, &limits, sizeof limits);
}

// A pipe whose writing end the guest inherits.
bool MakePipe(FileHandle* reading, FileHandle* writing) {
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    constexpr DWORD ROOM = 64 * 1024; // so that the guest does not wait for us
    if (!CreatePipe(&read, &write, &inherited, ROOM)) {
        return false;
    }
    reading->Reset(read);
    writing->Reset(write);
    return SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0) != FALSE;
}

bool CreateGuest(const std::wstring& program, std::wstring commandLine, HANDLE errors, GuestProcess* guest) {
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    FileHandle nothing(CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   &inherited, OPEN_EXISTING, 0, nullptr));
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = nothing.Get();
    startup.hStdOutput = nothing.Get();
    startup.hStdError = errors;
    // The guest's memory shall be as it is without a debugger.
    SetEnvironmentVariableW(L"_NO_DEBUG_HEAP", L"1");
    PROCESS_INFORMATION information{};
    if (!CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, TRUE, DEBUG_ONLY_THIS_PROCESS,
                        nullptr, nullptr, &startup, &information)) {
        return false;
    }
    guest->process.Reset(information.hProcess);
    guest->mainThread.Reset(information.hThread);
    guest->processId = information.dwProcessId;
    guest->mainThreadId = information.dwThreadId;
    return true;
}

void AppendArgument(const std::string& argument, std::wstring* line) {
    std::wstring wide = Text_ToWide(argument);
    *line += L' ';
    if (!wide.empty() && wide.find_first_of(L" \t\n\v\f\r\"") == std::wstring::npos) {
        *line += wide;
        return;
    }
    *line += L'"';
    for (wchar_t character : wide) {
        if (character == L'"' || character == L'\\') {
            *line += L'\\';
        }
        *line += character;
    }
    *line += L'"';
}

uint32_t ActiveProcesses(HANDLE job) {
    JOBOBJECT_BASIC_ACCOUNTING_INFORMATION accounting{};
    QueryInformationJobObject(job, JobObjectBasicAccountingInformation, &accounting, sizeof accounting,
                              nullptr);
    return accounting.ActiveProcesses;
}

// How many processes are left after at most `limit` milliseconds.
uint32_t WaitUntilEmpty(HANDLE job, DWORD limit) {
    constexpr DWORD STEP = 10;
    uint32_t left = ActiveProcesses(job);
    for (DWORD waited = 0; left > 0 && waited < limit; waited += STEP) {
        Sleep(STEP);
        left = ActiveProcesses(job);
    }
    return left;
}

// File name of a program by its process id; the id where it cannot be told.
std::string ProcessName(DWORD id) {
    KernelHandle process(OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, id));
    wchar_t path[MAX_PATH];
    DWORD length = process ? GetProcessImageFileNameW(process.Get(), path, MAX_PATH) : 0;
    std::wstring_view name(path, length);
    name.remove_prefix(name.find_last_of(L'\\') + 1);
    return name.empty() ? Str_Format("process %u", static_cast<unsigned>(id)) : Text_FromWide(name);
}

// Of at most MOST processes in a job, without Wine's desktop, which belongs to the first program that wants a
// window.
std::vector<std::string> ProcessNames(HANDLE job) {
    constexpr size_t MOST = 64;
    struct {
        JOBOBJECT_BASIC_PROCESS_ID_LIST list;
        ULONG_PTR more[MOST - 1];
    } ids{};
    QueryInformationJobObject(job, JobObjectBasicProcessIdList, &ids, sizeof ids, nullptr);
    std::vector<std::string> names;
    for (size_t i = 0; i < ids.list.NumberOfProcessIdsInList && i < MOST; ++i) {
        const ULONG_PTR* list = ids.list.ProcessIdList;
        std::string name = ProcessName(static_cast<DWORD>(list[i]));
        if (name != "explorer.exe") {
            names.push_back(std::move(name));
        }
    }
    return names;
}

} // namespace

std::wstring GuestProcess_CommandLine(const std::wstring& program,
                                      const std::vector<std::string>& arguments) {
    std::wstring line = L'"' + program + L'"';
    for (const std::string& argument : arguments) {
        AppendArgument(argument, &line);
    }
    return line;
}

bool GuestProcess_Start(const std::vector<std::string>& guest, GuestProcess* started, std::string* error) {
    std::wstring program = FindProgram(guest.front());
    if (program.empty()) {
        *error = "there is no program " + guest.front();
        return false;
    }
    if (!MakeJob(&started->job)) {
        DWORD code = GetLastError();
        return Failed("making a job", code, error);
    }
    FileHandle errors;
    if (!MakePipe(&started->errors, &errors)) {
        DWORD code = GetLastError();
        return Failed("making a pipe", code, error);
    }
    std::vector<std::string> arguments(guest.begin() + 1, guest.end());
    if (!CreateGuest(program, GuestProcess_CommandLine(program, arguments), errors.Get(), started)) {
        DWORD code = GetLastError();
        return Failed("starting " + Text_FromWide(program), code, error);
    }
    // Its first debug event has not been answered yet, so it cannot have children outside the job.
    if (!AssignProcessToJobObject(started->job.Get(), started->process.Get())) {
        DWORD code = GetLastError();
        TerminateProcess(started->process.Get(), 1);
        return Failed("putting the guest into its job", code, error);
    }
    return true;
}

std::string GuestProcess_TakeErrors(GuestProcess* guest) {
    std::string text;
    DWORD waiting = 0;
    while (PeekNamedPipe(guest->errors.Get(), nullptr, 0, nullptr, &waiting, nullptr) && waiting > 0) {
        size_t before = text.size();
        text.resize(before + waiting);
        DWORD read = 0;
        if (!ReadFile(guest->errors.Get(), text.data() + before, waiting, &read, nullptr)) {
            read = 0;
        }
        text.resize(before + read);
        if (read == 0) {
            break;
        }
    }
    return text;
}

std::vector<std::string> GuestProcess_End(GuestProcess* guest, uint32_t patience) {
    std::vector<std::string> left;
    if (WaitUntilEmpty(guest->job.Get(), patience) > 0) {
        left = ProcessNames(guest->job.Get());
    }
    TerminateJobObject(guest->job.Get(), 1);
    WaitUntilEmpty(guest->job.Get(), END_LIMIT);
    return left;
}
