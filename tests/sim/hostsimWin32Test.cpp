// hostsim.exe from outside: what exit code and what words it has for a guest process that misbehaves.

#include "misc/win32Handle.h"

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

// Runs hostsim to its end; gives its exit code.
DWORD Hostsim(const std::string& arguments, std::string* output) {
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
    if (!CreateProcessA(program.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &information)) {
        ADD_FAILURE() << "hostsim does not start: " << GetLastError();
        return STILL_ACTIVE;
    }
    KernelHandle process(information.hProcess);
    KernelHandle thread(information.hThread);
    writing.Reset();
    *output = ReadAll(reading.Get());
    WaitForSingleObject(process.Get(), INFINITE);
    DWORD exit = 0;
    GetExitCodeProcess(process.Get(), &exit);
    return exit;
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

TEST(Hostsim, TellsEveryOutcomeByItsExitCode) {
    const struct {
        const char* options;
        const char* guest;
        DWORD exit;
        const char* said;
    } cases[] = {
        {"", "sim_guest.exe\" well", 0, "RESULT     as expected"},
        {"--unknown", "sim_guest.exe\" well", 1, "unknown option"},
        {"--image no-such-image", "sim_guest.exe\" well", 1, "no-such-image cannot be opened"},
        {"", "no-such-program\"", 2, "there is no program"},
        {"--timeout 3", "sim_guest.exe\" hang", 3, "ran out of time in step 'end', at "},
        {"", "sim_guest.exe\" crash", 4, "exception 0xc0000005 (access violation) at sim_guest.exe+0x"},
        {"", "sim_guest.exe\" seven", 5, "exit code 7 instead of 0"},
        {"--expect-exit 7", "sim_guest.exe\" seven", 0, "exit code 7"},
        {"", "sim_guest.exe\" deviate", 6, "unknown command 9"},
        {"--do ping", "sim_guest.exe\" well", 7, "closed the command channel in step 'send ping'"},
        {"--expect-end sent", "sim_guest.exe\" well", 9, "was not sent"},
        {"", "sim_guest.exe\" silent", 11, "completion was not signalled"},
    };
    for (const auto& test : cases) {
        std::string line = "--timeout 60 --do greeting " + std::string(test.options) + " --do end -- \"" +
                           OwnFolder() + test.guest;
        SCOPED_TRACE(line);
        std::string output;
        EXPECT_EQ(Hostsim(line, &output), test.exit) << output;
        EXPECT_THAT(output, HasSubstr(test.said));
        EXPECT_EQ(GuestProcesses(), 0U);
    }
}

} // namespace
