// Lines of a text file of any size, one at a time in the same buffer. What reads lists uses it; one
// thread.
#pragma once

#include <cstdio>
#include <string_view>

// Longer lines are cut: no list has them, and a program has to have room for them.
inline constexpr size_t LONGEST_LINE = 65536;

struct LineReader {
    FILE *file;
    bool is_cut; // the last line was longer than it was given out
    char text[LONGEST_LINE];
};

// Gives out the next line, without the line feed, until the next call. False at the end and after
// an error, which ferror() tells apart. The last line may lack its line feed.
bool next_line(LineReader &reader, std::string_view &line);
