// What the tests of the file library on Windows share: a private directory, the system-call table put back
// after each test, and a second process.
#pragma once

#include "file/file.h"
#include "file/fileCallsWin32.h"
#include "logCapture.h"
#include "misc/win32Handle.h"
#include "support/diagCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

// The program fileHelper.exe, which stands beside the tests.
class HelperProcess {
public:
    explicit HelperProcess(const std::wstring& arguments);
    ~HelperProcess(); // ends it if it still runs

    DWORD Wait(DWORD limitMs = 60000); // the exit code, or STILL_ACTIVE after the limit
    void Kill();
    DWORD Id() const { return id_; }
    HANDLE Handle() const { return process_.Get(); }

private:
    KernelHandle process_;
    KernelHandle thread_; // its only one
    DWORD id_ = 0;
};

// A helper that keeps a file for some time; constructed when it has it.
class FileHolder {
public:
    // `verb` is "hold" for an open without sharing, "shared" or "exclusive" for the lock that an open takes.
    FileHolder(const std::wstring& file, DWORD milliseconds, const std::wstring& verb = L"hold");

    HelperProcess& Process() { return *helper_; }

private:
    std::unique_ptr<HelperProcess> helper_;
};

// Has a call of the table do nothing but fail.
template <DWORD Error, intptr_t Answer = 0, typename Result, typename... Arguments>
void FailWith(Result (**call)(Arguments...)) {
    *call = [](Arguments...) -> Result {
        SetLastError(Error);
        return (Result)Answer;
    };
}

class FileWin32Test : public ::testing::Test {
protected:
    FileWin32Test();
    ~FileWin32Test() override;

    // A name in the private directory.
    std::string Name(const std::string& name) const;
    std::wstring WideName(const std::string& name) const;

    void WriteFileText(const std::string& name, const std::string& text) const;
    std::string ReadFileText(const std::string& name) const;

    std::string directory_; // absolute, without a trailing separator

private:
    FileWin32Calls calls_; // the real ones
    FileProcessCalls processCalls_;
};
