// The checksum that tells the ICU data file this program was built with from a damaged or foreign one.
#pragma once

#include <cstdint>
#include <span>

// As POSIX cksum computes it: CRC-32 with the polynomial 0x04C11DB7, most significant bit first, with the
// length taken in at the end.
uint32_t CodeSetData_Checksum(std::span<const uint8_t> data);
