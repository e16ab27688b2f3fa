// Extracts an image once and says how long that took.
//
//   isoExtract extract|bare IMAGE TARGET
//
// extract   what the program does: open the image, extract its root, close it
// bare      the floor of a program that copies the same files in the same chunks: the same calls and
//           nothing else, from a list that costs it nothing
//
// Prints "seconds" and, for the memory in use before and after, "private" in KiB.
#include "iso9660/iso9660.h"
#include "unicode/unicode.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <windows.h>

#include <psapi.h>

namespace {

constexpr DWORD SECTOR_SIZE = 2048;

struct Item {
    std::wstring path;
    bool isDir;
    uint32_t sector;
    uint32_t size;
};

[[noreturn]] void Fail(const char* what, uint32_t code) {
    fprintf(stderr, "isoExtract: %s failed (%u)\n", what, code);
    exit(1);
}

void Check(Iso9660_Result result, const char* what) {
    if (result != Iso9660_Result::Success) {
        Fail(what, static_cast<uint32_t>(result));
    }
}

double Seconds() {
    LARGE_INTEGER count;
    LARGE_INTEGER frequency;
    QueryPerformanceCounter(&count);
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(count.QuadPart) / static_cast<double>(frequency.QuadPart);
}

unsigned PrivateKib() {
    PROCESS_MEMORY_COUNTERS counters = {};
    counters.cb = sizeof(counters);
    GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters));
    return static_cast<unsigned>(counters.PagefileUsage / 1024);
}

std::wstring Wide(const char* text) {
    return Unicode_ToWide(text).value_or(L"");
}

void List(Iso9660_Image* image, const std::string& path, const std::wstring& target,
          std::vector<Item>* items) {
    Iso9660_Dir dir;
    Check(Iso9660_OpenDir(image, path.c_str(), &dir), "listing");
    Iso9660_Entry entry;
    while (Iso9660_ReadDir(image, &dir, &entry) == Iso9660_Result::Success) {
        if (strcmp(entry.name, ".") == 0 || strcmp(entry.name, "..") == 0) {
            continue;
        }
        std::wstring itemPath = target + L"\\" + Wide(entry.name);
        items->push_back({itemPath, entry.isDir, entry.firstSector, entry.size});
        if (entry.isDir) {
            List(image, path + "\\" + entry.name, itemPath, items);
        }
    }
}

std::vector<Item> ListImage(const char* path, const std::wstring& target) {
    Iso9660_Image* image = nullptr;
    Check(Iso9660_Open(path, ISO9660_WANT_JOLIET, 0, &image), "Iso9660_Open");
    std::vector<Item> items;
    List(image, "", target, &items);
    Iso9660_Close(image);
    return items;
}

HANDLE OpenFile(const std::wstring& path, DWORD access, DWORD disposition) {
    HANDLE file = CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, disposition,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        Fail("CreateFileW", GetLastError());
    }
    return file;
}

void CopyBare(HANDLE image, const Item& item, uint64_t* position) {
    HANDLE output = OpenFile(item.path, GENERIC_WRITE, CREATE_ALWAYS);
    uint64_t start = uint64_t{item.sector} * SECTOR_SIZE;
    if (item.size != 0 && start != *position) {
        LONG high = static_cast<LONG>(start >> 32);
        SetFilePointer(image, static_cast<LONG>(start), &high, FILE_BEGIN);
        *position = start;
    }
    for (uint32_t left = item.size; left != 0;) {
        char chunk[SECTOR_SIZE];
        DWORD done = 0;
        DWORD length = std::min<DWORD>(left, SECTOR_SIZE);
        if (!ReadFile(image, chunk, SECTOR_SIZE, &done, nullptr) || done != SECTOR_SIZE ||
            !WriteFile(output, chunk, length, &done, nullptr) || done != length) {
            Fail("copying", GetLastError());
        }
        *position += SECTOR_SIZE;
        left -= length;
    }
    CloseHandle(output);
}

void ExtractBare(const std::wstring& path, const std::vector<Item>& items) {
    HANDLE image = OpenFile(path, GENERIC_READ, OPEN_EXISTING);
    uint64_t position = 0;
    for (const Item& item : items) {
        if (!item.isDir) {
            CopyBare(image, item, &position);
        } else if (!CreateDirectoryW(item.path.c_str(), nullptr)) {
            Fail("CreateDirectoryW", GetLastError());
        }
    }
    CloseHandle(image);
}

void Extract(const char* path, const char* target) {
    Iso9660_Image* image = nullptr;
    Check(Iso9660_Open(path, ISO9660_WANT_JOLIET, 0, &image), "Iso9660_Open");
    Check(Iso9660_Extract(image, "\\", target), "Iso9660_Extract");
    Check(Iso9660_Close(image), "Iso9660_Close");
}

} // namespace

int main(int count, char** arguments) {
    if (count != 4) {
        fprintf(stderr, "usage: isoExtract extract|bare IMAGE TARGET\n");
        return 1;
    }
    bool bare = strcmp(arguments[1], "bare") == 0;
    const char* path = arguments[2];
    const char* target = arguments[3];
    std::wstring widePath = Wide(path);
    std::vector<Item> items;
    if (bare) {
        items = ListImage(path, Wide(target));
    }

    unsigned before = PrivateKib();
    double start = Seconds();
    if (bare) {
        ExtractBare(widePath, items);
    } else {
        Extract(path, target);
    }
    double seconds = Seconds() - start;
    printf("seconds %.6f\nprivate %u %u\n", seconds, before, PrivateKib());
    return 0;
}
