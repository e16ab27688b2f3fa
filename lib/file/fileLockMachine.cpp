#include "file/fileLockMachine.h"

#include "string/str.h"

#include <algorithm>

namespace {

// The head in front of the structures: calling method, version and revision, then their total length.
constexpr size_t HEAD_SIZE = 8;
constexpr size_t HEAD_LENGTH_OFFSET = 4;

// Every structure: type, length of its fixed part, handle; its strings follow, ended by an empty one.
constexpr size_t STRUCTURE_HEAD_SIZE = 4;
constexpr uint8_t SYSTEM_INFORMATION = 1;
constexpr uint8_t END_OF_TABLE = 127;
constexpr size_t UUID_OFFSET = 8; // in the system information

uint32_t ReadLittle32(std::span<const uint8_t> bytes) {
    return bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

// Where the structure's strings end, which is where the next one starts; the end of the table if they do not.
size_t FileLockSkipStrings(std::span<const uint8_t> table, size_t offset) {
    while (offset + 1 < table.size() && (table[offset] != 0 || table[offset + 1] != 0)) {
        offset++;
    }
    return std::min(offset + 2, table.size());
}

std::optional<MachineUuid> FileLockUuidOf(std::span<const uint8_t> structure) {
    MachineUuid uuid;
    if (structure.size() < UUID_OFFSET + uuid.size()) {
        return std::nullopt;
    }
    std::copy_n(structure.begin() + UUID_OFFSET, uuid.size(), uuid.begin());
    auto all = [&](uint8_t value) {
        return std::ranges::all_of(uuid, [value](uint8_t byte) { return byte == value; });
    };
    if (all(0x00) || all(0xFF)) {
        return std::nullopt; // not set, or not settable
    }
    return uuid;
}

} // namespace

std::optional<MachineUuid> FileLockFindUuid(std::span<const uint8_t> firmwareTable) {
    if (firmwareTable.size() < HEAD_SIZE) {
        return std::nullopt;
    }
    size_t length = ReadLittle32(firmwareTable.subspan(HEAD_LENGTH_OFFSET, 4));
    std::span<const uint8_t> table = firmwareTable.subspan(HEAD_SIZE);
    table = table.first(std::min(length, table.size()));
    size_t offset = 0;
    while (offset + STRUCTURE_HEAD_SIZE <= table.size()) {
        uint8_t type = table[offset];
        size_t fixedSize = table[offset + 1];
        if (type == END_OF_TABLE || fixedSize < STRUCTURE_HEAD_SIZE || fixedSize > table.size() - offset) {
            break;
        }
        if (type == SYSTEM_INFORMATION) {
            return FileLockUuidOf(table.subspan(offset, fixedSize));
        }
        offset = FileLockSkipStrings(table, offset + fixedSize);
    }
    return std::nullopt;
}

std::string FileLockMachineIDFromUuid(const MachineUuid& uuid) {
    std::string text = "uuid=";
    for (size_t byte = 0; byte < uuid.size(); byte++) {
        bool groupStarts = byte == 4 || byte == 6 || byte == 8 || byte == 10;
        text += Str_Format(groupStarts ? "-%02x" : "%02x", uuid[byte]);
    }
    return text;
}

std::string FileLockMachineIDFromNumbers(uint32_t first, uint64_t second) {
    constexpr char DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-";
    std::array<uint8_t, 12> bytes;
    for (size_t byte = 0; byte < bytes.size(); byte++) {
        bytes[byte] = static_cast<uint8_t>(byte < 4 ? first >> (8 * byte) : second >> (8 * (byte - 4)));
    }
    std::string text;
    for (size_t group = 0; group < bytes.size(); group += 3) {
        uint32_t bits = uint32_t{bytes[group]} << 16 | uint32_t{bytes[group + 1]} << 8 | bytes[group + 2];
        for (int shift = 18; shift >= 0; shift -= 6) {
            text += DIGITS[(bits >> shift) & 0x3F];
        }
    }
    return text;
}

uint64_t FileLockHashName(std::string_view name) {
    uint64_t hash = 0xcbf29ce484222325;
    for (char character : name) {
        hash = (hash ^ static_cast<uint8_t>(character)) * 0x100000001b3;
    }
    return hash;
}
