#include "procMgrAcl.h"

#include <algorithm>

namespace {

constexpr size_t ACL_HEADER = 8;
constexpr size_t ACL_REVISION_AT = 0;
constexpr size_t ACL_SIZE_AT = 2;
constexpr size_t ACL_COUNT_AT = 4;
constexpr uint8_t ACL_REVISION_BASIC = 2;
constexpr size_t ACL_LIMIT = 0xFFFC; // sizes are 16-bit and a multiple of 4

constexpr size_t ACE_HEADER = 4;
constexpr size_t ACE_TYPE_AT = 0;
constexpr size_t ACE_FLAGS_AT = 1;
constexpr size_t ACE_SIZE_AT = 2;
constexpr size_t ACE_RIGHTS_AT = 4;
constexpr size_t ACE_SID_AT = 8;
constexpr uint8_t ACE_TYPE_ALLOWED = 0;

constexpr size_t SID_HEADER = 8; // revision, number of sub-authorities, authority
constexpr size_t SID_COUNT_AT = 1;
constexpr uint8_t SID_MAX_SUB_AUTHORITIES = 15;

uint16_t Read16(std::span<const uint8_t> bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

uint32_t Read32(std::span<const uint8_t> bytes, size_t at) {
    return Read16(bytes, at) | static_cast<uint32_t>(Read16(bytes, at + 2)) << 16;
}

void Write16(std::span<uint8_t> bytes, size_t at, size_t value) {
    bytes[at] = static_cast<uint8_t>(value);
    bytes[at + 1] = static_cast<uint8_t>(value >> 8);
}

void Write32(std::span<uint8_t> bytes, size_t at, uint32_t value) {
    Write16(bytes, at, value & 0xFFFF);
    Write16(bytes, at + 2, value >> 16);
}

bool IsWholeSid(std::span<const uint8_t> sid) {
    return sid.size() >= SID_HEADER && sid[SID_COUNT_AT] <= SID_MAX_SUB_AUTHORITIES &&
           sid.size() == SID_HEADER + size_t{4} * sid[SID_COUNT_AT];
}

// The entries of a list, each with its header; none when the list is malformed.
std::optional<std::vector<std::span<const uint8_t>>> SplitEntries(std::span<const uint8_t> acl) {
    if (acl.size() < ACL_HEADER || Read16(acl, ACL_SIZE_AT) < ACL_HEADER ||
        Read16(acl, ACL_SIZE_AT) > acl.size()) {
        return std::nullopt;
    }
    std::span<const uint8_t> rest = acl.first(Read16(acl, ACL_SIZE_AT)).subspan(ACL_HEADER);
    std::vector<std::span<const uint8_t>> entries(Read16(acl, ACL_COUNT_AT));
    for (std::span<const uint8_t>& entry : entries) {
        if (rest.size() < ACE_HEADER || Read16(rest, ACE_SIZE_AT) < ACE_HEADER ||
            Read16(rest, ACE_SIZE_AT) > rest.size()) {
            return std::nullopt;
        }
        entry = rest.first(Read16(rest, ACE_SIZE_AT));
        rest = rest.subspan(entry.size());
    }
    return entries;
}

bool Matches(std::span<const uint8_t> entry, const ProcMgrAce& ace, std::span<const uint8_t> sid) {
    if (entry.size() < ACE_SID_AT + sid.size() || entry[ACE_TYPE_AT] != ACE_TYPE_ALLOWED ||
        entry[ACE_FLAGS_AT] != ace.flags || Read32(entry, ACE_RIGHTS_AT) != ace.rights) {
        return false;
    }
    // A whole identifier tells its own length, so an entry for a longer one differs within these bytes.
    return std::equal(sid.begin(), sid.end(), entry.begin() + ACE_SID_AT);
}

void AppendEntry(ProcMgrBytes* list, const ProcMgrAce& ace, std::span<const uint8_t> sid) {
    size_t start = list->size();
    list->resize(start + ACE_SID_AT);
    std::span<uint8_t> entry(list->data() + start, ACE_SID_AT);
    entry[ACE_TYPE_AT] = ACE_TYPE_ALLOWED;
    entry[ACE_FLAGS_AT] = ace.flags;
    Write16(entry, ACE_SIZE_AT, ACE_SID_AT + sid.size());
    Write32(entry, ACE_RIGHTS_AT, ace.rights);
    list->insert(list->end(), sid.begin(), sid.end());
}

} // namespace

std::optional<ProcMgrBytes> ProcMgrAclAppend(std::span<const uint8_t> acl, std::span<const ProcMgrAce> aces,
                                             std::span<const uint8_t> sid) {
    auto entries = SplitEntries(acl);
    if (!entries || !IsWholeSid(sid)) {
        return std::nullopt;
    }
    ProcMgrBytes result(ACL_HEADER);
    for (std::span<const uint8_t> entry : *entries) {
        result.insert(result.end(), entry.begin(), entry.end());
    }
    for (const ProcMgrAce& ace : aces) {
        AppendEntry(&result, ace, sid);
    }
    size_t count = entries->size() + aces.size();
    if (result.size() > ACL_LIMIT) { // the count is then below its limit too
        return std::nullopt;
    }
    // Entries of later revisions stay valid: the revision never goes down.
    result[ACL_REVISION_AT] = std::max(acl[ACL_REVISION_AT], ACL_REVISION_BASIC);
    Write16(result, ACL_SIZE_AT, result.size());
    Write16(result, ACL_COUNT_AT, count);
    return result;
}

std::optional<uint32_t> ProcMgrAclFindLast(std::span<const uint8_t> acl, const ProcMgrAce& ace,
                                           std::span<const uint8_t> sid) {
    auto entries = SplitEntries(acl);
    if (!entries || !IsWholeSid(sid)) {
        return std::nullopt;
    }
    for (size_t index = entries->size(); index-- > 0;) {
        if (Matches((*entries)[index], ace, sid)) {
            return static_cast<uint32_t>(index);
        }
    }
    return std::nullopt;
}
