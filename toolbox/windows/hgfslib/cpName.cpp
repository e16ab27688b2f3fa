#include "hgfslib/cpName.h"

#include "hgfslib/hgfsEscape.h"
#include "misc/diag.h"

#include <algorithm>
#include <cstring>
#include <string_view>

ptrdiff_t CPName_GetComponent(const char* begin, const char* end, const char** next) {
    if (begin == end) {
        *next = end;
        return 0;
    }
    const char* stop = std::find(begin, end, '\0');
    if (stop == begin) {
        Warning("%s: error: first char can't be NUL\n", "CPName_GetComponent");
        return -1;
    }
    const char* following = std::find_if(stop, end, [](char c) { return c != '\0'; });
    if (stop != end && following == end) {
        Warning("%s: error: last char can't be NUL\n", "CPName_GetComponent");
        return -1;
    }
    *next = following;
    return stop - begin;
}

bool CPNameConvertFrom(CPNameCursor* cursor, char separator) {
    static const char self[] = "CPNameConvertFrom";
    const bool inPlace = cursor->in == cursor->out && cursor->inSize > 0;
    const char* in = cursor->in + (inPlace ? 1 : 0);
    const char* const end = in + cursor->inSize;
    char* out = cursor->out;
    size_t room = cursor->room;
    for (;;) {
        const char* next;
        ptrdiff_t found = CPName_GetComponent(in, end, &next);
        if (found < 0) {
            Warning("%s: error: get next component failed\n", self);
            return false;
        }
        if (found == 0) {
            break;
        }
        auto length = static_cast<size_t>(found);
        std::string_view component(in, length);
        if (component == "." || component == "..") {
            Warning("%s: error: found dot/dotdot\n", self);
            return false;
        }
        if (length >= room) {
            Warning("%s: error: not enough room\n", self);
            return false;
        }
        // In place the component usually stands where it belongs already; behind a run of separators it
        // moves.
        std::memmove(out + 1, in, length);
        *out = separator;
        out += length + 1;
        room -= length + 1;
        in = next;
    }
    if (room < 1) {
        Warning("%s: error: not enough room\n", self);
        return false;
    }
    *out = '\0';
    *cursor = {inPlace ? out : end, 0, out, room};
    return true;
}

bool CPNameEscapeAndConvertFrom(CPNameCursor* cursor, char separator) {
    ptrdiff_t escaped = HgfsEscape_GetSize(cursor->in, cursor->inSize);
    if (escaped < 0) {
        return false;
    }
    if (escaped == 0) {
        return CPNameConvertFrom(cursor, separator);
    }
    // The escaped name goes one byte into the output, where it is then converted in place.
    ptrdiff_t length = -1;
    if (static_cast<size_t>(escaped) <= cursor->room) {
        length = HgfsEscape_Apply(cursor->in, cursor->inSize, cursor->room - 1, cursor->out + 1);
    }
    if (length < 0) {
        Warning("%s: error: not enough room for escaping\n", "CPNameEscapeAndConvertFrom");
        return false;
    }
    CPNameCursor inPlace = {cursor->out, static_cast<size_t>(length), cursor->out, cursor->room};
    if (!CPNameConvertFrom(&inPlace, separator)) {
        return false;
    }
    *cursor = {cursor->in + cursor->inSize, 0, inPlace.out, inPlace.room};
    return true;
}

bool CPName_ConvertToLocal(CPNameCursor* cursor) {
    return CPNameEscapeAndConvertFrom(cursor, '\\');
}

namespace {

const char rootSelf[] = "CPName_ConvertFromRoot";

// Moves the cursor to `in`, behind a prefix of `written` bytes that now stands in its output.
void Advance(CPNameCursor* cursor, const char* in, size_t written) {
    cursor->out[written] = '\0';
    cursor->inSize -= static_cast<size_t>(in - cursor->in);
    cursor->in = in;
    cursor->out += written;
    cursor->room -= written;
}

HgfsNameStatus ConvertUnc(CPNameCursor* cursor, const char* machine) {
    const char* end = cursor->in + cursor->inSize;
    if (machine == end) {
        return HgfsNameIncompleteUnc;
    }
    const char* rest;
    ptrdiff_t found = CPName_GetComponent(machine, end, &rest);
    if (found < 0) {
        Warning("%s: failed to get machine name\n", rootSelf);
        return HgfsNameFailure;
    }
    auto length = static_cast<size_t>(found);
    const bool bare = rest == end;
    if (length + (bare ? 1 : 3) > cursor->room) {
        Warning("%s: not enough room\n", rootSelf);
        return HgfsNameFailure;
    }
    if (bare) {
        std::memcpy(cursor->out, machine, length);
        Advance(cursor, machine, length);
        return HgfsNameIncompleteMachine;
    }
    std::memcpy(cursor->out, "\\\\", 2);
    std::memcpy(cursor->out + 2, machine, length);
    Advance(cursor, rest, length + 2);
    return HgfsNameComplete;
}

HgfsNameStatus ConvertDrive(CPNameCursor* cursor, const char* drive) {
    const char* end = cursor->in + cursor->inSize;
    if (drive == end) {
        return HgfsNameIncompleteDrive;
    }
    const char* rest;
    ptrdiff_t found = CPName_GetComponent(drive, end, &rest);
    if (found < 0) {
        Warning("%s: failed to get drive name\n", rootSelf);
        return HgfsNameFailure;
    }
    auto length = static_cast<size_t>(found);
    if (length + 3 > cursor->room) {
        Warning("%s: not enough room\n", rootSelf);
        return HgfsNameFailure;
    }
    std::memcpy(cursor->out, drive, length);
    std::memcpy(cursor->out + length, ":\\", 2);
    Advance(cursor, rest, length + 2);
    return HgfsNameComplete;
}

} // namespace

HgfsNameStatus CPName_ConvertFromRoot(CPNameCursor* cursor) {
    const char* next;
    ptrdiff_t length = CPName_GetComponent(cursor->in, cursor->in + cursor->inSize, &next);
    if (length < 0) {
        Warning("%s: get first component failed\n", rootSelf);
        return HgfsNameFailure;
    }
    if (length == 0) {
        return HgfsNameIncompleteRoot;
    }
    std::string_view kind(cursor->in, static_cast<size_t>(length));
    if (kind == "unc") {
        return ConvertUnc(cursor, next);
    }
    if (kind == "drive") {
        return ConvertDrive(cursor, next);
    }
    Warning("%s: First component does not exist\n", rootSelf);
    return HgfsNameDoesNotExist;
}
