#include "iso9660/iso9660Target.h"

#include "unicode/unicode.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr std::string_view DROPPED_AT_END = ". ";

constexpr std::string_view DEVICES[] = {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$", "CLOCK$"};
constexpr std::string_view NUMBERED_DEVICES[] = {"COM", "LPT"};
constexpr std::string_view SUPERSCRIPTS[] = {"\u00B9", "\u00B2", "\u00B3"}; // these count as 1, 2 and 3

std::string_view WithoutTail(std::string_view name) {
    return name.substr(0, name.find_last_not_of(DROPPED_AT_END) + 1);
}

bool EqualsUpper(std::string_view text, std::string_view upper) {
    return std::equal(text.begin(), text.end(), upper.begin(), upper.end(), [](char letter, char wanted) {
        return (letter >= 'a' && letter <= 'z' ? letter - 'a' + 'A' : letter) == wanted;
    });
}

bool IsDeviceNumber(std::string_view text) {
    return (text.size() == 1 && text[0] >= '0' && text[0] <= '9') ||
           std::find(std::begin(SUPERSCRIPTS), std::end(SUPERSCRIPTS), text) != std::end(SUPERSCRIPTS);
}

bool IsDevice(std::string_view name) {
    std::string_view stem = WithoutTail(name.substr(0, name.find('.')));
    auto isStem = [&](std::string_view device) { return EqualsUpper(stem, device); };
    auto isNumbered = [&](std::string_view device) {
        return EqualsUpper(stem.substr(0, device.size()), device) &&
               IsDeviceNumber(stem.substr(std::min(device.size(), stem.size())));
    };
    return std::any_of(std::begin(DEVICES), std::end(DEVICES), isStem) ||
           std::any_of(std::begin(NUMBERED_DEVICES), std::end(NUMBERED_DEVICES), isNumbered);
}

bool IsControl(char character) {
    auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7F;
}

// The second block of control characters, U+0080 to U+009F, in UTF-8.
bool HasLateControl(std::string_view name) {
    for (size_t i = name.find('\xC2'); i != std::string_view::npos; i = name.find('\xC2', i + 1)) {
        if (i + 1 < name.size() && static_cast<unsigned char>(name[i + 1]) < 0xA0) {
            return true;
        }
    }
    return false;
}

} // namespace

Iso9660_Result Iso9660TargetName(std::string_view name, std::string_view* target) {
    if (!Unicode_IsValidUtf8(name)) {
        return Iso9660_Result::InvalidArgument;
    }
    std::string_view kept = WithoutTail(name);
    if (kept.empty() || name.find_first_of("/\\:") != std::string_view::npos ||
        std::any_of(name.begin(), name.end(), IsControl) || HasLateControl(name) || IsDevice(kept)) {
        return Iso9660_Result::BadFormat;
    }
    *target = kept;
    return Iso9660_Result::Success;
}

std::string Iso9660Printable(std::string_view text) {
    std::string printable(text);
    bool valid = Unicode_IsValidUtf8(text);
    for (char& character : printable) {
        bool foreign = !valid && static_cast<unsigned char>(character) >= 0x80;
        if (IsControl(character) || foreign) {
            character = '?';
        }
    }
    return printable;
}
