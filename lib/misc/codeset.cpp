#include "misc/codeset.h"
#include "misc/codesetSystem.h"
#include "misc/diag.h"
#include "misc/encodingTable.h"

#include <array>
#include <atomic>
#include <climits>
#include <cstring>
#include <memory>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>

namespace {

constexpr char UNIT[] = "lib/misc/codeset";
constexpr size_t MAX_LENGTH = INT_MAX; // of the calls underneath
constexpr size_t SMALL = 512;          // units converted without a second allocation; longer than most paths

std::atomic<bool> icuUsable = false;

// --- with ICU

// ICU's own stopping callback passes over characters that it holds to be ignorable; here nothing is lost
// silently.
void StopFromUnicode(const void*, UConverterFromUnicodeArgs*, const UChar*, int32_t, UChar32,
                     UConverterCallbackReason, UErrorCode*) {}

struct Callbacks {
    UConverterToUCallback decode;
    UConverterFromUCallback encode;
};
Callbacks CallbacksOf(CodeSet_Mode mode) {
    switch (mode) {
    case CodeSet_Mode::Stop:
        return {UCNV_TO_U_CALLBACK_STOP, StopFromUnicode};
    case CodeSet_Mode::Substitute:
        return {UCNV_TO_U_CALLBACK_SUBSTITUTE, UCNV_FROM_U_CALLBACK_SUBSTITUTE};
    case CodeSet_Mode::Skip:
        return {UCNV_TO_U_CALLBACK_SKIP, UCNV_FROM_U_CALLBACK_SKIP};
    }
    Diag_NotImplemented(UNIT, __LINE__);
}

struct ConverterClose {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
};
struct OpenConverter {
    std::unique_ptr<UConverter, ConverterClose> icu;
    CodeSet_Mode mode;
    std::string encoding;
};

// Opening a converter costs several times the conversion of a name, so the last few stay open. A thread takes
// one out while it uses it.
constexpr size_t CACHED = 4;
std::array<std::atomic<OpenConverter*>, CACHED> cachedConverters;

void PutIntoCache(std::unique_ptr<OpenConverter> converter) {
    for (std::atomic<OpenConverter*>& slot : cachedConverters) {
        OpenConverter* empty = nullptr;
        if (slot.compare_exchange_strong(empty, converter.get(), std::memory_order_acq_rel)) {
            static_cast<void>(converter.release());
            return;
        }
    }
    converter.reset(cachedConverters[0].exchange(converter.release(), std::memory_order_acq_rel));
}

std::unique_ptr<OpenConverter> TakeFromCache(const char* encoding, CodeSet_Mode mode) {
    for (std::atomic<OpenConverter*>& slot : cachedConverters) {
        if (slot.load(std::memory_order_relaxed) == nullptr) {
            continue;
        }
        std::unique_ptr<OpenConverter> converter(slot.exchange(nullptr, std::memory_order_acq_rel));
        if (converter && converter->mode == mode && converter->encoding == encoding) {
            return converter;
        }
        if (converter) {
            PutIntoCache(std::move(converter));
        }
    }
    return nullptr;
}

std::unique_ptr<OpenConverter> Open(const char* encoding, CodeSet_Mode mode) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<OpenConverter> converter(new OpenConverter{nullptr, mode, encoding});
    converter->icu.reset(ucnv_open(encoding, &status));
    if (U_SUCCESS(status)) {
        const Callbacks callbacks = CallbacksOf(mode);
        ucnv_setToUCallBack(converter->icu.get(), callbacks.decode, nullptr, nullptr, nullptr, &status);
        ucnv_setFromUCallBack(converter->icu.get(), callbacks.encode, nullptr, nullptr, nullptr, &status);
    }
    return U_SUCCESS(status) ? std::move(converter) : nullptr;
}

// A converter of the cache or a new one, given back at the end.
class Converter {
public:
    Converter(const char* encoding, CodeSet_Mode mode) {
        // ICU takes an empty name for its default encoding, which nobody asked for.
        if (encoding != nullptr && *encoding != '\0') {
            open_ = TakeFromCache(encoding, mode);
            if (!open_) {
                open_ = Open(encoding, mode);
            }
        }
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;
    ~Converter() {
        if (open_) {
            PutIntoCache(std::move(open_));
        }
    }
    explicit operator bool() const { return open_ != nullptr; } // false for an unknown encoding
    UConverter* Get() const { return open_->icu.get(); }

private:
    std::unique_ptr<OpenConverter> open_;
};

bool IcuConvert(const char* inputEncoding, const char* input, size_t length, const char* outputEncoding,
                CodeSet_Mode mode, std::string* output) {
    const Converter from(inputEncoding, mode);
    const Converter to(outputEncoding, mode);
    if (!from || !to) {
        return false;
    }
    const size_t before = output->size();
    std::array<UChar, 1024> pivot;
    UChar* pivotSource = pivot.data();
    UChar* pivotTarget = pivot.data();
    const char* source = input;
    size_t used = before;
    output->resize(before + length + 4);
    for (bool first = true;; first = false) {
        UErrorCode status = U_ZERO_ERROR;
        char* target = output->data() + used;
        ucnv_convertEx(to.Get(), from.Get(), &target, output->data() + output->size(), &source,
                       input + length, pivot.data(), &pivotSource, &pivotTarget, pivot.data() + pivot.size(),
                       static_cast<UBool>(first), UBool{1}, &status);
        used = static_cast<size_t>(target - output->data());
        if (status != U_BUFFER_OVERFLOW_ERROR) {
            output->resize(U_SUCCESS(status) ? used : before);
            return U_SUCCESS(status);
        }
        output->resize(before + 2 * (output->size() - before));
    }
}

bool IcuIsValid(const char* text, size_t length, const char* encoding) {
    const Converter converter(encoding, CodeSet_Mode::Stop);
    if (!converter) {
        return false;
    }
    // Into no room at all: what is valid ends for want of room, unless it stands for no character. Then it
    // has to pass with room, for without any ICU also lets a text end amid its first character in UTF-32.
    const auto bytes = static_cast<int32_t>(length);
    UErrorCode status = U_ZERO_ERROR;
    ucnv_toUChars(converter.Get(), nullptr, 0, text, bytes, &status);
    if (U_SUCCESS(status)) {
        std::array<UChar, 2> none;
        status = U_ZERO_ERROR;
        ucnv_toUChars(converter.Get(), none.data(), none.size(), text, bytes, &status);
        return U_SUCCESS(status);
    }
    return status == U_BUFFER_OVERFLOW_ERROR;
}

bool IcuToUtf16(const char* text, size_t length, char16_t* out, size_t room, size_t* units) {
    UErrorCode status = U_ZERO_ERROR;
    int32_t result = 0;
    u_strFromUTF8(out, static_cast<int32_t>(room), &result, text, static_cast<int32_t>(length), &status);
    *units = static_cast<size_t>(result);
    return U_SUCCESS(status);
}

bool IcuFromUtf16(const char16_t* text, size_t units, char* out, size_t room, size_t* length) {
    UErrorCode status = U_ZERO_ERROR;
    int32_t result = 0;
    u_strToUTF8(out, static_cast<int32_t>(std::min(room, MAX_LENGTH)), &result, text,
                static_cast<int32_t>(units), &status);
    *length = static_cast<size_t>(result);
    return U_SUCCESS(status);
}

// --- without ICU: by way of UTF-16

enum class Form { Unknown, Utf8, Utf16, Utf16Little, Utf16Big, Page };
struct Encoding {
    Form form = Form::Unknown;
    uint32_t codePage = 0;
};

Encoding EncodingOf(const char* name) {
    const int index = name != nullptr ? EncodingTable_FindName(name) : ENCODING_TABLE_UNKNOWN;
    if (index < 0) {
        return {};
    }
    const EncodingTableRow& row = EncodingTable_Row(index);
    switch (row.codePage) {
    case CODESET_UTF8_PAGE:
        return {Form::Utf8, 0};
    case 1200:
        return {Form::Utf16Little, 0};
    case 1201:
        return {Form::Utf16Big, 0};
    case 0:
        return {strcmp(row.names, "UTF-16") == 0 ? Form::Utf16 : Form::Unknown, 0};
    default:
        return {Form::Page, row.codePage};
    }
}

// UTF-16 without a stated order begins with a mark that tells it, or is big-endian.
Form TakeByteOrderMark(const char** text, size_t* length) {
    const bool little = *length >= 2 && memcmp(*text, "\xFF\xFE", 2) == 0;
    if (little || (*length >= 2 && memcmp(*text, "\xFE\xFF", 2) == 0)) {
        *text += 2;
        *length -= 2;
    }
    return little ? Form::Utf16Little : Form::Utf16Big;
}

bool DecodeUtf16(Form form, const char* text, size_t length, CodeSet_Mode mode, std::u16string* out) {
    if (form == Form::Utf16) {
        form = TakeByteOrderMark(&text, &length);
    }
    const size_t low = form == Form::Utf16Little ? 0 : 1;
    for (size_t i = 0; i + 1 < length; i += 2) {
        const auto lower = static_cast<uint8_t>(text[i + low]);
        const auto upper = static_cast<uint8_t>(text[i + 1 - low]);
        out->push_back(static_cast<char16_t>(lower | upper << 8));
    }
    // A byte too many makes one invalid part with the half of a pair that it would have completed.
    const bool halfPair = !out->empty() && (out->back() & 0xFC00) == 0xD800;
    if (length % 2 != 0 && mode == CodeSet_Mode::Substitute && !halfPair) {
        out->push_back(0xFFFD);
    }
    return length % 2 == 0 || mode != CodeSet_Mode::Stop;
}

void EncodeUtf16(Form form, const std::u16string& text, std::string* out) {
    const bool little = form != Form::Utf16Big;
    const bool marked = form == Form::Utf16 && !text.empty();
    for (char16_t unit : marked ? u'\xFEFF' + text : text) {
        const auto lower = static_cast<char>(unit & 0xFF);
        const auto upper = static_cast<char>(unit >> 8);
        out->push_back(little ? lower : upper);
        out->push_back(little ? upper : lower);
    }
}

// The text with what is invalid dealt with as the mode says; false in stop mode if anything is.
bool Repair(CodeSet_Mode mode, std::u16string* text) {
    if (CodeSetUtf_IsValid(text->data(), text->size())) {
        return true;
    }
    std::string utf8;
    if (!CodeSetUtf_Encode(text->data(), text->size(), mode, &utf8)) {
        return false;
    }
    text->clear();
    return CodeSetUtf_Decode(utf8.data(), utf8.size(), mode, text);
}

bool SystemDecode(const char* name, const char* text, size_t length, CodeSet_Mode mode, std::u16string* out) {
    const Encoding encoding = EncodingOf(name);
    switch (encoding.form) {
    case Form::Unknown:
        return false;
    case Form::Utf8:
        return CodeSetUtf_Decode(text, length, mode, out);
    case Form::Page:
        return CodeSetSystemDecode(encoding.codePage, text, length, mode, out);
    default:
        return DecodeUtf16(encoding.form, text, length, mode, out) && Repair(mode, out);
    }
}

bool SystemEncode(const char* name, const std::u16string& text, CodeSet_Mode mode, std::string* out) {
    const Encoding encoding = EncodingOf(name);
    switch (encoding.form) {
    case Form::Unknown:
        return false;
    case Form::Utf8:
        return CodeSetUtf_Encode(text.data(), text.size(), mode, out);
    case Form::Page:
        return CodeSetSystemEncode(encoding.codePage, text.data(), text.size(), mode, out);
    default:
        EncodeUtf16(encoding.form, text, out);
        return true;
    }
}

// --- both ways

// Room for the result is what a valid text takes, or more.
bool ToUtf16(const char* text, size_t length, char16_t* out, size_t room, size_t* units) {
    const size_t ascii = CodeSetUtf_WidenAscii(text, length, out);
    size_t rest = 0;
    if (ascii < length &&
        !(CodeSet_UsesIcu()
              ? IcuToUtf16(text + ascii, length - ascii, out + ascii, room - ascii, &rest)
              : CodeSetSystemToUtf16(text + ascii, length - ascii, out + ascii, room - ascii, &rest))) {
        return false;
    }
    *units = ascii + rest;
    return true;
}

bool FromUtf16(const char16_t* text, size_t units, char* out, size_t room, size_t* length) {
    const size_t ascii = CodeSetUtf_NarrowAscii(text, units, out);
    size_t rest = 0;
    if (ascii < units &&
        !(CodeSet_UsesIcu()
              ? IcuFromUtf16(text + ascii, units - ascii, out + ascii, room - ascii, &rest)
              : CodeSetSystemFromUtf16(text + ascii, units - ascii, out + ascii, room - ascii, &rest))) {
        return false;
    }
    *length = ascii + rest;
    return true;
}

bool FromUtf16(const char16_t* text, size_t units, std::string* out) {
    size_t length = 0;
    if (units <= SMALL) {
        std::array<char, 3 * SMALL> small;
        if (!FromUtf16(text, units, small.data(), small.size(), &length)) {
            return false;
        }
        *out = std::string(small.data(), length); // which is quicker than to assign
        return true;
    }
    std::string large(CodeSetUtf_Bytes(text, units), 0);
    if (!FromUtf16(text, units, large.data(), large.size(), &length)) {
        return false;
    }
    *out = std::move(large);
    return true;
}

void MarkSupported() {
    for (size_t i = 0; i < EncodingTable_Count(); i++) {
        UErrorCode status = U_ZERO_ERROR;
        const std::unique_ptr<UConverter, ConverterClose> converter(
            ucnv_open(EncodingTable_Row(i).names, &status));
        EncodingTable_SetSupported(i, U_SUCCESS(status));
    }
    ucnv_flushCache(); // most will never be used again
}

} // namespace

bool CodeSet_Init(const char* dataDirectory) {
    icuUsable = CodeSetSystemLoadIcuData(dataDirectory);
    if (!icuUsable) {
        Debug("CodeSet_Init: no ICU\n");
    } else if (!EncodingTable_IsSupported(0)) {
        MarkSupported(); // UTF-8 has the first row and is always there, so this is once
    }
    return true;
}

bool CodeSet_UsesIcu() {
    return icuUsable.load(std::memory_order_relaxed);
}
void CodeSet_DisableIcu() {
    icuUsable = false;
}

std::string CodeSet_LocalEncoding() {
    return "windows-" + std::to_string(CodeSetSystemAnsiPage());
}

bool CodeSet_Convert(const char* inputEncoding, const void* input, size_t length, const char* outputEncoding,
                     CodeSet_Mode mode, std::string* output) {
    if (input == nullptr || length == 0) {
        return true;
    }
    CallbacksOf(mode); // stops at an impossible one
    const char* text = static_cast<const char*>(input);
    if (CodeSet_UsesIcu()) {
        return IcuConvert(inputEncoding, text, length, outputEncoding, mode, output);
    }
    std::u16string units;
    return SystemDecode(inputEncoding, text, length, mode, &units) &&
           SystemEncode(outputEncoding, units, mode, output);
}

bool CodeSet_ToUtf16(const char* utf8, size_t length, CodeSet_Utf16* out) {
    if (length > MAX_LENGTH) {
        return false;
    }
    size_t units = 0;
    if (length <= SMALL) {
        std::array<char16_t, SMALL> small;
        if (!ToUtf16(utf8, length, small.data(), small.size(), &units)) {
            return false;
        }
        *out = CodeSet_Utf16(reinterpret_cast<const CodeSet_Unit*>(small.data()), units);
        return true;
    }
    CodeSet_Utf16 large(CodeSetUtf_Units(utf8, length), 0);
    if (!ToUtf16(utf8, length, reinterpret_cast<char16_t*>(large.data()), large.size(), &units)) {
        return false;
    }
    *out = std::move(large);
    return true;
}

bool CodeSet_FromUtf16(const void* utf16, size_t length, std::string* out) {
    if (length > MAX_LENGTH || length % sizeof(char16_t) != 0) {
        return false;
    }
    const size_t units = length / sizeof(char16_t);
    if (reinterpret_cast<uintptr_t>(utf16) % alignof(char16_t) != 0) {
        std::u16string aligned(units, 0);
        memcpy(aligned.data(), utf16, length);
        return FromUtf16(aligned.data(), units, out);
    }
    return FromUtf16(static_cast<const char16_t*>(utf16), units, out);
}

bool CodeSet_IsValid(const void* text, size_t length, const char* encoding) {
    if (length > MAX_LENGTH) {
        Diag_NotImplemented(UNIT, __LINE__);
    }
    if (length == 0) {
        return true;
    }
    const char* bytes = static_cast<const char*>(text);
    if (CodeSet_UsesIcu()) {
        return IcuIsValid(bytes, length, encoding);
    }
    std::u16string units;
    return SystemDecode(encoding, bytes, length, CodeSet_Mode::Stop, &units);
}
