#include "isoSystemDouble.h"

#include "iso9660/iso9660System.h"

#include <cerrno>
#include <system_error>

std::optional<std::string> isoTestHostName = "testhost";

bool Iso9660HostName(std::string* name) {
    if (isoTestHostName) {
        *name = *isoTestHostName;
    }
    return isoTestHostName.has_value();
}

std::string Iso9660LastError() {
    return std::generic_category().message(errno);
}
