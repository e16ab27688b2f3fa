#include "file/fileRules.h"

#include <algorithm>
#include <array>

namespace {

struct ErrnoRow {
    uint32_t win32Error;
    int code;
};

// Sorted by Windows error, for the search. The codes are errno values of the Windows C runtime.
constexpr auto ERRNO_ROWS = std::to_array<ErrnoRow>({
    {0, 0},    {1, 22},   {2, 2},    {3, 2},    {4, 24},   {5, 13},   {6, 9},    {8, 12},
    {12, 22},  {14, 12},  {16, 16},  {19, 30},  {27, 5},   {29, 5},   {30, 5},   {31, 5},
    {50, 40},  {80, 17},  {82, 13},  {87, 22},  {112, 28}, {123, 22}, {145, 41}, {148, 16},
    {160, 22}, {183, 17}, {206, 38}, {267, 20}, {303, 2},  {487, 14},
});
static_assert(std::ranges::is_sorted(ERRNO_ROWS, {}, &ErrnoRow::win32Error));

// What CreateFileW takes, by value: desired access, share mode, flags and attributes.
constexpr uint32_t GENERIC_READ_ACCESS = 0x80000000;
constexpr uint32_t GENERIC_WRITE_ACCESS = 0x40000000;
constexpr uint32_t SHARE_READ = 0x1;
constexpr uint32_t SHARE_WRITE = 0x2;
constexpr uint32_t ATTRIBUTE_NORMAL = 0x80;

// Creation dispositions by open action: OPEN_EXISTING, TRUNCATE_EXISTING, OPEN_ALWAYS, CREATE_NEW,
// CREATE_ALWAYS.
constexpr std::array<uint32_t, 5> DISPOSITIONS{3, 5, 4, 1, 2};

struct OptionRow {
    uint32_t option;
    uint32_t win32Flags;
};
constexpr auto OPTION_ROWS = std::to_array<OptionRow>({
    {FILEIO_OPEN_SYNC, 0x80000000},            // FILE_FLAG_WRITE_THROUGH
    {FILEIO_OPEN_DELETE_ON_CLOSE, 0x04000002}, // FILE_FLAG_DELETE_ON_CLOSE and FILE_ATTRIBUTE_HIDDEN
    {FILEIO_OPEN_UNBUFFERED, 0x20000000},      // FILE_FLAG_NO_BUFFERING
    {FILEIO_OPEN_ASYNC, 0x60000000},           // FILE_FLAG_OVERLAPPED and FILE_FLAG_NO_BUFFERING
    {FILEIO_OPEN_SEQUENTIAL, 0x08000000},      // FILE_FLAG_SEQUENTIAL_SCAN
});

} // namespace

std::optional<int> FileErrnoFromWin32(uint32_t win32Error) {
    const auto* row = std::ranges::lower_bound(ERRNO_ROWS, win32Error, {}, &ErrnoRow::win32Error);
    if (row == ERRNO_ROWS.end() || row->win32Error != win32Error) {
        return std::nullopt;
    }
    return row->code;
}

uint32_t FileRandomAdvance(uint32_t state) {
    // Twice the multiplier, so that the product's high half is the quotient by 2^31 and the halved low half
    // the remainder; their sum is congruent to the product modulo 2^31 - 1.
    constexpr uint64_t TWICE_MULTIPLIER = uint64_t{2} * 16807;
    uint64_t product = state * TWICE_MULTIPLIER;
    uint32_t sum = (static_cast<uint32_t>(product) >> 1) + static_cast<uint32_t>(product >> 32);
    return static_cast<int32_t>(sum) > 0 ? sum : (sum & 0x7FFFFFFF) + 1;
}

uint32_t FileRandomScale(uint32_t state, uint32_t minMs, uint32_t maxMs) {
    float share = static_cast<float>(state) * 4.656613e-10F * static_cast<float>(maxMs - minMs);
    return minMs + static_cast<uint32_t>(share);
}

bool FileIsNameTooLong(std::string_view name, size_t wideLength) {
    return wideLength > FILE_MAX_NAME && !name.starts_with(FILE_VERBATIM_PREFIX);
}

FileIOOpenArguments FileIOTranslate(uint32_t flags, FileIOOpenAction action) {
    FileIOOpenArguments arguments{};
    arguments.desiredAccess = ((flags & FILEIO_OPEN_READ) != 0 ? GENERIC_READ_ACCESS : 0) |
                              ((flags & FILEIO_OPEN_WRITE) != 0 ? GENERIC_WRITE_ACCESS : 0);
    arguments.shareMode = ((flags & FILEIO_OPEN_EXCLUSIVE_READ) != 0 ? 0 : SHARE_READ) |
                          ((flags & FILEIO_OPEN_EXCLUSIVE_WRITE) != 0 ? 0 : SHARE_WRITE);
    arguments.creationDisposition = DISPOSITIONS.at(static_cast<size_t>(action));
    arguments.flagsAndAttributes = ATTRIBUTE_NORMAL;
    for (const OptionRow& row : OPTION_ROWS) {
        if ((flags & row.option) != 0) {
            arguments.flagsAndAttributes |= row.win32Flags;
        }
    }
    return arguments;
}

std::optional<FileIOResult> FileIOResultFromWin32(uint32_t win32Error) {
    switch (win32Error) {
    case 2:
    case 3:
        return FileIOResult::FileNotFound;
    case 5:
    case 12:
    case 19:
        return FileIOResult::NoPermission;
    case 80:
    case 183:
        return FileIOResult::FileExists;
    default:
        return std::nullopt;
    }
}

FileIOResult FileIOResultFromLockError(int error) {
    switch (error) {
    case 0:
    case FILE_EROFS:
        return FileIOResult::LockFailed;
    case FILE_ENOENT:
        return FileIOResult::FileNotFound;
    case FILE_EACCES:
        return FileIOResult::NoPermission;
    case FILE_ENAMETOOLONG:
        return FileIOResult::NameTooLong;
    default:
        return FileIOResult::Error;
    }
}

size_t FileRenameListInsert(std::span<char> text, size_t used, std::string_view line) {
    size_t header = std::string_view(text.data(), used).find(FILE_RENAME_SECTION);
    size_t insertAt = header + FILE_RENAME_SECTION.size();
    if (header == std::string_view::npos) {
        std::ranges::copy(FILE_RENAME_SECTION, text.subspan(used).begin());
        used += FILE_RENAME_SECTION.size();
        insertAt = used;
    }
    std::span<char> behind = text.subspan(insertAt, used - insertAt);
    std::ranges::copy_backward(behind, text.first(used + line.size()).end());
    std::ranges::copy(line, text.subspan(insertAt).begin());
    return used + line.size();
}
