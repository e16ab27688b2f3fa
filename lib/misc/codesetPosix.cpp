// Native builds: ICU brings its own data, and code pages are iconv's.
#include "misc/codesetSystem.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <iconv.h>

namespace {

class Iconv {
public:
    Iconv(const char* to, const char* from) : handle_(iconv_open(to, from)) {}
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;
    ~Iconv() {
        if (*this) {
            iconv_close(handle_);
        }
    }
    explicit operator bool() const { return reinterpret_cast<intptr_t>(handle_) != -1; }
    iconv_t Get() const { return handle_; }

private:
    iconv_t handle_;
};

// Converts all of the text, appending to *out; `unit` is the size of an input character that a tolerant mode
// passes over, for which it puts `substitute`.
bool Run(const Iconv& converter, const char* text, size_t length, size_t unit, CodeSet_Mode mode,
         std::string_view substitute, std::string* out) {
    char* in = const_cast<char*>(text);
    while (length > 0) {
        std::array<char, 256> buffer;
        char* to = buffer.data();
        size_t room = buffer.size();
        const size_t result = iconv(converter.Get(), &in, &length, &to, &room);
        const int error = errno;
        out->append(buffer.data(), buffer.size() - room);
        if (result != static_cast<size_t>(-1) || error == E2BIG) {
            continue;
        }
        if (mode == CodeSet_Mode::Stop) {
            return false;
        }
        if (mode == CodeSet_Mode::Substitute) {
            out->append(substitute);
        }
        const size_t passed = std::min(unit, length);
        in += passed;
        length -= passed;
    }
    return true;
}

std::string PageName(uint32_t codePage) {
    return "CP" + std::to_string(codePage);
}

} // namespace

bool CodeSetSystemLoadIcuData(const char*) {
    return true;
}

uint32_t CodeSetSystemAnsiPage() {
    return 1252;
}

bool CodeSetSystemToUtf16(const char* text, size_t length, char16_t* out, size_t room, size_t* units) {
    std::u16string converted;
    if (!CodeSetUtf_Decode(text, length, CodeSet_Mode::Stop, &converted) || converted.size() > room) {
        return false;
    }
    converted.copy(out, converted.size());
    *units = converted.size();
    return true;
}

bool CodeSetSystemFromUtf16(const char16_t* text, size_t units, char* out, size_t room, size_t* length) {
    std::string converted;
    if (!CodeSetUtf_Encode(text, units, CodeSet_Mode::Stop, &converted) || converted.size() > room) {
        return false;
    }
    converted.copy(out, converted.size());
    *length = converted.size();
    return true;
}

bool CodeSetSystemDecode(uint32_t codePage, const char* text, size_t length, CodeSet_Mode mode,
                         std::u16string* out) {
    const Iconv converter("UTF-16LE", PageName(codePage).c_str());
    std::string bytes;
    if (!converter || !Run(converter, text, length, 1, mode, "\xFD\xFF", &bytes)) {
        return false;
    }
    const size_t before = out->size();
    out->resize(before + bytes.size() / 2);
    memcpy(out->data() + before, bytes.data(), bytes.size());
    return true;
}

bool CodeSetSystemEncode(uint32_t codePage, const char16_t* text, size_t units, CodeSet_Mode mode,
                         std::string* out) {
    const Iconv converter(PageName(codePage).c_str(), "UTF-16LE");
    std::string bytes;
    if (!converter || !Run(converter, reinterpret_cast<const char*>(text), units * 2, 2, mode, "?", &bytes)) {
        return false;
    }
    out->append(bytes);
    return true;
}
