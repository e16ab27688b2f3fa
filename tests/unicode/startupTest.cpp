// The start of the character sets, on systems with one code page or another: the test stands in for the
// system. It happens once in a process, so all of it is one test.
#include "misc/codesetSystem.h"
#include "support/diagCapture.h"
#include "unicode/unicode.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
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
using WideList = std::vector<const CodeSet_Unit*>;

const WideList GOOD = {u"program", u"na\xEFve", u"-p", nullptr};
const WideList BAD = {u"a\xD800", nullptr};

std::string FatalMessage(const WideList& wideArguments, Messages arguments, const WideList& wideEnvironment,
                         Messages environment) {
    try {
        Unicode_Startup(1, nullptr, wideArguments.empty() ? nullptr : wideArguments.data(),
                        wideEnvironment.empty() ? nullptr : wideEnvironment.data(), &arguments, &environment);
        return "";
    } catch (const DiagPanic& panic) {
        return panic.what();
    }
}

// Failures first, for success is final.
TEST(UnicodeStartup, HappensOnceAndFailsForGood) {
    ansiPage = 4242;
    EXPECT_EQ(FatalMessage({}, {}, {}, {}), "Unsupported local character encoding \"windows-4242\".\n");

    // ICU has no converter for page 708, so the system's conversions take over.
    ansiPage = 708;
    EXPECT_EQ(FatalMessage({}, {"invalid"}, {}, {}), "Unicode_AllocList2 failed.\n");
    EXPECT_FALSE(CodeSet_UsesIcu());
    EXPECT_EQ(FatalMessage({}, {"argument"}, {}, {"invalid"}), "Unicode_AllocList4 failed.\n");
    EXPECT_EQ(decodedBySystem, (Messages{"invalid", "argument", "invalid"}));

    // Without ICU no row is supported, and that is no reason to fail.
    hasIcu = false;
    DiagCapture_Take();
    ansiPage = 932;
    EXPECT_EQ(FatalMessage({}, {"invalid"}, {}, {}), "Unicode_AllocList2 failed.\n");
    EXPECT_EQ(DiagCapture_Take().debug, Messages{"CodeSet_Init: no ICU\n"});

    // A system whose code page is UTF-8.
    hasIcu = true;
    ansiPage = 65001;
    EXPECT_EQ(FatalMessage(BAD, {}, {}, {}), "Unicode_AllocList1 failed.\n");
    EXPECT_EQ(FatalMessage({}, {"a\xC3"}, {}, {}), "Unicode_AllocList2 failed.\n");
    EXPECT_EQ(FatalMessage(GOOD, {}, BAD, {}), "Unicode_AllocList3 failed.\n");
    Messages arguments = {"replaced"};
    Messages environment = {"A=na\xC3\xAFve"};
    Unicode_Startup(2, nullptr, GOOD.data(), nullptr, &arguments, &environment);
    EXPECT_EQ(arguments, (Messages{"program", "na\xC3\xAFve"}));
    EXPECT_EQ(environment, Messages{"A=na\xC3\xAFve"});
    EXPECT_TRUE(CodeSet_UsesIcu());

    // A later start does nothing, not even with lists that would be refused.
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([] { EXPECT_EQ(FatalMessage(BAD, {}, BAD, {}), ""); });
    }
    threads.clear();
    Unicode_Startup(nullptr);
}

} // namespace
