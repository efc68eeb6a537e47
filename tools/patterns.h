// Names as lines of a list file: "NAME,4" matches the name itself, ".NAME,1" what lies below it.
// One line alone would not do, since "ends with" knows nothing of labels. The program's main() and
// what tests it call this; one thread.
#pragma once

#include "names.h"

#include <cstdio>

// The longest name whose patterns the database takes in each of the lists of names: a statement has
// 299 bytes at most, those of the longest list's name and of the dot in front included.
inline constexpr size_t LONGEST_STORED_NAME = 229;

enum class LineKind : uint8_t {
    ADDED,   // a pattern and its mode
    REMOVED, // '~' and the pattern
};

// Writes what `names` cover and `others` do not; both are arranged. What a line cannot be written
// for shows in ferror().
void write_patterns(FILE *out, const Names &names, const Names &others, LineKind kind);

// Adds the patterns of a file that write_patterns() made to a set that is not arranged. False when
// the file cannot be read, with `bad_line` 0, or a line is none of its making (or there is no
// memory for it), with the line's number.
bool read_patterns(FILE *in, Names &names, uint32_t &bad_line);
