#include "hgfsFixture.h"

#include "hgfslib/cpName.h"
#include "hgfslib/hgfsEscape.h"

#include <random>

using namespace std::string_literals;
using namespace std::string_view_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// A conversion into a buffer of exactly `room` bytes; none when it fails.
struct Converted {
    bool ok;
    std::string text;
    size_t inputLeft;
    size_t room;
};
using Conversion = bool (*)(CPNameCursor*);

Converted Convert(Conversion conversion, std::string_view name, size_t room = 200) {
    std::vector<char> out(room, 'X');
    std::vector<char> in(name.begin(), name.end());
    CPNameCursor cursor = {in.data(), in.size(), out.data(), room};
    bool ok = conversion(&cursor);
    Converted result = {ok, "", cursor.inSize, cursor.room};
    if (ok) {
        result.text.assign(out.data(), cursor.out);
        EXPECT_EQ(*cursor.out, '\0');
        EXPECT_EQ(cursor.in, in.data() + in.size());
        EXPECT_EQ(result.text.size() + cursor.room, room);
    }
    return result;
}

std::vector<std::string> Warnings() {
    return DiagCapture_Take().warning;
}

class CpName : public ::testing::Test {
protected:
    void SetUp() override { DiagCapture_Take(); }
};

TEST_F(CpName, TakesComponents) {
    const char name[] = {'a', 'b', 0, 0, 'c'};
    const char* next = nullptr;
    EXPECT_EQ(CPName_GetComponent(name, name + 5, &next), 2);
    EXPECT_EQ(next, name + 4);
    EXPECT_EQ(CPName_GetComponent(next, name + 5, &next), 1);
    EXPECT_EQ(next, name + 5);
    EXPECT_EQ(CPName_GetComponent(next, name + 5, &next), 0);
    EXPECT_EQ(next, name + 5);
    EXPECT_THAT(Warnings(), IsEmpty());
}

TEST_F(CpName, JoinsComponentsWithBackslashes) {
    EXPECT_EQ(Convert(CPName_ConvertToLocal, "a\0\0b"s).text, "\\a\\b");
    EXPECT_EQ(Convert(CPName_ConvertToLocal, ""s).text, "");
    EXPECT_EQ(Convert(CPName_ConvertToLocal, "...\0.a\0a."s).text, "\\...%\\.a\\a.%");
    // A run of separators is one also when something is escaped.
    EXPECT_EQ(Convert(CPName_ConvertToLocal, "a:\0\0\0b\0\0c?"s).text, "\\a^%\\b\\c$%");
    EXPECT_THAT(Warnings(), IsEmpty());
}

TEST_F(CpName, RefusesMalformedNames) {
    struct Case {
        std::string name;
        std::vector<std::string> warnings;
    };
    const std::string first = "CPName_GetComponent: error: first char can't be NUL\n";
    const std::string last = "CPName_GetComponent: error: last char can't be NUL\n";
    const std::string next = "CPNameConvertFrom: error: get next component failed\n";
    const std::string dots = "CPNameConvertFrom: error: found dot/dotdot\n";
    const Case cases[] = {
        {"\0a"s, {first, next}},
        {"a\0"s, {last, next}},
        {"a\0..\0b"s, {dots}},
        {"."s, {dots}},
        {"\0a:"s, {first, next}},
        {"a:\0"s, {last, next}},
        {"a:\0..\0b"s, {dots}},
        {"\0"s, {first, next}},
        {"a:\0\0"s, {last, "HgfsEscape_GetSize: failed to calculate escapde name size - name is invalid\n"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.name));
        EXPECT_FALSE(Convert(CPName_ConvertToLocal, c.name).ok);
        EXPECT_THAT(Warnings(), ::testing::ElementsAreArray(c.warnings));
    }
}

// Each room from none to enough: never a byte behind it, which the exactly sized buffer shows under
// sanitizers, and success from the first room that holds the text and its NUL.
TEST_F(CpName, KeepsToItsRoom) {
    for (std::string_view name : {"ab\0c"sv, "a:b\0con\0x."sv, "con\0\0nul"sv}) {
        const std::string whole = Convert(CPName_ConvertToLocal, name).text;
        for (size_t room = 0; room <= whole.size() + 2; ++room) {
            Converted converted = Convert(CPName_ConvertToLocal, name, room);
            EXPECT_EQ(converted.ok, room > whole.size()) << "room " << room << " for " << whole;
            EXPECT_EQ(Warnings().empty(), converted.ok) << room << ' ' << whole;
        }
    }
}

TEST_F(CpName, SaysWhatLacksRoom) {
    Convert(CPName_ConvertToLocal, "abc", 3);
    EXPECT_THAT(Warnings(), ElementsAre("CPNameConvertFrom: error: not enough room\n"));
    Convert(CPName_ConvertToLocal, "a:c", 3);
    EXPECT_THAT(Warnings(), ElementsAre("CPNameEscapeAndConvertFrom: error: not enough room for escaping\n"));
}

struct RootCase {
    std::string name;
    HgfsNameStatus status;
    std::string prefix;
    size_t left;
    std::vector<std::string> warnings;
};

TEST_F(CpName, BuildsThePrefixBelowTheRootShare) {
    const std::string first = "CPName_GetComponent: error: first char can't be NUL\n";
    const std::string last = "CPName_GetComponent: error: last char can't be NUL\n";
    const RootCase cases[] = {
        {"drive\0C\0tmp\0f"s, HgfsNameComplete, "C:\\", 5, {}},
        {"drive\0C"s, HgfsNameComplete, "C:\\", 0, {}},
        {"unc\0srv\0share\0f"s, HgfsNameComplete, "\\\\srv", 7, {}},
        {"unc\0srv"s, HgfsNameIncompleteMachine, "srv", 3, {}},
        {"drive", HgfsNameIncompleteDrive, "", 5, {}},
        {"unc", HgfsNameIncompleteUnc, "", 3, {}},
        {"", HgfsNameIncompleteRoot, "", 0, {}},
        {"Drive\0C"s,
         HgfsNameDoesNotExist,
         "",
         7,
         {"CPName_ConvertFromRoot: First component does not exist\n"}},
        {"drives\0C"s,
         HgfsNameDoesNotExist,
         "",
         8,
         {"CPName_ConvertFromRoot: First component does not exist\n"}},
        {"\0drive"s, HgfsNameFailure, "", 6, {first, "CPName_ConvertFromRoot: get first component failed\n"}},
        {"drive\0"s, HgfsNameFailure, "", 6, {last, "CPName_ConvertFromRoot: get first component failed\n"}},
        {"drive\0C\0"s, HgfsNameFailure, "", 8, {last, "CPName_ConvertFromRoot: failed to get drive name\n"}},
        {"unc\0srv\0"s,
         HgfsNameFailure,
         "",
         8,
         {last, "CPName_ConvertFromRoot: failed to get machine name\n"}},
    };
    for (const RootCase& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.name));
        std::vector<char> out(20, 'X');
        CPNameCursor cursor = {c.name.data(), c.name.size(), out.data(), out.size()};
        EXPECT_EQ(CPName_ConvertFromRoot(&cursor), c.status);
        EXPECT_EQ(std::string(out.data(), cursor.out), c.prefix);
        EXPECT_EQ(cursor.inSize, c.left);
        EXPECT_EQ(cursor.in, c.name.data() + c.name.size() - c.left);
        EXPECT_EQ(cursor.room, out.size() - c.prefix.size());
        EXPECT_THAT(Warnings(), ::testing::ElementsAreArray(c.warnings));
    }
}

TEST_F(CpName, ChecksTheRoomOfThePrefix) {
    struct Case {
        std::string name;
        size_t needed;
        HgfsNameStatus whenEnough;
    };
    const Case cases[] = {{"drive\0CD\0f"s, 5, HgfsNameComplete},
                          {"unc\0srv\0f"s, 6, HgfsNameComplete},
                          {"unc\0srv"s, 4, HgfsNameIncompleteMachine}};
    for (const Case& c : cases) {
        for (size_t room = 0; room <= c.needed; ++room) {
            std::vector<char> out(room);
            CPNameCursor cursor = {c.name.data(), c.name.size(), out.data(), room};
            const bool enough = room == c.needed;
            EXPECT_EQ(CPName_ConvertFromRoot(&cursor), enough ? c.whenEnough : HgfsNameFailure);
            EXPECT_EQ(Warnings().size(), enough ? 0u : 1u);
        }
    }
}

// ---- Escaping ----

std::string Escaped(std::string_view name) {
    ptrdiff_t size = HgfsEscape_GetSize(name.data(), name.size());
    if (size == 0) {
        return std::string(name);
    }
    EXPECT_GT(size, 0);
    std::vector<char> out(static_cast<size_t>(size));
    EXPECT_EQ(HgfsEscape_Apply(name.data(), name.size(), out.size(), out.data()), size);
    return std::string(out.begin(), out.end());
}

std::string Reversed(std::string name) {
    ptrdiff_t size = HgfsEscape_Reverse(name.data(), name.size());
    EXPECT_GE(size, 0);
    name.resize(static_cast<size_t>(size));
    return name;
}

TEST(HgfsEscape, EscapesWhatWindowsCannotHold) {
    const std::pair<const char*, const char*> cases[] = {
        {"plain.txt", "plain.txt"},
        {"a:b", "a^%b"},
        {"/\\*?:\"<>|", "!%@%#%$%^%&%(%)%{%"},
        {"con", "con%"},
        {"AUX.txt", "AUX%.txt"},
        {"nul.txt", "nul%.txt"},
        {"NULL", "NULL"},
        {"com1", "com1%"},
        {"com1x", "com1x"},
        {"lpt3.log", "lpt3%.log"},
        {"COM0", "COM0"},
        {"COM10", "COM10"},
        {"name.", "name.%"},
        {"name ", "name %"},
        {"con.", "con%.%"},
        {"50%", "50%"},
        {"%", "%"},
        {"%a", "%a"},
        {"a!%", "a!]%"},
        {"x.%", "x.]%"},
        {"x %", "x ]%"},
        {"a]%", "a]]%"},
        {"a}%b", "a}]%b"},
        {"con%", "con]%"},
        {"con%.txt", "con]%.txt"},
        {"com1%", "com1]%"},
        {"lpt9%.x", "lpt9]%.x"},
        {"con%x", "con%x"},
        {"com0%", "com0%"},
        {"CoN.a:", "CoN%.a^%"},
        {"...", "...%"},
        {".", "."},
        {"..", ".."},
        {"/%", "!%%"},
    };
    for (auto [name, escaped] : cases) {
        EXPECT_EQ(Escaped(name), escaped);
        EXPECT_EQ(Reversed(escaped), name);
    }
}

TEST(HgfsEscape, KeepsComponentsApart) {
    EXPECT_EQ(Escaped("con\0a:\0\0nul."s), "con%\0a^%\0\0nul%.%"s);
    EXPECT_EQ(Reversed("con%\0a^%\0\0nul%.%"s), "con\0a:\0\0nul."s);
    EXPECT_EQ(Reversed(""), "");
    EXPECT_EQ(HgfsEscape_Reverse(nullptr, 5), -1);
    EXPECT_EQ(Reversed("a}%b"), "a\0b"s); // never written by the escape
}

TEST(HgfsEscape, MeasuresTrimmedNames) {
    EXPECT_EQ(HgfsEscape_GetSize("", 0), 0);
    EXPECT_EQ(HgfsEscape_GetSize("abc", 3), 0);
    EXPECT_EQ(HgfsEscape_GetSize("a:\0", 3), 3);
    EXPECT_EQ(HgfsEscape_GetSize("\0\0", 2), 0);
    DiagCapture_Take();
    EXPECT_EQ(HgfsEscape_GetSize("a\0\0", 3), -1);
    EXPECT_THAT(DiagCapture_Take().warning, ::testing::SizeIs(2));
}

TEST(HgfsEscape, FailsWithoutRoomAndWritesNothingBehindIt) {
    const std::string name = "con\0a%:b\0!%]%.\0x "s;
    const std::string whole = Escaped(name);
    for (size_t room = 0; room < whole.size(); ++room) {
        std::vector<char> out(room);
        EXPECT_EQ(HgfsEscape_Apply(name.data(), name.size(), room, out.data()), -1) << room;
    }
}

// Names made of the bytes that the rules are about, so that every rule meets every other.
TEST(HgfsEscape, ComesBackFromEveryName) {
    const std::string pieces[] = {
        "/", ":",   "|",   "!",    "@",    "{",   "}", "]", "%",        ".",
        " ", "con", "NUL", "cOm1", "lpt9", "com", "0", "a", "\xC3\xA4", std::string(1, '\0')};
    std::mt19937 random(20);
    for (int round = 0; round < 200000; ++round) {
        std::string name;
        for (unsigned count = random() % 8; count > 0; --count) {
            name += pieces[random() % std::size(pieces)];
        }
        if (name.starts_with('\0') || name.ends_with('\0')) {
            continue;
        }
        const std::string escaped = Escaped(name);
        ASSERT_EQ(Reversed(escaped), name) << escaped;
        // What was escaped can be held: no illegal character, no bare device, nothing bad at the end.
        for (size_t begin = 0; begin < escaped.size();) {
            size_t end = std::min(escaped.find('\0', begin), escaped.size());
            std::string component = escaped.substr(begin, end - begin);
            if (!component.empty() && component != "." && component != "..") {
                ASSERT_EQ(component.find_first_of("/\\*?:\"<>|"), std::string::npos) << component;
                ASSERT_NE(component.back(), '.') << component;
                ASSERT_NE(component.back(), ' ') << component;
            }
            begin = end + 1;
        }
    }
    DiagCapture_Take();
}

} // namespace
