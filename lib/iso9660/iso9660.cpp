#include "iso9660/iso9660.h"

#include "iso9660/iso9660Image.h"
#include "iso9660/iso9660RockRidge.h"
#include "misc/diag.h"
#include "unicode/unicode.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <string_view>

namespace {

constexpr char ISO_IDENTIFIER[] = "CD001";

// One call to the file layer stays well below the 2 GiB that it takes at most.
constexpr uint32_t MAXIMUM_RUN = 1u << 30;

// ---- Opening

Iso9660_Result CopyDescriptor(const IsoSector& descriptor, std::unique_ptr<IsoSector>* copy) {
    copy->reset(new (std::nothrow) IsoSector(descriptor));
    return *copy ? Iso9660_Result::Success : Iso9660_Result::OutOfMemory;
}

Iso9660_Result TakeDescriptor(Iso9660_Image* image, uint32_t wanted, const IsoSector& descriptor) {
    switch (descriptor[0]) {
    case ISO_DESCRIPTOR_PRIMARY:
        return image->primary ? Iso9660_Result::Success : CopyDescriptor(descriptor, &image->primary);
    case ISO_DESCRIPTOR_SUPPLEMENTARY: {
        if ((wanted & ISO9660_WANT_JOLIET) == 0 || image->supplementary) {
            return Iso9660_Result::Success;
        }
        if (!IsoIsJoliet(descriptor)) {
            return Iso9660_Result::BadFormat;
        }
        image->flags |= ISO9660_FLAG_JOLIET;
        return CopyDescriptor(descriptor, &image->supplementary);
    }
    default:
        return Iso9660_Result::Success;
    }
}

// An image that ends where another descriptor would begin has no terminator, which is tolerated; one that
// ends inside a descriptor is cut off.
Iso9660_Result ScanDescriptors(Iso9660_Image* image, uint32_t wanted) {
    int64_t start = int64_t{ISO_FIRST_DESCRIPTOR} << ISO_SECTOR_SHIFT;
    if (FileIO_Seek(&image->file, start, FileIOSeekOrigin::Begin) != start) {
        return Iso9660_Result::IoError;
    }
    for (uint32_t sector = ISO_FIRST_DESCRIPTOR; sector < ISO_END_OF_DESCRIPTORS; ++sector) {
        IsoSector& descriptor = image->scratch;
        image->nextDescriptor = sector;
        size_t actual = 0;
        switch (FileIO_Read(&image->file, descriptor.data(), descriptor.size(), &actual)) {
        case FileIOResult::Success:
            break;
        case FileIOResult::EndOfFile:
            return actual == 0 ? Iso9660_Result::Success : Iso9660_Result::BadFormat;
        default:
            return Iso9660_Result::IoError;
        }
        if (!IsoHasIdentifier(descriptor, ISO_IDENTIFIER)) {
            return Iso9660_Result::BadFormat;
        }
        image->nextDescriptor = sector + 1;
        if (descriptor[0] == ISO_DESCRIPTOR_TERMINATOR) {
            break;
        }
        Iso9660_Result taken = TakeDescriptor(image, wanted, descriptor);
        if (taken != Iso9660_Result::Success) {
            return taken;
        }
    }
    return Iso9660_Result::Success;
}

Iso9660_Result CheckDescriptors(const Iso9660_Image* image, uint32_t wanted) {
    if (!image->primary) {
        return Iso9660_Result::BadFormat;
    }
    if ((wanted & ISO9660_WANT_JOLIET) != 0 && !image->supplementary) {
        return Iso9660_Result::NoExtension;
    }
    bool powerOfTwo = std::has_single_bit(IsoLittle16(*image->primary, ISO_DESCRIPTOR_BLOCK_SIZE));
    return powerOfTwo ? Iso9660_Result::Success : Iso9660_Result::BadFormat;
}

Iso9660_Result OpenImage(Iso9660_Image* image, const char* path, uint32_t wanted) {
    if (FileIO_Open(&image->file, path, FILEIO_OPEN_READ, FileIOOpenAction::Open) != FileIOResult::Success) {
        return Iso9660_Result::IoError;
    }
    Iso9660_Result result = ScanDescriptors(image, wanted);
    if (result == Iso9660_Result::Success) {
        result = CheckDescriptors(image, wanted);
    }
    if (result != Iso9660_Result::Success) {
        if (result != Iso9660_Result::IoError && Iso9660HoldsUdf(image)) {
            Debug("Iso9660_Open: %s: the image holds a UDF file system, which is not read (code %u)\n", path,
                  static_cast<unsigned>(result));
        }
        return result;
    }
    const IsoSector& descriptor = image->supplementary ? *image->supplementary : *image->primary;
    image->root = &descriptor[ISO_DESCRIPTOR_ROOT];
    if ((wanted & ISO9660_WANT_ROCK_RIDGE) != 0) {
        Iso9660DetectRockRidge(image); // without it, the image has plain names
    }
    return Iso9660_Result::Success;
}

// ---- Directories

// Puts `sector` at the start of the window.
Iso9660_Result LoadWindow(Iso9660_Image* image, uint64_t sector) {
    IsoWindow* window = &image->window;
    if (window->sectors != 0 && window->firstSector == sector) {
        return Iso9660_Result::Success;
    }
    if (window->sectors == 2 && window->firstSector + 1 == sector) {
        memcpy(window->bytes.data(), &window->bytes[ISO_SECTOR_SIZE], ISO_SECTOR_SIZE);
    } else {
        window->sectors = 0;
        ++image->directoryReads;
        if (Iso9660ReadSectors(image, sector, 1, window->bytes.data()) != FileIOResult::Success) {
            return Iso9660_Result::IoError;
        }
    }
    window->firstSector = sector;
    window->sectors = 1;
    return Iso9660_Result::Success;
}

// Adds the sector behind it, for a record that goes on there. An image that ends here cannot complete the
// record.
Iso9660_Result ExtendWindow(Iso9660_Image* image) {
    IsoWindow* window = &image->window;
    if (window->sectors == 2) {
        return Iso9660_Result::Success;
    }
    ++image->directoryReads;
    switch (Iso9660ReadSectors(image, window->firstSector + 1, 1, &window->bytes[ISO_SECTOR_SIZE])) {
    case FileIOResult::Success:
        window->sectors = 2;
        return Iso9660_Result::Success;
    case FileIOResult::EndOfFile:
        return Iso9660_Result::BadFormat;
    default:
        return Iso9660_Result::IoError;
    }
}

// ---- Names

// Without the version number.
std::string_view PlainName(const IsoRecord& record) {
    std::string_view bytes(reinterpret_cast<const char*>(record.name.data()), record.name.size());
    return bytes.substr(0, bytes.find(';'));
}

Iso9660_Result NameOf(Iso9660_Image* image, const IsoRecord& record, const IsoRockRidge& rockRidge) {
    std::string* name = &image->name;
    if (record.IsSelf()) {
        *name = ".";
    } else if (record.IsParent()) {
        *name = "..";
    } else if (rockRidge.hasName) {
        if (rockRidge.nameLength >= ISO9660_NAME_SIZE) {
            return Iso9660_Result::InvalidArgument;
        }
        name->assign(rockRidge.name.data(), rockRidge.nameLength);
    } else if ((image->flags & ISO9660_FLAG_JOLIET) != 0) {
        if (!Unicode_FromUtf16BigEndian(record.name.data(), record.name.size(), name)) {
            return Iso9660_Result::InvalidArgument;
        }
    } else {
        *name = PlainName(record);
    }
    return name->size() < ISO9660_NAME_SIZE ? Iso9660_Result::Success : Iso9660_Result::InvalidArgument;
}

// Works out the record's name, into the image, and with Rock Ridge its attributes.
Iso9660_Result Describe(Iso9660_Image* image, const IsoRecord& record, IsoRockRidge* rockRidge) {
    if ((image->flags & ISO9660_FLAG_ROCK_RIDGE) != 0) {
        Iso9660_Result result = Iso9660ReadRockRidge(image, record, rockRidge);
        if (result != Iso9660_Result::Success) {
            return result;
        }
    }
    return NameOf(image, record, *rockRidge);
}

void FillEntry(const Iso9660_Image* image, const IsoRecord& record, const IsoRockRidge& rockRidge,
               Iso9660_Entry* entry) {
    memcpy(entry->name, image->name.c_str(), image->name.size() + 1);
    entry->isDir = record.IsDirectory();
    entry->moreExtents = (record.flags & ISO_FLAG_MORE_EXTENTS) != 0;
    entry->mode = rockRidge.mode;
    entry->links = rockRidge.links;
    entry->userId = rockRidge.userId;
    entry->firstSector = record.firstSector;
    entry->size = record.size;
    IsoBytes time = rockRidge.hasCreationTime ? IsoBytes(rockRidge.creationTime) : record.time;
    std::copy(time.begin(), time.end(), entry->recordingTime);
}

// The directory called `name` in `dir`; moves `dir` to its start.
Iso9660_Result Descend(Iso9660_Image* image, Iso9660_Dir* dir, std::string_view name) {
    for (;;) {
        IsoRecord record;
        IsoRockRidge rockRidge;
        Iso9660_Result result = Iso9660NextRecord(image, dir, &record);
        if (result == Iso9660_Result::End) {
            return Iso9660_Result::NotFound;
        }
        if (result == Iso9660_Result::Success) {
            result = Describe(image, record, &rockRidge);
        }
        if (result != Iso9660_Result::Success) {
            return result;
        }
        if (record.IsDirectory() && image->name == name) {
            *dir = {record.firstSector, record.firstSector, record.size, 0};
            return Iso9660_Result::Success;
        }
    }
}

// Cuts the first component, and what separates it, off `path`.
std::string_view TakeComponent(std::string_view* path) {
    static constexpr std::string_view separators = "\\/";
    path->remove_prefix(std::min(path->find_first_not_of(separators), path->size()));
    std::string_view component = path->substr(0, path->find_first_of(separators));
    path->remove_prefix(component.size());
    return component;
}

// ---- Files

// Delivers `length` bytes from `offset` of the file. Whole sectors go straight into the buffer.
FileIOResult ReadBytes(Iso9660_Image* image, const Iso9660_File& file, uint32_t offset, uint8_t* buffer,
                       uint32_t length) {
    while (length != 0) {
        uint64_t sector = uint64_t{file.firstSector} + (offset >> ISO_SECTOR_SHIFT);
        uint32_t inSector = offset % ISO_SECTOR_SIZE;
        uint32_t run = 0;
        FileIOResult result = FileIOResult::Success;
        if (inSector == 0 && length >= ISO_SECTOR_SIZE) {
            uint32_t sectors = std::min(length, MAXIMUM_RUN) >> ISO_SECTOR_SHIFT;
            run = sectors << ISO_SECTOR_SHIFT;
            result = Iso9660ReadSectors(image, sector, sectors, buffer);
        } else {
            run = std::min(length, ISO_SECTOR_SIZE - inSector);
            result = Iso9660ReadSectors(image, sector, 1, image->scratch.data());
            if (result == FileIOResult::Success) {
                memcpy(buffer, &image->scratch[inSector], run);
            }
        }
        if (result != FileIOResult::Success) {
            return result;
        }
        buffer += run;
        offset += run;
        length -= run;
    }
    return FileIOResult::Success;
}

} // namespace

// ---- Shared with the other units

FileIOResult Iso9660ReadSectors(Iso9660_Image* image, uint64_t sector, uint32_t count, void* buffer) {
    uint64_t position = sector << ISO_SECTOR_SHIFT;
    if (!image->filePositionKnown || image->filePosition != position) {
        image->filePositionKnown = false;
        auto wanted = static_cast<int64_t>(position);
        if (FileIO_Seek(&image->file, wanted, FileIOSeekOrigin::Begin) != wanted) {
            return FileIOResult::Error;
        }
    }
    size_t length = size_t{count} << ISO_SECTOR_SHIFT;
    FileIOResult result = FileIO_Read(&image->file, buffer, length, nullptr);
    image->filePositionKnown = result == FileIOResult::Success;
    image->filePosition = position + length;
    return result;
}

Iso9660_Dir Iso9660RootDir(const Iso9660_Image* image) {
    IsoBytes record(image->root, ISO_ROOT_RECORD_LENGTH);
    uint32_t sector = IsoLittle32(record, ISO_RECORD_EXTENT);
    return {sector, sector, IsoLittle32(record, ISO_RECORD_SIZE), 0};
}

Iso9660_Result Iso9660NextRecord(Iso9660_Image* image, Iso9660_Dir* dir, IsoRecord* record) {
    for (;;) {
        uint64_t before = uint64_t{dir->currentSector - dir->firstSector} << ISO_SECTOR_SHIFT;
        if (before + dir->position >= dir->size) {
            return Iso9660_Result::End;
        }
        if (dir->position >= ISO_SECTOR_SIZE) {
            ++dir->currentSector;
            dir->position -= ISO_SECTOR_SIZE;
            continue;
        }
        Iso9660_Result loaded = LoadWindow(image, dir->currentSector);
        if (loaded != Iso9660_Result::Success) {
            return loaded;
        }
        uint32_t length = image->window.bytes[dir->position];
        if (length == 0) {
            ++dir->currentSector;
            dir->position = 0;
            continue;
        }
        if (dir->position + length > ISO_SECTOR_SIZE) {
            loaded = ExtendWindow(image);
            if (loaded != Iso9660_Result::Success) {
                return loaded;
            }
        }
        if (!IsoParseRecord(IsoBytes(image->window.bytes).subspan(dir->position, length), record)) {
            return Iso9660_Result::BadFormat;
        }
        dir->position += length;
        return Iso9660_Result::Success;
    }
}

Iso9660_Result Iso9660ReadListed(Iso9660_Image* image, Iso9660_Dir* dir, Iso9660_Entry* entry,
                                 bool* isSelfOrParent) {
    Iso9660_Dir next = *dir;
    IsoRecord record;
    Iso9660_Result result = Iso9660NextRecord(image, &next, &record);
    if (result != Iso9660_Result::Success) {
        return result;
    }
    IsoRockRidge rockRidge;
    result = Describe(image, record, &rockRidge);
    if (result != Iso9660_Result::Success) {
        return result;
    }
    FillEntry(image, record, rockRidge, entry);
    *isSelfOrParent = record.IsSelf() || record.IsParent();
    *dir = next;
    // The position counts from the current sector, the size from the first one: this ends a directory of at
    // most one sector a record early, when it is filled to its size, and no longer one.
    return dir->position >= dir->size ? Iso9660_Result::End : Iso9660_Result::Success;
}

bool Iso9660HoldsUdf(Iso9660_Image* image) {
    // The sequence that announces it: BEA01, one of the two NSR, TEA01, among at most a few others.
    static constexpr const char* passed[] = {"CD001", "BEA01", "BOOT2", "CDW02"};
    static constexpr uint64_t maximumSectors = 16;
    uint64_t end = std::min<uint64_t>(image->nextDescriptor + maximumSectors, ISO_END_OF_DESCRIPTORS);
    for (uint64_t sector = image->nextDescriptor; sector < end; ++sector) {
        IsoBytes descriptor(image->scratch);
        if (Iso9660ReadSectors(image, sector, 1, image->scratch.data()) != FileIOResult::Success) {
            return false;
        }
        if (IsoHasIdentifier(descriptor, "NSR02") || IsoHasIdentifier(descriptor, "NSR03")) {
            return true;
        }
        if (std::none_of(std::begin(passed), std::end(passed),
                         [&](const char* identifier) { return IsoHasIdentifier(descriptor, identifier); })) {
            return false;
        }
    }
    return false;
}

// ---- Public

Iso9660_Result Iso9660_Open(const char* path, uint32_t wanted, uint32_t mode, Iso9660_Image** image) {
    if (!path || !image) {
        return Iso9660_Result::InvalidArgument;
    }
    auto* opened = new (std::nothrow) Iso9660_Image;
    if (!opened) {
        return Iso9660_Result::OutOfMemory;
    }
    opened->flags = ISO9660_FLAG_OPENED;
    opened->mode = mode;
    Iso9660_Result result = Iso9660Guard([&] { return OpenImage(opened, path, wanted); });
    if (result != Iso9660_Result::Success) {
        Iso9660_Close(opened);
        return result;
    }
    *image = opened;
    return Iso9660_Result::Success;
}

Iso9660_Result Iso9660_Close(Iso9660_Image* image) {
    if (!image) {
        return Iso9660_Result::Success;
    }
    bool closed = FileIO_IsValid(&image->file) && !FileIO_Close(&image->file);
    delete image;
    return closed ? Iso9660_Result::Success : Iso9660_Result::IoError;
}

Iso9660_Result Iso9660_OpenDir(Iso9660_Image* image, const char* path, Iso9660_Dir* dir) {
    if (!Iso9660IsUsable(image) || !path || !dir) {
        return Iso9660_Result::InvalidArgument;
    }
    return Iso9660Guard([&] {
        Iso9660_Dir current = Iso9660RootDir(image);
        std::string_view rest(path);
        for (;;) {
            std::string_view component = TakeComponent(&rest);
            if (component.empty()) {
                *dir = current;
                return Iso9660_Result::Success;
            }
            Iso9660_Result result = Descend(image, &current, component);
            if (result != Iso9660_Result::Success) {
                return result;
            }
        }
    });
}

Iso9660_Result Iso9660_ReadDir(Iso9660_Image* image, Iso9660_Dir* dir, Iso9660_Entry* entry) {
    if (!Iso9660IsUsable(image) || !dir || !entry) {
        return Iso9660_Result::InvalidArgument;
    }
    return Iso9660Guard([&] {
        bool isSelfOrParent = false;
        return Iso9660ReadListed(image, dir, entry, &isSelfOrParent);
    });
}

Iso9660_Result Iso9660_OpenFile(Iso9660_Image* image, const Iso9660_Entry* entry, Iso9660_File* file) {
    if (!Iso9660IsUsable(image) || !entry || !file || entry->isDir) {
        return Iso9660_Result::InvalidArgument;
    }
    *file = {entry->firstSector, entry->size, 0};
    return Iso9660_Result::Success;
}

Iso9660_Result Iso9660_Read(Iso9660_Image* image, Iso9660_File* file, void* buffer, uint32_t* length) {
    if (!Iso9660IsUsable(image) || !file || !buffer || !length) {
        return Iso9660_Result::InvalidArgument;
    }
    if (file->position >= file->size) {
        *length = 0;
        return Iso9660_Result::End;
    }
    uint32_t wanted = std::min(*length, file->size - file->position);
    if (ReadBytes(image, *file, file->position, static_cast<uint8_t*>(buffer), wanted) !=
        FileIOResult::Success) {
        return Iso9660_Result::IoError;
    }
    file->position += wanted;
    *length = wanted;
    return Iso9660_Result::Success;
}
