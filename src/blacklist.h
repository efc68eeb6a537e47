// The black lists: names whose queries are diverted. The main list comes from its file alone, the
// local one is edited over the bus and asked first.
//
// Workers and the receive loop ask, the bus thread edits, the server loads at start and cleans up.
// Any thread.
#pragma once

#include "filterlist.h"

// Loads the main list if its variable is null, then the local one if its is.
void init_black_list();

// load_filter_list() of each list.
int _load_black_list();
int _load_local_black_list();

// Frees both lists.
void black_list_cleanup();

// Whether the query's name is black-listed: 1 or 0. A hit is logged and recorded for the client.
int is_blacklisted(const Query &query);

// Results are those of add_to() and remove_from().
int add_local_black_list(const char *item, int opt);
int del_local_black_list(const char *item);

// The numbers of patterns modulo 65536; 0 when the list is not loaded.
uint16_t get_black_list_size();
uint16_t get_local_black_list_size();

// The local list, kept alive for paging through it; empty when it is not loaded.
ListHold get_local_black_list();
