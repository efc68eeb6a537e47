// The six filter lists as one table: file and database table, what a list is matched against and
// what its hits say. blacklist.h, whitelist.h and blockedlist.h give them the names that the rest
// of the daemon knows, and say which is asked when.
//
// A variable is null until its list is loaded, by the start-up or by the first lookup or edit after
// a clean-up. A list is put into its variable when it is complete, so that no lookup meets half a
// list. One whose table was locked by another process is empty and loaded again by a later lookup
// or edit. Lookups run on workers and on the receive loop, edits on the bus thread; any function
// here takes any thread.
#pragma once

#include "list.h"

#include <atomic>
#include <cstdint>

extern std::atomic<List *> black_list;          // black.lst
extern std::atomic<List *> local_black_list;    // local_black.lst
extern std::atomic<List *> blocked_device_list; // blocked_device.lst
extern std::atomic<List *> white_list;          // white.lst
extern std::atomic<List *> local_white_list;    // local_white.lst
extern std::atomic<List *> device_list;         // local_device.lst

// In the order of the table in filterlist.cpp.
enum class ListId : uint8_t {
    BLACK,
    LOCAL_BLACK,
    BLOCKED_DEVICE,
    WHITE,
    LOCAL_WHITE,
    LOCAL_DEVICE,
    NONE,
};

// One query as the filter lists see it.
struct Query {
    const char *name;   // as decoded
    const char *client; // dotted address
};

// Loads a list afresh, in place of a loaded one, and what belongs to it: with the local black list
// the blocked devices if they are not loaded, with the local white list the excluded devices anew.
// 1, or 0 when the table could not be read.
int load_filter_list(ListId id);

// Loads the list if it is not loaded.
void load_if_missing(ListId id);

// Frees the list and sets its variable to null.
void unload(ListId id);

// Whether the list decides the query. If it does, logs and records the hit.
bool try_list(ListId id, const Query &query);

// Adds an item to the list and to its table. Returns LIST_OK, LIST_EXISTS, LIST_EMPTY_ITEM or
// LIST_INSERT_FAILED; a failure of the database only shows in the log. May take seconds while
// another process holds the database (EntryEdit in statsdb.h); lookups go on meanwhile.
ListResult add_to(ListId id, const char *item, int opt);

// Removes an item, or the one whose row in the table has the decimal number `item`. Returns
// LIST_OK, LIST_IS_NULL or LIST_NOT_FOUND. Time as above.
ListResult remove_from(ListId id, const char *item);

// The number of patterns modulo 65536; 0 when the list is not loaded.
uint16_t loaded_size(ListId id);

// The list, kept alive for paging through it; empty when it is not loaded.
ListHold hold_list(ListId id);
