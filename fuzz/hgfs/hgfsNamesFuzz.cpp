// Names: whatever converts is a path that Windows can hold and that comes back as the name it was made of, in
// any room.
#include "hgfslib/cpName.h"
#include "hgfslib/hgfsEscape.h"
#include "support/diagCapture.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

void Check(bool holds) {
    if (!holds) {
        std::abort();
    }
}

// Components joined by single NULs, as a converted name's are by backslashes.
std::string WithoutRuns(const std::string& name) {
    std::string single = name;
    single.erase(
        std::unique(single.begin(), single.end(), [](char l, char r) { return l == '\0' && r == '\0'; }),
        single.end());
    return single;
}

void ConvertAndBack(const std::string& name, size_t room) {
    std::vector<char> in(name.begin(), name.end());
    std::vector<char> out(room);
    CPNameCursor cursor = {in.data(), in.size(), out.data(), room};
    if (!CPName_ConvertToLocal(&cursor)) {
        return;
    }
    Check(cursor.inSize == 0 && cursor.in == in.data() + in.size() && *cursor.out == '\0');
    std::string path(out.data(), cursor.out);
    Check(path.size() + cursor.room == room);
    if (path.empty()) {
        Check(name.empty());
        return;
    }
    Check(path.front() == '\\' && path.find('\0') == std::string::npos);
    path.erase(0, 1);
    Check(path.find_first_of("/*?:\"<>|") == std::string::npos);
    std::ranges::replace(path, '\\', '\0');
    ptrdiff_t length = HgfsEscape_Reverse(path.data(), path.size());
    Check(length >= 0);
    path.resize(static_cast<size_t>(length));
    Check(path == WithoutRuns(name));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    std::string bytes(data + 2, data + size);
    ConvertAndBack(bytes, 3 * bytes.size() + 1);
    ConvertAndBack(bytes, data[0] + data[1] * 16u);

    std::vector<char> out(data[0]);
    CPNameCursor root = {bytes.data(), bytes.size(), out.data(), out.size()};
    CPName_ConvertFromRoot(&root);
    Check(HgfsEscape_Apply(bytes.data(), bytes.size(), out.size(), out.data()) <=
          static_cast<ptrdiff_t>(out.size()));
    ptrdiff_t reversed = HgfsEscape_Reverse(bytes.data(), bytes.size());
    Check(reversed >= 0 && static_cast<size_t>(reversed) <= bytes.size());
    DiagCapture_Take();
    return 0;
}
