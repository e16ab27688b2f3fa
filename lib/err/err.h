// Texts for Windows error codes, cached for the life of the process.
#pragma once

#include <cstdint>

// The text of a code in UTF-8, without trailing line ends and full stops. The pointer stays valid for ever and
// is the same for every call with the same code. Preserves the thread's last error. Any thread.
const char* Err_ErrString(uint32_t code);
const char* Err_LastErrString();
