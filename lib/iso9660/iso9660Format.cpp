#include "iso9660/iso9660Format.h"

#include <cstring>

bool IsoParseRecord(IsoBytes bytes, IsoRecord* record) {
    if (bytes.size() < ISO_RECORD_NAME) {
        return false;
    }
    size_t nameLength = bytes[ISO_RECORD_NAME_LENGTH];
    if (bytes.size() < ISO_RECORD_NAME + nameLength) {
        return false;
    }
    record->firstSector = IsoLittle32(bytes, ISO_RECORD_EXTENT);
    record->size = IsoLittle32(bytes, ISO_RECORD_SIZE);
    record->flags = bytes[ISO_RECORD_FLAGS];
    record->time = bytes.subspan(ISO_RECORD_TIME, ISO_RECORD_FLAGS - ISO_RECORD_TIME);
    record->name = bytes.subspan(ISO_RECORD_NAME, nameLength);

    // A pad byte keeps the area on an even offset.
    size_t areaStart = ISO_RECORD_NAME + nameLength + (nameLength % 2 == 0 ? 1 : 0);
    record->systemUse = areaStart < bytes.size() ? bytes.subspan(areaStart) : IsoBytes{};
    return true;
}

bool IsoHasIdentifier(IsoBytes descriptor, const char* identifier) {
    return memcmp(&descriptor[ISO_DESCRIPTOR_IDENTIFIER], identifier, ISO_IDENTIFIER_LENGTH) == 0;
}

bool IsoIsJoliet(IsoBytes descriptor) {
    IsoBytes escape = descriptor.subspan(ISO_DESCRIPTOR_ESCAPES, 3);
    bool compatible = (descriptor[ISO_DESCRIPTOR_VOLUME_FLAGS] & 1) == 0;
    bool knownLevel = escape[2] == 0x40 || escape[2] == 0x43 || escape[2] == 0x45;
    return compatible && escape[0] == '%' && escape[1] == '/' && knownLevel;
}
