#include "sim/hostsim/frontWin32.h"

#include "sim/hostsim/debuggerWin32.h"
#include "sim/hostsim/textWin32.h"
#include "string/str.h"

#include <atomic>
#include <cstdio>
#include <memory>

namespace {

constexpr char GUEST_PREFIX[] = "[RLToolsUpgrader]: "; // before each of the program's own debug texts
constexpr double TERMINAL_PROGRESS = 0.2;              // seconds between two progress lines
constexpr double PLAIN_PROGRESS = 2;
constexpr uint32_t INSTALLER_PATIENCE = 500; // milliseconds
constexpr wchar_t COMPLETION_EVENT[] = L"Global\\ToolsUpgradeComplete";

std::atomic<bool> interrupted{false};

BOOL WINAPI OnInterrupt(DWORD /*event*/) {
    interrupted = true;
    return TRUE;
}

struct FileClose {
    void operator()(FILE* file) const { std::fclose(file); }
};

struct Front {
    explicit Front(const Options& given) : options(given) {}

    const Options& options;
    Hypervisor hypervisor;
    Host host;
    Report report;
    GuestProcess guest;
    Debugger debugger;
    FileHandle image;
    KernelHandle completion;
    std::unique_ptr<FILE, FileClose> transcript;

    LARGE_INTEGER frequency{};
    LARGE_INTEGER start{};
    bool terminal = false;
    bool progressShown = false; // a progress line without its line end stands on the terminal
    double lastProgress = 0;
    double phaseStart = 0;
    std::string errorTail; // of the guest's standard error, up to its line end
};

double Now(const Front& front) {
    LARGE_INTEGER now{};
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart - front.start.QuadPart) /
           static_cast<double>(front.frequency.QuadPart);
}

// ---- What people see ----

void EndProgress(Front* front) {
    if (front->progressShown) {
        std::fputs("\r\x1b[K", stdout);
        front->progressShown = false;
    }
}

void Print(Front* front, const std::string& line) {
    if (!front->options.quiet) {
        EndProgress(front);
        std::printf("%9.3f  %s\n", Now(*front), line.c_str());
        std::fflush(stdout);
    }
}

void WriteDown(Front* front, const char* kind, const std::string& line) {
    if (front->transcript) {
        std::fprintf(front->transcript.get(), "%10.4f %-6s %s\n", Now(*front), kind, line.c_str());
    }
}

std::string PhaseText(const Front& front, Host_Phase phase) {
    std::string text = Host_PhaseName(phase);
    text.resize(9, ' ');
    switch (phase) {
    case Host_Phase::Greeted:
        return text + " " + front.host.root;
    case Host_Phase::Copying:
        return text + " " + front.options.image;
    default:
        return text;
    }
}

void ShowProgress(Front* front, bool last) {
    Host_Phase phase = front->host.phase;
    bool copy = phase == Host_Phase::Copying;
    if (front->options.quiet || (!copy && phase != Host_Phase::Verifying)) {
        return;
    }
    double now = Now(*front);
    if (!last && now - front->lastProgress < (front->terminal ? TERMINAL_PROGRESS : PLAIN_PROGRESS)) {
        return;
    }
    front->lastProgress = now;
    uint64_t done = copy ? front->host.copiedBytes : front->host.verifiedBytes;
    std::string line =
        Report_Progress(Host_PhaseName(phase), done, front->host.client.source.size, now - front->phaseStart);
    if (front->terminal && !last) {
        std::printf("\r%9.3f  %s\x1b[K", now, line.c_str());
        std::fflush(stdout);
        front->progressShown = true;
    } else {
        Print(front, line);
    }
}

// ---- The host's callbacks ----

void OnPhase(void* data, Host_Phase phase) {
    auto* front = static_cast<Front*>(data);
    double now = Now(*front);
    front->report.phases[static_cast<size_t>(phase)] = {now, front->hypervisor.counts.calls};
    front->phaseStart = now;
    front->lastProgress = now;
    Print(front, PhaseText(*front, phase));
    WriteDown(front, "phase", Host_PhaseName(phase));
}

void OnTranscript(void* data, const std::string& line) {
    WriteDown(static_cast<Front*>(data), "host", line);
}

void OnSignal(void* data, unsigned event) {
    auto* front = static_cast<Front*>(data);
    Print(front, Str_Format("console event %u", event));
    if (!Debugger_RaiseConsoleEvent(front->debugger, event)) {
        front->host.problems.push_back({Host_ProblemKind::Script, "the console event could not be raised"});
    }
}

bool ReadImage(void* data, uint64_t offset, uint8_t* bytes, size_t length) {
    auto* front = static_cast<Front*>(data);
    OVERLAPPED position{};
    position.Offset = static_cast<DWORD>(offset);
    position.OffsetHigh = static_cast<DWORD>(offset >> 32);
    DWORD read = 0;
    return ReadFile(front->image.Get(), bytes, static_cast<DWORD>(length), &read, &position) &&
           read == length;
}

// ---- The debugger's callbacks ----

bool OnPort(void* data, Hypervisor_Instruction instruction, bool backwards, HvPort_Registers* registers) {
    auto* front = static_cast<Front*>(data);
    if (front->options.noPort) {
        return false;
    }
    const std::vector<std::string>& deviations = front->hypervisor.deviations;
    size_t known = deviations.size();
    Host_Phase phase = front->host.phase;
    Hypervisor_Call(&front->hypervisor, instruction, backwards, registers);
    if (deviations.size() > known) {
        WriteDown(front, "port", "deviation: " + deviations.back());
    }
    if (front->host.phase == phase) {
        ShowProgress(front, false);
    }
    return true;
}

void OnSaid(void* data, std::string_view text) {
    auto* front = static_cast<Front*>(data);
    if (text.starts_with(GUEST_PREFIX)) {
        text.remove_prefix(sizeof GUEST_PREFIX - 1);
    }
    std::string line(text);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    WriteDown(front, "debug", line);
    if (front->options.guestLog) {
        Print(front, "  | " + line);
    }
    Host_GuestSaid(&front->host, text);
}

void OnException(void* data, const std::string& description, bool last) {
    auto* front = static_cast<Front*>(data);
    front->report.exception = description;
    if (last) {
        front->report.crash = description;
    }
    WriteDown(front, "guest", (last ? "unhandled " : "") + description);
}

void TakeGuestErrors(Front* front, bool last) {
    front->errorTail += GuestProcess_TakeErrors(&front->guest);
    for (;;) {
        size_t end = front->errorTail.find('\n');
        if (end == std::string::npos && (!last || front->errorTail.empty())) {
            return;
        }
        std::string line = front->errorTail.substr(0, end);
        front->errorTail.erase(0, end == std::string::npos ? end : end + 1);
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (!line.empty()) {
            WriteDown(front, "stderr", line);
            Print(front, "  ! " + line);
            front->report.guestErrors.push_back(line);
        }
    }
}

bool OnTurn(void* data) {
    auto* front = static_cast<Front*>(data);
    TakeGuestErrors(front, false);
    if (interrupted) {
        front->report.interrupted = true;
        return false;
    }
    if (Now(*front) > front->options.timeout) {
        front->report.timedOut = true;
        std::string where = Debugger_Where(front->debugger);
        const Host& host = front->host;
        front->report.stuck =
            Host_Done(host) ? "" : " in step '" + Host_DescribeStep(host.steps[host.step]) + "'";
        front->report.stuck += where.empty() ? "" : ", at " + where;
        return false;
    }
    return true;
}

// ---- The guest's files ----

void CountFiles(const std::wstring& folder, uint64_t* files, uint64_t* bytes) {
    WIN32_FIND_DATAW entry{};
    FindHandle search(FindFirstFileW((folder + L"*").c_str(), &entry));
    if (!search) {
        return;
    }
    do {
        std::wstring name = entry.cFileName;
        if (name == L"." || name == L"..") {
            continue;
        }
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            CountFiles(folder + name + L'\\', files, bytes);
        } else {
            ++*files;
            *bytes += static_cast<uint64_t>(entry.nFileSizeHigh) << 32 | entry.nFileSizeLow;
        }
    } while (FindNextFileW(search.Get(), &entry));
}

void InspectGuest(Front* front) {
    Report& report = front->report;
    report.completion = WaitForSingleObject(front->completion.Get(), 0) == WAIT_OBJECT_0;
    if (front->host.root.empty()) {
        return;
    }
    std::wstring root = Text_ToWide(front->host.root);
    std::wstring image = root + Text_ToWide(front->host.imageName);
    report.imageLeft = GetFileAttributesW(image.c_str()) != INVALID_FILE_ATTRIBUTES;
    CountFiles(root, &report.filesLeft, &report.bytesLeft);
}

// ---- The run ----

bool OpenImage(Front* front, std::string* error) {
    const std::string& path = front->options.image;
    if (path.empty()) {
        return true;
    }
    front->image.Reset(CreateFileW(Text_ToWide(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                   OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size{};
    if (!front->image || !GetFileSizeEx(front->image.Get(), &size)) {
        DWORD code = GetLastError();
        *error =
            Str_Format("the image %s cannot be opened: error %u", path.c_str(), static_cast<unsigned>(code));
        return false;
    }
    front->host.client.source = {ReadImage, front, static_cast<uint64_t>(size.QuadPart)};
    return true;
}

bool OpenTranscript(Front* front, std::string* error) {
    const std::string& path = front->options.transcript;
    if (path.empty()) {
        return true;
    }
    front->transcript.reset(_wfopen(Text_ToWide(path).c_str(), L"wb"));
    if (!front->transcript) {
        *error = "the transcript " + path + " cannot be written";
        return false;
    }
    return true;
}

bool Prepare(Front* front, std::string* error) {
    const Options& options = front->options;
    Host& host = front->host;
    if (!Options_Script(options, &host.steps, error) || !OpenImage(front, error) ||
        !OpenTranscript(front, error)) {
        return false;
    }
    host.greeting = options.greeting;
    host.expectedEnd = Options_ExpectedEnd(options);
    host.client.version = options.fileVersion;
    host.observer = {OnPhase, OnTranscript, OnSignal, front};
    front->hypervisor.faults = options.faults;
    front->hypervisor.service = Host_Service(&host);
    front->hypervisor.memory = Debugger_Memory(&front->guest);
    front->report.expectedExit = Options_ExpectedExit(options);
    front->debugger.guest = &front->guest;
    front->debugger.crash = options.crash;
    front->debugger.crashCall = options.crashCall;
    front->debugger.events = {OnPort, OnSaid, OnException, OnTurn, front};
    // Made before the guest opens it, and ours until its state has been read.
    front->completion.Reset(CreateEventW(nullptr, TRUE, FALSE, COMPLETION_EVENT));
    ResetEvent(front->completion.Get());
    DWORD mode = 0;
    front->terminal = GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != FALSE;
    QueryPerformanceFrequency(&front->frequency);
    QueryPerformanceCounter(&front->start);
    SetConsoleCtrlHandler(OnInterrupt, TRUE);
    return true;
}

void Finish(Front* front) {
    TakeGuestErrors(front, true);
    InspectGuest(front);
    // An installer that the guest has waited for may still be busy with its own end.
    std::vector<std::string> left =
        GuestProcess_End(&front->guest, front->report.guestExit ? INSTALLER_PATIENCE : 0);
    if (front->report.guestExit) {
        front->report.processesLeft = std::move(left);
    }
    Host_Finish(&front->host);
    front->report.seconds = Now(*front);
}

} // namespace

Report_Exit Front_Run(const Options& options) {
    Front front(options);
    std::string error;
    if (!Prepare(&front, &error)) {
        std::fprintf(stderr, "hostsim: %s\n", error.c_str());
        return Report_Exit::Usage;
    }
    front.report.phases[0] = Report_PhaseStart{};
    Print(&front, std::string(Host_PhaseName(Host_Phase::Starting)) + "     " + options.guest.front());
    if (!GuestProcess_Start(options.guest, &front.guest, &error)) {
        std::fprintf(stderr, "hostsim: %s\n", error.c_str());
        return Report_Exit::NotStarted;
    }
    Host_Start(&front.host);
    front.report.guestExit = Debugger_Run(&front.debugger);
    Finish(&front);

    std::string summary = Report_Summary(front.report, front.host, front.hypervisor);
    EndProgress(&front);
    std::fputs(summary.c_str(), stdout);
    WriteDown(&front, "end", '\n' + summary);
    return Report_Verdict(Report_Findings(front.report, front.host, front.hypervisor));
}
