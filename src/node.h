// One pattern of a list. The store (list.h) owns nodes, its index (listindex.h) points to them.
#pragma once

#include <cstdint>

// How a key matches a pattern. The numbers stand in list files, in the database and in bus calls.
// A pattern with any other number never matches, also not its own text, so that such a text can be
// in a list several times.
enum MatchMode : int8_t {
    MATCH_CONTAINS = 0,    // the pattern occurs anywhere in the key
    MATCH_ENDS_WITH = 1,   // no regard for labels: "ample.com" matches "example.com"
    MATCH_BEGINS_WITH = 2, //
    MATCH_EXACT = 4,       //
};

// One heap block with the text behind the record.
struct Node {
    char *frag;
    int8_t opt;       // MatchMode or any other number
    int64_t exp_time; // seconds since the epoch, -1: never; set before the node is linked in
    Node *next;
};
