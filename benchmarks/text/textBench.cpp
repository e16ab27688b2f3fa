// What text costs: names and large texts to UTF-16 and back against the system's conversion, text of a code
// page, a log line against the write that it ends in, and the text of an error that has been asked for
// before.
#include "benchmarks/support/measure.h"
#include "err/err.h"
#include "log/log.h"
#include "misc/codeset.h"
#include "misc/win32Handle.h"
#include "unicode/unicode.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr int ROUNDS = 101; // short ones, so that the median is one that nothing interrupted

// One row: ours against the reference, a round of each in turn.
template <typename Ours, typename Reference>
void Compare(const char* name, int times, Ours ours, Reference reference) {
    std::vector<double> oursTimes;
    std::vector<double> referenceTimes;
    for (int round = 0; round < ROUNDS; round++) {
        oursTimes.push_back(Time(times, ours));
        referenceTimes.push_back(Time(times, reference));
    }
    const double value = Median(oursTimes);
    const double base = Median(referenceTimes);
    printf("%s\t%.3f\tus\t%.3f\t%.2f\n", name, value, base, value / base);
}

volatile size_t sink; // keeps the work from being left out

std::wstring SystemToWide(const std::string& text) {
    const auto length = static_cast<int>(text.size());
    std::wstring wide(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), length, nullptr, 0), 0);
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), length, wide.data(),
                        static_cast<int>(wide.size()));
    return wide;
}

std::string SystemFromWide(const std::wstring& wide) {
    const auto units = static_cast<int>(wide.size());
    std::string text(WideCharToMultiByte(CP_UTF8, 0, wide.data(), units, nullptr, 0, nullptr, nullptr), 0);
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), units, text.data(), static_cast<int>(text.size()), nullptr,
                        nullptr);
    return text;
}

void BothDirections(const std::string& kind, const std::string& text, int times) {
    const std::wstring wide = Unicode_ToWide(text).value();
    Compare((kind + " to UTF-16").c_str(), times, [&] { sink = Unicode_ToWide(text)->size(); },
            [&] { sink = SystemToWide(text).size(); });
    Compare((kind + " from UTF-16").c_str(), times, [&] { sink = Unicode_FromWide(wide)->size(); },
            [&] { sink = SystemFromWide(wide).size(); });
}

std::string Repeated(const std::string& text, size_t length) {
    std::string result;
    while (result.size() < length) {
        result += text;
    }
    return result;
}

void Utf8() {
    BothDirections("name, ASCII, 20 bytes", "component-000017.dll", 2000);
    BothDirections("name, European, 20 bytes", "Programme \xC3\xA9t\xC3\xA9.cfg.", 2000);
    BothDirections("name, Japanese, 21 bytes",
                   "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE5\x90\x8D",
                   20000);
    BothDirections("text, ASCII, 1 MiB", Repeated("All of it ASCII. ", 1 << 20), 1);
    BothDirections("text, European, 1 MiB",
                   Repeated("L'\xC3\xA9t\xC3\xA9 dernier, \xC3\xA0 N\xC3\xAEmes. ", 1 << 20), 1);
    BothDirections("text, Japanese, 1 MiB", Repeated("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", 1 << 20), 1);
}

void CodePage() {
    const std::string text = "caf\xE9 cr\xE8me, 20 bytes";
    Compare(
        "windows-1252, 20 bytes to UTF-8", 1000,
        [&] {
            std::string out;
            CodeSet_Convert("windows-1252", text.data(), text.size(), "UTF-8", CodeSet_Mode::Stop, &out);
            sink = out.size();
        },
        [&] {
            std::array<wchar_t, 64> wide;
            const int units = MultiByteToWideChar(1252, MB_ERR_INVALID_CHARS, text.data(),
                                                  static_cast<int>(text.size()), wide.data(), wide.size());
            sink = SystemFromWide({wide.data(), static_cast<size_t>(units)}).size();
        });
}

void LogLine(const std::wstring& directory) {
    SetEnvironmentVariableW(L"TMP", directory.c_str());
    const FileHandle file(CreateFileW((directory + L"\\reference.log").c_str(),
                                      FILE_APPEND_DATA | SYNCHRONIZE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                      nullptr, CREATE_ALWAYS, 0, nullptr));
    const std::string line =
        "inst : 11/21/25 10:17:45 E1:FILE: FileRenameRetry: retry time expired; last error 32\r\n";
    Log_Begin("bench");
    Log_Error("the first opens the file");
    Compare(
        "log line against its write", 300,
        [] { Log_Error("FILE: %s: retry time expired; last error %d", "FileRenameRetry", 32); },
        [&] {
            DWORD written = 0;
            WriteFile(file.Get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
        });
    Log_End();
}

void ErrorText() {
    Err_ErrString(ERROR_SHARING_VIOLATION);
    Compare(
        "error text, known, against FormatMessage", 2000,
        [] { sink = *Err_ErrString(ERROR_SHARING_VIOLATION); },
        [] {
            std::array<wchar_t, 512> text;
            sink = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                  ERROR_SHARING_VIOLATION, MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US),
                                  text.data(), text.size(), nullptr);
        });
}

std::wstring OutFolder() {
    std::array<wchar_t, MAX_PATH> folder;
    const DWORD length = GetEnvironmentVariableW(L"RL_OUT", folder.data(), folder.size());
    return length > 0 && length < folder.size() ? std::wstring(folder.data(), length) : L".";
}

} // namespace

int main() {
    const double start = Microseconds();
    Unicode_Startup(nullptr);
    printf("start of the character sets\t%.0f\tus\t-\t-\n", Microseconds() - start);
    if (!CodeSet_UsesIcu()) {
        printf("icudt38l.dat is missing: these figures are for the system's conversions\n");
    }
    Utf8();
    CodePage();
    LogLine(OutFolder());
    ErrorText();
    return 0;
}
