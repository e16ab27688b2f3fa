#include "sim/sample/launcherLine.h"

#include <optional>

namespace {

bool IsBlank(wchar_t c) {
    return c == L' ' || c == L'\t';
}

// Whether the quote at `at`, which is not the first character, opens a quoted part inside /v"...".
bool OpensInnerPart(std::wstring_view text, size_t at) {
    const bool before = IsBlank(text[at - 1]) || text[at - 1] == L'=';
    return before && at + 1 < text.size() && !IsBlank(text[at + 1]) && text[at + 1] != L'"';
}

// Reads what stands behind /v, which is quoted as a whole or ends at a blank. Moves *rest behind it.
std::optional<std::wstring> TakeInstallerArgs(std::wstring_view* rest) {
    std::wstring args;
    if (rest->empty() || rest->front() != L'"') {
        size_t end = 0;
        while (end < rest->size() && !IsBlank((*rest)[end])) {
            ++end;
        }
        args = rest->substr(0, end);
        rest->remove_prefix(end);
        return args;
    }
    enum class Inner { None, Plain, Escaped } inner = Inner::None;
    for (size_t i = 1; i < rest->size(); ++i) {
        const wchar_t c = (*rest)[i];
        if (inner != Inner::Plain && rest->substr(i, 2) == L"\\\"") {
            inner = inner == Inner::None ? Inner::Escaped : Inner::None;
            args += L'"';
            ++i;
        } else if (c != L'"') {
            args += c;
        } else if (inner == Inner::Plain) {
            inner = Inner::None;
            args += c;
        } else if (inner == Inner::None && OpensInnerPart(*rest, i)) {
            inner = Inner::Plain;
            args += c;
        } else {
            rest->remove_prefix(i + 1);
            return args;
        }
    }
    return std::nullopt;
}

} // namespace

std::wstring_view LauncherLine_SkipProgram(std::wstring_view commandLine) {
    const bool quoted = !commandLine.empty() && commandLine.front() == L'"';
    const size_t end = quoted ? commandLine.find(L'"', 1) : commandLine.find_first_of(L" \t");
    if (end == std::wstring_view::npos) {
        return {};
    }
    return commandLine.substr(end + (quoted ? 1 : 0));
}

bool LauncherLine_Parse(std::wstring_view line, std::wstring* installerArgs) {
    std::wstring found;
    for (;;) {
        while (!line.empty() && IsBlank(line.front())) {
            line.remove_prefix(1);
        }
        if (line.empty()) {
            *installerArgs = std::move(found);
            return true;
        }
        const std::wstring_view option = line.substr(0, 2);
        line.remove_prefix(option.size());
        if (option == L"/v") {
            auto args = TakeInstallerArgs(&line);
            if (!args) {
                return false;
            }
            found = std::move(*args);
        } else if (option != L"/s" && option != L"/w") {
            return false;
        }
        if (!line.empty() && !IsBlank(line.front())) {
            return false;
        }
    }
}
