#include "sim/sample/launcherLine.h"

namespace {

bool IsBlank(wchar_t c) {
    return c == L' ' || c == L'\t';
}

// Whether the quote at `at`, which is not the first character, opens a quoted part inside /v"...".
bool OpensInnerPart(std::wstring_view text, size_t at) {
    const bool before = IsBlank(text[at - 1]) || text[at - 1] == L'=';
    return before && at + 1 < text.size() && !IsBlank(text[at + 1]) && text[at + 1] != L'"';
}

// Takes what stands behind /v up to a blank, moves *rest behind it and writes it to `out`.
void TakeBareArgs(std::wstring_view* rest, wchar_t* out) {
    while (!rest->empty() && !IsBlank(rest->front())) {
        *out++ = rest->front();
        rest->remove_prefix(1);
    }
    *out = L'\0';
}

// The same for what is quoted as a whole. False when its last quote is missing.
bool TakeQuotedArgs(std::wstring_view* rest, wchar_t* out) {
    enum class Inner { None, Plain, Escaped } inner = Inner::None;
    for (size_t i = 1; i < rest->size(); ++i) {
        const wchar_t c = (*rest)[i];
        const bool escaped = c == L'\\' && i + 1 < rest->size() && (*rest)[i + 1] == L'"';
        if (escaped && inner != Inner::Plain) {
            inner = inner == Inner::None ? Inner::Escaped : Inner::None;
            *out++ = L'"';
            ++i;
        } else if (c != L'"') {
            *out++ = c;
        } else if (inner == Inner::Plain) {
            inner = Inner::None;
            *out++ = c;
        } else if (inner == Inner::None && OpensInnerPart(*rest, i)) {
            inner = Inner::Plain;
            *out++ = c;
        } else {
            rest->remove_prefix(i + 1);
            *out = L'\0';
            return true;
        }
    }
    return false;
}

// Removes the value of an option from *rest: blanks, then a quoted or a bare word. False when there is none.
bool SkipValue(std::wstring_view* rest) {
    const size_t start = rest->find_first_not_of(L" \t");
    if (start == 0 || start == std::wstring_view::npos) {
        return false;
    }
    rest->remove_prefix(start);
    const bool quoted = rest->front() == L'"';
    const size_t end = quoted ? rest->find(L'"', 1) : rest->find_first_of(L" \t");
    if (quoted && end == std::wstring_view::npos) {
        return false;
    }
    rest->remove_prefix(end == std::wstring_view::npos ? rest->size() : end + (quoted ? 1 : 0));
    return true;
}

bool TakeInstallerArgs(std::wstring_view* rest, wchar_t* out) {
    if (!rest->empty() && rest->front() == L'"') {
        return TakeQuotedArgs(rest, out);
    }
    TakeBareArgs(rest, out);
    return true;
}

} // namespace

std::wstring_view LauncherLine_SkipProgram(std::wstring_view commandLine) {
    const bool quoted = !commandLine.empty() && commandLine.front() == L'"';
    size_t end = quoted ? 1 : 0;
    while (end < commandLine.size() && !(quoted ? commandLine[end] == L'"' : IsBlank(commandLine[end]))) {
        ++end;
    }
    if (quoted && end < commandLine.size()) {
        ++end;
    }
    commandLine.remove_prefix(end);
    return commandLine;
}

bool LauncherLine_Parse(std::wstring_view line, wchar_t* installerArgs) {
    *installerArgs = L'\0';
    for (;;) {
        while (!line.empty() && IsBlank(line.front())) {
            line.remove_prefix(1);
        }
        if (line.empty()) {
            return true;
        }
        const wchar_t option = line.size() >= 2 && line[0] == L'/' ? line[1] : L'\0';
        if (option != L's' && option != L'v' && option != L'w' && option != L'L') {
            return false;
        }
        line.remove_prefix(2);
        if ((option == L'v' && !TakeInstallerArgs(&line, installerArgs)) ||
            (option == L'L' && !SkipValue(&line))) {
            return false;
        }
        if (!line.empty() && !IsBlank(line.front())) {
            return false;
        }
    }
}
