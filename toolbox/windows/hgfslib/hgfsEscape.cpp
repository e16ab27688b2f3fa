#include "hgfslib/hgfsEscape.h"

#include "hgfslib/cpName.h"
#include "misc/diag.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kIllegal = "/\\*?:\"<>|";
constexpr std::string_view kSubstitutes = "!@#$^&(){}"; // the last has no illegal counterpart
constexpr char kEscape = '%';
constexpr char kEscapedEscape = ']'; // in front of a '%' that means itself
constexpr std::array<std::string_view, 4> kDevices = {"CON", "PRN", "AUX", "NUL"};
constexpr std::array<std::string_view, 2> kNumberedDevices = {"COM", "LPT"};

// What the rules make of each byte: its substitute, and the byte it is the substitute of. One look-up per
// byte keeps ordinary names cheap.
struct ByteTables {
    std::array<char, 256> substitute{};   // 0 for a byte that is copied
    std::array<bool, 256> special{};      // illegal, or '%'
    std::array<bool, 256> introduces{};   // a '%' behind it is an escape
    std::array<char, 256> original{};     // of a substitute; NUL for the last one
    std::array<bool, 256> beginsDevice{}; // a reserved name may begin with it
};
constexpr ByteTables MakeByteTables() {
    ByteTables tables;
    for (size_t i = 0; i < kIllegal.size(); ++i) {
        tables.substitute[static_cast<uint8_t>(kIllegal[i])] = kSubstitutes[i];
        tables.special[static_cast<uint8_t>(kIllegal[i])] = true;
        tables.original[static_cast<uint8_t>(kSubstitutes[i])] = kIllegal[i];
    }
    for (char c : kSubstitutes) {
        tables.introduces[static_cast<uint8_t>(c)] = true;
    }
    tables.introduces[static_cast<uint8_t>(kEscapedEscape)] = true;
    tables.original[static_cast<uint8_t>(kEscapedEscape)] = kEscape;
    tables.special[static_cast<uint8_t>(kEscape)] = true;
    for (std::string_view device : kDevices) {
        tables.beginsDevice[static_cast<uint8_t>(device[0])] = true;
        tables.beginsDevice[static_cast<uint8_t>(device[0] - 'A' + 'a')] = true;
    }
    return tables;
}
constexpr ByteTables kBytes = MakeByteTables();

constexpr char ToUpper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool BeginsWith(std::string_view name, std::string_view upper) {
    return name.size() >= upper.size() && std::equal(upper.begin(), upper.end(), name.begin(),
                                                     [](char u, char c) { return u == ToUpper(c); });
}

bool BeginsWithDevice(std::string_view name) {
    return !name.empty() && kBytes.beginsDevice[static_cast<uint8_t>(name[0])] &&
           std::ranges::any_of(kDevices, [&](std::string_view device) { return BeginsWith(name, device); });
}

bool BeginsWithNumberedDevice(std::string_view name) {
    return name.size() >= 4 && name[3] >= '1' && name[3] <= '9' &&
           std::ranges::any_of(kNumberedDevices,
                               [&](std::string_view device) { return BeginsWith(name, device); });
}

bool EndsOrDot(std::string_view name, size_t position) {
    return name.size() == position || (name.size() > position && name[position] == '.');
}

bool IsTrailing(char c) {
    return c == '.' || c == ' ';
}

// Length of a reserved device name at the start of the component, 0 when there is none.
size_t ReservedLength(std::string_view component) {
    if (EndsOrDot(component, 3) && BeginsWithDevice(component)) {
        return 3;
    }
    if (EndsOrDot(component, 4) && BeginsWithNumberedDevice(component)) {
        return 4;
    }
    return 0;
}

// Where the escape of a device name stands in this component; npos when there is none.
size_t DeviceEscape(std::string_view component) {
    if (component.size() > 3 && component[3] == kEscape && EndsOrDot(component, 4) &&
        BeginsWithDevice(component)) {
        return 3;
    }
    if (component.size() > 4 && component[4] == kEscape && EndsOrDot(component, 5) &&
        BeginsWithNumberedDevice(component)) {
        return 4;
    }
    return std::string_view::npos;
}

// Whether the '%' at this position reads as an escape, in an unescaped or an escaped component alike.
bool IsEscape(std::string_view component, size_t position, size_t deviceEscape) {
    if (position == 0) {
        return false;
    }
    char before = component[position - 1];
    return kBytes.introduces[static_cast<uint8_t>(before)] || position == deviceEscape ||
           (position + 1 == component.size() && IsTrailing(before));
}

bool NeedsTrailingEscape(std::string_view component) {
    return component != "." && component != ".." && IsTrailing(component.back());
}

// The next byte at or behind `position` that is not simply copied, or might not be.
size_t FindSpecial(std::string_view component, size_t position) {
    while (position < component.size() && !kBytes.special[static_cast<uint8_t>(component[position])]) {
        ++position;
    }
    return position;
}

// How many bytes the escape adds to a component: each rule that fires inserts one.
size_t CountEscapes(std::string_view component) {
    const size_t deviceEscape = DeviceEscape(component);
    size_t position = ReservedLength(component);
    size_t count = position > 0 ? 1 : 0;
    while ((position = FindSpecial(component, position)) < component.size()) {
        if (component[position] != kEscape || IsEscape(component, position, deviceEscape)) {
            ++count;
        }
        ++position;
    }
    return count + (NeedsTrailingEscape(component) ? 1 : 0);
}

// Output that refuses to grow past its room.
class BoundedOutput {
public:
    BoundedOutput(char* out, size_t room) : begin_(out), out_(out), end_(out + room) {}

    bool Put(char c) {
        if (out_ == end_) {
            return false;
        }
        *out_++ = c;
        return true;
    }
    bool Put(char first, char second) { return Put(first) && Put(second); }
    bool Put(std::string_view bytes) {
        if (static_cast<size_t>(end_ - out_) < bytes.size()) {
            return false;
        }
        out_ = std::copy(bytes.begin(), bytes.end(), out_);
        return true;
    }
    ptrdiff_t Length() const { return out_ - begin_; }

private:
    char* begin_;
    char* out_;
    char* end_;
};

bool ApplyToComponent(std::string_view component, BoundedOutput* out) {
    const size_t deviceEscape = DeviceEscape(component);
    size_t position = ReservedLength(component);
    if (position > 0 && !(out->Put(component.substr(0, position)) && out->Put(kEscape))) {
        return false;
    }
    for (;;) {
        const size_t special = FindSpecial(component, position);
        if (!out->Put(component.substr(position, special - position))) {
            return false;
        }
        if (special == component.size()) {
            break;
        }
        const char c = component[special];
        const char substitute = kBytes.substitute[static_cast<uint8_t>(c)];
        const bool written = substitute != '\0'                           ? out->Put(substitute, kEscape)
                             : IsEscape(component, special, deviceEscape) ? out->Put(kEscapedEscape, c)
                                                                          : out->Put(c);
        if (!written) {
            return false;
        }
        position = special + 1;
    }
    return !NeedsTrailingEscape(component) || out->Put(kEscape);
}

// Undoes the escape of one component, reading from `component` and writing at `out`, which is never ahead of
// it. The byte in front of the one that is looked at is still the component's own; those before it may not
// be.
char* ReverseComponent(std::string_view component, char* out) {
    const size_t deviceEscape = DeviceEscape(component);
    for (size_t position = 0;;) {
        const size_t escape = std::min(component.find(kEscape, position), component.size());
        const bool removed = escape < component.size() && IsEscape(component, escape, deviceEscape);
        // Looked at before the move puts another byte in its place.
        const uint8_t before = removed ? static_cast<uint8_t>(component[escape - 1]) : 0;
        const size_t length = escape - position + (escape < component.size() && !removed ? 1 : 0);
        std::memmove(out, component.data() + position, length);
        out += length;
        if (escape == component.size()) {
            return out;
        }
        if (kBytes.introduces[before]) {
            out[-1] = kBytes.original[before];
        }
        position = escape + 1;
    }
}

} // namespace

ptrdiff_t HgfsEscape_GetSize(const char* name, size_t length) {
    if (length == 0) {
        return 0;
    }
    const char* end = name + length;
    if (end[-1] == '\0') {
        --end;
    }
    const ptrdiff_t trimmed = end - name;
    const char* at = std::find_if(name, end, [](char c) { return c != '\0'; });
    size_t count = 0;
    while (at != end) {
        const char* next;
        ptrdiff_t size = CPName_GetComponent(at, end, &next);
        if (size < 0) {
            Warning("%s: failed to calculate escapde name size - name is invalid\n", "HgfsEscape_GetSize");
            return -1;
        }
        count += CountEscapes(std::string_view(at, static_cast<size_t>(size)));
        at = next;
    }
    return count == 0 ? 0 : trimmed + static_cast<ptrdiff_t>(count);
}

ptrdiff_t HgfsEscape_Apply(const char* name, size_t length, size_t room, char* out) {
    BoundedOutput output(out, room);
    const char* end = name + length;
    for (const char* at = name; at != end;) {
        const char* stop = std::find(at, end, '\0');
        std::string_view component(at, static_cast<size_t>(stop - at));
        if (!component.empty() && !ApplyToComponent(component, &output)) {
            return -1;
        }
        at = stop;
        if (at != end) {
            if (!output.Put('\0')) {
                return -1;
            }
            ++at;
        }
    }
    return output.Length();
}

ptrdiff_t HgfsEscape_Reverse(char* buffer, size_t length) {
    if (buffer == nullptr) {
        return -1;
    }
    char* out = buffer;
    const char* end = buffer + length;
    for (const char* at = buffer; at != end;) {
        const char* stop = std::find(at, end, '\0');
        out = ReverseComponent(std::string_view(at, static_cast<size_t>(stop - at)), out);
        at = stop;
        if (at != end) {
            *out++ = *at++;
        }
    }
    return out - buffer;
}
