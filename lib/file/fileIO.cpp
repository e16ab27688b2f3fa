#include "file/fileIO.h"

void FileIO_Invalidate(FileIODescriptor* descriptor) {
    *descriptor = FileIODescriptor{};
}

bool FileIO_IsValid(const FileIODescriptor* descriptor) {
    return descriptor->handle != nullptr;
}

FileIOResult FileIO_Open(FileIODescriptor* descriptor, const char* name, uint32_t flags,
                         FileIOOpenAction action) {
    return FileIO_Create(descriptor, name, flags, action, 0);
}
