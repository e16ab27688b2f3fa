#include "upgrader/usageText.h"

#include "string/str.h"

namespace {

constexpr size_t MAX_BYTES = 1023;

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

} // namespace

std::string UsageText_Format(const UsageTexts& texts, const std::string& programName) {
    static const std::string gap(20, ' ');
    // The heading stands before the usage line; users know the box that way.
    std::string text =
        Str_Format("%s %s: %s [%s]\n %s %s %s %s %s %s %s %s", texts.heading.c_str(), texts.usage.c_str(),
                   programName.c_str(), texts.options.c_str(), "-p \"<args>\"    ",
                   texts.passArguments.c_str(), ("-c" + gap).c_str(), texts.deleteFiles.c_str(),
                   ("-s" + gap).c_str(), texts.shutDown.c_str(), ("-h" + gap).c_str(), texts.help.c_str());
    if (text.size() > MAX_BYTES) {
        size_t end = MAX_BYTES;
        while (end > 0 && IsContinuation(text[end])) {
            --end;
        }
        text.resize(end);
    }
    return text;
}
