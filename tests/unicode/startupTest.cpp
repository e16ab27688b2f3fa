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
using Wide = CodeSet_Utf16;

struct WideList {
    explicit WideList(std::vector<Wide> list) : texts(std::move(list)) {
        for (const Wide& text : texts) {
            pointers.push_back(text.c_str());
        }
        pointers.push_back(nullptr);
    }
    std::vector<Wide> texts;
    std::vector<const CodeSet_Unit*> pointers;
};

Wide Text(std::u16string_view text) {
    return Wide(text.begin(), text.end());
}

void ExpectFatal(const CodeSet_Unit* const* wideArguments, const CodeSet_Unit* const* wideEnvironment,
                 const Messages& arguments, const Messages& environment, const char* message) {
    Messages argumentsNow = arguments;
    Messages environmentNow = environment;
    EXPECT_THROW(Unicode_Startup(1, nullptr, wideArguments, wideEnvironment, &argumentsNow, &environmentNow),
                 DiagPanic);
    EXPECT_EQ(DiagCapture_Take().warning, Messages{message});
}

TEST(UnicodeStartup, HappensOnceAndFailsForGood) {
    const WideList good({Text(u"na\xEFve")});
    const WideList bad({Text(u"a\xD800")});
    // 0x81 stands for no character in the code pages of East Asia only, so these depend on the local one.
    ExpectFatal(bad.pointers.data(), nullptr, {}, {}, "Unicode_AllocList1 failed.\n");
    ExpectFatal(good.pointers.data(), bad.pointers.data(), {}, {}, "Unicode_AllocList3 failed.\n");

    const WideList arguments({Text(u"program"), Text(u"-p"), Text(u"na\xEFve")});
    Messages narrowArguments = {"replaced"};
    Messages narrowEnvironment = {"PATH=C:\\", "A="};
    Unicode_Startup(2, nullptr, arguments.pointers.data(), nullptr, &narrowArguments, &narrowEnvironment);
    EXPECT_EQ(narrowArguments, (Messages{"program", "-p"}));
    EXPECT_EQ(narrowEnvironment, (Messages{"PATH=C:\\", "A="}));

    // A later start does nothing, not even with lists that would be refused.
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] {
            Messages untouched = {"untouched"};
            Unicode_Startup(1, nullptr, bad.pointers.data(), nullptr, &untouched, nullptr);
            EXPECT_EQ(untouched, Messages{"untouched"});
        });
    }
    threads.clear();
    Unicode_Startup(nullptr);
    EXPECT_EQ(DiagCapture_Take().warning, Messages{});
}

} // namespace
