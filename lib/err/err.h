// Texts for Windows error codes, cached for the life of the process.
#pragma once

#include <cstdint>

// The text of a code in UTF-8, United States English, without trailing line ends and full stops; a code that
// the system does not know reads "Unknown error 305419896 (0x12345678)". At most 2047 bytes. The pointer
// stays valid for ever and is the same for every call with the same code; only the first call for a code
// allocates. Preserves the thread's last error. Any thread, without a lock.
const char* Err_ErrString(uint32_t code);

// The text of the thread's last error.
const char* Err_LastErrString();
