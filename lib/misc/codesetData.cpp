#include "misc/codesetData.h"

#include <array>

namespace {

constexpr uint32_t POLYNOMIAL = 0x04C11DB7;
constexpr size_t STRIDE = 8; // bytes taken in at a time

using Table = std::array<uint32_t, 256>;

// tables[k][b]: what a byte b does to the checksum when k more bytes follow it.
constexpr std::array<Table, STRIDE> MakeTables() {
    std::array<Table, STRIDE> tables{};
    for (uint32_t byte = 0; byte < 256; byte++) {
        uint32_t value = byte << 24;
        for (int bit = 0; bit < 8; bit++) {
            value = (value & 0x80000000U) != 0 ? value << 1 ^ POLYNOMIAL : value << 1;
        }
        tables[0][byte] = value;
    }
    for (size_t k = 1; k < STRIDE; k++) {
        for (uint32_t byte = 0; byte < 256; byte++) {
            const uint32_t value = tables[k - 1][byte];
            tables[k][byte] = value << 8 ^ tables[0][value >> 24];
        }
    }
    return tables;
}
constexpr std::array<Table, STRIDE> TABLES = MakeTables();

uint32_t TakeIn(uint32_t checksum, uint8_t byte) {
    return checksum << 8 ^ TABLES[0][(checksum >> 24) ^ byte];
}

uint32_t TakeInStride(uint32_t checksum, const uint8_t* bytes) {
    return TABLES[7][bytes[0] ^ checksum >> 24] ^ TABLES[6][bytes[1] ^ (checksum >> 16 & 0xFF)] ^
           TABLES[5][bytes[2] ^ (checksum >> 8 & 0xFF)] ^ TABLES[4][bytes[3] ^ (checksum & 0xFF)] ^
           TABLES[3][bytes[4]] ^ TABLES[2][bytes[5]] ^ TABLES[1][bytes[6]] ^ TABLES[0][bytes[7]];
}

} // namespace

uint32_t CodeSetData_Checksum(std::span<const uint8_t> data) {
    uint32_t checksum = 0;
    size_t at = 0;
    for (; data.size() - at >= STRIDE; at += STRIDE) {
        checksum = TakeInStride(checksum, data.data() + at);
    }
    for (; at < data.size(); at++) {
        checksum = TakeIn(checksum, data[at]);
    }
    for (size_t length = data.size(); length > 0; length >>= 8) {
        checksum = TakeIn(checksum, static_cast<uint8_t>(length & 0xFF));
    }
    return ~checksum;
}
