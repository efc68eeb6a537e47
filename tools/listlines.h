// Published lists, line by line: hosts files, plain names, rules of ad blockers, settings of
// dnsmasq and response policy zones, in any mixture. README.md and docs/operations.md say which
// forms are understood. What is read ends up in two sets of names; what is left out is counted.
// The program's main() and what tests it call this; one thread.
#pragma once

#include "names.h"

#include <cstdio>

// Why something was left out. The numbers index REASONS.
enum LeftOut : uint8_t {
    RULE_OPTION,   // "||name^$third-party"
    PAGE_RULE,     // "name##selector"
    OTHER_ANSWER,  // a local record, a route: "address=/name/192.0.2.1", "server=/name/192.0.2.1"
    WHITE_ENTRY,   // "@@||name^", while white entries are not wanted
    NO_HOST_NAME,  // "||name*^"
    NAME_TOO_LONG, // a host name that the database does not take
    SINGLE_LABEL,  // what would match a whole domain
    UNKNOWN_FORM,
    LINE_TOO_LONG,
    LEFT_OUT_REASONS,
};

// What each is for the user.
extern const char *const REASONS[LEFT_OUT_REASONS];

struct Lists {
    Names black;
    Names white;
    bool wants_white = false;
    bool is_out_of_memory = false;
    uint32_t lines = 0; // but for comments and blank ones
    uint32_t known = 0; // of these, those of a known form, left out or not
    uint32_t left_out[LEFT_OUT_REASONS] = {};
};

// Takes in a whole file. False, with errno, when it could not be read to its end, or without
// memory.
bool read_list(FILE *in, Lists &lists);

// Takes in one line, without its line feed.
void read_list_line(std::string_view line, Lists &lists);
