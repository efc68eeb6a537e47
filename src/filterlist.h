// What the six filter lists have in common: how they are loaded, asked and edited. blacklist.cpp,
// whitelist.cpp and blockedlist.cpp say which list is asked when and matched against what.
//
// A variable is null until its list is loaded, by the start-up or by the first lookup or edit after
// a clean-up. A list is put into its variable when it is complete, so that no lookup meets half a
// list. Lookups run on workers and on the receive loop, edits on the bus thread; any function here
// takes any thread.
#pragma once

#include "list.h"

#include <netinet/in.h>

struct RecursiveMutex;

// Held while a list is loaded, by loaders that chain into each other too, while one is unloaded and
// during an edit, which must not go to a list that is about to be replaced. Lookups in loaded lists
// do not take it.
extern RecursiveMutex list_loading;

// One of the six: the variable and what loads it. `load` returns as _load_list() does.
struct FilterList {
    List *&variable;
    int (*load)();
};

// Puts a new list into `variable`, loaded from the file `path` and from its table. Result as of
// _load_list().
int load_filter_list(List *&variable, const char *path);

// The list, which is loaded first if it is not. Empty only without memory.
ListHold loaded(const FilterList &filter);

// Loads the list if it is not loaded.
void load_if_missing(const FilterList &filter);

// Frees the list and sets the variable to null.
void unload(const FilterList &filter);

// One query as the filter lists see it.
struct Query {
    const char *name;   // as decoded
    const char *client; // dotted address
};

enum class Subject { NAME, CLIENT };

// Whether the list matches the query's name or client. If it does, logs `message`, which takes the
// matched text and then the other one, and records the hit.
bool is_hit(const FilterList &filter, const Query &query, Subject subject, const char *message);

// Adds an item to the list and to its table. `traced`: whether the debug line is written. Returns
// LIST_OK, LIST_EXISTS, LIST_EMPTY_ITEM or LIST_INSERT_FAILED; a failure of the database only shows
// in the log.
ListResult add_to(const FilterList &filter, const char *item, int opt, bool traced = true);

// Removes an item, or the one whose row in the table has the decimal number `item`. Returns
// LIST_OK, LIST_IS_NULL or LIST_NOT_FOUND.
ListResult remove_from(const FilterList &filter, const char *item);

// The number of patterns modulo 65536; 0 when the list is not loaded.
uint16_t loaded_size(const FilterList &filter);
