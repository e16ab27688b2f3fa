// What the file library adds to the calls that it ends in: transfers and opens against the bare calls, a lock
// nobody else wants against the file operations that its protocol needs, and a lock handed over between two
// processes against the pause that its waiters make.
#include "benchmarks/support/measure.h"
#include "file/file.h"
#include "file/fileIO.h"
#include "file/fileLock.h"
#include "misc/win32Handle.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace {

// One row: ours against the bare calls, a short round of each in turn.
template <typename Ours, typename Bare>
void Compare(const std::string& name, int rounds, int times, Ours ours, Bare bare) {
    std::vector<double> oursTimes;
    std::vector<double> bareTimes;
    for (int round = 0; round < rounds; round++) {
        oursTimes.push_back(Time(times, ours));
        bareTimes.push_back(Time(times, bare));
    }
    const double value = Median(oursTimes);
    const double base = Median(bareTimes);
    std::printf("%s\t%.2f\tus\t%.2f\t%.3f\n", name.c_str(), value, base, value / base);
    std::fflush(stdout);
}

std::string Narrow(const std::wstring& wide) {
    std::string narrow(wide.size() * 3, '\0');
    narrow.resize(static_cast<size_t>(
        WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), narrow.data(),
                            static_cast<int>(narrow.size()), nullptr, nullptr)));
    return narrow;
}

std::wstring NewDirectory() {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    std::wstring directory = std::wstring(temp) + L"file-bench-" + std::to_wstring(GetCurrentProcessId());
    CreateDirectoryW(directory.c_str(), nullptr);
    return directory;
}

// Rewinding is in both, so that a file does not grow.
void CompareTransfers(const std::wstring& path, DWORD size, int times) {
    std::vector<char> buffer(size, 'b');
    FileIODescriptor file;
    FileIO_Open(&file, Narrow(path).c_str(), FILEIO_OPEN_READ | FILEIO_OPEN_WRITE,
                FileIOOpenAction::CreateEmpty);
    FileIO_Write(&file, buffer.data(), size, nullptr);
    DWORD done = 0;
    const std::string unit =
        size >= 1 << 20 ? std::to_string(size >> 20) + " MiB" : std::to_string(size >> 10) + " KiB";
    auto rewind = [&] { SetFilePointer(file.handle, 0, nullptr, FILE_BEGIN); };
    Compare(
        "file: write of " + unit, 101, times,
        [&] {
            rewind();
            FileIO_Write(&file, buffer.data(), size, nullptr);
        },
        [&] {
            rewind();
            WriteFile(file.handle, buffer.data(), size, &done, nullptr);
        });
    Compare(
        "file: read of " + unit, 101, times,
        [&] {
            rewind();
            FileIO_Read(&file, buffer.data(), size, nullptr);
        },
        [&] {
            rewind();
            ReadFile(file.handle, buffer.data(), size, &done, nullptr);
        });
    FileIO_Close(&file);
}

void CompareOpens(const std::wstring& path) {
    const std::string name = Narrow(path);
    Compare(
        "file: open and close", 51, 20,
        [&] {
            FileIODescriptor file;
            FileIO_Open(&file, name.c_str(), FILEIO_OPEN_READ, FileIOOpenAction::Open);
            FileIO_Close(&file);
        },
        [&] {
            CloseHandle(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        });
    Compare(
        "file: existence", 51, 100, [&] { File_Exists(name.c_str()); },
        [&] { GetFileAttributesW(path.c_str()); });
}

void ListBare(const std::wstring& directory) {
    WIN32_FIND_DATAW entry;
    HANDLE search = FindFirstFileW((directory + L"\\*.*").c_str(), &entry);
    while (FindNextFileW(search, &entry)) {
    }
    FindClose(search);
}

// The file operations of one uncontended lock and unlock, in their order and nothing else.
void LockBare(const std::wstring& lockDirectory) {
    const std::wstring entryDirectory = lockDirectory + L"\\D00001.lck";
    const std::wstring entryFile = lockDirectory + L"\\E00001.lck";
    const std::wstring memberFile = lockDirectory + L"\\M00001.lck";
    WIN32_FILE_ATTRIBUTE_DATA data;
    GetFileAttributesExW(lockDirectory.c_str(), GetFileExInfoStandard, &data);
    CreateDirectoryW(lockDirectory.c_str(), nullptr);
    CreateDirectoryW(entryDirectory.c_str(), nullptr);
    GetFileAttributesExW(memberFile.c_str(), GetFileExInfoStandard, &data);
    HANDLE file =
        CreateFileW(entryFile.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ListBare(lockDirectory);
    char content[512] = "member";
    DWORD done = 0;
    WriteFile(file, content, sizeof content, &done, nullptr);
    CloseHandle(file);
    MoveFileW(entryFile.c_str(), memberFile.c_str());
    RemoveDirectoryW(entryDirectory.c_str());
    ListBare(lockDirectory);
    ListBare(lockDirectory);
    DeleteFileW(memberFile.c_str());
    RemoveDirectoryW(lockDirectory.c_str());
}

void LockOnce(const std::string& name) {
    int error = 0;
    FileLock_Token* token = FileLock_Lock(name.c_str(), false, FILELOCK_WAIT_FOREVER, &error);
    FileLock_Unlock(name.c_str(), token);
}

void CompareLocks(const std::wstring& path) {
    const std::string name = Narrow(path);
    Compare(
        "lock: taken and given back, alone", 51, 10, [&] { LockOnce(name); },
        [&] { LockBare(path + L".lck"); });
}

// Two processes ask for the lock again as soon as they have given it back, so that one always waits.
void MeasureHandOver(const std::wstring& path, const wchar_t* program) {
    constexpr int LOCKS = 25;
    constexpr double PAUSE_MS = 100; // between two looks of a waiter
    std::wstring line = L"\"" + std::wstring(program) + L"\" \"" + path + L"\" " + std::to_wstring(LOCKS);
    std::vector<double> rounds;
    for (int round = 0; round < 5; round++) {
        const double start = Microseconds();
        KernelHandle processes[2];
        for (KernelHandle& process : processes) {
            STARTUPINFOW startup{};
            startup.cb = sizeof startup;
            PROCESS_INFORMATION information{};
            CreateProcessW(program, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                           &information);
            CloseHandle(information.hThread);
            process.Reset(information.hProcess);
        }
        for (KernelHandle& process : processes) {
            WaitForSingleObject(process.Get(), INFINITE);
        }
        rounds.push_back((Microseconds() - start) / 1000 / (2 * LOCKS));
    }
    const double value = Median(rounds);
    std::printf("lock: handed over between two processes\t%.1f\tms\t%.1f\t%.2f\n", value, PAUSE_MS,
                value / PAUSE_MS);
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    if (count == 3) { // the second process
        for (int left = _wtoi(arguments[2]); left > 0; left--) {
            LockOnce(Narrow(arguments[1]));
        }
        return 0;
    }
    wchar_t program[MAX_PATH];
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    const std::wstring directory = NewDirectory();
    const std::wstring path = directory + L"\\file";
    CompareTransfers(path, 2 << 10, 200);
    CompareTransfers(path, 64 << 10, 50);
    CompareTransfers(path, 1 << 20, 10);
    CompareOpens(path);
    CompareLocks(path);
    MeasureHandOver(path, program);
    DeleteFileW(path.c_str());
    RemoveDirectoryW(directory.c_str());
    return 0;
}
