// What the lock protocol needs of the system beside file.h: who we are, who is alive, time, and whole-block
// file access. Internal.
#pragma once

#include <cstdint>
#include <string>

struct FileLockIdentity {
    std::string machineID;    // "uuid=..." where the firmware has one, else as machineIDOld; no white space
    std::string machineIDOld; // the form used before, which other programs on this machine may still write
    std::string executionID;  // process id in decimal
};
// Worked out once for the process.
const FileLockIdentity& FileLockOwnIdentity();
// The creation time of this process as a FILETIME in decimal, "0" when it cannot be had.
std::string FileLockOwnPayload();

// The next of the process's own random numbers, 0 to 65535.
uint32_t FileLockDrawNumber();

// The name whose locks a file shares: absolute; a raw disk's stands in the temporary directory. errno-style
// code.
int FileLockNormalizePath(const char* name, std::string* path);

// False only when the process is certainly not there; or is another one, going by its creation time, where
// that is to be checked. Doubt counts as alive.
bool HardProcessValidation(int32_t processId, bool checkTime, uint64_t creationTime);

void FileLockSleep(uint32_t milliseconds);
int FileLockLastError(); // the system's own code behind the last failure, for messages

// An open member or entry file; closed by its owner if nobody has done so.
class FileLockFile {
public:
    FileLockFile() = default;
    FileLockFile(const FileLockFile&) = delete;
    FileLockFile& operator=(const FileLockFile&) = delete;
    ~FileLockFile();

    void* handle = nullptr;
};

// Open flags: the low two bits are the access, 0 for reading, 1 for writing, 2 and 3 for both.
inline constexpr uint32_t FILELOCK_OPEN_READ = 0x0;
inline constexpr uint32_t FILELOCK_OPEN_WRITE = 0x1;
inline constexpr uint32_t FILELOCK_OPEN_CREATE = 0x100; // made if it is missing

// errno-style codes. Others may read, write and delete the file meanwhile. A held file is tried six times in
// half a second.
int FileLockOpenFile(const std::string& name, uint32_t flags, FileLockFile* file);
int FileLockCloseFile(FileLockFile* file);
int FileLockReadFile(FileLockFile* file, void* buffer, uint32_t length, uint32_t* done);
int FileLockWriteFile(FileLockFile* file, const void* buffer, uint32_t length, uint32_t* done);
