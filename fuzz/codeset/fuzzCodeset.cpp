// Converts hostile text by three makes of converter that share no code: ICU, this program's own and the C
// library's. For UTF-8 and UTF-16 they must agree on what is valid, on every result and, in the tolerant
// modes, on where a substitution goes. Other encodings must survive, and in stop mode come back as they were.
//
// An input is a byte that chooses the encoding, another for the mode, and the text.
#include "misc/codeset.h"
#include "misc/encodingTable.h"
#include "support/diagCapture.h"
#include "unicode/unicode.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iconv.h>
#include <vector>

namespace {

void Require(bool condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "fuzz_codeset: %s\n", what);
        abort();
    }
}

struct Result {
    bool done = false;
    std::string text;
    bool operator==(const Result&) const = default;
};

std::string Hex(const std::string& text) {
    std::string digits;
    for (const char c : text) {
        constexpr char DIGITS[] = "0123456789abcdef";
        digits += DIGITS[static_cast<uint8_t>(c) >> 4];
        digits += DIGITS[static_cast<uint8_t>(c) & 15];
    }
    return digits;
}

Result Convert(const char* from, const std::string& text, const char* to, CodeSet_Mode mode) {
    Result result;
    result.done = CodeSet_Convert(from, text.data(), text.size(), to, mode, &result.text);
    return result;
}

Result CLibrary(iconv_t converter, std::string text) {
    Result result;
    result.text.resize(3 * text.size() + 8);
    iconv(converter, nullptr, nullptr, nullptr, nullptr);
    char* in = text.data();
    char* out = result.text.data();
    size_t left = text.size();
    size_t room = result.text.size();
    result.done = iconv(converter, &in, &left, &out, &room) != static_cast<size_t>(-1) && left == 0;
    result.text.resize(result.done ? result.text.size() - room : 0);
    return result;
}

Result ToUtf16(const std::string& text) {
    CodeSet_Utf16 wide;
    Result result;
    result.done = CodeSet_ToUtf16(text.data(), text.size(), &wide);
    result.text.assign(reinterpret_cast<const char*>(wide.data()), wide.size() * sizeof(CodeSet_Unit));
    return result;
}

Result FromUtf16(const std::string& bytes) {
    Result result;
    result.done = CodeSet_FromUtf16(bytes.data(), bytes.size(), &result.text);
    return result;
}

std::string Swapped(std::string bytes) {
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        std::swap(bytes[i], bytes[i + 1]);
    }
    return bytes;
}

const char* const FORMS[] = {"UTF-8", "UTF-16LE", "UTF-16BE", "UTF-16"};

// Everything that both ways give for a text of a Unicode form.
std::vector<Result> Unicode(const char* from, const std::string& text) {
    std::vector<Result> results;
    for (const char* to : FORMS) {
        for (CodeSet_Mode mode : {CodeSet_Mode::Stop, CodeSet_Mode::Substitute, CodeSet_Mode::Skip}) {
            results.push_back(Convert(from, text, to, mode));
        }
    }
    results.push_back({CodeSet_IsValid(text.data(), text.size(), from), ""});
    results.push_back(ToUtf16(text));
    results.push_back(FromUtf16(text));
    return results;
}

void CompareWays(const std::string& text) {
    static const iconv_t toUtf16 = iconv_open("UTF-16LE", "UTF-8");
    static const iconv_t fromUtf16 = iconv_open("UTF-8", "UTF-16LE");
    const bool valid = Unicode_IsValidUtf8(text);
    Require(ToUtf16(text).done == valid, "validity of UTF-8");
    Require(ToUtf16(text) == CLibrary(toUtf16, text), "UTF-8 against the C library");
    Require(FromUtf16(text) == CLibrary(fromUtf16, text), "UTF-16 against the C library");

    Result bigEndian;
    const std::string swapped = Swapped(text);
    bigEndian.done = Unicode_FromUtf16BigEndian(reinterpret_cast<const uint8_t*>(swapped.data()),
                                                swapped.size(), &bigEndian.text);
    Require(bigEndian == FromUtf16(text), "UTF-16BE against UTF-16LE");

    std::vector<Result> icu[std::size(FORMS)];
    for (size_t i = 0; i < std::size(FORMS); i++) {
        icu[i] = Unicode(FORMS[i], text);
    }
    CodeSet_DisableIcu();
    for (size_t i = 0; i < std::size(FORMS); i++) {
        const std::vector<Result> own = Unicode(FORMS[i], text);
        for (size_t step = 0; step < own.size(); step++) {
            if (icu[i][step] != own[step]) {
                fprintf(stderr, "from %s, step %zu: ICU %d %s, own %d %s\n", FORMS[i], step,
                        icu[i][step].done, Hex(icu[i][step].text).c_str(), own[step].done,
                        Hex(own[step].text).c_str());
            }
            Require(icu[i][step] == own[step], "ICU against the program's own");
        }
    }
    CodeSet_Init(nullptr);
}

void CopyIntoEverySize(const std::string& text) {
    const std::string source = text.c_str(); // up to the first zero byte
    const std::optional<CodeSet_Utf16> whole = Unicode_ToWide(source);
    for (size_t size = 0; size < 12; size++) {
        std::vector<CodeSet_Unit> destination(size / sizeof(CodeSet_Unit));
        size_t copied = 0;
        const bool fitted = Unicode_CopyToUtf16(destination.data(), source.c_str(), size, &copied);
        const size_t units = copied / sizeof(CodeSet_Unit);
        Require(destination.empty() || (units < destination.size() && destination[units] == 0), "terminator");
        Require(fitted == (whole && !destination.empty() && units == whole->size()), "report of a cut");
        Require(!whole || std::equal(destination.begin(), destination.begin() + static_cast<ptrdiff_t>(units),
                                     whole->begin()),
                "copied text");
    }
}

void OtherEncodings(uint8_t chosen, uint8_t mode, const std::string& text) {
    const char* encoding = EncodingTable_Row((chosen * 8u + mode / 3u % 8u) % EncodingTable_Count()).names;
    const auto how = static_cast<CodeSet_Mode>(mode % 3);
    Convert("UTF-8", text, encoding, how);
    const Result decoded = Convert(encoding, text, "UTF-8", how);
    Require(!decoded.done || Unicode_IsValidUtf8(decoded.text), "decoded text is valid");
    if (how == CodeSet_Mode::Stop && CodeSet_UsesIcu()) {
        Require(CodeSet_IsValid(text.data(), text.size(), encoding) == decoded.done,
                "validity of another encoding");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool started = CodeSet_Init(nullptr);
    if (!started || size < 2) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data + 2), size - 2);
    CompareWays(text);
    CopyIntoEverySize(text);
    OtherEncodings(data[0], data[1], text);
    Unicode_EncodingNameToIndex(text.c_str());
    DiagCapture_Take();
    return 0;
}
