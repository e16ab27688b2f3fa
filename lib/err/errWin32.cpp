#include "err/errSystem.h"
#include "unicode/unicode.h"

#include <memory>
#include <windows.h>

namespace {

struct LocalFreeDelete {
    void operator()(wchar_t* text) const { LocalFree(text); }
};

} // namespace

bool ErrSystemMessage(uint32_t code, std::string* text) {
    wchar_t* message = nullptr;
    const DWORD length = FormatMessageW(
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_ALLOCATE_BUFFER, nullptr,
        code, MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), reinterpret_cast<wchar_t*>(&message), 0, nullptr);
    const std::unique_ptr<wchar_t, LocalFreeDelete> owner(message);
    if (length == 0) {
        return false;
    }
    std::optional<std::string> converted = Unicode_FromWide({message, length});
    if (!converted) {
        return false;
    }
    *text = std::move(*converted);
    return true;
}

uint32_t ErrSystemLastError() {
    return GetLastError();
}
void ErrSystemSetLastError(uint32_t code) {
    SetLastError(code);
}
