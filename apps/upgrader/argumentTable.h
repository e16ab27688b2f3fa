// Splits the command line that Windows hands to a windowed program into an argument table.
#pragma once

#include <array>

// The program, up to 126 arguments, and the null entry at the end.
inline constexpr int ARGUMENT_TABLE_SIZE = 128;
inline constexpr int ARGUMENT_TABLE_MAX_ARGUMENTS = ARGUMENT_TABLE_SIZE - 2;

struct ArgumentTable {
    int count = 0; // arguments with the program, without the null entry
    std::array<char*, ARGUMENT_TABLE_SIZE> arguments{};
};

// Cuts `commandLine` in place; the table's entries point into it, so it must outlive the table. Arguments are
// separated by ASCII white space. One that begins with a double quote runs to the next quote that no
// backslash precedes (or to the end of the line), and loses its backslashes: \" stands for a quote, \\ for a
// backslash. Other arguments are taken as they stand. Entry 0 becomes programPath; the line does not contain
// the program. Returns false, with the table full, when there are more than ARGUMENT_TABLE_MAX_ARGUMENTS.
bool ArgumentTable_Split(char* commandLine, char* programPath, ArgumentTable* table);
