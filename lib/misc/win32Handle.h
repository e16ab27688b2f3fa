// Owners for Windows handles. The invalid value is part of the type: kernel objects use null, files and
// searches use all ones, and the two cannot be mixed up. Releasing preserves the thread's last error, so that
// a caller may still report the failure that made it leave.
#pragma once

#include <utility>
#include <windows.h>

template <typename Traits>
class Win32Owner {
public:
    using Value = typename Traits::Value;

    Win32Owner() = default;
    explicit Win32Owner(Value value) : value_(value) {}
    Win32Owner(Win32Owner&& other) noexcept : value_(other.Release()) {}
    Win32Owner& operator=(Win32Owner&& other) noexcept {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }
    ~Win32Owner() { Reset(); }

    Value Get() const { return value_; }
    explicit operator bool() const { return value_ != Traits::Invalid(); }
    Value Release() { return std::exchange(value_, Traits::Invalid()); }
    void Reset(Value value = Traits::Invalid()) {
        if (value_ != Traits::Invalid()) {
            DWORD error = GetLastError();
            Traits::Close(value_);
            SetLastError(error);
        }
        value_ = value;
    }
    // Room for a call that stores a new value; whatever was owned is released first.
    Value* Receive() {
        Reset();
        return &value_;
    }

private:
    Value value_ = Traits::Invalid();
};

struct KernelHandleTraits {
    using Value = HANDLE;
    static HANDLE Invalid() { return nullptr; }
    static void Close(HANDLE handle) { CloseHandle(handle); }
};
struct FileHandleTraits {
    using Value = HANDLE;
    static HANDLE Invalid() { return INVALID_HANDLE_VALUE; }
    static void Close(HANDLE handle) { CloseHandle(handle); }
};
struct FindHandleTraits {
    using Value = HANDLE;
    static HANDLE Invalid() { return INVALID_HANDLE_VALUE; }
    static void Close(HANDLE handle) { FindClose(handle); }
};
struct RegistryKeyTraits {
    using Value = HKEY;
    static HKEY Invalid() { return nullptr; }
    static void Close(HKEY key) { RegCloseKey(key); }
};
struct ModuleTraits {
    using Value = HMODULE;
    static HMODULE Invalid() { return nullptr; }
    static void Close(HMODULE module) { FreeLibrary(module); }
};

using KernelHandle = Win32Owner<KernelHandleTraits>; // process, thread, event, token, mapping
using FileHandle = Win32Owner<FileHandleTraits>;     // CreateFile
using FindHandle = Win32Owner<FindHandleTraits>;     // FindFirstFile
using RegistryKey = Win32Owner<RegistryKeyTraits>;
using Module = Win32Owner<ModuleTraits>; // LoadLibrary

// Looks an entry point up by name; null when the module lacks it.
template <typename Function>
Function Win32_GetProc(HMODULE module, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}
