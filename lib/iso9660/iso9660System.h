// The two things that only the system knows.
#pragma once

#include <string>

// The guest's host name in UTF-8; false when it cannot be had.
bool Iso9660HostName(std::string* name);

// Why the file call that just failed on this thread failed, for a log line. Preserves the error.
std::string Iso9660LastError();
