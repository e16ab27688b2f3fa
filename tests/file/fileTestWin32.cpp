#include "fileTestWin32.h"

#include "unicode/unicode.h"

#include <fstream>
#include <iterator>

namespace {

std::filesystem::path ProgramDirectory() {
    wchar_t program[MAX_PATH];
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    return std::filesystem::path(program).parent_path();
}

std::filesystem::path NewDirectory() {
    static int count = 0;
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    return std::filesystem::path(temp) /
           (L"file-test-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(count++));
}

// Not left to the standard library, which does not follow names beyond the usual limit.
void RemoveTree(const std::wstring& directory) {
    WIN32_FIND_DATAW entry;
    FindHandle search(FindFirstFileW((directory + L"\\*").c_str(), &entry));
    for (BOOL more = static_cast<bool>(search); more; more = FindNextFileW(search.Get(), &entry)) {
        std::wstring name = entry.cFileName;
        if (name == L"." || name == L"..") {
            continue;
        }
        std::wstring path = directory + L"\\" + name;
        SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            RemoveTree(path);
        } else {
            DeleteFileW(path.c_str());
        }
    }
    search.Reset();
    RemoveDirectoryW(directory.c_str());
}

} // namespace

HelperProcess::HelperProcess(const std::wstring& arguments) {
    std::wstring program = (ProgramDirectory() / L"fileHelper.exe").wstring();
    std::wstring line = L"\"" + program + L"\" " + arguments;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process;
    if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &process)) {
        throw std::runtime_error("cannot start fileHelper.exe: " + std::to_string(GetLastError()));
    }
    thread_.Reset(process.hThread);
    process_.Reset(process.hProcess);
    id_ = process.dwProcessId;
}

HelperProcess::~HelperProcess() {
    Kill();
}

DWORD HelperProcess::Wait(DWORD limitMs) {
    DWORD code = STILL_ACTIVE;
    WaitForSingleObject(process_.Get(), limitMs);
    GetExitCodeProcess(process_.Get(), &code);
    return code;
}

void HelperProcess::Kill() {
    // Stopped first, for which asking for its registers waits: under Wine a process counts as ended while a
    // call of it may still be writing.
    CONTEXT stopped{};
    stopped.ContextFlags = CONTEXT_CONTROL;
    SuspendThread(thread_.Get());
    GetThreadContext(thread_.Get(), &stopped);
    TerminateProcess(process_.Get(), 99);
    WaitForSingleObject(process_.Get(), INFINITE);
}

FileHolder::FileHolder(const std::wstring& file, DWORD milliseconds, const std::wstring& verb) {
    static int count = 0;
    std::wstring event =
        L"file-test-held-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(count++);
    KernelHandle held(CreateEventW(nullptr, TRUE, FALSE, event.c_str()));
    helper_ = std::make_unique<HelperProcess>(verb + L" \"" + file + L"\" " + std::to_wstring(milliseconds) +
                                              L" " + event);
    if (WaitForSingleObject(held.Get(), 30000) != WAIT_OBJECT_0) {
        throw std::runtime_error("the helper does not hold the file");
    }
}

FileWin32Test::FileWin32Test() : calls_(fileWin32Calls), processCalls_(fileProcessCalls) {
    std::filesystem::path path = NewDirectory();
    RemoveTree(L"\\\\?\\" + path.wstring()); // of an earlier run that was ended
    std::filesystem::create_directories(path);
    directory_ = *Unicode_FromWide(path.wstring());
    DiagCapture_Take();
    LogCapture_Take();
}

FileWin32Test::~FileWin32Test() {
    fileWin32Calls = calls_;
    fileProcessCalls = processCalls_;
    RemoveTree(L"\\\\?\\" + *Unicode_ToWide(directory_));
}

std::string FileWin32Test::Name(const std::string& name) const {
    return directory_ + "\\" + name;
}

std::wstring FileWin32Test::WideName(const std::string& name) const {
    return *Unicode_ToWide(Name(name));
}

void FileWin32Test::WriteFileText(const std::string& name, const std::string& text) const {
    std::ofstream file(std::filesystem::path(WideName(name)), std::ios::binary);
    file << text;
    ASSERT_TRUE(file.flush()) << name;
}

std::string FileWin32Test::ReadFileText(const std::string& name) const {
    std::ifstream file(std::filesystem::path(WideName(name)), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}
