// How a machine is named in member files. Pure; the values come from the system. Internal.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

using MachineUuid = std::array<uint8_t, 16>;

// The system UUID in the firmware's table of structures (SMBIOS), as GetSystemFirmwareTable gives it: a head
// of eight bytes, then the structures. None when there is none or it is not set.
std::optional<MachineUuid> FileLockFindUuid(std::span<const uint8_t> firmwareTable);

// "uuid=" and the UUID in hexadecimal digits.
std::string FileLockMachineIDFromUuid(const MachineUuid& uuid);
// The older form: the two numbers, 12 bytes with the lowest first, in base64 with "-" for "/".
std::string FileLockMachineIDFromNumbers(uint32_t first, uint64_t second);

// FNV-1a, for a machine's name.
uint64_t FileLockHashName(std::string_view name);
