// The checks of the conversions below come by flags that some code pages do not take, the stateful ones among
// them: those pages cannot be converted without ICU. None of them is ever the code page of a system.
#include "misc/codeset.h"
#include "misc/codesetData.h"
#include "misc/codesetSystem.h"
#include "misc/win32Handle.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <unicode/udata.h>

namespace {

struct ViewUnmap {
    void operator()(const void* view) const { UnmapViewOfFile(view); }
};
struct MappedView {
    std::unique_ptr<const void, ViewUnmap> view;
    size_t size = 0;
};

std::wstring OwnFolder() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0 || path.size() > 0x10000) {
            return {};
        }
        if (length < path.size()) {
            path.resize(length);
            return path.substr(0, path.find_last_of(L'\\') + 1);
        }
        path.resize(2 * path.size());
    }
}

std::wstring DataPath(const char* directory) {
    std::wstring path;
    if (directory == nullptr) {
        path = OwnFolder();
    } else {
        std::u16string wide;
        if (!CodeSetUtf_Decode(directory, strlen(directory), CodeSet_Mode::Stop, &wide)) {
            return {};
        }
        path.assign(wide.begin(), wide.end());
        if (!path.empty() && path.back() != L'\\' && path.back() != L'/') {
            path += L'\\';
        }
    }
    const std::string name = CODESET_DATA_FILE;
    return path.append(name.begin(), name.end());
}

wchar_t* Wide(char16_t* text) {
    return reinterpret_cast<wchar_t*>(text);
}
const wchar_t* Wide(const char16_t* text) {
    return reinterpret_cast<const wchar_t*>(text);
}

// The view of the whole file; none when it cannot be had.
MappedView MapFile(const wchar_t* path) {
    const FileHandle file(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    LARGE_INTEGER size = {};
    if (!file || !GetFileSizeEx(file.Get(), &size) || size.QuadPart <= 0 || size.QuadPart > INT_MAX) {
        return {};
    }
    const KernelHandle mapping(CreateFileMappingW(file.Get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
    if (!mapping) {
        return {};
    }
    std::unique_ptr<const void, ViewUnmap> view(MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, 0));
    if (!view) {
        return {};
    }
    return {std::move(view), static_cast<size_t>(size.QuadPart)};
}

// ICU trusts the tables in the file, so that a single wrong byte could lead it astray. Only the file that
// this program was built with will do.
bool IsOwnData(const MappedView& data) {
    return data.size == RL_ICU_DATA_SIZE &&
           CodeSetData_Checksum({static_cast<const uint8_t*>(data.view.get()), data.size}) ==
               RL_ICU_DATA_CHECKSUM;
}

// All of the text, without regard to what cannot be converted: false then, with *out untouched.
bool Decode(uint32_t codePage, const char* text, size_t length, std::u16string* out) {
    const auto bytes = static_cast<int>(length);
    const int units = MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, text, bytes, nullptr, 0);
    if (units <= 0) {
        return false;
    }
    const size_t before = out->size();
    out->resize(before + units);
    MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, text, bytes, Wide(out->data() + before), units);
    return true;
}

bool Encode(uint32_t codePage, const char16_t* text, size_t units, std::string* out) {
    const auto count = static_cast<int>(units);
    BOOL replaced = FALSE;
    const int length = WideCharToMultiByte(codePage, WC_NO_BEST_FIT_CHARS, Wide(text), count, nullptr, 0,
                                           nullptr, &replaced);
    if (length <= 0 || replaced) {
        return false;
    }
    const size_t before = out->size();
    out->resize(before + length);
    WideCharToMultiByte(codePage, WC_NO_BEST_FIT_CHARS, Wide(text), count, out->data() + before, length,
                        nullptr, nullptr);
    return true;
}

// Length of the character that begins the text, 0 when none does. The system has no call that tells.
size_t CharacterLength(uint32_t codePage, const char* text, size_t length) {
    for (const int tried : {1, 2, 4}) {
        wchar_t units[2];
        if (static_cast<size_t>(tried) <= length &&
            MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, text, tried, units, 2) > 0) {
            return tried;
        }
    }
    return 0;
}

} // namespace

bool CodeSetSystemLoadIcuData(const char* directory) {
    static bool given = false;
    MappedView data = MapFile(DataPath(directory).c_str());
    if (!IsOwnData(data)) {
        return false;
    }
    if (given) {
        return true;
    }
    // ICU must not look for more on its own, least of all where an environment variable says.
    UErrorCode status = U_ZERO_ERROR;
    udata_setFileAccess(UDATA_NO_FILES, &status);
    udata_setCommonData(data.view.get(), &status);
    given = U_SUCCESS(status);
    if (given) {
        data.view.release();
    }
    return given;
}

uint32_t CodeSetSystemAnsiPage() {
    return GetACP();
}

// The system's own checks are no use here: old releases let surrogates through, and none looks at UTF-16
// before Windows Vista.
bool CodeSetSystemToUtf16(const char* text, size_t length, char16_t* out, size_t room, size_t* units) {
    if (!CodeSetUtf_IsValid(text, length)) {
        return false;
    }
    const int result = MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(length), Wide(out),
                                           static_cast<int>(std::min<size_t>(room, INT_MAX)));
    *units = result;
    return result > 0;
}

bool CodeSetSystemFromUtf16(const char16_t* text, size_t units, char* out, size_t room, size_t* length) {
    if (!CodeSetUtf_IsValid(text, units)) {
        return false;
    }
    const int result =
        WideCharToMultiByte(CP_UTF8, 0, Wide(text), static_cast<int>(units), out,
                            static_cast<int>(std::min<size_t>(room, INT_MAX)), nullptr, nullptr);
    *length = result;
    return result > 0;
}

bool CodeSetSystemDecode(uint32_t codePage, const char* text, size_t length, CodeSet_Mode mode,
                         std::u16string* out) {
    if (length > INT_MAX || !IsValidCodePage(codePage)) {
        return false;
    }
    if (length == 0 || Decode(codePage, text, length, out)) {
        return true;
    }
    for (size_t at = 0; at < length && mode != CodeSet_Mode::Stop;) {
        const size_t character = CharacterLength(codePage, text + at, length - at);
        if (character > 0) {
            Decode(codePage, text + at, character, out);
        } else if (mode == CodeSet_Mode::Substitute) {
            out->push_back(0xFFFD);
        }
        at += std::max<size_t>(character, 1);
    }
    return mode != CodeSet_Mode::Stop;
}

bool CodeSetSystemEncode(uint32_t codePage, const char16_t* text, size_t units, CodeSet_Mode mode,
                         std::string* out) {
    if (units > INT_MAX || !IsValidCodePage(codePage)) {
        return false;
    }
    if (units == 0 || Encode(codePage, text, units, out)) {
        return true;
    }
    for (size_t at = 0; at < units && mode != CodeSet_Mode::Stop;) {
        const bool pair = units - at > 1 && IS_SURROGATE_PAIR(text[at], text[at + 1]);
        const size_t character = pair ? 2 : 1;
        if (!Encode(codePage, text + at, character, out) && mode == CodeSet_Mode::Substitute) {
            out->push_back('?');
        }
        at += character;
    }
    return mode != CodeSet_Mode::Stop;
}
