#include "unicode/unicode.h"
#include "upgrader/win32/utilSystem.h"

#include <array>
#include <windows.h>

namespace {

constexpr DWORD LONGEST_USER_NAME = 100;

} // namespace

std::optional<std::string> UtilSystemVariable(const std::string& name) {
    const std::optional<std::wstring> wide = Unicode_ToWide(name);
    if (!wide) {
        return std::nullopt;
    }
    // Sizes count the terminator, lengths do not; so 0 is a variable that is not set only when a size is
    // asked for.
    std::wstring value;
    DWORD size = GetEnvironmentVariableW(wide->c_str(), nullptr, 0);
    if (size == 0) {
        return std::nullopt;
    }
    value.resize(size);
    const DWORD length = GetEnvironmentVariableW(wide->c_str(), value.data(), size);
    if (length >= size) {
        return std::nullopt; // another thread made it longer in between
    }
    value.resize(length);
    return Unicode_FromWide(value);
}

unsigned long UtilSystemProcessId() {
    return GetCurrentProcessId();
}

std::optional<std::string> UtilSystemUserName() {
    std::array<wchar_t, LONGEST_USER_NAME + 1> name;
    DWORD size = name.size();
    if (!GetUserNameW(name.data(), &size) || size == 0) {
        return std::nullopt;
    }
    return Unicode_FromWide({name.data(), size - 1});
}
