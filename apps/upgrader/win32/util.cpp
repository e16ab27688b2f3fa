#include "upgrader/win32/util.h"
#include "string/str.h"
#include "upgrader/win32/utilSystem.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <string_view>
#include <vector>

namespace {

constexpr size_t MAX_CHUNKS = 100;
constexpr size_t LONGEST_UNDEFINED = 100; // bytes kept of a reference that cannot be replaced

bool IsNameCharacter(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

// Length of the chunk that begins the text: a "$" with its name, or the text before the next "$".
size_t ChunkLength(std::string_view text) {
    if (text[0] != '$') {
        return std::min(text.find('$'), text.size());
    }
    size_t length = 1;
    while (length < text.size() && IsNameCharacter(text[length])) {
        length++;
    }
    return length;
}

bool Split(const char* fileName, std::vector<std::string_view>* chunks) {
    for (std::string_view rest = fileName; !rest.empty();) {
        if (chunks->size() == MAX_CHUNKS) {
            Msg_Append("@&!*@*@(msg.util.expandStringTooManyChunks)Filename \"%s\" has too many chunks.\n",
                       fileName);
            return false;
        }
        const size_t length = ChunkLength(rest);
        chunks->push_back(rest.substr(0, length));
        rest.remove_prefix(length);
    }
    return true;
}

// The value of one reference, "$" and name.
std::string Expand(std::string_view reference, const char* fileName) {
    const std::string name(reference.substr(1));
    if (std::optional<std::string> value = UtilSystemVariable(name)) {
        return std::move(*value);
    }
    if (name == "PID") {
        return Str_Format("%lu", UtilSystemProcessId());
    }
    if (name == "USER") {
        return UtilSystemUserName().value_or("unknown");
    }
    Warning("Environment variable '%s' not defined in '%s'.\n", name.c_str(), fileName);
    return std::string(reference.substr(0, LONGEST_UNDEFINED));
}

// The name's pieces, each with the text that it becomes; none when memory runs out.
std::optional<std::vector<std::string>> ExpandChunks(const std::vector<std::string_view>& chunks,
                                                     const char* fileName) {
    std::vector<std::string> texts;
    for (std::string_view chunk : chunks) {
        try {
            const bool reference = chunk[0] == '$' && chunk.size() > 1;
            texts.push_back(reference ? Expand(chunk, fileName) : std::string(chunk));
        } catch (const std::bad_alloc&) {
            Msg_Append(
                "@&!*@*@(msg.util.ExpandStringNoMemForChunk)Cannot allocate memory to expand \"%.*s\" in "
                "\"%s\".\n",
                static_cast<int>(chunk.size()), chunk.data(), fileName);
            return std::nullopt;
        }
    }
    return texts;
}

std::string Join(const std::vector<std::string>& texts) {
    size_t length = 0;
    for (const std::string& text : texts) {
        length += text.size();
    }
    std::string result;
    result.reserve(length);
    for (const std::string& text : texts) {
        result += text;
    }
    return result;
}

} // namespace

void Msg_Append(const char* format, ...) {
    std::array<char, 1000> buffer = {};
    va_list arguments;
    va_start(arguments, format);
#ifdef _WIN32
    _vsnprintf(buffer.data(), buffer.size() - 1, format, arguments);
#else
    vsnprintf(buffer.data(), buffer.size(), format, arguments);
#endif
    va_end(arguments);
    buffer.back() = '\0';
    Warning("Msg_Append: %s\n", buffer.data());
}

// A leading "~" stands for nothing on this system and stays.
std::optional<std::string> Util_ExpandString(const char* fileName) {
    if (fileName == nullptr) {
        return std::nullopt;
    }
    try {
        const std::string_view name = fileName;
        if (name.find('$') == std::string_view::npos) {
            return std::string(name);
        }
        std::vector<std::string_view> chunks;
        if (!Split(fileName, &chunks)) {
            return std::nullopt;
        }
        const std::optional<std::vector<std::string>> texts = ExpandChunks(chunks, fileName);
        return texts ? std::optional(Join(*texts)) : std::nullopt;
    } catch (const std::bad_alloc&) {
        Msg_Append("@&!*@*@(msg.util.expandStringNoMemForResult)Cannot allocate memory for the expansion of "
                   "\"%s\".\n",
                   fileName);
        return std::nullopt;
    }
}
