#include "minidumpReader.h"

#include <stdexcept>

namespace {

constexpr uint32_t SIGNATURE = 0x504D444D; // "MDMP"
constexpr uint16_t VERSION = 0xA793;
constexpr uint32_t THREAD_LIST = 3;
constexpr uint32_t MODULE_LIST = 4;
constexpr uint32_t EXCEPTION = 6;
constexpr uint32_t SYSTEM_INFO = 7;
constexpr uint32_t DIRECTORY_ENTRY = 12;
constexpr uint32_t THREAD_ENTRY = 48;
constexpr uint32_t MODULE_ENTRY = 108;
constexpr size_t CONTEXT_RSP = 0x98;
constexpr size_t CONTEXT_RIP = 0xF8;
constexpr size_t MAX_PARAMETERS = 15;

struct Reader {
    std::span<const uint8_t> bytes;

    std::span<const uint8_t> Range(uint64_t at, uint64_t size) const {
        if (at > bytes.size() || size > bytes.size() - at) {
            throw std::out_of_range("a part lies outside the file: " + std::to_string(at) + "+" +
                                    std::to_string(size));
        }
        return bytes.subspan(at, size);
    }
    uint64_t Number(uint64_t at, size_t width) const {
        uint64_t value = 0;
        const auto range = Range(at, width);
        for (size_t i = width; i-- > 0;) {
            value = value << 8 | range[i];
        }
        return value;
    }
    uint32_t U32(uint64_t at) const { return static_cast<uint32_t>(Number(at, 4)); }
    uint64_t U64(uint64_t at) const { return Number(at, 8); }
};

std::u16string ReadString(const Reader& file, uint32_t at) {
    std::u16string text;
    const uint32_t length = file.U32(at);
    for (uint32_t i = 0; i < length; i += 2) {
        text += static_cast<char16_t>(file.Number(at + 4 + i, 2));
    }
    return text;
}

MinidumpThread ReadThread(const Reader& file, uint32_t at) {
    const uint32_t stackBytes = file.U32(at + 32);
    file.Range(file.U32(at + 36), stackBytes);
    const uint32_t context = file.U32(at + 44);
    return {file.U32(at), file.U64(at + 24), stackBytes, file.U64(context + CONTEXT_RIP),
            file.U64(context + CONTEXT_RSP)};
}

MinidumpException ReadException(const Reader& file, uint32_t at) {
    const uint32_t context = file.U32(at + 164);
    MinidumpException exception = {file.U32(at),
                                   file.U32(at + 8),
                                   file.U64(at + 24),
                                   {},
                                   file.U64(context + CONTEXT_RIP),
                                   file.U64(context + CONTEXT_RSP)};
    const uint32_t count = file.U32(at + 32);
    if (count > MAX_PARAMETERS) {
        throw std::out_of_range("too many exception parameters");
    }
    for (uint32_t i = 0; i < count; i++) {
        exception.parameters.push_back(file.U64(at + 40 + 8 * i));
    }
    return exception;
}

void ReadStream(const Reader& file, uint32_t type, uint32_t at, Minidump* dump) {
    switch (type) {
    case THREAD_LIST:
        for (uint32_t i = 0; i < file.U32(at); i++) {
            dump->threads.push_back(ReadThread(file, at + 4 + i * THREAD_ENTRY));
        }
        break;
    case MODULE_LIST:
        for (uint32_t i = 0; i < file.U32(at); i++) {
            const uint32_t entry = at + 4 + i * MODULE_ENTRY;
            dump->modules.push_back(
                {file.U64(entry), file.U32(entry + 8), ReadString(file, file.U32(entry + 20))});
        }
        break;
    case EXCEPTION:
        dump->exception = ReadException(file, at);
        break;
    case SYSTEM_INFO:
        dump->architecture = static_cast<uint16_t>(file.Number(at, 2));
        break;
    default:
        break;
    }
}

} // namespace

std::optional<Minidump> Minidump_Read(std::span<const uint8_t> bytes, std::string* error) try {
    const Reader file = {bytes};
    if (file.U32(0) != SIGNATURE || file.Number(4, 2) != VERSION) {
        *error = "no minidump";
        return std::nullopt;
    }
    Minidump dump = {};
    dump.flags = file.U64(24);
    const uint32_t streams = file.U32(8);
    const uint32_t directory = file.U32(12);
    for (uint32_t i = 0; i < streams; i++) {
        const uint32_t entry = directory + i * DIRECTORY_ENTRY;
        const uint32_t at = file.U32(entry + 8);
        file.Range(at, file.U32(entry + 4));
        ReadStream(file, file.U32(entry), at, &dump);
    }
    return dump;
} catch (const std::exception& failure) {
    *error = failure.what();
    return std::nullopt;
}
