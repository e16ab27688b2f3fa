// Buffers that the native file calls fill, taken apart with every length checked. Neutral, so that tests can
// feed them what no test machine's file systems produce.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// The path form of the native calls: `\??\` in front of a drive path (a letter, ':' and '\', one '\' more
// dropped), every other path as it is.
std::u16string HgfsNative_Path(std::u16string_view path);

// FileStreamInformation: whether a file has anything besides its default stream, "::$DATA". A directory has
// no streams at all unless it was given some.
bool HgfsNative_HasMoreStreams(std::span<const uint8_t> information);

// FileNamesInformation: calls `entry` for each name. Stops at the first record that does not lie within the
// buffer.
using HgfsNativeEntry = void (*)(void* data, std::u16string_view name);
void HgfsNative_WalkNames(std::span<const uint8_t> information, HgfsNativeEntry entry, void* data);

// A reparse point's data: where a symbolic link or mount point leads, as it would be shown, empty for
// anything else.
std::u16string HgfsNative_LinkTarget(std::span<const uint8_t> reparse);
