// Lists, reads and extracts a hostile image. The file system in memory ends the process when anything gets
// out of the target directory.
//
// An input is a byte of options and then, by the first of its bits,
//   - patches to a sound image: sector from 16 on (1 byte), offset (2, little-endian), count (1), the bytes;
//   - an image from sector 16 on, as it is. The sectors before have no part in the format.
// The second and third bits want Joliet and Rock Ridge.
#include "iso9660/fileMemory.h"
#include "iso9660/testImage.h"

#include "support/diagCapture.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace {

constexpr uint8_t OPTION_WHOLE = 1;
constexpr size_t DESCRIPTORS = 16 * TEST_SECTOR;

void Patch(std::vector<uint8_t>* image, const uint8_t* data, size_t size) {
    while (size > 4) {
        size_t offset = (16u + data[0]) * TEST_SECTOR + (data[1] | data[2] << 8) % TEST_SECTOR;
        size_t count = std::min<size_t>(data[3], size - 4);
        if (offset + count <= image->size()) {
            std::copy_n(data + 4, count, image->begin() + static_cast<ptrdiff_t>(offset));
        }
        data += 4 + count;
        size -= 4 + count;
    }
}

// To the end, or as far as a patient caller would go.
void ListAndRead(Iso9660_Image* image, const char* path) {
    Iso9660_Dir dir;
    if (Iso9660_OpenDir(image, path, &dir) != Iso9660_Result::Success) {
        return;
    }
    Iso9660_Entry entry;
    for (int i = 0; i < 200 && Iso9660_ReadDir(image, &dir, &entry) == Iso9660_Result::Success; ++i) {
        Iso9660_File file;
        if (Iso9660_OpenFile(image, &entry, &file) == Iso9660_Result::Success) {
            std::vector<uint8_t> buffer(3001); // neither a sector nor a multiple
            uint32_t length = static_cast<uint32_t>(buffer.size());
            while (Iso9660_Read(image, &file, buffer.data(), &length) == Iso9660_Result::Success) {
            }
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::vector<uint8_t> sound = SampleImage().bytes;
    if (size == 0) {
        return 0;
    }
    uint32_t wanted = data[0] & (ISO9660_WANT_JOLIET | ISO9660_WANT_ROCK_RIDGE);
    std::vector<uint8_t> bytes; // exactly as long as the image
    if ((data[0] & OPTION_WHOLE) != 0) {
        bytes.resize(DESCRIPTORS);
        bytes.insert(bytes.end(), data + 1, data + size);
    } else {
        bytes = sound;
        Patch(&bytes, data + 1, size - 1);
    }
    FileMemory_Reset(bytes);
    fileMemory.room = 1u << 20;
    Iso9660_Image* image = nullptr;
    if (Iso9660_Open(FILE_MEMORY_IMAGE, wanted, 0, &image) == Iso9660_Result::Success) {
        ListAndRead(image, "\\");
        ListAndRead(image, "Gr\u00FC\u00DFe");
        Iso9660_Extract(image, "\\", FILE_MEMORY_TARGET);
        Iso9660_Extract(image, "/readme.txt", FILE_MEMORY_TARGET);
        Iso9660_Close(image);
    }
    if (fileMemory.openFiles != 0) {
        abort();
    }
    DiagCapture_Take();
    return 0;
}
