#include "iso9660/iso9660RockRidge.h"

#include "iso9660/iso9660System.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

// A continuation may lead to another one. Real areas take one or two; a chain beyond this goes in circles.
constexpr unsigned MAXIMUM_CONTINUATIONS = 64;

constexpr size_t CONTINUATION_LENGTH = 28;
constexpr size_t POSIX_LENGTH = 36; // a later edition appends eight bytes
constexpr size_t NAME_FLAGS = 4;
constexpr size_t NAME_TEXT = 5;
constexpr size_t TIMES_FLAGS = 4;
constexpr size_t TIMES_FIRST = 5;
constexpr size_t SHORT_TIME = 7;
constexpr size_t LONG_TIME = 17;
constexpr uint8_t TIMES_CREATION = 0x01;
constexpr uint8_t TIMES_LONG_FORM = 0x80;

constexpr uint8_t NAME_PLAIN = 0;
constexpr uint8_t NAME_CONTINUE = 1;
constexpr uint8_t NAME_CURRENT = 2;
constexpr uint8_t NAME_PARENT = 4;
constexpr uint8_t NAME_HOST = 32;

struct Continuation {
    uint32_t sector = 0;
    uint32_t offset = 0; // bytes
    uint32_t length = 0; // bytes; 0: there is none
};

bool Is(IsoBytes entry, const char* signature) {
    return entry[0] == static_cast<uint8_t>(signature[0]) && entry[1] == static_cast<uint8_t>(signature[1]);
}

using Visit = void (*)(IsoBytes entry, void* clientData);

// Calls `visit` for each entry of one stretch of an area. An entry that does not fit into it ends the
// stretch.
Continuation ScanStretch(IsoBytes area, Visit visit, void* clientData) {
    Continuation next;
    while (area.size() >= SUSP_HEADER) {
        size_t length = area[SUSP_LENGTH];
        if (length < SUSP_HEADER || length > area.size()) {
            break;
        }
        IsoBytes entry = area.first(length);
        area = area.subspan(length);
        if (entry[SUSP_VERSION] != 1) {
            continue;
        }
        if (Is(entry, "ST")) {
            break;
        }
        if (Is(entry, "CE")) {
            if (length >= CONTINUATION_LENGTH) {
                next = {IsoLittle32(entry, 4), IsoLittle32(entry, 12), IsoLittle32(entry, 20)};
            }
            continue;
        }
        visit(entry, clientData);
    }
    return next;
}

Iso9660_Result ScanArea(Iso9660_Image* image, IsoBytes area, Visit visit, void* clientData) {
    Continuation next = ScanStretch(area, visit, clientData);
    for (unsigned followed = 0; next.length != 0; ++followed) {
        if (followed == MAXIMUM_CONTINUATIONS ||
            Iso9660ReadSectors(image, next.sector, 1, image->continuation.data()) != FileIOResult::Success) {
            return Iso9660_Result::BadFormat;
        }
        size_t offset = std::min(next.offset, ISO_SECTOR_SIZE);
        size_t length = std::min<size_t>(next.length, ISO_SECTOR_SIZE - offset);
        next = ScanStretch(IsoBytes(image->continuation).subspan(offset, length), visit, clientData);
    }
    return Iso9660_Result::Success;
}

void VisitRootEntry(IsoBytes entry, void* clientData) {
    static constexpr std::string_view identifier = "RRIP_1991A";
    static constexpr size_t text = 8;
    if (Is(entry, "ER") && entry.size() >= text + identifier.size() && entry[4] == identifier.size() &&
        entry[7] == 1 && memcmp(&entry[text], identifier.data(), identifier.size()) == 0) {
        *static_cast<bool*>(clientData) = true;
    }
}

// Reaching 261 bytes empties the name and ends it: what is left is an empty name, not an error. A count of
// exactly 260 stays, and is found not to fit when the area ends. Null text only counts.
void AppendName(IsoRockRidge* rockRidge, const char* text, size_t length) {
    if (rockRidge->nameLength + length > ISO9660_NAME_SIZE) {
        rockRidge->nameLength = 0;
        rockRidge->nameComplete = true;
        return;
    }
    if (text) {
        memcpy(&rockRidge->name[rockRidge->nameLength], text, length);
    }
    rockRidge->nameLength += length;
}

void AppendHostName(IsoRockRidge* rockRidge) {
    std::string host;
    if (Iso9660HostName(&host)) {
        AppendName(rockRidge, host.data(), host.size());
    } else {
        AppendName(rockRidge, nullptr, ISO9660_NAME_SIZE);
    }
}

void TakeName(IsoBytes entry, IsoRockRidge* rockRidge) {
    if (rockRidge->nameComplete || entry.size() < NAME_TEXT) {
        return;
    }
    rockRidge->hasName = true;
    IsoBytes text = entry.subspan(NAME_TEXT);
    uint8_t flags = entry[NAME_FLAGS];
    switch (flags) {
    case NAME_PLAIN:
    case NAME_CONTINUE:
        rockRidge->nameComplete = flags == NAME_PLAIN;
        if (!text.empty()) {
            AppendName(rockRidge, reinterpret_cast<const char*>(text.data()), text.size());
        }
        break;
    case NAME_CURRENT:
        AppendName(rockRidge, ".", 1);
        break;
    case NAME_PARENT:
        AppendName(rockRidge, "..", 2);
        break;
    case NAME_HOST:
        AppendHostName(rockRidge);
        break;
    default:
        AppendName(rockRidge, nullptr, ISO9660_NAME_SIZE + 1);
        break;
    }
}

// "YYYYMMDDhhmmss", two digits of hundredths and the zone, to the seven bytes of a directory record. False
// when the digits are none or the year does not fit.
bool ShortenTime(IsoBytes digits, std::array<uint8_t, ISO9660_TIME_SIZE>* time) {
    std::array<uint8_t, SHORT_TIME> pairs; // century, year, month, day, hour, minute, second
    for (size_t i = 0; i < pairs.size(); ++i) {
        int tens = digits[2 * i] - '0';
        int ones = digits[2 * i + 1] - '0';
        if (tens < 0 || tens > 9 || ones < 0 || ones > 9) {
            return false;
        }
        pairs[i] = static_cast<uint8_t>(10 * tens + ones);
    }
    int year = 100 * pairs[0] + pairs[1] - 1900;
    if (year < 0 || year > UINT8_MAX) {
        return false;
    }
    (*time)[0] = static_cast<uint8_t>(year);
    std::copy(pairs.begin() + 2, pairs.end(), time->begin() + 1);
    (*time)[6] = digits[LONG_TIME - 1];
    return true;
}

void TakeTimes(IsoBytes entry, IsoRockRidge* rockRidge) {
    if (entry.size() < TIMES_FIRST || (entry[TIMES_FLAGS] & TIMES_CREATION) == 0) {
        return;
    }
    IsoBytes stamps = entry.subspan(TIMES_FIRST);
    if ((entry[TIMES_FLAGS] & TIMES_LONG_FORM) != 0) {
        if (stamps.size() >= LONG_TIME && ShortenTime(stamps.first(LONG_TIME), &rockRidge->creationTime)) {
            rockRidge->hasCreationTime = true;
        }
    } else if (stamps.size() >= SHORT_TIME) {
        std::copy_n(stamps.begin(), SHORT_TIME, rockRidge->creationTime.begin());
        rockRidge->hasCreationTime = true;
    }
}

void VisitEntry(IsoBytes entry, void* clientData) {
    auto* rockRidge = static_cast<IsoRockRidge*>(clientData);
    if (Is(entry, "NM")) {
        TakeName(entry, rockRidge);
    } else if (Is(entry, "TF")) {
        TakeTimes(entry, rockRidge);
    } else if (Is(entry, "PX") && entry.size() >= POSIX_LENGTH) {
        rockRidge->mode = IsoLittle16(entry, 4);
        rockRidge->links = IsoLittle32(entry, 12);
        rockRidge->userId = IsoLittle32(entry, 20);
    }
}

bool IsRootItself(const Iso9660_Image* image, const IsoRecord& record) {
    return record.IsSelf() && record.firstSector == Iso9660RootDir(image).firstSector;
}

} // namespace

Iso9660_Result Iso9660DetectRockRidge(Iso9660_Image* image) {
    Iso9660_Dir root = Iso9660RootDir(image);
    IsoRecord self;
    if (Iso9660NextRecord(image, &root, &self) != Iso9660_Result::Success) {
        return Iso9660_Result::NoExtension;
    }
    static constexpr std::array<uint8_t, 6> announcement = {'S', 'P', 7, 1, 0xBE, 0xEF};
    IsoBytes area = self.systemUse;
    if (area.size() <= announcement.size() ||
        !std::equal(announcement.begin(), announcement.end(), area.begin())) {
        return Iso9660_Result::NoExtension;
    }
    image->suspSkip = area[announcement.size()];

    bool announced = false;
    Iso9660_Result result = ScanArea(image, area, VisitRootEntry, &announced);
    if (result != Iso9660_Result::Success || !announced) {
        return Iso9660_Result::NoExtension;
    }
    image->flags |= ISO9660_FLAG_ROCK_RIDGE;
    return Iso9660_Result::Success;
}

Iso9660_Result Iso9660ReadRockRidge(Iso9660_Image* image, const IsoRecord& record, IsoRockRidge* rockRidge) {
    size_t skip = IsRootItself(image, record) ? 0 : image->suspSkip;
    if (skip >= record.systemUse.size()) {
        return Iso9660_Result::Success;
    }
    return ScanArea(image, record.systemUse.subspan(skip), VisitEntry, rockRidge);
}
