// System-use entries: finding Rock Ridge and reading names and attributes from it.
#pragma once

#include "iso9660/iso9660Image.h"

// What one record's system-use area said.
struct IsoRockRidge {
    bool hasName = false; // at least one NM entry
    bool nameComplete = false;
    size_t nameLength = 0; // may count more than `name` holds: such a name does not fit
    std::array<char, ISO9660_NAME_SIZE> name;
    uint32_t mode = 0;
    uint32_t links = 0;
    uint32_t userId = 0;
    bool hasCreationTime = false;
    std::array<uint8_t, ISO9660_TIME_SIZE> creationTime;
};

// Sets the image's Rock Ridge flag and its skip count. NoExtension when the root does not announce it.
Iso9660_Result Iso9660DetectRockRidge(Iso9660_Image* image);

// BadFormat when a continuation cannot be read or there is no end to them.
Iso9660_Result Iso9660ReadRockRidge(Iso9660_Image* image, const IsoRecord& record, IsoRockRidge* rockRidge);
