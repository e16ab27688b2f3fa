#include "hgfsFixture.h"

#include "hgfslib/cpName.h"
#include "hgfslib/hgfsEscape.h"

#include <optional>

using namespace std::string_literals;

namespace {

std::string Warnings() {
    std::string text;
    for (const std::string& warning : DiagCapture_Take().warning) {
        text += warning;
    }
    return text;
}

// The local form of a name, converted within exactly `room` bytes, so that sanitizers see a step outside.
std::optional<std::string> ToLocal(const std::string& name, size_t room = 200) {
    std::vector<char> in(name.begin(), name.end());
    std::vector<char> out(room, 'X');
    CPNameCursor cursor = {in.data(), in.size(), out.data(), room};
    if (!CPName_ConvertToLocal(&cursor)) {
        return std::nullopt;
    }
    EXPECT_EQ(*cursor.out, '\0');
    EXPECT_EQ(cursor.in, in.data() + in.size());
    EXPECT_EQ(cursor.inSize, 0u);
    EXPECT_EQ(cursor.out + cursor.room, out.data() + room);
    return std::string(out.data(), cursor.out);
}

const std::string kFirst = "CPName_GetComponent: error: first char can't be NUL\n";
const std::string kLast = "CPName_GetComponent: error: last char can't be NUL\n";
const std::string kNext = "CPNameConvertFrom: error: get next component failed\n";
const std::string kDots = "CPNameConvertFrom: error: found dot/dotdot\n";
const std::string kSize = "HgfsEscape_GetSize: failed to calculate escapde name size - name is invalid\n";
const std::string kRoom = "CPNameConvertFrom: error: not enough room\n";
const std::string kEscapeRoom = "CPNameEscapeAndConvertFrom: error: not enough room for escaping\n";

class CpName : public ::testing::Test {
protected:
    void SetUp() override { DiagCapture_Take(); }
};

TEST_F(CpName, JoinsAndEscapesComponents) {
    struct Case {
        std::string name;
        std::optional<std::string> local;
        std::string warnings = "";
    };
    const Case cases[] = {
        {"", ""},
        {"a\0\0b"s, "\\a\\b"},
        {"...\0.a\0a."s, "\\...%\\.a\\a.%"},
        {"a:\0\0\0b\0\0c?"s, "\\a^%\\b\\c$%"}, // a run is one separator also when something is escaped
        {"\0a"s, {}, kFirst + kNext},
        {"a\0"s, {}, kLast + kNext},
        {"\0"s, {}, kFirst + kNext},
        {"."s, {}, kDots},
        {"a\0..\0b"s, {}, kDots},
        {"\0a:"s, {}, kFirst + kNext},
        {"a:\0"s, {}, kLast + kNext},
        {"a:\0\0"s, {}, kLast + kSize},
        {"a:\0..\0b"s, {}, kDots},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ToLocal(c.name), c.local) << ::testing::PrintToString(c.name);
        EXPECT_EQ(Warnings(), c.warnings) << ::testing::PrintToString(c.name);
    }
}

// Each room from none to enough: success from the first that holds the text and its NUL.
TEST_F(CpName, KeepsToItsRoom) {
    for (const std::string& name : {"ab\0c"s, "a:b\0con\0x."s, "con\0\0nul"s}) {
        const std::string whole = ToLocal(name).value();
        for (size_t room = 0; room <= whole.size() + 2; ++room) {
            EXPECT_EQ(ToLocal(name, room).has_value(), room > whole.size()) << room << " for " << whole;
            EXPECT_EQ(Warnings().empty(), room > whole.size()) << room << " for " << whole;
        }
    }
    ToLocal("abc", 3);
    EXPECT_EQ(Warnings(), kRoom);
    ToLocal("a:c", 3);
    EXPECT_EQ(Warnings(), kEscapeRoom);
}

TEST_F(CpName, BuildsThePrefixBelowTheRootShare) {
    struct Case {
        std::string name;
        HgfsNameStatus status;
        std::string prefix;
        size_t left; // of the name
        std::string warnings = "";
    };
    const std::string get = "CPName_ConvertFromRoot: get first component failed\n";
    const std::string drive = "CPName_ConvertFromRoot: failed to get drive name\n";
    const std::string machine = "CPName_ConvertFromRoot: failed to get machine name\n";
    const std::string unknown = "CPName_ConvertFromRoot: First component does not exist\n";
    const Case cases[] = {
        {"drive\0C\0tmp\0f"s, HgfsNameComplete, "C:\\", 5},
        {"drive\0CD"s, HgfsNameComplete, "CD:\\", 0},
        {"unc\0srv\0share\0f"s, HgfsNameComplete, "\\\\srv", 7},
        {"unc\0srv"s, HgfsNameIncompleteMachine, "srv", 3},
        {"drive", HgfsNameIncompleteDrive, "", 5},
        {"unc", HgfsNameIncompleteUnc, "", 3},
        {"", HgfsNameIncompleteRoot, "", 0},
        {"Drive\0C"s, HgfsNameDoesNotExist, "", 7, unknown},
        {"drives\0C"s, HgfsNameDoesNotExist, "", 8, unknown},
        {"\0drive"s, HgfsNameFailure, "", 6, kFirst + get},
        {"drive\0"s, HgfsNameFailure, "", 6, kLast + get},
        {"drive\0C\0"s, HgfsNameFailure, "", 8, kLast + drive},
        {"unc\0srv\0"s, HgfsNameFailure, "", 8, kLast + machine},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.name));
        const size_t needed = c.prefix.empty() ? 0 : c.prefix.size() + 1;
        for (size_t room = 0; room <= needed; ++room) {
            std::vector<char> out(room);
            CPNameCursor cursor = {c.name.data(), c.name.size(), out.data(), room};
            const HgfsNameStatus status = CPName_ConvertFromRoot(&cursor);
            if (room < needed) {
                EXPECT_EQ(status, HgfsNameFailure);
                EXPECT_EQ(Warnings(), "CPName_ConvertFromRoot: not enough room\n");
                continue;
            }
            EXPECT_EQ(status, c.status);
            EXPECT_EQ(std::string(out.data(), cursor.out), c.prefix);
            EXPECT_EQ(cursor.inSize, c.left);
            EXPECT_EQ(cursor.in, c.name.data() + c.name.size() - c.left);
            EXPECT_EQ(cursor.room, room - c.prefix.size());
            EXPECT_EQ(Warnings(), c.warnings);
        }
    }
}

// ---- Escaping ----

std::string Escaped(const std::string& name) {
    const ptrdiff_t size = HgfsEscape_GetSize(name.data(), name.size());
    if (size == 0) {
        return name;
    }
    std::string out(static_cast<size_t>(size), 'X');
    EXPECT_EQ(HgfsEscape_Apply(name.data(), name.size(), out.size(), out.data()), size);
    return out;
}

std::string Reversed(std::string name) {
    name.resize(static_cast<size_t>(HgfsEscape_Reverse(name.data(), name.size())));
    return name;
}

TEST(HgfsEscape, EscapesWhatWindowsCannotHold) {
    const std::pair<std::string, std::string> cases[] = {
        {"plain.txt", "plain.txt"},
        {"a:b", "a^%b"},
        {"/\\*?:\"<>|", "!%@%#%$%^%&%(%)%{%"},
        {"con", "con%"},
        {"con.", "con%.%"},
        {"AUX.txt", "AUX%.txt"},
        {"CoN.a:", "CoN%.a^%"},
        {"NULL", "NULL"},
        {"nul.txt", "nul%.txt"},
        {"com1", "com1%"},
        {"com1x", "com1x"},
        {"lpt3.log", "lpt3%.log"},
        {"COM0", "COM0"},
        {"COM10", "COM10"},
        {"name.", "name.%"},
        {"name ", "name %"},
        {"...", "...%"},
        {".", "."},
        {"..", ".."},
        {"50%", "50%"},
        {"%", "%"},
        {"%a", "%a"},
        {"a!%", "a!]%"},
        {"x.%", "x.]%"},
        {"x %", "x ]%"},
        {"a]%", "a]]%"},
        {"a}%b", "a}]%b"},
        {"con%", "con]%"},
        {"con%x", "con%x"},
        {"con%.txt", "con]%.txt"},
        {"com1%", "com1]%"},
        {"com0%", "com0%"},
        {"lpt9%.x", "lpt9]%.x"},
        {"/%", "!%%"},
        {"a\0\0b:"s, "a\0\0b^%"s},
        {"con\0nul."s, "con%\0nul%.%"s},
    };
    for (const auto& [name, escaped] : cases) {
        EXPECT_EQ(Escaped(name), escaped);
        EXPECT_EQ(Reversed(escaped), name);
    }
    EXPECT_EQ(Reversed("a}%b"), "a\0b"s); // never written by the escape
    EXPECT_EQ(Reversed(""), "");
    EXPECT_EQ(HgfsEscape_Reverse(nullptr, 5), -1);
}

TEST(HgfsEscape, MeasuresTrimmedNames) {
    EXPECT_EQ(HgfsEscape_GetSize("abc", 3), 0);
    EXPECT_EQ(HgfsEscape_GetSize("a:\0", 3), 3);
    EXPECT_EQ(HgfsEscape_GetSize("\0\0", 2), 0);
    EXPECT_EQ(HgfsEscape_GetSize("a\0\0", 3), -1);
    DiagCapture_Take();
}

TEST(HgfsEscape, FailsWithoutRoomAndWritesNothingBehindIt) {
    const std::string name = "con\0a%:b\0!%]%.\0x "s;
    for (size_t room = 0; room < Escaped(name).size(); ++room) {
        std::vector<char> out(room);
        EXPECT_EQ(HgfsEscape_Apply(name.data(), name.size(), room, out.data()), -1) << room;
    }
}

} // namespace
