// Shares, and the way from a request's name to a local path.
#include "hgfslib/hgfsServerInt.h"
#include "misc/diag.h"
#include "unicode/unicode.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

constexpr char ToLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualIgnoringCase(std::string_view left, std::string_view right) {
    return std::ranges::equal(left, right, [](char l, char r) { return ToLower(l) == ToLower(r); });
}

const HgfsShare* FindShare(std::string_view name) {
    auto& shares = hgfsServer.shares;
    auto found = std::ranges::find(shares, name, &HgfsShare::name);
    if (found == shares.end()) {
        found =
            std::ranges::find_if(shares, [&](const HgfsShare& s) { return EqualIgnoringCase(s.name, name); });
    }
    return found == shares.end() ? nullptr : &*found;
}

// Writes what a path on the share begins with and moves the cursor behind the components it used up.
HgfsNameStatus WritePrefix(const HgfsShare& share, CPNameCursor* cursor) {
    const char* begin = cursor->out;
    if (share.localPath.empty()) {
        HgfsNameStatus status = CPName_ConvertFromRoot(cursor);
        if (status != HgfsNameComplete) {
            return status;
        }
        if (static_cast<size_t>(cursor->out - begin) >= kHgfsLocalPathMax) {
            Debug("%s: error: prefix too long\n", "HgfsServerGetShareInfo");
            return HgfsNameTooLong;
        }
        return HgfsNameComplete;
    }
    if (share.localPath.size() >= kHgfsLocalPathMax) {
        return HgfsNameTooLong;
    }
    std::memcpy(cursor->out, share.localPath.c_str(), share.localPath.size() + 1);
    cursor->out += share.localPath.size();
    cursor->room -= share.localPath.size();
    return HgfsNameComplete;
}

bool IsDrivePath(std::string_view path) {
    return path.size() >= 3 && ToLower(path[0]) >= 'a' && ToLower(path[0]) <= 'z' && path[1] == ':' &&
           path[2] == '\\';
}

// UTF-16 units of valid UTF-8: one for every character, two for those of four bytes.
size_t Utf16Length(std::string_view text) {
    return static_cast<size_t>(std::ranges::count_if(text, [](char c) { return (c & 0xC0) != 0x80; }) +
                               std::ranges::count_if(text, [](char c) { return (c & 0xF8) == 0xF0; }));
}

} // namespace

HgfsNameStatus HgfsServerGetShareInfo(std::string_view name, uint32_t, HgfsShareInfo* info) {
    const char* end = name.data() + name.size();
    const char* rest;
    ptrdiff_t length = CPName_GetComponent(name.data(), end, &rest);
    if (length < 0) {
        return HgfsNameFailure;
    }
    if (length == 0) {
        return HgfsNameIncompleteBase;
    }
    const HgfsShare* share = FindShare(name.substr(0, static_cast<size_t>(length)));
    if (share == nullptr) {
        return HgfsNameDoesNotExist;
    }
    char path[kHgfsLocalPathMax];
    CPNameCursor cursor = {rest, static_cast<size_t>(end - rest), path, sizeof path};
    HgfsNameStatus status = WritePrefix(*share, &cursor);
    if (status != HgfsNameComplete) {
        return status;
    }
    std::string_view prefix(path, static_cast<size_t>(cursor.out - path));
    const char* convertedAt = cursor.out;
    if (!CPName_ConvertToLocal(&cursor)) {
        return HgfsNameFailure;
    }
    std::string_view converted(convertedAt, static_cast<size_t>(cursor.out - convertedAt));
    if (prefix.ends_with('\\') && converted.starts_with('\\')) {
        converted.remove_prefix(1);
    }
    if (prefix.size() + converted.size() >= kHgfsLocalPathMax) {
        return HgfsNameTooLong;
    }
    try {
        HgfsShareInfo result = {share->readAllowed, share->writeAllowed, share->name, std::string(prefix)};
        result.path += converted;
        *info = std::move(result);
    } catch (const std::bad_alloc&) {
        return HgfsNameOutOfMemory;
    }
    return HgfsNameComplete;
}

uint32_t HgfsServerCheckPath(std::string_view path) {
    if (!Unicode_IsValidUtf8(path) || (IsDrivePath(path) && Utf16Length(path) > 259)) {
        return HgfsErrorInvalidName;
    }
    return HgfsErrorNone;
}

uint32_t HgfsServerReadName(HgfsPacketReader* reader, size_t offset, uint32_t version, HgfsRequestName* name,
                            size_t behind, size_t* next) {
    const size_t fixed = version == 3 ? HgfsNameV3::EmptySize : HgfsNameV1::EmptySize;
    const size_t length = reader->U32(offset);
    if (!reader->Ok() || reader->Size() - offset < fixed + behind ||
        length > reader->Size() - offset - fixed - behind) {
        return HgfsErrorProtocol;
    }
    name->caseType = version == 3 ? reader->U32(offset + HgfsNameV3::CaseType) : kHgfsCaseDefault;
    auto bytes = reader->Bytes(offset + fixed - 1, length);
    name->bytes = {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    if (next != nullptr) {
        *next = offset + fixed + length;
    }
    return HgfsErrorNone;
}

uint32_t HgfsServerResolveName(const HgfsRequestName& name, HgfsShareInfo* info) {
    uint32_t error = HgfsServer_MapNameStatus(HgfsServerGetShareInfo(name.bytes, name.caseType, info));
    return error != HgfsErrorNone ? error : HgfsServerCheckPath(info->path);
}

uint32_t HgfsServerResolveForChange(const HgfsRequestName& name, HgfsShareInfo* info) {
    uint32_t error = HgfsServerResolveName(name, info);
    if (error == HgfsErrorNone && !info->writeAllowed) {
        return HgfsErrorAccessDenied;
    }
    return error;
}
