// Taking names apart: volume, directory, base. Pure text.
#include "file/file.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace {

constexpr std::string_view SEPARATORS = "/\\";

bool FileIsSeparator(char character) {
    return SEPARATORS.find(character) != std::string_view::npos;
}

bool FileIsContinuationByte(char character) {
    return (static_cast<unsigned char>(character) & 0xC0) == 0x80;
}

bool FileIsUncHead(std::string_view name) {
    return name.size() > 2 && (name.starts_with("\\\\") || name.starts_with("//")) &&
           !FileIsContinuationByte(name[2]);
}

struct NameParts {
    std::string_view volume;
    std::string_view directory;
    std::string_view base;
};

NameParts FileSplit(std::string_view name) {
    size_t volumeLength = 0;
    if (FileIsUncHead(name)) {
        size_t share = name.find_first_of(SEPARATORS, 2);
        if (share == std::string_view::npos) {
            return {{}, {}, name.substr(2)}; // a server alone is no volume, and there is no directory on it
        }
        volumeLength = std::min(name.find_first_of(SEPARATORS, share + 1), name.size());
    } else if (name.size() >= 2 && name[1] == ':') {
        volumeLength = 2;
    }
    size_t lastSeparator = name.find_last_of(SEPARATORS);
    size_t baseStart = lastSeparator == std::string_view::npos ? 0 : lastSeparator + 1;
    NameParts parts{name.substr(0, volumeLength), {}, {}};
    if (baseStart >= volumeLength) {
        parts.directory = name.substr(volumeLength, baseStart - volumeLength);
        parts.base = name.substr(baseStart);
    }
    return parts;
}

void FileStore(std::string* out, std::string part) {
    if (out != nullptr) {
        *out = std::move(part);
    }
}

} // namespace

void File_SplitName(const std::string& name, std::string* volume, std::string* directory, std::string* base) {
    // All parts are taken before the first is stored: an out argument may be the name itself.
    NameParts parts = FileSplit(name);
    std::string volumePart(parts.volume);
    std::string directoryPart(parts.directory);
    FileStore(base, std::string(parts.base));
    FileStore(directory, std::move(directoryPart));
    FileStore(volume, std::move(volumePart));
}

void File_GetPathName(const std::string& name, std::string* path, std::string* base) {
    std::string volume;
    std::string directory;
    std::string lastPart;
    File_SplitName(name, &volume, &directory, &lastPart);
    volume += directory;
    while (!volume.empty() && FileIsSeparator(volume.back())) {
        volume.pop_back();
    }
    FileStore(path, std::move(volume));
    FileStore(base, std::move(lastPart));
}

std::string File_StripSlashes(const std::string& name) {
    NameParts parts = FileSplit(name);
    if (FileIsUncHead(name) && parts.volume.empty()) {
        return name; // a server alone: its parts do not add up to the name
    }
    std::string_view directory = parts.directory;
    while (parts.base.empty() && directory.size() > 1 && FileIsSeparator(directory.back())) {
        directory.remove_suffix(1);
    }
    std::string result(parts.volume);
    result += directory;
    result += parts.base;
    return result;
}
