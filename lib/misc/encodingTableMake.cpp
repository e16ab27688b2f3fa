// Writes the rows of the encoding table, encodingTable.inc, to the standard output;
// scripts/make-encoding-table.sh builds and runs it. The input is the alias data of the ICU that it is linked
// with: every converter that ICU knows by name, whether or not its mapping is in the data, in ICU's order,
// with those of its names that ICU resolves to it. After them come the code pages of Windows that no
// converter stands for.
#include <unicode/ucnv.h>
#include <unicode/uenum.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

// Code pages for which ICU has a converter but not the name "windows-N".
const std::map<std::string, uint32_t> UNNAMED_PAGES = {
    {"ibm-37_P100-1995", 37},
    {"ibm-500_P100-1995", 500},
    {"ibm-860_P100-1995", 860},
    {"ibm-863_P100-1995", 863},
    {"ibm-864_X110-1999", 864},
    {"ibm-865_P100-1995", 865},
    {"ibm-870_P100-1995", 870},
    {"ibm-875_P100-1995", 875},
    {"ibm-1026_P100-1995", 1026},
    {"ibm-1047_P100-1995", 1047},
    {"ibm-1140_P100-1997", 1140},
    {"ibm-1141_P100-1997", 1141},
    {"ibm-1142_P100-1997", 1142},
    {"ibm-1143_P100-1997", 1143},
    {"ibm-1144_P100-1997", 1144},
    {"ibm-1145_P100-1997", 1145},
    {"ibm-1146_P100-1997", 1146},
    {"ibm-1147_P100-1997", 1147},
    {"ibm-1148_P100-1997", 1148},
    {"ibm-1149_P100-1997", 1149},
    {"windows-1361-2000", 1361},
    {"UTF-32LE", 12000},
    {"UTF-32BE", 12001},
    {"ibm-273_P100-1995", 20273},
    {"ibm-277_P100-1995", 20277},
    {"ibm-278_P100-1995", 20278},
    {"ibm-280_P100-1995", 20280},
    {"ibm-284_P100-1995", 20284},
    {"ibm-285_P100-1995", 20285},
    {"ibm-290_P100-1995", 20290},
    {"ibm-297_P100-1995", 20297},
    {"ibm-420_X120-1999", 20420},
    {"ibm-424_P100-1995", 20424},
    {"ibm-833_P100-1995", 20833},
    {"ibm-838_P100-1995", 20838},
    {"ibm-871_P100-1995", 20871},
    {"ibm-924_P100-1998", 20924},
    {"euc-jp-2007", 20932},
    {"ibm-1025_P100-1995", 21025},
    {"ibm-1027_P100-1995", 21027},
    {"ISO-8859-1", 28591},
    {"ISO_2022,locale=ja,version=0", 50220},
    {"ISO_2022,locale=ko,version=0", 50225},
    {"ISO_2022,locale=zh,version=0", 50227},
    {"ibm-1383_P110-1999", 51936},
    {"euc-tw-2014", 51950},
    {"HZ", 52936},
};

// Every code page that Windows documents.
const uint32_t WINDOWS_PAGES[] = {
    37,    437,   500,   708,   709,   710,   720,   737,   775,   850,   852,   855,   857,   858,
    860,   861,   862,   863,   864,   865,   866,   869,   870,   874,   875,   932,   936,   949,
    950,   1026,  1047,  1140,  1141,  1142,  1143,  1144,  1145,  1146,  1147,  1148,  1149,  1200,
    1201,  1250,  1251,  1252,  1253,  1254,  1255,  1256,  1257,  1258,  1361,  10000, 10001, 10002,
    10003, 10004, 10005, 10006, 10007, 10008, 10010, 10017, 10021, 10029, 10079, 10081, 10082, 12000,
    12001, 20000, 20001, 20002, 20003, 20004, 20005, 20105, 20106, 20107, 20108, 20127, 20261, 20269,
    20273, 20277, 20278, 20280, 20284, 20285, 20290, 20297, 20420, 20423, 20424, 20833, 20838, 20866,
    20871, 20880, 20905, 20924, 20932, 20936, 20949, 21025, 21027, 21866, 28591, 28592, 28593, 28594,
    28595, 28596, 28597, 28598, 28599, 28603, 28605, 29001, 38598, 50220, 50221, 50222, 50225, 50227,
    50229, 50930, 50931, 50933, 50935, 50936, 50937, 50939, 51932, 51936, 51949, 51950, 52936, 54936,
    57002, 57003, 57004, 57005, 57006, 57007, 57008, 57009, 57010, 57011, 65000, 65001,
};

struct Row {
    uint32_t codePage = 0;
    uint32_t unitSize = 1;
    std::vector<std::string> names;
};

[[noreturn]] void Fail(const char* what, UErrorCode status) {
    fprintf(stderr, "encodingTableMake: %s: %s\n", what, u_errorName(status));
    exit(1);
}

std::string Folded(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return tolower(c); });
    return name;
}

// The N of "windows-N", 0 for any other name.
uint32_t PageOf(const std::string& name) {
    const std::string folded = Folded(name);
    if (!folded.starts_with("windows-") || folded.find_first_not_of("0123456789", 8) != std::string::npos) {
        return 0;
    }
    return static_cast<uint32_t>(strtoul(folded.c_str() + 8, nullptr, 10));
}

std::string PageName(uint32_t page) {
    return "windows-" + std::to_string(page);
}

std::vector<std::string> ConverterNames() {
    UErrorCode status = U_ZERO_ERROR;
    UEnumeration* all = ucnv_openAllNames(&status);
    std::vector<std::string> names;
    while (const char* name = uenum_next(all, nullptr, &status)) {
        names.emplace_back(name);
    }
    uenum_close(all);
    if (U_FAILURE(status)) {
        Fail("list of converters", status);
    }
    return names;
}

// The name that ICU opens when it is asked for this one.
std::string Resolved(const char* name) {
    UErrorCode status = U_ZERO_ERROR;
    const char* canonical = ucnv_getAlias(name, 0, &status);
    if (U_FAILURE(status)) {
        Fail(name, status);
    }
    return canonical != nullptr ? canonical : "";
}

// The page that ICU's own Windows names give, the preferred one if there are more.
uint32_t CodePage(const std::string& converter) {
    if (auto found = UNNAMED_PAGES.find(converter); found != UNNAMED_PAGES.end()) {
        return found->second;
    }
    UErrorCode status = U_ZERO_ERROR;
    const char* name = ucnv_getStandardName(converter.c_str(), "WINDOWS", &status);
    return U_SUCCESS(status) && name != nullptr ? PageOf(name) : 0;
}

uint32_t UnitSize(const std::string& converter) {
    return converter.starts_with("UTF-16") || converter.starts_with("UTF16")   ? 2
           : converter.starts_with("UTF-32") || converter.starts_with("UTF32") ? 4
                                                                               : 1;
}

Row RowOf(const std::string& converter, std::set<std::string>* taken) {
    Row row;
    row.codePage = CodePage(converter);
    row.unitSize = UnitSize(converter);
    UErrorCode status = U_ZERO_ERROR;
    const uint16_t count = ucnv_countAliases(converter.c_str(), &status);
    for (uint16_t i = 0; i < count; i++) {
        const char* name = ucnv_getAlias(converter.c_str(), i, &status);
        if (U_FAILURE(status)) {
            Fail(converter.c_str(), status);
        }
        const uint32_t page = PageOf(name);
        if (Resolved(name) == converter && (page == 0 || page == row.codePage) &&
            taken->insert(Folded(name)).second) {
            row.names.emplace_back(name);
        }
    }
    if (row.codePage != 0 && taken->insert(PageName(row.codePage)).second) {
        row.names.push_back(PageName(row.codePage));
    }
    return row;
}

void Print(size_t index, const Row& row) {
    printf("// %zu\n{%u, %u,", index, row.codePage, row.unitSize);
    size_t column = 100;
    for (const std::string& name : row.names) {
        column += name.size() + 5;
        if (column > 100) {
            printf("\n    ");
            column = name.size() + 9;
        } else {
            printf(" ");
        }
        printf("\"%s\\0\"", name.c_str());
    }
    printf("},\n");
}

} // namespace

int main() {
    std::set<std::string> taken;
    std::set<uint32_t> pages;
    std::vector<Row> rows;
    for (const std::string& converter : ConverterNames()) {
        rows.push_back(RowOf(converter, &taken));
        pages.insert(rows.back().codePage);
    }
    for (uint32_t page : WINDOWS_PAGES) {
        if (pages.insert(page).second) {
            rows.push_back({page, 1, {PageName(page)}});
        }
    }
    printf("// Generated by scripts/make-encoding-table.sh from the alias data of ICU %s. Do not edit.\n",
           U_ICU_VERSION);
    for (size_t i = 0; i < rows.size(); i++) {
        Print(i, rows[i]);
    }
    return 0;
}
