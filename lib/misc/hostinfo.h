// What the guest runs: version numbers, names and the family number of the Windows release.
#pragma once

#include <cstdint>
#include <string>

// Family numbers: 1 to 9 from Windows 95 to Windows 7 and Server 2008 R2.
inline constexpr uint32_t HOSTINFO_FAMILY_NT4 = 4;
inline constexpr uint32_t HOSTINFO_FAMILY_2000 = 5;
inline constexpr uint32_t HOSTINFO_FAMILY_XP = 6;
inline constexpr uint32_t HOSTINFO_FAMILY_UNKNOWN = 99999;

struct Hostinfo_OSName {
    uint32_t type;   // 1 to 21, 0 when the release has no number
    uint32_t family;
    std::string shortName;
    std::string longName;
};

// 0 major, 1 minor, 2 build, 3 service-pack major; any other index gives 0. Any thread.
uint32_t Hostinfo_OSVersion(uint32_t index);
int HostinfoOSBitness(); // 64, 32 or -1

// Worked out once and published for the process; later calls give the first result. Any thread.
const Hostinfo_OSName* Hostinfo_GetOSName();
