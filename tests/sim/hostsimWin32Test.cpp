// hostsim.exe from outside: a guest process that behaves, crashes, hangs, or leaves something behind, and the
// exit code and the words that hostsim has for it.

#include "misc/win32Handle.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <tlhelp32.h>

namespace {

using testing::HasSubstr;

std::string OwnFolder() {
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string text = path;
    return text.substr(0, text.find_last_of('\\') + 1);
}

struct Outcome {
    DWORD exit = 0;
    std::string output;
};

// What the program writes, read until every writer is gone.
std::string ReadAll(HANDLE pipe) {
    std::string text;
    char buffer[4096];
    DWORD read = 0;
    while (ReadFile(pipe, buffer, sizeof buffer, &read, nullptr) && read > 0) {
        text.append(buffer, read);
    }
    return text;
}

Outcome Hostsim(const std::string& arguments) {
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    KernelHandle reading;
    KernelHandle writing;
    CreatePipe(reading.Receive(), writing.Receive(), &inherited, 0);
    SetHandleInformation(reading.Get(), HANDLE_FLAG_INHERIT, 0);
    std::string program = OwnFolder() + "..\\hostsim.exe";
    std::string line = "\"" + program + "\" " + arguments;
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = INVALID_HANDLE_VALUE;
    startup.hStdOutput = writing.Get();
    startup.hStdError = writing.Get();
    PROCESS_INFORMATION information{};
    Outcome run;
    if (!CreateProcessA(program.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &information)) {
        ADD_FAILURE() << "hostsim does not start: " << GetLastError();
        return run;
    }
    KernelHandle process(information.hProcess);
    KernelHandle thread(information.hThread);
    writing.Reset();
    run.output = ReadAll(reading.Get());
    WaitForSingleObject(process.Get(), INFINITE);
    GetExitCodeProcess(process.Get(), &run.exit);
    return run;
}

std::string Guest(const std::string& what) {
    return " -- \"" + OwnFolder() + "sim_guest.exe\" " + what;
}

unsigned GuestProcesses() {
    FileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32 entry{};
    entry.dwSize = sizeof entry;
    unsigned count = 0;
    for (BOOL more = Process32First(snapshot.Get(), &entry); more;
         more = Process32Next(snapshot.Get(), &entry)) {
        count += wcscmp(entry.szExeFile, L"sim_guest.exe") == 0;
    }
    return count;
}

// A file of this length beside the test, and the option that names it.
struct Image {
    Image(const char* name, int size) : path(OwnFolder() + name) {
        std::ofstream file(path, std::ios::binary);
        for (int i = 0; i < size; ++i) {
            file.put(static_cast<char>(i * 7 >> 2));
        }
    }
    ~Image() { DeleteFileA(path.c_str()); }

    std::string Option() const { return "--image \"" + path + "\" "; }

    std::string path;
};

struct HostsimTest : testing::Test {
    void TearDown() override { EXPECT_EQ(GuestProcesses(), 0U); }

    Image image{"hostsimTest.iso", 200000};
    Image smallImage{"hostsimSmallTest.iso", 1001};
};

struct ExitCase {
    const char* options;
    const char* guest;
    DWORD exit;
    const char* said;
};

TEST_F(HostsimTest, TellsEveryOutcomeByItsExitCode) {
    const ExitCase cases[] = {
        {"", "well", 0, "RESULT     as expected"},
        {"--low-bandwidth", "well", 0, "RESULT     as expected"},
        {"--file-version 1", "well", 0, "RESULT     as expected"},
        {"--unknown", "well", 1, "unknown option"},
        {"", "seven", 5, "exit code 7 instead of 0"},
        {"--expect-exit 7", "seven", 0, "exit code 7"},
        {"", "crash", 4, "exception 0xc0000005 (access violation) at sim_guest.exe+0x"},
        {"--timeout 3", "hang", 3, "ran out of time in step 'end', at "},
        {"", "deviate", 6, "unknown command 9"},
        {"--expect-end sent", "well", 9, "was not sent"},
        {"", "silent", 11, "completion was not signalled"},
        {"--do greeting --do \"send x\" --do end", "well", 7, "answered 'ERROR Unknown Command'"},
        {"--do greeting --do \"send x => ERROR Unknown Command\" --do cancel --do end", "well", 0,
         "as expected"},
        {"--refuse-greeting", "well", 0, "exit code 1"},
        {"--version 5 --expect-no-start", "well", 0, "exit code 1"},
        {"--no-port --expect-no-start", "well", 0, "0 calls"},
        {"--no-port", "well", 7, "the guest ended in step 'greeting'"},
        {"--fail-call 5", "well", 7, "1 answered with a fault"},
        {"--cancel during", "well", 0, "as expected"},
        {"--cancel installing --timeout 3", "hang", 3, "ran out of time"},
        {"", "child", 0, ".exe, started by the guest, was still running"},
        {"", "complain", 0, "stderr     second line"},
        {"--break-at installing", "signal", 0, "as expected"},
        {"--break-at installing --signal shutdown", "signal", 0, "as expected"},
    };
    for (const ExitCase& test : cases) {
        bool small = std::string(test.options).find("--low") != std::string::npos; // four bytes a call
        std::string line =
            "--timeout 60 " + (small ? smallImage : image).Option() + test.options + Guest(test.guest);
        SCOPED_TRACE(line);
        Outcome run = Hostsim(line);
        EXPECT_EQ(run.exit, test.exit) << run.output;
        EXPECT_THAT(run.output, HasSubstr(test.said));
    }
}

TEST_F(HostsimTest, SaysWhatIsMissing) {
    EXPECT_EQ(Hostsim("-- no-such-program").exit, 2U);
    Outcome run = Hostsim("--image no-such-image" + Guest("well"));
    EXPECT_EQ(run.exit, 1U);
    EXPECT_THAT(run.output, HasSubstr("no-such-image cannot be opened"));
    EXPECT_THAT(Hostsim("--help").output, HasSubstr("Usage: hostsim"));
}

TEST_F(HostsimTest, WritesATranscript) {
    std::string path = OwnFolder() + "hostsimTest.txt";
    Hostsim(image.Option() + "--quiet --transcript \"" + path + "\"" + Guest("complain"));
    std::ifstream file(path, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    for (const char* line : {"host   guest request: 'upgrader.setGuestFileRoot", "WriteV3",
                             "debug  Registering", "stderr first line", "phase  install", "RESULT"}) {
        EXPECT_THAT(text, HasSubstr(line));
    }
    file.close();
    DeleteFileA(path.c_str());
}

} // namespace
