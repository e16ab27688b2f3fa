// The start of the character sets. It happens once in a process, so all of it is one test, with the failures
// first.
#include "support/diagCapture.h"
#include "unicode/unicode.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

using Messages = std::vector<std::string>;
using WideList = std::vector<const CodeSet_Unit*>;

const CodeSet_Unit* Text(const char16_t* text) {
    return reinterpret_cast<const CodeSet_Unit*>(text);
}

TEST(UnicodeStartup, HappensOnceAndFailsForGood) {
    const WideList good = {Text(u"na\xEFve"), nullptr};
    const WideList bad = {Text(u"a\xD800"), nullptr};
    Messages replaced;
    EXPECT_THROW(Unicode_Startup(1, nullptr, bad.data(), nullptr, &replaced, &replaced), DiagPanic);
    EXPECT_THROW(Unicode_Startup(1, nullptr, good.data(), bad.data(), &replaced, &replaced), DiagPanic);
    EXPECT_EQ(DiagCapture_Take().warning,
              (Messages{"Unicode_AllocList1 failed.\n", "Unicode_AllocList3 failed.\n"}));

    const WideList arguments = {Text(u"program"), Text(u"na\xEFve"), Text(u"-p"), nullptr};
    Messages narrowArguments = {"replaced"};
    Messages narrowEnvironment = {"PATH=C:\\", "A="};
    Unicode_Startup(2, nullptr, arguments.data(), nullptr, &narrowArguments, &narrowEnvironment);
    EXPECT_EQ(narrowArguments, (Messages{"program", "na\xC3\xAFve"}));
    EXPECT_EQ(narrowEnvironment, (Messages{"PATH=C:\\", "A="}));

    // A later start does nothing, not even with lists that would be refused.
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] {
            Messages untouched = {"untouched"};
            Unicode_Startup(1, nullptr, bad.data(), nullptr, &untouched, nullptr);
            EXPECT_EQ(untouched, Messages{"untouched"});
        });
    }
    threads.clear();
    Unicode_Startup(nullptr);
    EXPECT_EQ(DiagCapture_Take().warning, Messages{});
}

} // namespace
