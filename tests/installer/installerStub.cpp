// A setup.exe that does nothing but keep its command line: it writes it, as UTF-16, into a file beside
// itself.
#include <cstdio>
#include <string>
#include <windows.h>

int main() {
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring line = GetCommandLineW();
    FILE* file = _wfopen((std::wstring(self) + L".line").c_str(), L"wb");
    if (!file) {
        return 1;
    }
    fwrite(line.data(), sizeof(wchar_t), line.size(), file);
    return fclose(file);
}
