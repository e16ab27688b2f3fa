// What the guest runs: version numbers, names and the family number of the Windows release.
//
// The program's manifest names no release, so the system tells it the truth up to 6.2 and "6.2" for
// everything later; all of those count as the Windows 7 family.
#pragma once

#include <cstdint>
#include <string>

// Family numbers: 1 to 9 from Windows 95 to Windows 7 and Server 2008 R2.
inline constexpr uint32_t HOSTINFO_FAMILY_95 = 1;
inline constexpr uint32_t HOSTINFO_FAMILY_98 = 2;
inline constexpr uint32_t HOSTINFO_FAMILY_ME = 3;
inline constexpr uint32_t HOSTINFO_FAMILY_NT4 = 4;
inline constexpr uint32_t HOSTINFO_FAMILY_2000 = 5;
inline constexpr uint32_t HOSTINFO_FAMILY_XP = 6;
inline constexpr uint32_t HOSTINFO_FAMILY_2003 = 7;
inline constexpr uint32_t HOSTINFO_FAMILY_VISTA = 8; // and Server 2008
inline constexpr uint32_t HOSTINFO_FAMILY_7 = 9;     // and Server 2008 R2
inline constexpr uint32_t HOSTINFO_FAMILY_UNKNOWN = 99999;

struct Hostinfo_OSName {
    uint32_t type;         // 1 to 21, 0 when the release has no number
    uint32_t family;       // derived from the type
    std::string shortName; // at most 63 bytes: "winXPPro", "winServer2008Web-64"
    std::string longName;  // at most 191 bytes: "Windows XP Professional Service Pack 3 (Build 2600)"
};

// 0 major, 1 minor, 2 build, 3 service-pack major; any other index gives 0. The program stops (Panic) if the
// system does not tell its version. Any thread.
uint32_t Hostinfo_OSVersion(uint32_t index);

// Of the machine, whatever the program is: 64, 32, or -1 for a processor that is neither x86 nor AMD64. Any
// thread.
int HostinfoOSBitness();

// Worked out once and published for the process; later calls give the first result. Null when the system
// tells too little; nothing is then stored, and the next call tries again. Any thread.
const Hostinfo_OSName* Hostinfo_GetOSName();
