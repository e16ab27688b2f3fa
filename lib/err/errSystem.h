// What the error texts need of the system, and the pieces that can be looked at one by one. errWin32.cpp is
// the real system; tests may bring their own.
#pragma once

#include <cstdint>
#include <string>

// The system's own text in United States English, as it comes; false when it has none.
bool ErrSystemMessage(uint32_t code, std::string* text);

uint32_t ErrSystemLastError();
void ErrSystemSetLastError(uint32_t code);

// Removes trailing "\n", "\r", "." and U+3002, in any mixture.
void ErrStripEnd(std::string* text);

// The text that the cache keeps for a code.
std::string ErrFormat(uint32_t code);

// The code whose text was given out as this very pointer; false for any other pointer.
bool ErrCodeOfString(const char* text, uint32_t* code);
