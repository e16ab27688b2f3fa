// The start on systems with other code pages than the one that runs this: the test stands in for the system.
#include "misc/codesetSystem.h"
#include "support/diagCapture.h"
#include "unicode/unicode.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

uint32_t ansiPage = 1252;
bool hasIcu = true;
std::vector<std::string> decodedBySystem;

} // namespace

bool CodeSetSystemLoadIcuData(const char*) {
    return hasIcu;
}
uint32_t CodeSetSystemAnsiPage() {
    return ansiPage;
}
bool CodeSetSystemToUtf16(const char*, size_t, char16_t*, size_t, size_t*) {
    return false;
}
bool CodeSetSystemFromUtf16(const char16_t*, size_t, char*, size_t, size_t*) {
    return false;
}
bool CodeSetSystemDecode(uint32_t, const char* text, size_t length, CodeSet_Mode, std::u16string* out) {
    decodedBySystem.emplace_back(text, length);
    if (decodedBySystem.back() == "invalid") {
        return false;
    }
    *out += u"decoded";
    return true;
}
bool CodeSetSystemEncode(uint32_t, const char16_t*, size_t, CodeSet_Mode, std::string*) {
    return false;
}

namespace {

using Messages = std::vector<std::string>;

std::string FatalMessage(Messages arguments, Messages environment) {
    try {
        Unicode_Startup(0, nullptr, nullptr, nullptr, &arguments, &environment);
        return "";
    } catch (const DiagPanic& panic) {
        return panic.what();
    }
}

// Failures first, for success is final.
TEST(LocalEncoding, DecidesHowTheLayerStarts) {
    ansiPage = 4242;
    EXPECT_EQ(FatalMessage({}, {}), "Unsupported local character encoding \"windows-4242\".\n");

    // ICU has no converter for page 708, so the system's conversions take over.
    ansiPage = 708;
    EXPECT_EQ(FatalMessage({"invalid"}, {}), "Unicode_AllocList2 failed.\n");
    EXPECT_FALSE(CodeSet_UsesIcu());
    EXPECT_EQ(FatalMessage({"argument"}, {"invalid"}), "Unicode_AllocList4 failed.\n");
    EXPECT_EQ(decodedBySystem, (Messages{"invalid", "argument", "invalid"}));

    // Without ICU no row is supported, and that is no reason to fail.
    hasIcu = false;
    DiagCapture_Take();
    ansiPage = 932;
    EXPECT_EQ(FatalMessage({"invalid"}, {}), "Unicode_AllocList2 failed.\n");
    EXPECT_EQ(DiagCapture_Take().debug, Messages{"CodeSet_Init: no ICU\n"});

    // A system whose code page is UTF-8.
    hasIcu = true;
    ansiPage = 65001;
    EXPECT_EQ(FatalMessage({"a\xC3"}, {}), "Unicode_AllocList2 failed.\n");
    Messages arguments = {"na\xC3\xAFve"};
    Unicode_Startup(0, nullptr, nullptr, nullptr, &arguments, nullptr);
    EXPECT_EQ(arguments, Messages{"na\xC3\xAFve"});
    EXPECT_TRUE(CodeSet_UsesIcu());
}

} // namespace
