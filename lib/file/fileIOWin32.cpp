#include "file/fileIO.h"

#include "file/fileCallsWin32.h"
#include "file/fileLock.h"
#include "file/fileRules.h"
#include "misc/diag.h"

#include <cstring>
#include <utility>

namespace {

// Transfers of this length and more do not fit the calls' signed view of a length.
constexpr size_t TRANSFER_LIMIT = 0x80000000;
constexpr const char* UNIT = "lib/file/fileIOWin32";
constexpr int WRITE_GUARD_LINE = 556;
constexpr int READ_GUARD_LINE = 617;

void FileIOStore(size_t* out, size_t value) {
    if (out != nullptr) {
        *out = value;
    }
}

// Ends an open that took the lock but got no file.
FileIOResult FileIOAbandon(FileIODescriptor* descriptor, uint32_t win32Error, FileIOResult result) {
    FileIO_Unlock(descriptor);
    FileIO_Invalidate(descriptor);
    SetLastError(win32Error);
    return result;
}

FileIOResult FileIOReportOpenError(uint32_t win32Error) {
    std::optional<FileIOResult> result = FileIOResultFromWin32(win32Error);
    if (!result) {
        Warning("%s: Unrecognized error code: %u\n", "FileIO_Create", win32Error);
    }
    return result.value_or(FileIOResult::Error);
}

} // namespace

FileIOResult FileIO_Create(FileIODescriptor* descriptor, const char* name, uint32_t flags,
                           FileIOOpenAction action, uint32_t /*permissions*/) {
    FileIO_Invalidate(descriptor);
    if (name == nullptr) {
        SetLastError(ERROR_INVALID_ADDRESS);
        return FileIOResult::Error;
    }
    descriptor->fileName = name;
    FileIOResult locked = FileIO_Lock(descriptor, flags);
    if (locked != FileIOResult::Success) {
        FileIO_Invalidate(descriptor);
        return locked;
    }
    FileIOOpenArguments arguments = FileIOTranslate(flags, action);
    descriptor->flags = flags;
    std::wstring wide;
    uint32_t error = FileWideName(name, &wide);
    if (error != ERROR_SUCCESS) {
        return FileIOAbandon(descriptor, error, FileIOReportOpenError(error));
    }
    if (FileIsNameTooLong(name, wide.size())) {
        return FileIOAbandon(descriptor, ERROR_INVALID_PARAMETER, FileIOResult::NameTooLong);
    }
    HANDLE handle =
        fileWin32Calls.createFile(wide.c_str(), arguments.desiredAccess, arguments.shareMode, nullptr,
                                  arguments.creationDisposition, arguments.flagsAndAttributes, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        error = GetLastError();
        return FileIOAbandon(descriptor, error, FileIOReportOpenError(error));
    }
    descriptor->handle = handle;
    return FileIOResult::Success;
}

int64_t FileIO_Seek(FileIODescriptor* descriptor, int64_t distance, FileIOSeekOrigin origin) {
    static_assert(FILE_BEGIN == 0 && FILE_CURRENT == 1 && FILE_END == 2);
    LONG high = static_cast<LONG>(distance >> 32);
    SetLastError(ERROR_SUCCESS); // all ones is a low half like any other unless there is an error, too
    DWORD low = fileWin32Calls.setFilePointer(descriptor->handle, static_cast<LONG>(distance), &high,
                                              static_cast<DWORD>(origin));
    if (low == INVALID_SET_FILE_POINTER && GetLastError() != ERROR_SUCCESS) {
        return -1;
    }
    return static_cast<int64_t>(uint64_t{static_cast<uint32_t>(high)} << 32 | low);
}

FileIOResult FileIO_Write(FileIODescriptor* descriptor, const void* buffer, size_t length, size_t* actual) {
    if (length >= TRANSFER_LIMIT) {
        Diag_NotImplemented(UNIT, WRITE_GUARD_LINE);
    }
    size_t done = 0;
    FileIOResult result = FileIOResult::Success;
    while (done < length && result == FileIOResult::Success) {
        DWORD written = 0;
        if (!fileWin32Calls.writeFile(descriptor->handle, static_cast<const char*>(buffer) + done,
                                      static_cast<DWORD>(length - done), &written, nullptr)) {
            result = FileIOResult::Error;
        } else if (written == 0) { // would be tried for ever
            SetLastError(ERROR_WRITE_FAULT);
            result = FileIOResult::Error;
        }
        done += written;
    }
    FileIOStore(actual, done);
    return result;
}

FileIOResult FileIO_Read(FileIODescriptor* descriptor, void* buffer, size_t length, size_t* actual) {
    if (length >= TRANSFER_LIMIT) {
        Diag_NotImplemented(UNIT, READ_GUARD_LINE);
    }
    size_t done = 0;
    FileIOResult result = FileIOResult::Success;
    while (done < length && result == FileIOResult::Success) {
        DWORD transferred = 0;
        if (!fileWin32Calls.readFile(descriptor->handle, static_cast<char*>(buffer) + done,
                                     static_cast<DWORD>(length - done), &transferred, nullptr)) {
            result = FileIOResult::Error;
        } else if (transferred == 0) {
            result = FileIOResult::EndOfFile;
        }
        done += transferred;
    }
    FileIOStore(actual, done);
    return result;
}

bool FileIO_Close(FileIODescriptor* descriptor) {
    uint32_t error = fileWin32Calls.closeHandle(descriptor->handle) ? ERROR_SUCCESS : GetLastError();
    FileIO_Unlock(descriptor);
    FileIO_Invalidate(descriptor);
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
    }
    return error != ERROR_SUCCESS;
}

FileIOResult FileIO_Access(const char* name, uint32_t mode) {
    std::wstring wide;
    uint32_t error = FileWideName(name, &wide);
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return FileIOResult::Error;
    }
    DWORD attributes = fileWin32Calls.getFileAttributes(wide.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        return FileIOResult::Error;
    }
    bool refused = (mode & FILEIO_ACCESS_WRITE) != 0 && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 &&
                   (attributes & FILE_ATTRIBUTE_READONLY) != 0;
    return refused ? FileIOResult::Error : FileIOResult::Success;
}

FileIOResult FileIO_Lock(FileIODescriptor* descriptor, uint32_t flags) {
    constexpr uint32_t MAX_WAIT_MS = 2500;
    if ((flags & FILEIO_OPEN_LOCKED) == 0) {
        return FileIOResult::Success;
    }
    const char* name = descriptor->fileName.c_str();
    int error = 0;
    descriptor->lockToken = FileLock_Lock(name, (flags & FILEIO_OPEN_WRITE) == 0, MAX_WAIT_MS, &error);
    if (descriptor->lockToken != nullptr) {
        return FileIOResult::Success;
    }
    DWORD lastError = GetLastError();
    Warning("FILE: %s on '%s' failed: %s\n", "FileIO_Lock", name,
            error == 0 ? "Lock timed out" : strerror(error));
    SetLastError(lastError);
    return FileIOResultFromLockError(error);
}

FileIOResult FileIO_Unlock(FileIODescriptor* descriptor) {
    if (descriptor->lockToken == nullptr) {
        return FileIOResult::Success;
    }
    const char* name = descriptor->fileName.c_str();
    int error = FileLock_Unlock(name, std::exchange(descriptor->lockToken, nullptr));
    if (error != 0) {
        DWORD lastError = GetLastError();
        Warning("FILE: %s on '%s' failed: %s\n", "FileIO_Unlock", name, strerror(error));
        SetLastError(lastError);
        return FileIOResult::Error;
    }
    return FileIOResult::Success;
}
