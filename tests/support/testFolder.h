// A new folder whose name holds a blank and letters beyond ASCII. It goes away with the object. Windows only.
#pragma once

#include "unicode/unicode.h"

#include <filesystem>
#include <string>
#include <system_error>
#include <windows.h>

class TestFolder {
public:
    TestFolder() {
        static const auto base = std::filesystem::temp_directory_path(); // a test may change what it reads
        static int count = 0;
        do {
            path_ = base / (L"test \x00E9\x65E5\x672C \xD83D\xDE00 " +
                            std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count));
            Remove(); // what an earlier process with this number could not
        } while (!std::filesystem::create_directory(path_));
    }
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;
    ~TestFolder() { Remove(); }

    const std::filesystem::path& Path() const { return path_; }

    static std::string Utf8(const std::filesystem::path& path) { return *Unicode_FromWide(path.wstring()); }

    // Where the running test and its helpers are.
    static std::filesystem::path OfPrograms() {
        wchar_t self[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        return std::filesystem::path(self).parent_path();
    }

private:
    void Remove() const {
        std::error_code ignored; // something in it may still be in use
        std::filesystem::remove_all(path_, ignored);
    }

    std::filesystem::path path_;
};
