// Sets of host names, as large as a router's memory allows: the names that a list is to have, and
// those that it had.
//
// A set is one block of text and, once it is arranged, one array of positions in it: six bytes a
// name beyond its text. A name is kept in lower case and backwards with LABEL_END for a dot,
// "example.com" as "moc elpmaxe". The plain order of such texts has every name directly in front
// of all names below it, since LABEL_END comes before what labels are made of: what is above a name
// is found without a search, and two sets are compared side by side.
//
// The reader of lists fills a set, the writer of patterns goes through it. One thread.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string_view>

inline constexpr size_t LONGEST_NAME = 253; // in dots and labels (RFC 1035, 2.3.4)
inline constexpr char LABEL_END = '\1';

// Which queries a name in a list is for.
enum Cover : uint8_t {
    EXACT = 1, // those for the name itself
    BELOW = 2, // those for all names that end with a dot and this name
    BOTH = EXACT | BELOW,
};

struct Names {
    char *text = nullptr; // of each name its cover, the text and a NUL
    uint32_t used = 0;
    uint32_t capacity = 0;
    uint32_t last = 0;         // where the text of the newest name is
    uint32_t *order = nullptr; // where the texts are; null until arranged
    uint32_t count = 0;
    uint32_t merged = 0;  // names that came more than once
    uint32_t covered = 0; // names taken out as they were below others

    Names() = default;
    ~Names() {
        free(text);
        free(order);
    }
    Names(const Names &) = delete;
    Names &operator=(const Names &) = delete;
};

// Whether a text is the name of a host (RFC 1123, 2.1), in letters of either case and with
// underscores as letters. A last label of digits alone belongs to an address.
bool is_host_name(std::string_view name);

// Adds a host name to a set that is not arranged. False without memory.
bool add_name(Names &names, std::string_view name, uint8_t cover);

// Puts the names in order and makes one of those that are the same. False without memory.
bool arrange(Names &names);

// Takes out of an arranged set the names below others that cover what is below them.
void drop_covered(Names &names);

// Of an arranged set, with an index below `count`.
inline const char *name_key(const Names &names, uint32_t index) {
    return names.text + names.order[index];
}
inline uint8_t name_cover(const Names &names, uint32_t index) {
    return static_cast<uint8_t>(name_key(names, index)[-1]);
}
