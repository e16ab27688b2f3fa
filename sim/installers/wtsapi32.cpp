// Stands in for the system's library of the same name, whose messages to the console session a test cannot
// answer.
//
// RL_WTS_ANSWER is the answer to every message: a number (6 yes, 7 no, 32000 nobody in time), or "fail". The
// message is written into the file RL_WTS_RECORD, as UTF-16: style, seconds, wait, title and text, one a
// line.
#include <cwchar>
#include <string>
#include <windows.h>

#ifdef RL_NO_CONSOLE_SESSION

extern "C" __declspec(dllexport) BOOL WINAPI WTSDisconnectSession(HANDLE, DWORD, BOOL) {
    return FALSE;
}

#else

namespace {

std::wstring Variable(const wchar_t* name) {
    wchar_t value[MAX_PATH] = {};
    GetEnvironmentVariableW(name, value, MAX_PATH);
    return value;
}

void Record(const std::wstring& lines) {
    HANDLE file =
        CreateFileW(Variable(L"RL_WTS_RECORD").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    if (file != INVALID_HANDLE_VALUE) {
        WriteFile(file, lines.data(), static_cast<DWORD>(lines.size() * sizeof(wchar_t)), &written, nullptr);
        CloseHandle(file);
    }
}

} // namespace

extern "C" __declspec(dllexport) BOOL WINAPI
    WTSSendMessageW(HANDLE, DWORD, wchar_t* title, DWORD titleBytes, wchar_t* message, DWORD messageBytes,
                    DWORD style, DWORD seconds, DWORD* answer, BOOL wait) {
    Record(std::to_wstring(style) + L"\n" + std::to_wstring(seconds) + L"\n" + std::to_wstring(wait) + L"\n" +
           std::wstring(title, titleBytes / sizeof(wchar_t)) + L"\n" +
           std::wstring(message, messageBytes / sizeof(wchar_t)) + L"\n");
    std::wstring wanted = Variable(L"RL_WTS_ANSWER");
    if (wanted == L"fail") {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    *answer = static_cast<DWORD>(wcstoul(wanted.c_str(), nullptr, 10));
    return TRUE;
}

#endif
