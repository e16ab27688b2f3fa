// Access lists as the system lays them out in memory, read and built as bytes. Internal to procMgr.
//
// A list is a header of 8 bytes (revision, zero, total size, number of entries, zero) followed by its
// entries; an entry is type, flags and its size, and for an access-allowed entry the rights and the
// identifier (SID) they are given to. Numbers are little-endian; the total size may exceed the entries'.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

using ProcMgrBytes = std::vector<uint8_t>;

struct ProcMgrAce {
    uint8_t flags; // inheritance
    uint32_t rights;
};

inline constexpr uint8_t PROCMGR_ACE_OBJECT_INHERIT = 0x1;
inline constexpr uint8_t PROCMGR_ACE_CONTAINER_INHERIT = 0x2;
inline constexpr uint8_t PROCMGR_ACE_NO_PROPAGATE = 0x4;
inline constexpr uint8_t PROCMGR_ACE_INHERIT_ONLY = 0x8;

// What a logon session is granted, in the order of the entries. On the station: everything for what is
// created in it, and all of the station's own rights; on the desktop: all of its rights.
inline constexpr ProcMgrAce PROCMGR_STATION_ACES[] = {
    {PROCMGR_ACE_CONTAINER_INHERIT | PROCMGR_ACE_OBJECT_INHERIT | PROCMGR_ACE_INHERIT_ONLY, 0xF0000000},
    {PROCMGR_ACE_NO_PROPAGATE, 0xF037F},
};
inline constexpr ProcMgrAce PROCMGR_DESKTOP_ACES[] = {{0, 0xF01FF}};

// A copy of `acl`, cut to the bytes that its entries use, with one access-allowed entry for `sid` appended
// for each of `aces`. None when `acl` is malformed, `sid` is not exactly one identifier, or the result would
// not fit the 16-bit sizes.
std::optional<ProcMgrBytes> ProcMgrAclAppend(std::span<const uint8_t> acl, std::span<const ProcMgrAce> aces,
                                             std::span<const uint8_t> sid);

// Index of the last access-allowed entry with exactly these flags, rights and identifier; none if there is
// none or the list is malformed.
std::optional<uint32_t> ProcMgrAclFindLast(std::span<const uint8_t> acl, const ProcMgrAce& ace,
                                           std::span<const uint8_t> sid);
